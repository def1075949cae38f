// When a round sends what was queued in it: between two packets of a small round, once handling has taken as long as
// sending does.
#include "net/round_sending.h"

#include "base/clock.h"
#include "net_fixture.h"
#include "support/faults.h"

#include <sched.h>

using namespace tarn;
using namespace tarn::net;
using namespace tarn::test;

namespace {

constexpr int      kNoProcessor  = 9999; // has this number
constexpr int      kSending_ms   = 300;  // longer than a test is interrupted
constexpr uint64_t kLongAfter_us = 10'000'000;

std::atomic<int>  g_sends, g_sending_ms;
std::atomic<bool> g_is_for_few;

bool send_now()
{
    ++g_sends;
    pause_ms(static_cast<uint32_t>(g_sending_ms));
    return g_is_for_few;
}

Connection open_with(int fd)
{
    ScopedLock lock(g_netip_lock);
    return open_slot(NETIP_TCP, fd, {});
}

// A connection whose packets come in on some other processor than this thread's.
class round_sending : public ::testing::Test {
protected:
    round_sending()
    {
        g_sends      = 0;
        g_sending_ms = 0;
        g_is_for_few = true;
        comes_in_on(kNoProcessor);
        set_round_hooks({nullptr, [] { pause_ms(static_cast<uint32_t>(g_sending_ms)); }, send_now});
    }
    ~round_sending() override { set_round_hooks({}); }

    void comes_in_on(int processor)
    {
        ASSERT_EQ(setsockopt(fd_.get(), SOL_SOCKET, SO_INCOMING_CPU, &processor, sizeof processor), 0);
    }
    void stays_on_its_processor()
    {
        cpu_set_t own;
        CPU_ZERO(&own);
        CPU_SET(static_cast<unsigned>(sched_getcpu()), &own);
        ASSERT_EQ(sched_setaffinity(0, sizeof own, &own), 0);
        comes_in_on(sched_getcpu());
    }
    // The sendings, when so many packets came by this time after now.
    int sends_after(int packets, uint64_t later_us = 0)
    {
        const int before = g_sends;
        for (int i = 0; i < packets; ++i)
            send_meanwhile(pin_, mono_us() + later_us);
        return g_sends - before;
    }

    Fd      fd_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    SlotPin pin_{open_with(fd_.get()), SlotPin::Counted};
};

} // namespace

TEST_F(round_sending, is_not_for_a_few_packets)
{
    begin_round(1);
    EXPECT_EQ(sends_after(15), 0);
    EXPECT_EQ(sends_after(1), 1);
    EXPECT_EQ(sends_after(15, kLongAfter_us), 0);
    EXPECT_EQ(sends_after(1, kLongAfter_us), 1);
    begin_round(1); // counts anew
    EXPECT_EQ(sends_after(15), 0);
}

TEST_F(round_sending, is_at_the_end_where_many_connections_have_a_turn)
{
    begin_round(3);
    EXPECT_EQ(sends_after(100, 1000), 0);
    begin_round(2);
    EXPECT_EQ(sends_after(16, 1000), 1);
}

TEST_F(round_sending, waits_until_handling_has_taken_as_long_as_the_last)
{
    g_sending_ms = kSending_ms;
    begin_round(1);
    EXPECT_EQ(sends_after(16), 1); // none took long yet
    EXPECT_EQ(sends_after(100, 1000), 0);
    EXPECT_EQ(sends_after(1, kLongAfter_us), 1);
}

TEST_F(round_sending, counts_that_of_the_round_s_end_as_the_last)
{
    begin_round(1);
    g_sending_ms = kSending_ms;
    end_round();
    begin_round(1);
    EXPECT_EQ(sends_after(100, 1000), 0);
    EXPECT_EQ(sends_after(1, kLongAfter_us), 1);
}

TEST_F(round_sending, waits_for_the_end_where_the_peer_shares_the_processor)
{
    stays_on_its_processor();
    begin_round(1);
    EXPECT_EQ(sends_after(100), 0);
    comes_in_on(kNoProcessor);
    EXPECT_EQ(sends_after(100), 0) << "it is looked at once a round";
    begin_round(1);
    EXPECT_EQ(sends_after(16), 1);
}

TEST_F(round_sending, asks_again_later_where_it_is_for_many)
{
    g_is_for_few = false;
    begin_round(1);
    EXPECT_EQ(sends_after(15 + 16 + 16), 2);
}

TEST(round_length, is_long_from_2_ms_on)
{
    ManualClock clock;
    begin_round(1);
    EXPECT_FALSE(round_is_long());
    clock.advance_ms(1);
    EXPECT_FALSE(round_is_long());
    clock.advance_ms(1);
    EXPECT_TRUE(round_is_long());
    begin_round(1);
    EXPECT_FALSE(round_is_long());
    end_round();
}

TEST_F(round_sending, needs_a_connection)
{
    {
        SlotLock slot(pin_.handle(), SlotLock::Always);
        mark_closed(pin_.handle());
    }
    begin_round(1);
    EXPECT_EQ(sends_after(100), 0);
}

TEST_F(round_sending, needs_a_hook)
{
    set_round_hooks({});
    begin_round(1);
    EXPECT_EQ(sends_after(100), 0);
    end_round();
}

// ---- in a round of the layer

namespace {

void keep_on(pthread_t thread, unsigned processor)
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    ASSERT_EQ(pthread_setaffinity_np(thread, sizeof one, &one), 0);
}

// The I/O thread on one processor and the calling thread, which sends, on another. False: there is only one.
bool take_a_processor_each()
{
    cpu_set_t all;
    CPU_ZERO(&all);
    if (sched_getaffinity(0, sizeof all, &all) != 0 || CPU_COUNT(&all) < 2)
        return false;
    std::vector<unsigned> processors;
    for (unsigned i = 0; i < CPU_SETSIZE && processors.size() < 2; ++i)
        if (CPU_ISSET(i, &all))
            processors.push_back(i);
    keep_on(g_io_threads[0], processors[0]);
    keep_on(pthread_self(), processors[1]);
    return true;
}

Bytes pings(int count)
{
    Bytes bytes;
    for (int i = 0; i < count; ++i)
        bytes.insert(bytes.end(), {0xC0, 0});
    return bytes;
}

std::atomic<int> g_data, g_data_at_send;

} // namespace

TEST(round, sends_between_two_packets)
{
    g_data = g_data_at_send = 0;
    Layer layer([](const Recorder::Event &event) { return (g_data += event.event == NETIP_EVENT_DATA) >= 0; });
    if (!take_a_processor_each())
        GTEST_SKIP() << "with one processor nobody would begin meanwhile";
    Peer peer;
    set_round_hooks({nullptr, nullptr, [] {
                         g_data_at_send = g_data % 40;
                         return true;
                     }});
    EXPECT_TRUE(eventually([&] { // if the round before was held up, sending seems to take long
        const int before = g_data;
        peer.send(pings(40));
        return eventually([&] { return g_data == before + 40; }) && g_data_at_send > 0;
    }));
    set_round_hooks({});
    EXPECT_GE(g_data_at_send, 16);
}

TEST(round, hands_up_nothing_more_of_a_connection_that_sending_closed)
{
    static std::atomic<uint32_t> handle;
    g_data = g_data_at_send = 0;
    Layer layer([](const Recorder::Event &event) {
        handle = event.handle;
        g_data += event.event == NETIP_EVENT_DATA;
        return true;
    });
    if (!take_a_processor_each())
        GTEST_SKIP() << "with one processor nobody would begin meanwhile";
    set_round_hooks({nullptr, nullptr, [] {
                         g_data_at_send = int{g_data};
                         netip_close(handle);
                         return true;
                     }});
    EXPECT_TRUE(eventually([] { // as above
        g_data = 0;
        Peer peer;
        peer.send(pings(40));
        return eventually([] { return g_data == 40 || g_data_at_send > 0; }) && g_data_at_send > 0;
    }));
    std::this_thread::sleep_for(kSilence);
    set_round_hooks({});
    EXPECT_EQ(g_data, g_data_at_send);
    EXPECT_LT(g_data, 40);
}
