// What one connection waits for, others do not: logins that take their time, refusals, packets that are too large,
// sessions that are written or resumed; and the order in which each of them is answered all the same.
#include "support/host.h"
#include "support/peer.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>
#include <vector>

using namespace tarn::test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto kPatience = 20s;

// Users named "slow" wait here for the test, "sleepy" ones for a while; "wrong" ones are refused.
std::mutex              g_mutex;
std::condition_variable g_news;
bool                    g_open    = true;
int                     g_waiting = 0;
std::atomic<int>        g_logins{0};

bool on_auth(broker_t *, const char *, const char *username, const char *)
{
    ++g_logins;
    if (strcmp(username, "sleepy") == 0)
        std::this_thread::sleep_for(300ms);
    if (strcmp(username, "slow") == 0) {
        std::unique_lock lock(g_mutex);
        ++g_waiting;
        g_news.notify_all();
        g_news.wait_for(lock, kPatience, [] { return g_open; });
        --g_waiting;
    }
    return strcmp(username, "wrong") != 0;
}

struct Guarded {
    explicit Guarded(int max_clients = 200) : host(max_clients)
    {
        tarn_sdk_mqtt_broker_register_auth_callback(host.broker(), on_auth);
        g_open = false;
    }
    ~Guarded() { open(); }
    static void open()
    {
        const std::lock_guard lock(g_mutex);
        g_open = true;
        g_news.notify_all();
    }
    static bool are_waiting(int logins)
    {
        std::unique_lock lock(g_mutex);
        return g_news.wait_for(lock, kPatience, [logins] { return g_waiting == logins; });
    }
    Host host;
};

Connect as(const char *user)
{
    return {.username = user, .password = "x"};
}

// A subscriber and a publisher who see each other's messages at once.
struct Pair {
    Pair() : subscriber(Peer::tcp()), publisher(Peer::tcp())
    {
        subscriber.connect_v4("subscriber").subscribe("pair", 1);
        publisher.connect_v4("publisher");
    }
    void exchange(int messages)
    {
        for (int i = 0; i < messages; ++i) {
            publisher.publish("pair", std::to_string(i), {.qos = 1});
            subscriber.acknowledge(0x40, subscriber.expect_publish("pair", std::to_string(i), {.qos = 1}));
        }
    }
    Peer subscriber, publisher;
};

std::vector<Peer> open_peers(int count)
{
    std::vector<Peer> peers;
    for (int i = 0; i < count; ++i)
        peers.push_back(Peer::tcp());
    return peers;
}

} // namespace

TEST(beside, a_login_that_waits_holds_nobody_up)
{
    Guarded test;
    Pair    pair;
    Peer    slow = Peer::tcp();
    slow.send(connect_packet(4, "slow", as("slow")) + subscribe_packet(4, 7, "t", 0) + wire("C0 00"));
    ASSERT_TRUE(Guarded::are_waiting(1));
    pair.exchange(20);
    Peer::tcp().connect_v4("other").disconnect();
    EXPECT_TRUE(Guarded::are_waiting(1));
    Guarded::open();
    slow.expect("20 02 00 00 | 90 03 00 07 00 | D0 00"); // the packets behind it have waited, in order
}

TEST(beside, several_logins_wait_side_by_side)
{
    Guarded           test;
    std::vector<Peer> slow = open_peers(3);
    for (size_t i = 0; i < slow.size(); ++i)
        slow[i].send(connect_packet(4, "slow-" + std::to_string(i), as("slow")));
    EXPECT_TRUE(Guarded::are_waiting(3));
    Guarded::open();
    for (Peer &peer : slow)
        peer.expect("20 02 00 00");
}

// A refusal stands for 10 ms before the connection is closed.
TEST(beside, refusals_pass_side_by_side)
{
    constexpr int     kPeers = 100;
    Guarded           test;
    std::vector<Peer> peers = open_peers(kPeers);
    const auto        began = Clock::now();
    for (int i = 0; i < kPeers; ++i)
        peers[static_cast<size_t>(i)].send(connect_packet(5, "wrong-" + std::to_string(i), as("wrong")));
    for (Peer &peer : peers) {
        EXPECT_EQ(peer.read_packet()[0], 0x20);
        peer.expect_closed();
    }
    EXPECT_LT(Clock::now() - began, 800ms) << "one after another they would take a second";
}

TEST(beside, packets_above_the_limit_pass_side_by_side)
{
    constexpr int     kPeers = 100;
    Guarded           test;
    std::vector<Peer> peers = open_peers(kPeers);
    for (int i = 0; i < kPeers; ++i)
        peers[static_cast<size_t>(i)].connect_v5("large-" + std::to_string(i), {.max_packet_size = 256});
    const auto  began = Clock::now();
    const Bytes large = publish_packet(5, "t", std::string(300, 'x'));
    for (Peer &peer : peers)
        peer.send(large + large); // the second is not handled
    for (Peer &peer : peers) {
        peer.expect("E0 02 95 00");
        peer.expect_closed();
    }
    EXPECT_LT(Clock::now() - began, 800ms) << "one after another they would take a second";
}

TEST(beside, connack_comes_first_whatever_is_published_to_a_resumed_session)
{
    Guarded test;
    Guarded::open();
    Peer resumed = Peer::tcp();
    resumed.connect_v5("resumed", keep(5, false)).subscribe("flood", 0);
    std::atomic<bool> over{false};
    std::thread       flood([&] {
        Peer publisher = Peer::tcp();
        publisher.connect_v4("publisher");
        for (int i = 0; !over; ++i) {
            publisher.publish("flood", std::to_string(i));
            if (i % 16 == 0)
                publisher.ping();
        }
    });
    int               delivered = 0;
    for (int i = 0; i < 25; ++i) {
        resumed.hang_up();
        resumed = Peer::tcp();
        resumed.send(connect_packet(5, "resumed", keep(5, true)));
        const Bytes first = resumed.read_packet();
        EXPECT_GE(first.size(), 4u);
        if (first.size() < 4)
            break;
        EXPECT_EQ(first[0], 0x20);
        EXPECT_EQ(first[2], 1) << "session present";
        delivered += !resumed.read_packet().empty();
    }
    over = true;
    flood.join();
    EXPECT_GT(delivered, 0);
}

// The second connection is opened before the end of the first was handled, and finds what that left.
TEST(beside, a_client_that_comes_back_at_once_finds_its_session_as_its_disconnect_left_it)
{
    Guarded test;
    Guarded::open();
    tarn_sdk_mqtt_broker_register_event_callback(test.host.broker(), [](broker_t *, uint32_t kind, const char *) {
        if (kind == BROKER_EVENT_DISCONNECTED)
            std::this_thread::sleep_for(20ms);
    });
    bool present = false;
    for (int i = 0; i < 10; ++i) {
        Peer client = Peer::tcp(), next = Peer::tcp();
        client.connect_v5("returns", keep(5, present));
        const bool stays = i % 2 == 0; // else its DISCONNECT sets the expiry interval to 0
        client.subscribe("t", 1);
        client.send(stays ? "E0 00" : "E0 07 00 05 10 00 00 00 00");
        next.connect_v5("returns", keep(5, stays)).subscribe("t", 1).disconnect();
        present = true; // the second one's
    }
}

TEST(beside, deinit_does_not_wait_for_logins_that_have_not_begun)
{
    std::vector<Peer> peers;
    g_logins = 0;
    {
        Guarded test;
        Guarded::open();
        peers = open_peers(50);
        for (size_t i = 0; i < peers.size(); ++i)
            peers[i].send(connect_packet(4, "sleepy-" + std::to_string(i), as("sleepy")));
        const auto until = Clock::now() + kPatience;
        while (g_logins == 0 && Clock::now() < until)
            std::this_thread::sleep_for(1ms);
    }
    EXPECT_GE(g_logins, 1);
    EXPECT_LT(g_logins, 20) << "each takes 300 ms";
}

TEST(beside, a_kick_waits_for_nobody_and_a_login_under_way_ends)
{
    Guarded test;
    Pair    pair;
    Peer    slow = Peer::tcp();
    slow.send(connect_packet(4, "slow", as("slow")));
    ASSERT_TRUE(Guarded::are_waiting(1));
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(test.host.broker(), "publisher"), 0);
    pair.publisher.expect("E0 00");
    pair.publisher.expect_closed();
    slow.reset();
    Guarded::open();
    Peer::tcp().connect_v4("next").disconnect();
}

// So the login finds the session as the DISCONNECT left it, or the DISCONNECT as the login did; never half of each.
TEST(beside, a_disconnect_waits_for_a_login_of_its_id_that_is_under_way)
{
    Guarded test;
    Peer    old = Peer::tcp(), next = Peer::tcp();
    old.connect_v4("twice");
    next.send(connect_packet(4, "twice", as("slow")));
    ASSERT_TRUE(Guarded::are_waiting(1));
    old.send("E0 00");
    old.expect_nothing();
    Guarded::open();
    next.expect("20 02 00 00");
    old.expect_closed();
    Peer other = Peer::tcp();
    other.connect_v4("other");
    other.send("E0 00");
    other.expect_closed();
}

namespace {

std::atomic<bool> g_has_connack{false};

} // namespace

// Each callback goes on until its client has CONNACK. The walk of the send thread, twice a second, would bring it too.
TEST(beside, connack_does_not_wait_for_the_callback_that_hears_of_the_connection)
{
    Guarded test;
    Guarded::open();
    tarn_sdk_mqtt_broker_register_event_callback(test.host.broker(), [](broker_t *, uint32_t kind, const char *) {
        for (int i = 0; kind == BROKER_EVENT_CONNECTED && !g_has_connack && i < 2000; ++i)
            std::this_thread::sleep_for(1ms);
    });
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < 8; ++i) {
        g_has_connack = false;
        Peer client   = Peer::tcp();
        client.connect_v4("c");
        g_has_connack = true;
        client.ping();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - began, 2s) << "eight walks take four";
}
