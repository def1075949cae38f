// No thread is woken to send, and nothing is sent, before the delivery is tracked: its acknowledgement may be back on
// the I/O thread before the thread that made it has done another thing. An acknowledgement takes g_queue_mutex first,
// so while that is held no delivery that is to be tracked may leave.
#include "handler_fixture.h"

#include <atomic>
#include <poll.h>
#include <thread>

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// A client that the send thread writes to.
struct Receiver {
    Client client;

    explicit Receiver(Handling &broker) : client(broker)
    {
        client.sends(connect_v4("r"));
        mqtt_start_send_thread();
        EXPECT_EQ(next(), wire("20 02 00 00"));
    }
    ~Receiver() { mqtt_stop_send_thread(); }

    bool has_something(int ms)
    {
        pollfd ready{client.end(), POLLIN, 0};
        return poll(&ready, 1, ms) == 1;
    }
    // The next packet, which is a short one.
    Bytes next()
    {
        uint8_t head[2] = {};
        if (!has_something(10000) || recv(client.end(), head, 2, 0) != 2)
            return {};
        Bytes all(head, head + 2);
        all.resize(2 + head[1]);
        EXPECT_EQ(recv(client.end(), all.data() + 2, head[1], 0), head[1]);
        return all;
    }
};

struct FirstSend : testing::Test {
    ManualClock clock;
    Handling    broker;
    Receiver    receiver{broker};

    FirstSend()
    {
        sub_add("r", "#", 2, 1);
        clock.advance_ms(10000); // the test message is due
    }

    // What is made on another thread while no delivery can be tracked.
    Bytes made_by(const std::function<void()> &act)
    {
        std::thread thread;
        {
            ScopedLock lock(g_queue_mutex);
            thread = std::thread(act);
            EXPECT_FALSE(receiver.has_something(100)) << "sent, and not booked";
        }
        const Bytes packet = receiver.next();
        thread.join();
        return packet;
    }
    unsigned tracked() const { return g_pending_queue ? g_pending_queue->msg_id : 0u; }
};

void broadcast(const Bytes &packet, bool is_will)
{
    packet_handler_broadcast_msg(packet.data(), static_cast<uint32_t>(packet.size()), is_will);
}

} // namespace

TEST_F(FirstSend, of_a_will)
{
    const Bytes packet = made_by([] { broadcast(wire("32 06 | 00 01 'w' | 00 07 | 'x'"), true); });
    EXPECT_EQ(packet, wire("32 06 | 00 01 'w'") + u16(receiver.client->qos1_pending_msg_id) + text("x"));
    EXPECT_EQ(pending_count(), 0);
}

TEST_F(FirstSend, of_a_broadcast)
{
    for (const char *first : {"32", "34"}) {
        const Bytes packet = made_by([&] { broadcast(wire(first) + wire("06 | 00 01 't' | 00 07 | 'x'"), false); });
        EXPECT_EQ(packet, wire(first) + wire("06 | 00 01 't'") + u16(tracked()) + text("x"));
    }
    EXPECT_EQ(pending_count(), 2);
}

TEST_F(FirstSend, of_a_test_message)
{
    const Bytes packet = made_by([] { packet_handler_publish_test_msg(); });
    EXPECT_EQ(packet[0], 0x32);
    ASSERT_EQ(pending_count(), 1);
    EXPECT_EQ(tracked(), receiver.client->qos1_pending_msg_id);
}

TEST_F(FirstSend, of_a_message_of_the_host)
{
    const Bytes packet =
        made_by([] { packet_handler_broker_publish("t", reinterpret_cast<const uint8_t *>("x"), 1, 1, 0, 0); });
    EXPECT_EQ(packet, wire("32 06 | 00 01 't'") + u16(tracked()) + text("x"));
}

TEST_F(FirstSend, of_what_a_client_publishes)
{
    Client      sender(broker, 4, "sender");
    const Bytes packet = made_by([&] { sender.sends("32 06 | 00 01 't' | 00 07 | 'x'"); });
    EXPECT_EQ(packet, wire("32 06 | 00 01 't'") + u16(tracked()) + text("x"));
    EXPECT_EQ(tracked(), receiver.client->qos1_pending_msg_id);
}

TEST_F(FirstSend, is_not_waited_for_at_qos_0)
{
    ScopedLock  lock(g_queue_mutex);
    std::thread thread([] { broadcast(wire("30 04 | 00 01 't' | 'x'"), false); });
    EXPECT_EQ(receiver.next(), wire("30 04 | 00 01 't' | 'x'"));
    thread.join();
}

// One thread broadcasts, another one acknowledges as the I/O thread does.
TEST_F(FirstSend, an_acknowledgement_finds_its_delivery)
{
    constexpr int    kMessages = 1000;
    constexpr int    kInFlight = 40; // twice as many fit into the ring: what was acknowledged may still stand in it
    std::atomic<int> sent{0}, acknowledged{0};
    std::thread      host([&] {
        while (sent < kMessages) {
            if (sent - acknowledged >= kInFlight) {
                std::this_thread::yield();
                continue;
            }
            ++sent;
            broadcast(wire("32 06 | 00 01 't' | 00 07 | 'x'"), false);
        }
    });
    for (; acknowledged < kMessages; ++acknowledged) {
        const Bytes packet = receiver.next();
        ASSERT_EQ(packet.size(), 8u);
        receiver.client.sends(Bytes{0x40, 2, packet[5], packet[6]});
    }
    host.join();
    EXPECT_EQ(pending_count(), 0);
}
