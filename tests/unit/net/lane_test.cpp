// Packets that are served by a lane or later: their order, whom they hold up, and connections that end meanwhile. The
// first byte of a packet says which way it goes, and its last byte to which group.
#include "base/clock.h"
#include "net_fixture.h"
#include "support/faults.h"

#include <map>
#include <random>
#include <set>

using namespace tarn;
using namespace tarn::net;
using namespace tarn::test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr uint8_t kAsideByte = 0x10, kLaterByte = 0x20, kNowByte = 0x30;

Bytes aside(uint8_t number, uint8_t group = 0)
{
    return {kAsideByte, 2, number, group};
}
Bytes later(uint8_t number)
{
    return {kLaterByte, 2, number, 0};
}
Bytes now(uint8_t number)
{
    return {kNowByte, 2, number, 0};
}

// Held connections may go on when their number is drawn here: 0 = no, else so many packets each.
std::mutex              g_mutex;
std::map<uint32_t, int> g_allowed;
std::atomic<int>        g_asked{0};
std::atomic<Way>        g_way_of_end{Way::Now};

void allow(uint32_t handle, int packets = 1)
{
    std::lock_guard lock(g_mutex);
    g_allowed[handle] += packets;
}

bool takes_permission(uint32_t handle)
{
    std::lock_guard lock(g_mutex);
    return g_allowed[handle] > 0 && g_allowed[handle]-- > 0;
}

Choice choose(Connection connection, std::span<const uint8_t> packet) noexcept
{
    ++g_asked;
    if (packet.empty())
        return {g_way_of_end, 0};
    if (packet[0] == kAsideByte)
        return {Way::Aside, packet[3]};
    if (packet[0] == kLaterByte)
        return {takes_permission(connection.handle) ? Way::Now : Way::Later, 0};
    return {};
}

struct Hook {
    explicit Hook(Choice (*hook)(Connection, std::span<const uint8_t>) noexcept = choose)
    {
        set_way_hook({1 << 1 | 1 << 2, hook});
    }
    ~Hook() { set_way_hook({}); }
};

Connection connection_at(uint32_t handle)
{
    return {handle, generation_of(handle)};
}

bool is_with(uint32_t handle, Server server)
{
    return eventually([&] { return side_of(handle).server == server; });
}

// A door that callbacks wait behind.
class Door {
public:
    void open()
    {
        std::lock_guard lock(mutex_);
        open_ = true;
        opened_.notify_all();
    }
    void pass()
    {
        std::unique_lock lock(mutex_);
        ++waiting_;
        opened_.wait_for(lock, kPatience, [&] { return open_; });
        --waiting_;
    }
    int waiting()
    {
        std::lock_guard lock(mutex_);
        return waiting_;
    }

private:
    std::mutex              mutex_;
    std::condition_variable opened_;
    bool                    open_    = false;
    int                     waiting_ = 0;
};

// A layer whose callback waits behind the door with each packet that goes aside.
struct Doored {
    Hook  hook;
    Door  door;
    Layer layer{[this](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA && event.bytes[0] == kAsideByte)
            door.pass();
        return true;
    }};
    ~Doored() { door.open(); }
};

void expect_no_pins()
{
    for (uint32_t handle = 0; handle < 100; ++handle)
        EXPECT_EQ(side_of(handle).pins, 0) << handle;
}

} // namespace

// ---- turns

TEST(turn, ends_after_a_packet)
{
    constexpr int    kPackets = 20;
    std::atomic<int> slow{0}, slow_before_other{-1};
    Layer            layer([&](const Recorder::Event &event) {
        if (event.event != NETIP_EVENT_DATA)
            return true;
        if (event.length == 2)
            slow_before_other = slow.load();
        else
            std::this_thread::sleep_for(++slow == 1 ? 300ms : 5ms); // all bytes of both peers arrive meanwhile
        return true;
    });
    Peer             burst, other;
    layer.events.wait_for(2);
    Bytes all;
    for (int i = 0; i < kPackets; ++i)
        all = all + packet(0x30, repeat('x', 50)); // one read takes all of them
    burst.send(all);
    EXPECT_TRUE(eventually([&] { return slow >= 1; }));
    other.send("C0 00");
    EXPECT_TRUE(eventually([&] { return slow == kPackets; }));
    EXPECT_GE(slow_before_other, 1);
    EXPECT_LT(slow_before_other, 5) << "one or two a round";
}

TEST(turn, goes_on_while_the_round_takes_less_than_the_sending_before_it_took)
{
    constexpr int           kPackets = 20;
    static std::atomic<int> packets{0}, rounds{0}; // rounds: in which packets were handled
    packets = rounds = 0;
    Layer      layer([](const Recorder::Event &event) {
        if (event.event != NETIP_EVENT_DATA)
            return true;
        std::this_thread::sleep_for(2100us);
        ++packets;
        return true;
    });
    static int before = 0;
    net::set_round_hooks({[] { before = packets; },
                          [] {
                              if (packets > before) {
                                  ++rounds;
                                  std::this_thread::sleep_for(100ms); // 10 ms of them count
                              }
                          }});
    Peer peer;
    layer.events.wait_for(1);
    Bytes all;
    for (int i = 0; i < kPackets; ++i)
        all = all + wire("C0 00");
    peer.send(all);
    EXPECT_TRUE(eventually([&] { return packets == kPackets; }));
    net::set_round_hooks({});
    EXPECT_LT(rounds, kPackets - 3);
    EXPECT_GT(rounds, 1);
}

TEST(turn, of_packets_left_comes_without_an_event)
{
    Layer layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA)
            std::this_thread::sleep_for(3ms);
        return true;
    });
    Peer  peer;
    layer.events.wait_for(1);
    peer.send("C0 00 C1 00 C2 00 C3 00 C4 00");
    EXPECT_THAT(layer.events.wait_for(6),
                ElementsAre(connected(0), data(0, wire("C0 00")), data(0, wire("C1 00")), data(0, wire("C2 00")),
                            data(0, wire("C3 00")), data(0, wire("C4 00"))));
    EXPECT_TRUE(is_with(0, Server::Rounds));
    EXPECT_TRUE(eventually([] { return !side_of(0).pins; }));
}

// ---- aside

TEST(lane, serves_a_packet_while_others_are_served)
{
    Doored test;
    Peer   slow, other;
    test.layer.events.wait_for(2);
    slow.send(aside(1) + now(2));
    EXPECT_TRUE(eventually([&] { return test.door.waiting() == 1; }));
    other.send(now(7));
    EXPECT_THAT(test.layer.events.wait_for(4),
                ElementsAre(connected(0), connected(1), data(0, aside(1)), data(1, now(7))));
    test.door.open();
    EXPECT_EQ(test.layer.events.wait_for(5).back(), data(0, now(2)));
}

TEST(lane, serves_several_connections_side_by_side)
{
    Doored test;
    Peer   peers[3];
    test.layer.events.wait_for(3);
    for (Peer &peer : peers)
        peer.send(aside(1));
    EXPECT_TRUE(eventually([&] { return test.door.waiting() == 3; }));
}

TEST(lane, tells_the_end_behind_what_was_sent_before_it)
{
    for (const Way way : {Way::Now, Way::Aside}) {
        g_way_of_end = way;
        Doored test;
        Peer   peer;
        test.layer.events.wait_for(1);
        peer.send(aside(1) + aside(2) + now(3));
        EXPECT_TRUE(eventually([&] { return test.door.waiting() == 1; }));
        peer.close();
        test.door.open();
        EXPECT_THAT(test.layer.events.wait_for(5), ElementsAre(connected(0), data(0, aside(1)), data(0, aside(2)),
                                                               data(0, now(3)), disconnected(0, 0)));
        EXPECT_TRUE(eventually([] { return !g_netip_clients[0].in_use; }));
    }
    g_way_of_end = Way::Now;
}

TEST(lane, an_end_that_the_callback_objects_to_is_told_again)
{
    g_way_of_end = Way::Aside;
    std::atomic<int> ends{0};
    {
        const Hook hook;
        Layer      layer(
            [&](const Recorder::Event &event) { return event.event != NETIP_EVENT_DISCONNECTED || ++ends > 2; });
        Peer peer;
        layer.events.wait_for(1);
        peer.close();
        EXPECT_EQ(layer.events.wait_for(4).size(), 4u);
        EXPECT_TRUE(eventually([] { return !g_netip_clients[0].in_use; }));
        EXPECT_EQ(ends, 3);
    }
    g_way_of_end = Way::Now;
}

TEST(lane, calls_the_hooks_of_a_round_around_its_packet)
{
    static std::atomic<std::thread::id> begun{}, ended{}, served{};
    const Hook                          hook;
    Layer                               layer([](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA)
            served = std::this_thread::get_id();
        return true;
    });
    Peer                                peer;
    layer.events.wait_for(1);
    set_round_hooks({[] {
                         if (served.load() == std::thread::id())
                             begun = std::this_thread::get_id();
                     },
                     [] {
                         if (served.load() == std::this_thread::get_id())
                             ended = served.load();
                     }});
    peer.send(aside(1));
    EXPECT_TRUE(eventually([] { return ended.load() != std::thread::id(); }));
    EXPECT_EQ(begun.load(), served.load());
    set_round_hooks({});
}

TEST(lane, without_a_thread_the_packet_is_served_all_the_same)
{
    const Hook hook;
    Layer      layer;
    Peer       peer;
    layer.events.wait_for(1);
    const Fail no_thread(Call::ThreadCreate, 1, EAGAIN, 1);
    peer.send(aside(1));
    EXPECT_EQ(layer.events.wait_for(2).back(), data(0, aside(1)));
    EXPECT_EQ(no_thread.failed(), 1);
    peer.send(aside(2));
    EXPECT_EQ(layer.events.wait_for(3).back(), data(0, aside(2)));
    EXPECT_TRUE(eventually([] { return threads_named("tarn-lane") == 1; }));
}

TEST(lane, threads_come_with_work_and_end_with_the_layer)
{
    {
        Doored test;
        Peer   peers[12];
        test.layer.events.wait_for(12);
        EXPECT_EQ(threads_named("tarn-lane"), 0u);
        for (Peer &peer : peers)
            peer.send(aside(1));
        EXPECT_TRUE(eventually([&] { return threads_named("tarn-lane") == 4; }));
        test.door.open();
        test.layer.events.wait_for(24);
        EXPECT_EQ(threads_named("tarn-lane"), 4u);
    }
    EXPECT_TRUE(eventually([] { return threads_named("tarn-lane") == 0; }));
}

TEST(lane, a_connection_leaves_epoll_only_when_it_sends_while_it_is_aside)
{
    Doored     test;
    const auto is_in_epoll = [](uint32_t handle) {
        epoll_event event{};
        return epoll_ctl(netip_epoll_fd, EPOLL_CTL_ADD, g_netip_clients[handle].fd, &event) != 0 && errno == EEXIST;
    };
    Peer silent, talker;
    test.layer.events.wait_for(2);
    silent.send(aside(1));
    talker.send(aside(2));
    EXPECT_TRUE(eventually([&] { return test.door.waiting() == 2; }));
    talker.send(now(3));
    EXPECT_TRUE(eventually([] { return side_of(1).unwatched == 1; }));
    EXPECT_TRUE(is_in_epoll(0));
    EXPECT_EQ(side_of(0).unwatched, 0);
    test.door.open();
    EXPECT_EQ(test.layer.events.wait_for(5).back(), data(1, now(3)));
    EXPECT_TRUE(eventually([] { return side_of(1).unwatched == 0; }));
    silent.send(now(4));
    talker.send(now(5));
    test.layer.events.wait_for(7);
    EXPECT_EQ(test.layer.events.count(data(0, now(4))) + test.layer.events.count(data(1, now(5))), 2u);
}

// Turns that are over at once are taken by one thread, others wake another in a moment, whatever the clock shows.
TEST(lane, a_long_turn_keeps_the_next_waiting_for_a_moment_only)
{
    const ManualClock clock;
    Doored            test;
    Peer              peers[4];
    test.layer.events.wait_for(4);
    for (uint8_t i = 0; i < 3; ++i) {
        peers[i].send(aside(i));
        EXPECT_TRUE(eventually([&] { return test.door.waiting() == i + 1; }));
    }
    peers[3].send(now(9));
    EXPECT_THAT(test.layer.events.wait_for(8), Contains(data(3, now(9))));
}

// ---- groups and lines

TEST(lane, serves_a_group_one_after_another_in_the_order_it_came)
{
    std::atomic<int>                   inside{0}, at_once{0};
    const Hook                         hook;
    Door                               door;
    Layer                              layer([&](const Recorder::Event &event) {
        if (event.event != NETIP_EVENT_DATA || event.bytes[0] != kAsideByte)
            return true;
        if (++inside > 1)
            ++at_once;
        if (event.handle == 0)
            door.pass();
        --inside;
        return true;
    });
    std::vector<std::unique_ptr<Peer>> peers;
    for (uint8_t i = 0; i < 10; ++i) {
        peers.push_back(std::make_unique<Peer>());
        peers.back()->send(aside(i, 5));
        EXPECT_TRUE(is_with(i, Server::Lane));
    }
    door.open();
    std::vector<std::string> served;
    for (const std::string &event : layer.events.wait_for(20))
        if (event.find("data") != std::string::npos)
            served.push_back(event);
    std::vector<std::string> expected;
    for (uint8_t i = 0; i < 10; ++i)
        expected.push_back(data(i, aside(i, 5)));
    EXPECT_EQ(served, expected);
    EXPECT_EQ(at_once, 0);
}

TEST(lane, a_new_connection_waits_for_no_long_line_of_others)
{
    constexpr int                      kBusy = 20, kEach = 20;
    std::atomic<int>                   served{0}, served_before_new{-1};
    const Hook                         hook;
    Layer                              layer([&](const Recorder::Event &event) {
        if (event.event != NETIP_EVENT_DATA)
            return true;
        if (event.bytes[2] == 99)
            served_before_new = served.load();
        else {
            ++served;
            std::this_thread::sleep_for(2ms);
        }
        return true;
    });
    std::vector<std::unique_ptr<Peer>> busy;
    for (int i = 0; i < kBusy; ++i) {
        busy.push_back(std::make_unique<Peer>());
        for (int n = 0; n < kEach; ++n)
            busy.back()->send(aside(1));
    }
    EXPECT_TRUE(eventually([&] { return served >= 2 * kBusy; })) << "from now on all are in the other line";
    Peer      newcomer;
    const int served_at_first = served;
    newcomer.send(aside(99));
    EXPECT_TRUE(eventually([&] { return served_before_new >= 0; }));
    EXPECT_LT(served_before_new, served_at_first + 5 * kBusy) << "of " << kBusy * kEach;
    EXPECT_TRUE(eventually([&] { return served == kBusy * kEach; }));
}

TEST(lane, slow_first_packets_leave_a_thread_to_all_others)
{
    Doored test;
    Peer   old;
    test.layer.events.wait_for(1);
    std::vector<std::unique_ptr<Peer>> slow;
    for (int i = 0; i < 6; ++i) {
        slow.push_back(std::make_unique<Peer>());
        slow.back()->send(aside(1));
    }
    EXPECT_TRUE(eventually([&] { return test.door.waiting() == 3; }));
    side_of(0).was_aside = 1;
    old.send(aside(1));
    EXPECT_TRUE(eventually([&] { return test.door.waiting() == 4; }));
}

// ---- later

TEST(held, until_it_is_resumed)
{
    const Hook hook;
    Layer      layer;
    Peer       peer, other;
    layer.events.wait_for(2);
    peer.send(now(1) + later(2) + now(3) + later(4));
    EXPECT_TRUE(is_with(0, Server::Nobody));
    other.send(now(9));
    EXPECT_THAT(layer.events.wait_for(4), ElementsAre(connected(0), connected(1), data(0, now(1)), data(1, now(9))));
    resume(connection_at(0)); // asked again, and again told to wait
    EXPECT_TRUE(is_with(0, Server::Nobody));
    allow(0);
    resume(connection_at(0));
    EXPECT_EQ(layer.events.wait_for(6).back(), data(0, now(3)));
    EXPECT_TRUE(is_with(0, Server::Nobody));
    allow(0);
    resume(connection_at(0));
    EXPECT_EQ(layer.events.wait_for(7).back(), data(0, later(4)));
    EXPECT_TRUE(is_with(0, Server::Rounds));
    EXPECT_TRUE(eventually([] { return !side_of(0).pins; }));
}

TEST(held, a_resume_that_comes_while_the_hook_decides_is_not_lost)
{
    static std::atomic<int> asked{0};
    const Hook              hook([](Connection connection, std::span<const uint8_t>) noexcept -> Choice {
        if (++asked > 1)
            return {};
        std::thread([connection] { resume(connection); }).join();
        return {Way::Later, 0};
    });
    Layer                   layer;
    Peer                    peer;
    layer.events.wait_for(1);
    peer.send(later(1));
    EXPECT_EQ(layer.events.wait_for(2).back(), data(0, later(1)));
    EXPECT_EQ(asked, 2);
}

TEST(held, a_resume_from_before_the_packet_does_not_count)
{
    const Hook hook;
    Layer      layer;
    Peer       peer;
    layer.events.wait_for(1);
    resume(connection_at(0));
    peer.send(later(1));
    EXPECT_TRUE(is_with(0, Server::Nobody));
    EXPECT_EQ(layer.events.seen().size(), 1u);
}

TEST(held, does_not_spin_and_ends_in_order)
{
    const Hook hook;
    Layer      layer;
    Peer       peer;
    layer.events.wait_for(1);
    peer.send(later(1));
    EXPECT_TRUE(is_with(0, Server::Nobody));
    const int asked = g_asked;
    peer.send(now(2));
    peer.reset();
    std::this_thread::sleep_for(kSilence);
    EXPECT_EQ(g_asked, asked);
    EXPECT_EQ(layer.events.seen().size(), 1u);
    allow(0);
    resume(connection_at(0));
    EXPECT_THAT(layer.events.wait_for(4),
                ElementsAre(connected(0), data(0, later(1)), data(0, now(2)), disconnected(0, 0)));
}

TEST(held, any_packet_of_a_connection_that_is_asked_about)
{
    static std::atomic<bool> go{false};
    const Hook               hook([](Connection, std::span<const uint8_t>) noexcept -> Choice {
        return {go ? Way::Now : Way::Later, 0};
    });
    Layer                    layer;
    Peer                     peer;
    layer.events.wait_for(1);
    peer.send(now(1));
    layer.events.wait_for(2);
    ask_about_all(connection_at(0), true);
    peer.send(now(2));
    EXPECT_TRUE(is_with(0, Server::Nobody));
    go = true;
    resume(connection_at(0));
    EXPECT_EQ(layer.events.wait_for(3).back(), data(0, now(2)));
    go = false;
    ask_about_all(connection_at(0), false);
    peer.send(now(3));
    EXPECT_EQ(layer.events.wait_for(4).back(), data(0, now(3)));
    go = true; // for the end
}

TEST(held, resuming_what_is_not_held_or_not_there_does_nothing)
{
    const Hook hook;
    {
        Layer layer;
        Peer  peer;
        layer.events.wait_for(1);
        resume(connection_at(0));
        resume({0, generation_of(0) + 1});
        resume({NETIP_NO_HANDLE, 0});
        resume({5, 7});
        ask_about_all({5, 7}, true);
        peer.send(now(1));
        EXPECT_EQ(layer.events.wait_for(2).back(), data(0, now(1)));
    }
    expect_no_pins();
}

// ---- closed meanwhile

TEST(lane, a_connection_closed_while_it_is_served_queued_or_held_is_gone)
{
    Doored test;
    Peer   served[3], queued[3], held;
    test.layer.events.wait_for(7);
    for (Peer &peer : served)
        peer.send(aside(1) + now(2));
    EXPECT_TRUE(eventually([&] { return test.door.waiting() == 3; }));
    for (Peer &peer : queued)
        peer.send(aside(1) + now(2));
    held.send(later(1) + now(2));
    EXPECT_TRUE(is_with(5, Server::Lane) && is_with(6, Server::Nobody));
    const Connection before = connection_at(6);
    for (uint32_t handle = 0; handle < 7; ++handle)
        netip_close(handle);
    resume(before);
    EXPECT_EQ(held.end(), 0);
    test.door.open();
    EXPECT_TRUE(eventually([] {
        for (uint32_t handle = 0; handle < 7; ++handle)
            if (side_of(handle).pins != 0)
                return false;
        return true;
    }));
    EXPECT_EQ(test.layer.events.seen().size(), 7u + 3 + 7) << "no second packet, and none of those that waited";
    Peer next; // the slots are good for others
    next.send(now(5));
    EXPECT_EQ(test.layer.events.wait_for(19).back(), data(7, now(5)));
}

TEST(lane, a_packet_that_closes_its_own_connection_is_the_last)
{
    const Hook hook;
    Layer      layer([](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA)
            netip_close(event.handle);
        return true;
    });
    Peer       peer;
    peer.send(aside(1) + now(2));
    EXPECT_EQ(peer.end(), 0);
    EXPECT_THAT(layer.events.wait_for(3), ElementsAre(connected(0), data(0, aside(1)), disconnected(0, 2)));
    EXPECT_TRUE(eventually([] { return !side_of(0).pins; }));
}

TEST(lane, deinit_waits_for_packets_under_way_and_not_for_those_behind)
{
    std::atomic<int> begun{0}, done{0};
    {
        const Hook                         hook;
        std::vector<std::unique_ptr<Peer>> peers;
        Layer                              layer([&](const Recorder::Event &event) {
            if (event.event == NETIP_EVENT_DATA) {
                ++begun;
                eventually([] { return !peek(g_netip_running); });
                ++done;
            }
            return true;
        });
        for (uint8_t i = 0; i < 20; ++i) {
            peers.push_back(std::make_unique<Peer>());
            peers.back()->send(i % 4 == 3 ? later(1) : aside(i, i % 4 == 2));
            EXPECT_TRUE(is_with(i, i % 4 == 3 ? Server::Nobody : Server::Lane));
        }
        netip_deinit();
        EXPECT_EQ(done, begun);
        EXPECT_LE(begun, 4);
        EXPECT_EQ(layer.events.seen().size(), 20u + 20 + static_cast<size_t>(begun));
    }
    expect_no_pins();
    EXPECT_TRUE(eventually([] { return threads_named("tarn-lane") == 0; }));
}

TEST(lane, deinit_inside_its_callback)
{
    for (int i = 0; i < 3; ++i) {
        const Hook       hook;
        std::atomic<int> downs{0};
        Layer            layer([&](const Recorder::Event &event) {
            if (event.event == NETIP_EVENT_DATA && event.bytes[2] == 9) {
                netip_deinit();
                ++downs;
            }
            return true;
        });
        Peer             peer, other;
        layer.events.wait_for(2);
        other.send(aside(1) + aside(2));
        peer.send(aside(9) + aside(3));
        EXPECT_TRUE(eventually([&] { return downs == 1; }));
        EXPECT_EQ(peer.end(), 0);
        EXPECT_EQ(layer.events.count(data(0, aside(3))), 0u);
        EXPECT_TRUE(eventually([] { return threads_named("tarn-lane") == 0; }));
    }
}

// ---- an end that waits

namespace {

std::atomic<uint64_t> g_asked_at_us{0}, g_finished_at_us{0};
std::atomic<uint32_t> g_word{0};

void finish(Connection connection, uint32_t word) noexcept
{
    g_word           = word;
    g_finished_at_us = mono_us();
    close_connection(connection.handle, connection.generation);
}

} // namespace

TEST(finish_later, is_called_after_the_pause_and_nothing_is_served_before)
{
    std::atomic<bool> asked{false};
    Layer             layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA && event.handle == 0) {
            g_asked_at_us = mono_us();
            asked         = finish_later(0, finish, 77);
            EXPECT_FALSE(finish_later(1, finish, 1)) << "of another connection";
        }
        return true;
    });
    Peer              peer, other;
    layer.events.wait_for(2);
    peer.send(now(1) + now(2));
    other.send(now(3));
    EXPECT_EQ(peer.end(), 0);
    EXPECT_TRUE(asked);
    EXPECT_EQ(g_word, 77u);
    EXPECT_GE(g_finished_at_us - g_asked_at_us, 10000u);
    EXPECT_EQ(layer.events.count(data(0, now(2))), 0u);
    EXPECT_EQ(layer.events.wait_for(5).size(), 5u);
    EXPECT_FALSE(finish_later(0, finish, 1)) << "on a thread that hands up nothing";
}

TEST(finish_later, does_not_wait_for_callbacks_of_others)
{
    Hook  hook;
    Door  door;
    Layer layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA && event.bytes[0] == kAsideByte) {
            door.pass();
        } else if (event.event == NETIP_EVENT_DATA) {
            EXPECT_TRUE(finish_later(event.handle, finish, 0));
        }
        return true;
    });
    Peer  slow, refused, another_slow, another_refused;
    layer.events.wait_for(4);
    slow.send(aside(1));
    EXPECT_TRUE(eventually([&] { return door.waiting() == 1; }));
    refused.send(now(1));
    EXPECT_EQ(refused.end(), 0);
    another_slow.send(aside(2)); // takes the thread that waited for the end of the pause
    another_refused.send(now(2));
    EXPECT_EQ(another_refused.end(), 0);
    EXPECT_TRUE(eventually([&] { return door.waiting() == 2; }));
    door.open();
}

TEST(finish_later, many_pauses_pass_side_by_side)
{
    constexpr size_t                   kPeers = 100;
    Layer                              layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA) {
            EXPECT_TRUE(finish_later(event.handle, finish, 0));
        }
        return true;
    });
    std::vector<std::unique_ptr<Peer>> peers;
    for (size_t i = 0; i < kPeers; ++i)
        peers.push_back(std::make_unique<Peer>());
    layer.events.wait_for(kPeers);
    const auto began = std::chrono::steady_clock::now();
    for (auto &peer : peers)
        peer->send(now(1));
    for (auto &peer : peers)
        EXPECT_EQ(peer->end(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - began, 700ms) << "one after another they would take a second";
}

TEST(finish_later, inside_a_lane_and_for_a_connection_closed_meanwhile)
{
    const Hook hook;
    g_finished_at_us = 0;
    Layer layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA) {
            EXPECT_TRUE(finish_later(event.handle, finish, 5));
            if (event.bytes[2] == 2)
                netip_close(event.handle);
        }
        return true;
    });
    Peer  peer, closed;
    layer.events.wait_for(2);
    closed.send(aside(2));
    EXPECT_EQ(closed.end(), 0);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(g_finished_at_us, 0u);
    peer.send(aside(1) + now(2));
    EXPECT_EQ(peer.end(), 0);
    EXPECT_NE(g_finished_at_us, 0u);
    EXPECT_EQ(layer.events.count(data(0, now(2))), 0u);
}

TEST(finish_later, what_a_host_calls_inside_does_not_wait)
{
    std::atomic<int> refused{0};
    Layer            layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA) {
            {
                const OutsideEvent host;
                refused += !finish_later(event.handle, finish, 1);
            }
            EXPECT_EQ(current_connection().handle, event.handle);
        }
        return true;
    });
    Peer             peer;
    peer.send(now(1) + now(2));
    layer.events.wait_for(3);
    EXPECT_TRUE(eventually([&] { return refused == 2; }));
}

TEST(finish_later, deinit_does_not_wait_for_the_pauses)
{
    {
        Layer layer([&](const Recorder::Event &event) {
            if (event.event == NETIP_EVENT_DATA) {
                EXPECT_TRUE(finish_later(
                    event.handle, [](Connection, uint32_t) noexcept {}, 0));
            }
            return true;
        });
        Peer  peer;
        peer.send(now(1));
        layer.events.wait_for(2);
    }
    expect_no_pins();
}

// ---- all of it together

namespace {

void play_mixes(int io_threads)
{
    constexpr int                            kPeers = 12, kPackets = 60;
    std::mutex                               mutex;
    std::map<uint32_t, std::vector<uint8_t>> got;
    std::set<uint32_t>                       inside;
    std::atomic<int>                         overlaps{0}, ends{0};
    std::atomic<bool>                        over{false};
    g_way_of_end = Way::Aside;
    const Hook hook;
    Layer      layer(io_threads);
    layer.events.on_event = [&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_CONNECTED)
            return true;
        {
            std::lock_guard lock(mutex);
            overlaps += !inside.insert(event.handle).second;
            if (event.event == NETIP_EVENT_DATA)
                got[event.handle].push_back(event.bytes[2]);
        }
        if (event.event == NETIP_EVENT_DISCONNECTED)
            ++ends;
        else if (event.bytes[0] == kAsideByte)
            std::this_thread::sleep_for(1ms);
        std::lock_guard lock(mutex);
        inside.erase(event.handle);
        return true;
    };
    std::thread resumer([&] {
        std::minstd_rand random(7);
        while (!over) {
            const uint32_t handle = random() % kPeers;
            allow(handle);
            resume(connection_at(handle));
            std::this_thread::sleep_for(100us);
        }
    });
    {
        std::vector<std::unique_ptr<Peer>> peers;
        for (int i = 0; i < kPeers; ++i)
            peers.push_back(std::make_unique<Peer>());
        std::minstd_rand random(3);
        for (uint8_t number = 0; number < kPackets; ++number)
            for (auto &peer : peers) {
                const auto way = random() % 3;
                peer->send(way == 0   ? aside(number, static_cast<uint8_t>(random() % 4))
                           : way == 1 ? later(number)
                                      : now(number));
            }
    } // and all of them close
    EXPECT_TRUE(eventually([&] { return ends == kPeers; }));
    over = true;
    resumer.join();
    netip_deinit();
    g_way_of_end = Way::Now;
    std::vector<uint8_t> expected;
    for (uint8_t number = 0; number < kPackets; ++number)
        expected.push_back(number);
    for (auto &[handle, numbers] : got)
        EXPECT_EQ(numbers, expected) << handle;
    EXPECT_EQ(got.size(), size_t{kPeers});
    EXPECT_EQ(overlaps, 0) << "packets of one connection at once on two threads";
    expect_no_pins();
}

} // namespace

TEST(ways, mixed_on_many_connections_keep_each_in_order)
{
    play_mixes(1);
}

TEST(ways, mixed_with_several_io_threads)
{
    play_mixes(3);
}

TEST(ways, starts_and_stops_under_load)
{
    std::atomic<bool> over{false};
    g_way_of_end = Way::Aside;
    const Hook               hook;
    std::vector<std::thread> crew;
    for (unsigned seed = 1; seed <= 3; ++seed)
        crew.emplace_back([&, seed] {
            std::minstd_rand random(seed);
            while (!over) {
                const Fd          fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
                const sockaddr_in address = loopback();
                const timeval     soon{0, 100000};
                setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &soon, sizeof soon);
                if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
                    continue;
                const Bytes bytes = aside(1) + later(2) + now(3) + aside(4, 1);
                (void)!send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
                const uint32_t handle = random() % 40;
                allow(handle);
                resume(connection_at(handle));
                if (random() % 4 == 0)
                    close_connection(handle, generation_of(handle));
            }
        });
    const auto answer = [](uint32_t handle, uint32_t event, const uint8_t *bytes, uint32_t, uint32_t, uint32_t,
                           void *) -> uint8_t {
        if (event == NETIP_EVENT_DATA && bytes[2] == 3)
            (void)finish_later(handle, finish, 0);
        return 1;
    };
    std::minstd_rand random(11);
    for (int i = 0; i < 25; ++i) {
        EXPECT_EQ(netip_init(answer, nullptr, 1 + i % 2), 0u);
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 40));
        netip_deinit();
    }
    over = true;
    for (std::thread &thread : crew)
        thread.join();
    g_way_of_end = Way::Now;
    ASSERT_EQ(netip_init(answer, nullptr, 1), 0u);
    netip_deinit();
    expect_no_pins();
}
