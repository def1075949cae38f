#include "base/clock.h"
#include "net_fixture.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/log_lines/net.h"

#include <csignal>
#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>

using namespace tarn;
using namespace tarn::net;
using namespace tarn::test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// The accept thread leaves only when a connection wakes it.
bool accept_thread_ended()
{
    return eventually([] { return threads_named("tarn-accept") == 0; });
}

// By the thread that tells of a new connection.
int scheduling_of_accept_thread()
{
    std::atomic<int> policy{-1};
    Layer            layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_CONNECTED)
            policy = sched_getscheduler(0);
        return true;
    });
    Peer             peer;
    eventually([&] { return policy != -1; });
    return policy;
}

} // namespace

TEST(layer, a_connection_from_its_first_event_to_its_last)
{
    Layer layer;
    {
        Peer peer;
        peer.send("C0 00");
        layer.events.wait_for(2);
        EXPECT_EQ(send_bytes(0, wire("D0 00")), 0u);
        EXPECT_EQ(hex(peer.receive(2)), "D0 00");
    }
    EXPECT_THAT(layer.events.wait_for(3), ElementsAre(connected(0), data(0, wire("C0 00")), disconnected(0, 0)));
    EXPECT_TRUE(eventually([] { return peek(g_netip_clients[0].in_use) == 0; }));
}

TEST(layer, a_reset_ends_a_connection_with_reason_0)
{
    Layer layer;
    Peer  peer;
    layer.events.wait_for(1);
    peer.reset();
    EXPECT_THAT(layer.events.wait_for(2), ElementsAre(connected(0), disconnected(0, 0)));
}

TEST(layer, connected_precedes_data_however_early_it_arrives)
{
    Layer layer;
    for (uint32_t i = 0; i < 50; ++i) {
        Peer peer;
        peer.send("C0 00");
        const auto seen = layer.events.wait_for(3 * i + 2);
        ASSERT_EQ(seen.size(), 3 * i + 2);
        ASSERT_EQ(seen[3 * i], connected(i));
        ASSERT_EQ(seen[3 * i + 1], data(i, wire("C0 00")));
        peer.close(); // its disconnected event comes before the next peer's events
        ASSERT_EQ(layer.events.wait_for(3 * (i + 1)).size(), 3 * (i + 1));
    }
}

TEST(layer, deinit_closes_every_slot_in_ascending_order_with_reason_2)
{
    auto layer = std::make_unique<Layer>();
    Peer a, b, c;
    layer->events.wait_for(3);
    const int fd = g_netip_clients[1].fd;
    netip_deinit();
    EXPECT_THAT(layer->events.seen(), ElementsAre(connected(0), connected(1), connected(2), disconnected(0, 2),
                                                  disconnected(1, 2), disconnected(2, 2)));
    for (Peer *peer : {&a, &b, &c})
        EXPECT_EQ(peer->end(), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    const netip_conn_t &slot = g_netip_clients[1];
    EXPECT_EQ(slot.in_use, 0);
    EXPECT_STREQ(slot.ip, "");
    EXPECT_EQ(slot.port, 0);
    EXPECT_EQ(slot.peer_len, 0u);
    EXPECT_EQ(slot.peer.sin_port, 0);
    EXPECT_EQ(g_last_handle, 0u);
}

TEST(layer, deinit_closes_also_when_the_callback_objects)
{
    Layer layer([](const Recorder::Event &) { return false; });
    Peer  peer;
    layer.events.wait_for(1);
    netip_deinit();
    EXPECT_EQ(peer.end(), 0);
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), disconnected(0, 2)));
}

TEST(layer, a_close_nested_in_the_event_of_deinit_closes_once)
{
    Layer layer([](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DISCONNECTED)
            netip_close(event.handle);
        return true;
    });
    Peer  a, b;
    layer.events.wait_for(2);
    const int descriptors = descriptor_count();
    netip_deinit();
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), connected(1), disconnected(0, 2), disconnected(0, 2),
                                                 disconnected(1, 2), disconnected(1, 2)));
    EXPECT_EQ(descriptor_count(), descriptors - 5); // two connections, epoll, g_wake_fd, UDP
}

// ---- the listener outlives the layer

TEST(restart, the_sleeping_accept_thread_and_the_listener_go_on)
{
    {
        Layer layer;
    }
    const int listener = g_netip_tcp_listen;
    EXPECT_TRUE(eventually([] { return threads_named("tarn-accept") == 1; }));
    Layer layer;
    EXPECT_EQ(g_netip_tcp_listen, listener);
    EXPECT_TRUE(eventually([] { return threads_named("tarn-accept") == 1; }));
    Peer a, b;
    EXPECT_THAT(layer.events.wait_for(2), ElementsAre(connected(0), connected(1)));
}

TEST(restart, connections_made_while_the_layer_was_down_are_served_in_their_order)
{
    {
        Layer layer;
    }
    Peer first, second, third;
    first.send("30 01 01");
    second.send("30 01 02");
    third.send("30 01 03");
    ASSERT_TRUE(accept_thread_ended());
    EXPECT_FALSE(readable(first.fd(), kSilence)); // neither answered nor closed
    EXPECT_FALSE(readable(second.fd(), 0ms));

    Layer layer;
    EXPECT_TRUE(eventually([] { return threads_named("tarn-accept") == 1; }));
    const auto seen = layer.events.wait_for(6);
    for (const std::string &event : {connected(0), connected(1), connected(2), data(0, wire("30 01 01")),
                                     data(1, wire("30 01 02")), data(2, wire("30 01 03"))})
        EXPECT_THAT(seen, Contains(event));
    EXPECT_EQ(netip_get_client_port(0), first.port());
    EXPECT_EQ(netip_get_client_port(1), second.port());
    EXPECT_EQ(netip_get_client_port(2), third.port());
}

TEST(restart, the_connection_in_hand_survives_a_failed_start)
{
    {
        Layer layer;
    }
    Peer first;
    ASSERT_TRUE(accept_thread_ended());
    {
        Fail fail(Call::ThreadCreate);
        EXPECT_EQ(netip_init(Recorder::callback, nullptr, 1), 1u);
    }
    {
        Recorder events;
        Fail     fail(Call::ThreadCreate, 2); // no accept thread
        EXPECT_EQ(netip_init(Recorder::callback, &events, 1), 1u);
        netip_deinit();
    }
    Layer layer;
    EXPECT_THAT(layer.events.wait_for(1), ElementsAre(connected(0)));
    EXPECT_EQ(netip_get_client_port(0), first.port());
}

TEST(restart, while_the_layer_is_down_udp_is_closed)
{
    {
        Layer layer;
        EXPECT_NE(g_netip_udp, -1);
    }
    EXPECT_EQ(g_netip_udp, -1);
    Layer   layer;
    UdpPeer udp;
    udp.send("C0 00");
    Peer peer;
    peer.send("D0 00");
    EXPECT_EQ(layer.events.wait_for(4).size(), 4u);
}

TEST(restart, a_peer_of_an_earlier_start_does_not_reach_a_later_one)
{
    Peer *stale = nullptr;
    {
        Layer layer;
        stale = new Peer;
        layer.events.wait_for(1);
    }
    Layer layer;
    Peer  peer;
    layer.events.wait_for(1);
    EXPECT_EQ(stale->end(), 0);
    delete stale;
    peer.send("C0 00");
    EXPECT_THAT(layer.events.wait_for(2), ElementsAre(connected(0), data(0, wire("C0 00"))));
}

// ---- from inside a callback

TEST(from_a_callback, deinit_ends_the_layer_and_the_thread)
{
    std::atomic<bool> done{false};
    {
        Layer layer([&](const Recorder::Event &event) {
            if (event.event == NETIP_EVENT_DATA && !done) {
                netip_deinit();
                done = true;
            }
            return true;
        });
        Peer  peer, other;
        layer.events.wait_for(2);
        peer.send("C0 00 C0 00"); // the second packet is nobody's
        EXPECT_TRUE(eventually([&] { return done.load(); }));
        EXPECT_EQ(peer.end(), 0);
        EXPECT_EQ(other.end(), 0);
        EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 0; }));
        EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), connected(1), data(0, wire("C0 00")),
                                                     disconnected(0, 2), disconnected(1, 2)));
    }
    Layer again;
    Peer  peer;
    again.events.wait_for(1);
}

TEST(from_a_callback, deinit_with_several_threads)
{
    std::atomic<bool> done{false};
    Layer             layer(3);
    layer.events.on_event = [&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA) {
            netip_deinit();
            done = true;
        }
        return true;
    };
    Peer peer;
    layer.events.wait_for(1);
    peer.send("C0 00");
    EXPECT_TRUE(eventually([&] { return done.load(); }));
    EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 0; }));
}

TEST(from_a_callback, deinit_on_the_accept_thread)
{
    std::atomic<bool> done{false};
    Layer             layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_CONNECTED && !done) {
            netip_deinit();
            done = true;
        }
        return true;
    });
    Peer              peer;
    EXPECT_TRUE(eventually([&] { return done.load(); }));
    EXPECT_EQ(peer.end(), 0);
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), disconnected(0, 2)));
}

TEST(from_a_callback, deinit_and_init_at_once)
{
    Recorder          second;
    std::atomic<bool> done{false};
    Layer             layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA) {
            const Bytes packet(event.bytes, event.bytes + event.length);
            netip_deinit();
            EXPECT_EQ(netip_init(Recorder::callback, &second, 1), 0u);
            EXPECT_EQ(hex(packet), hex(event.bytes, event.length)); // still this thread's buffer
            done = true;
        }
        return true;
    });
    {
        Peer peer;
        layer.events.wait_for(1);
        peer.send("C0 00");
        EXPECT_TRUE(eventually([&] { return done.load(); }));
    }
    Peer peer;
    peer.send("D0 00");
    // Slot 0 may still be held by the thread of the first start when the connection arrives.
    const auto seen = second.wait_for(2);
    EXPECT_THAT(seen, testing::AnyOf(ElementsAre(connected(0), data(0, wire("D0 00"))),
                                     ElementsAre(connected(1), data(1, wire("D0 00")))));
    EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 1; }));
    netip_deinit();
}

TEST(from_a_callback, the_round_of_an_old_start_reads_no_datagram_of_the_new_one)
{
    Recorder          second;
    std::atomic<bool> done{false};
    Layer             layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA) {
            netip_deinit();
            EXPECT_EQ(netip_init(Recorder::callback, &second, 1), 0u);
            UdpPeer().send("D0 00");
            done = true;
        }
        return true;
    });
    Peer              peer;
    layer.events.wait_for(1);
    peer.send("C0 00");
    EXPECT_TRUE(eventually([&] { return done.load(); }));
    EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 1; }));
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), data(0, wire("C0 00")), disconnected(0, 2)));
    EXPECT_THAT(second.seen(), IsEmpty());
    netip_deinit();
}

TEST(layer, deinit_waits_for_the_connected_callback)
{
    std::atomic<bool> entered{false}, leave{false}, left{false};
    Layer             layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_CONNECTED) {
            entered = true;
            eventually([&] { return leave.load(); });
            left = true;
        }
        return true;
    });
    Peer              peer;
    ASSERT_TRUE(eventually([&] { return entered.load(); }));
    std::thread leaver([&] {
        eventually([] { return threads_named("tarn-io") == 0; }); // deinit has nobody else to wait for
        std::this_thread::sleep_for(50ms);
        leave = true;
    });
    netip_deinit();
    EXPECT_TRUE(left);
    leaver.join();
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), disconnected(0, 2)));
}

TEST(layer, a_connection_closed_in_its_connected_event_is_never_watched)
{
    Layer layer([](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_CONNECTED)
            netip_close(event.handle);
        return true;
    });
    Peer  peer;
    peer.send("C0 00");
    EXPECT_EQ(peer.end(), 0);
    Peer next;
    EXPECT_EQ(next.end(), 0);
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), disconnected(0, 2), connected(1), disconnected(1, 2)));
}

TEST(layer, the_result_of_the_connected_event_is_ignored)
{
    Layer layer([](const Recorder::Event &event) { return event.event != NETIP_EVENT_CONNECTED; });
    Peer  peer;
    peer.send("C0 00");
    EXPECT_THAT(layer.events.wait_for(2), ElementsAre(connected(0), data(0, wire("C0 00"))));
}

TEST(layer, runs_without_a_callback)
{
    Layer layer;
    {
        ScopedLock lock(g_netip_lock);
        g_netip_cb = nullptr;
    }
    Peer peer;
    peer.send("C0 00");
    EXPECT_TRUE(eventually([] { return netip_get_client_port(0) != 0; }));
    peer.close();
    EXPECT_TRUE(eventually([] { return netip_get_client_port(0) == 0; }));
    Peer other;
    EXPECT_TRUE(eventually([] { return netip_get_client_port(1) != 0; }));
    netip_close(1);
    EXPECT_EQ(other.end(), 0);
    EXPECT_THAT(layer.events.seen(), IsEmpty());
}

TEST(layer, a_connection_that_cannot_be_watched_is_ended)
{
    Layer layer;
    Fail  fail(Call::EpollCtl, 1, ENOSPC);
    Peer  peer;
    EXPECT_EQ(peer.end(), 0);
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), disconnected(0, 0)));
}

// ---- how the accept thread is scheduled

TEST(accept, preempts_nobody)
{
    EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
    EXPECT_EQ(scheduling_of_accept_thread(), SCHED_BATCH);
    EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
}

// ---- failing calls

TEST(accept, pauses_while_descriptors_are_short)
{
    Layer layer;
    for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM, EBADF, EINVAL, ENOTSOCK}) {
        LogCapture   log;
        const size_t before = layer.events.seen().size();
        Fail         fail(Call::Accept, 1, error, 10);
        const auto   from = std::chrono::steady_clock::now();
        Peer         waking; // ends the accept that sleeps already; the next ones fail
        Peer         waiting;
        layer.events.wait_for(before + 2);
        EXPECT_EQ(fail.failed(), 10) << error;
        EXPECT_GE(std::chrono::steady_clock::now() - from, 50ms) << error;
        EXPECT_THAT(log.take(), IsEmpty());
        waking.close();
        waiting.close();
        layer.events.wait_for(before + 4);
    }
}

TEST(accept, retries_at_once_after_other_failures)
{
    Layer      layer;
    Fail       fail(Call::Accept, 1, ECONNABORTED, 3000);
    const auto from = std::chrono::steady_clock::now();
    Peer       waking, waiting;
    layer.events.wait_for(2);
    EXPECT_EQ(fail.failed(), 3000);
    EXPECT_LT(std::chrono::steady_clock::now() - from, 5s); // with pauses 15 s
}

TEST(accept, a_failure_while_the_layer_is_down_ends_the_thread)
{
    auto layer = std::make_unique<Layer>();
    Fail fail(Call::Accept, 1, EMFILE, 1000000);
    Peer waking;
    EXPECT_TRUE(eventually([&] { return fail.failed() > 0; }));
    layer.reset();
    EXPECT_TRUE(accept_thread_ended());
}

TEST(epoll_wait, a_failure_is_logged_and_the_loop_goes_on)
{
    Layer layer;
    {
        LogCapture log(AGENT_LOG_ERROR);
        Fail       fail(Call::EpollWait, 1, EINTR, 1);
        EXPECT_TRUE(eventually([&] { return fail.failed() == 1 && !log.lines().empty(); }));
        EXPECT_THAT(log.take(), ElementsAre(logged::epoll_wait_failed(4)));
    }
    Peer peer;
    EXPECT_THAT(layer.events.wait_for(1), ElementsAre(connected(0)));
}

TEST(epoll_wait, failing_for_ever_does_not_spin)
{
    Layer      layer;
    LogCapture log(AGENT_LOG_ERROR);
    Fail       fail(Call::EpollWait, 1, EBADF, 1000000);
    ASSERT_TRUE(eventually([&] { return fail.failed() >= 2; }));
    const int before = fail.failed();
    std::this_thread::sleep_for(500ms);
    EXPECT_LE(fail.failed() - before, 6); // one in 100 ms
    EXPECT_THAT(log.take(), testing::Each(logged::epoll_wait_failed(9)));
}

TEST(epoll_wait, pauses_from_the_second_failure_in_a_row)
{
    Layer      layer;
    const auto from = std::chrono::steady_clock::now();
    Fail       fail(Call::EpollWait, 1, EBADF, 4);
    wake_io_thread();
    EXPECT_TRUE(eventually([&] { return fail.failed() == 4; }));
    EXPECT_GE(std::chrono::steady_clock::now() - from, 200ms); // behind the second and the third
}

// ---- what a round is

namespace {

std::mutex               g_order_mutex;
std::vector<std::string> g_order;

void note(const char *what)
{
    std::lock_guard lock(g_order_mutex);
    g_order.emplace_back(what);
}
std::vector<std::string> order()
{
    std::lock_guard lock(g_order_mutex);
    return g_order;
}

} // namespace

TEST(round, tells_its_hooks_before_and_after_its_events)
{
    Layer layer([](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA)
            note("data");
        return true;
    });
    Peer  peer;
    layer.events.wait_for(1);
    std::this_thread::sleep_for(kSilence); // the round of the listener's event is over
    set_round_hooks({[] { note("begin"); }, [] { note("end"); }});
    peer.send("C0 00 C0 00");
    EXPECT_TRUE(eventually([] { return order().size() >= 4; }));
    set_round_hooks({});
    EXPECT_THAT(order(), ElementsAre("begin", "data", "data", "end"));
}

TEST(round, a_new_connection_is_one_where_udp_is_read_and_none_where_it_is_not)
{
    static std::atomic<int> rounds;
    for (const bool udp : {true, false}) {
        Recorder events;
        ASSERT_EQ(tarn::net::start(Recorder::callback, &events, 1, udp ? Udp::Open : Udp::Closed), Start::Up);
        rounds = 0;
        set_round_hooks({[] { ++rounds; }, [] {}});
        Peer peer;
        events.wait_for(1);
        std::this_thread::sleep_for(kSilence);
        EXPECT_EQ(rounds > 0, udp);
        peer.send("C0 00");
        events.wait_for(2);
        EXPECT_TRUE(eventually([] { return rounds > 0; }));
        set_round_hooks({});
        netip_deinit();
    }
}

TEST(round, waits_for_nobody_who_holds_the_lock_of_the_table)
{
    Layer layer;
    Peer  peer;
    layer.events.wait_for(1);
    std::this_thread::sleep_for(kSilence);
    ScopedLock lock(g_netip_lock);
    peer.send("C0 00");
    EXPECT_EQ(layer.events.wait_for(2).back(), data(0, wire("C0 00")));
}

TEST(round, an_idle_layer_only_wakes_every_100_ms)
{
    Layer layer;
    Peer  peer, other;
    layer.events.wait_for(2);
    std::this_thread::sleep_for(kSilence);
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    std::this_thread::sleep_for(500ms);
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_nvcsw - before.ru_nvcsw, 25); // 5 rounds and this thread
}

namespace {

// A layer without threads: the test runs the rounds.
struct ByHand {
    ByHand()
    {
        netip_epoll_fd  = epoll.get();
        g_netip_running = 1;
        g_netip_cb      = Recorder::callback;
        g_netip_cb_arg  = &events;
    }
    ~ByHand() { netip_epoll_fd = -1; }
    static void serve(int fd)
    {
        ScopedLock    lock(g_netip_lock);
        const SlotPin hold(open_slot(NETIP_TCP, fd, {}), SlotPin::Counted);
        SlotLock      slot(hold.handle());
        EXPECT_TRUE(watch(hold.handle()));
    }
    const Fd epoll{epoll_create1(EPOLL_CLOEXEC)};
    Recorder events;
};

} // namespace

TEST(round, an_error_alone_and_a_hang_up_alone_end_a_connection)
{
    ByHand layer;
    int    broken[2], ended[2]; // the end of a pipe reports either, and cannot be received from
    ASSERT_EQ(pipe2(broken, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(ended, O_CLOEXEC), 0);
    layer.serve(broken[1]);
    layer.serve(ended[0]);
    EXPECT_EQ(close(broken[0]), 0);
    EXPECT_EQ(run_round(0, 0), 1);
    EXPECT_THAT(layer.events.seen(), ElementsAre(disconnected(0, 0)));
    EXPECT_EQ(close(ended[1]), 0);
    EXPECT_EQ(run_round(0, 0), 1);
    EXPECT_THAT(layer.events.seen(), ElementsAre(disconnected(0, 0), disconnected(1, 0)));
}

namespace {

// What one end of a socket pair sent before it was closed, for a connection served by hand.
void serve_what_was_left(const Bytes &bytes)
{
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    ByHand::serve(pair[0]);
    EXPECT_EQ(write(pair[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(close(pair[1]), 0); // reported as a hang-up, together with what can be read
}

} // namespace

TEST(round, a_hang_up_comes_after_what_can_still_be_read)
{
    ByHand layer;
    serve_what_was_left(wire("C0 00 C1 00"));
    EXPECT_EQ(run_round(0, 0), 1);
    EXPECT_THAT(layer.events.seen(), ElementsAre(data(0, wire("C0 00")), data(0, wire("C1 00")), disconnected(0, 0)));
    EXPECT_EQ(run_round(0, 0), 0);
}

TEST(round, a_turn_that_ends_before_a_broken_connection_is_read_goes_on_in_the_next)
{
    ManualClock clock;
    ByHand      layer;
    layer.events.on_event = [&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA)
            clock.advance_ms(10);
        return true;
    };
    const Bytes half = packet(0x30, repeat('x', 2045)); // a receive takes two
    serve_what_was_left(half + half + half + half + half);
    const auto events_after_round = [&] {
        EXPECT_EQ(run_round(0, 0), 1);
        return layer.events.seen().size();
    };
    for (size_t packets = 1; packets <= 5; ++packets)
        EXPECT_EQ(events_after_round(), packets);
    EXPECT_EQ(layer.events.count(disconnected(0, 0)), 0u);
    EXPECT_EQ(events_after_round(), 6u);
    EXPECT_EQ(layer.events.seen().back(), disconnected(0, 0));
    EXPECT_EQ(run_round(0, 0), 0);
}

TEST(round, an_end_that_the_callback_objects_to_is_told_again_but_nothing_is_read_twice)
{
    ByHand layer;
    bool   agrees         = false;
    layer.events.on_event = [&](const Recorder::Event &event) {
        return event.event != NETIP_EVENT_DISCONNECTED || agrees;
    };
    serve_what_was_left(wire("C0 00"));
    EXPECT_EQ(run_round(0, 0), 1);
    EXPECT_EQ(run_round(0, 0), 0); // it rests; an idle round ends that
    agrees = true;
    EXPECT_EQ(run_round(0, 0), 1);
    EXPECT_EQ(run_round(0, 0), 0);
    EXPECT_THAT(layer.events.seen(), ElementsAre(data(0, wire("C0 00")), disconnected(0, 0), disconnected(0, 0)));
}

TEST(round, a_full_buffer_whose_end_was_objected_to_is_told_again_with_the_next_byte)
{
    ByHand layer;
    int    pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    const Fd peer(pair[1]);
    bool     agrees       = false;
    layer.events.on_event = [&](const Recorder::Event &event) {
        return event.event != NETIP_EVENT_DISCONNECTED || agrees;
    };
    layer.serve(pair[0]);
    const Bytes undecodable = repeat(0xFF, 4096);
    EXPECT_EQ(write(peer.get(), undecodable.data(), undecodable.size()), 4096);
    EXPECT_EQ(run_round(0, 0), 1);
    EXPECT_THAT(layer.events.seen(), ElementsAre(disconnected(0, 0)));
    EXPECT_EQ(run_round(0, 0), 0);
    EXPECT_EQ(run_round(0, 0), 0) << "watched again, and nothing to tell";
    agrees = true;
    EXPECT_EQ(write(peer.get(), "x", 1), 1);
    EXPECT_EQ(run_round(0, 0), 1);
    EXPECT_THAT(layer.events.seen(), ElementsAre(disconnected(0, 0), disconnected(0, 0)));
}

TEST(round, by_hand)
{
    ByHand    layer;
    Recorder &events = layer.events;
    int       pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    const Fd peer(pair[1]);
    layer.serve(pair[0]);
    EXPECT_EQ(run_round(0, 0), 0);
    EXPECT_EQ(run_round(1, 0), 0); // of another start
    EXPECT_EQ(write(peer.get(), "\xC0\x00", 2), 2);
    EXPECT_EQ(run_round(1, 0), 0);
    EXPECT_EQ(run_round(0, 0), 1);
    EXPECT_THAT(events.seen(), ElementsAre(data(0, wire("C0 00"))));
    EXPECT_EQ(current_connection().generation, 0u);
}

// ---- capacity

namespace {

// A child process that holds `count` connections, tries one more when told, and reports how that ended.
struct Crowd {
    explicit Crowd(int count)
    {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        if (const pid_t child = fork(); child == 0) {
            ::close(pair[0]);
            _exit(run(pair[1], count));
        } else {
            pid = child;
        }
        ::close(pair[1]);
        line = Fd(pair[0]);
    }
    ~Crowd()
    {
        line.reset();
        waitpid(pid, nullptr, 0);
    }
    void tell(char what) const { EXPECT_EQ(write(line.get(), &what, 1), 1); }
    char hear() const
    {
        char what = '?';
        EXPECT_TRUE(readable(line.get(), 100s));
        EXPECT_EQ(read(line.get(), &what, 1), 1);
        return what;
    }

    static int open_one()
    {
        const int         fd      = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = loopback();
        return fd >= 0 && connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? fd : -1;
    }
    static int run(int line, int count)
    {
        char go;
        if (read(line, &go, 1) != 1)
            return 0;
        int  last   = -1;
        char answer = 'y';
        for (int i = 0; i < count; ++i)
            if ((last = open_one()) < 0)
                answer = 'n';
        if (write(line, &answer, 1) != 1 || read(line, &go, 1) != 1)
            return 0;
        uint8_t   byte;
        const int extra = open_one();
        answer          = extra >= 0 && recv(extra, &byte, 1, 0) <= 0 ? 'y' : 'n'; // closed at once
        if (write(line, &answer, 1) != 1 || read(line, &go, 1) != 1)
            return 0;
        ::close(last);
        if (read(line, &go, 1) != 1)
            return 0;
        const int replacement = open_one();
        answer                = replacement >= 0 ? 'y' : 'n';
        return write(line, &answer, 1) == 1 && read(line, &go, 1) == 1; // until the line breaks
    }

    pid_t pid;
    Fd    line;
};

} // namespace

TEST(capacity, the_11001st_connection_is_accepted_and_closed)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    constexpr rlim_t kNeeded = 11100;
    if (limit.rlim_max < kNeeded)
        GTEST_SKIP() << "needs " << kNeeded << " descriptors, the hard limit is " << limit.rlim_max;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);

    const Crowd                  crowd(11000);
    static std::atomic<uint32_t> here{0}, gone{0};
    const auto count = [](uint32_t, uint32_t event, const uint8_t *, uint32_t, uint32_t, uint32_t, void *) -> uint8_t {
        ++(event == NETIP_EVENT_CONNECTED ? here : gone);
        return 1;
    };
    ASSERT_EQ(netip_init(count, nullptr, 1), 0u);
    crowd.tell('1');
    ASSERT_EQ(crowd.hear(), 'y') << "the child could not connect";
    ASSERT_TRUE(eventually([] { return here == 11000; }));
    EXPECT_EQ(netip_get_free_handle(), 0xFFFFFFFFu);

    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    std::this_thread::sleep_for(500ms);
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_nvcsw - before.ru_nvcsw, 25); // idle

    char                 extra;
    std::vector<LogLine> lines;
    {
        LogCapture log;
        crowd.tell('2');
        extra = crowd.hear();
        lines = log.take();
    }
    EXPECT_EQ(extra, 'y') << "the 11001st was not closed";
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_EQ(here, 11000u);
    EXPECT_EQ(gone, 0u);
    crowd.tell('3'); // one leaves,
    EXPECT_TRUE(eventually([] { return gone == 1; }));
    EXPECT_TRUE(eventually([] {
        ScopedLock lock(g_netip_lock);
        return netip_get_free_handle() != 0xFFFFFFFF;
    }));
    crowd.tell('4'); // and another gets its place
    EXPECT_EQ(crowd.hear(), 'y');
    EXPECT_TRUE(eventually([] { return here == 11001; }));
    netip_deinit();
    EXPECT_EQ(gone, 11001u);
}
