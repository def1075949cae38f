#include "net_fixture.h"
#include "support/faults.h"
#include "support/log_capture.h"

#include <netinet/tcp.h>

using namespace tarn;
using namespace tarn::net;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

uint8_t ignore(uint32_t, uint32_t, const uint8_t *, uint32_t, uint32_t, uint32_t, void *)
{
    return 1;
}

uint32_t start(int io_threads = 1)
{
    return netip_init(ignore, nullptr, io_threads);
}

// What is left in the globals and in the process when nothing runs.
void expect_nothing_left(int descriptors, int listener = -1)
{
    EXPECT_EQ(netip_epoll_fd, -1);
    EXPECT_EQ(g_netip_udp, -1);
    EXPECT_EQ(g_netip_tcp_listen, listener);
    EXPECT_EQ(g_io_threads, nullptr);
    EXPECT_EQ(g_netip_cb, nullptr);
    EXPECT_EQ(g_netip_running, 0);
    EXPECT_FALSE(is_up());
    EXPECT_EQ(descriptor_count(), descriptors);
    EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 0; })); // a joined thread is listed a moment longer
}

} // namespace

TEST(netip_init, needs_a_callback)
{
    EXPECT_EQ(netip_init(nullptr, nullptr, 1), 6u);
    Layer layer;
    EXPECT_EQ(netip_init(nullptr, nullptr, 1), 6u);
}

TEST(netip_init, publishes_what_it_made)
{
    LogCapture log;
    int        token = 0;
    EXPECT_EQ(netip_init(ignore, &token, 3), 0u);
    EXPECT_TRUE(is_up());
    EXPECT_EQ(g_netip_running, 1);
    EXPECT_EQ(g_netip_cb, ignore);
    EXPECT_EQ(g_netip_cb_arg, &token);
    EXPECT_EQ(g_io_thread_num, 3);
    EXPECT_NE(g_io_threads, nullptr);
    EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 3 && threads_named("tarn-accept") == 1; }));
    for (const int fd : {netip_epoll_fd, g_netip_tcp_listen, g_netip_udp})
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(port_of(g_netip_tcp_listen), 1883);
    EXPECT_EQ(port_of(g_netip_udp), 1883);
    EXPECT_NE(fcntl(g_netip_udp, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_TRUE(eventually([] { return (fcntl(g_netip_tcp_listen, F_GETFL) & O_NONBLOCK) == 0; }));
    netip_deinit();
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(netip_init, clamps_the_number_of_threads)
{
    const struct {
        int32_t asked, got;
    } rows[] = {{-5, 1}, {0, 1}, {1, 1}, {8, 8}, {9, 8}, {1000000, 8}};
    for (const auto &row : rows) {
        ASSERT_EQ(start(row.asked), 0u);
        EXPECT_EQ(g_io_thread_num, row.got) << row.asked;
        netip_deinit();
    }
}

TEST(netip_init, refuses_a_second_start_and_touches_nothing)
{
    Layer layer;
    Peer  peer;
    layer.events.wait_for(1);
    EXPECT_EQ(start(4), 3u);
    EXPECT_EQ(g_netip_cb, Recorder::callback);
    EXPECT_EQ(g_io_thread_num, 1);
    EXPECT_EQ(g_netip_clients[0].in_use, 1);
    peer.send("C0 00");
    EXPECT_THAT(layer.events.wait_for(2), ElementsAre(connected(0), data(0, wire("C0 00"))));
}

TEST(netip_init, zeroes_the_table)
{
    g_netip_clients[5].type     = 7;
    g_netip_clients[6].in_use   = 1;
    g_netip_clients[10999].port = 9;
    ASSERT_EQ(start(), 0u);
    EXPECT_EQ(g_netip_clients[5].type, 0u);
    EXPECT_EQ(g_netip_clients[6].in_use, 0);
    EXPECT_EQ(g_netip_clients[10999].port, 0);
    netip_deinit();
}

TEST(netip_init, each_failure_has_its_code_and_releases_everything)
{
    LogCapture log(AGENT_LOG_INFO);
    const int  descriptors = descriptor_count();
    const struct {
        Call     call;
        int      nth, threads;
        uint32_t result;
    } rows[] = {
        {Call::EpollCreate, 1, 1, 7},  {Call::Allocate, 1, 1, 1},     {Call::Socket, 1, 1, 2},
        {Call::Bind, 1, 1, 3},         {Call::Listen, 1, 1, 4},       {Call::ThreadCreate, 1, 1, 1},
        {Call::ThreadCreate, 8, 8, 1}, {Call::ThreadCreate, 3, 8, 1}, {Call::Allocate, 2, 1, 1},
    };
    for (const auto &row : rows) {
        {
            Fail fail(row.call, row.nth);
            EXPECT_EQ(start(row.threads), row.result);
            EXPECT_EQ(fail.failed(), 1);
        }
        expect_nothing_left(descriptors);
    }
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ(start(), 0u); // the port is free again
    netip_deinit();
}

TEST(netip_init, a_failure_keeps_the_listener_of_an_earlier_start)
{
    ASSERT_EQ(start(), 0u);
    netip_deinit();
    const int listener    = g_netip_tcp_listen;
    const int descriptors = descriptor_count();
    for (const Call call : {Call::EpollCreate, Call::Allocate, Call::ThreadCreate}) {
        Fail fail(call);
        EXPECT_NE(start(), 0u);
        EXPECT_EQ(fail.failed(), 1);
        expect_nothing_left(descriptors, listener);
    }
    Layer layer;
    EXPECT_EQ(g_netip_tcp_listen, listener);
    Peer peer;
    EXPECT_THAT(layer.events.wait_for(1), ElementsAre(connected(0)));
}

TEST(netip_init, a_failure_before_the_threads_keeps_the_running_flag)
{
    g_netip_running = 1;
    Fail fail(Call::Socket);
    EXPECT_EQ(start(), 2u);
    EXPECT_EQ(g_netip_running, 1);
    EXPECT_EQ(g_netip_cb, nullptr);
}

TEST(netip_init, a_taken_port_gives_3_until_the_taker_is_gone)
{
    Fd                taker(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback();
    ASSERT_EQ(bind(taker.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(taker.get(), 1), 0);
    EXPECT_EQ(start(), 3u);
    taker.reset();
    EXPECT_EQ(start(), 0u);
    netip_deinit();
}

TEST(netip_init, leaves_udp_closed_when_asked_to)
{
    EXPECT_EQ(net::start(ignore, nullptr, 1, Udp::Closed), Start::Up);
    EXPECT_EQ(g_netip_udp, -1);
    netip_deinit();
    EXPECT_EQ(start(), 0u);
    EXPECT_NE(g_netip_udp, -1);
    netip_deinit();
}

TEST(netip_init, runs_without_udp_when_its_socket_fails)
{
    for (const Call call : {Call::Socket, Call::Bind}) {
        Recorder events;
        Fail     fail(call, g_netip_tcp_listen < 0 ? 2 : 1);
        ASSERT_EQ(netip_init(Recorder::callback, &events, 1), 0u);
        EXPECT_EQ(fail.failed(), 1);
        EXPECT_EQ(g_netip_udp, -1);
        Peer peer;
        peer.send("C0 00");
        EXPECT_THAT(events.wait_for(2), ElementsAre(connected(0), data(0, wire("C0 00"))));
        netip_deinit();
    }
}

TEST(netip_init, without_an_accept_thread_says_so_and_leaves_the_rest_standing)
{
    LogCapture log(AGENT_LOG_DEBUG);
    const int  descriptors = descriptor_count();
    {
        Fail fail(Call::ThreadCreate, 2);
        EXPECT_EQ(start(), 1u);
    }
    EXPECT_THAT(log.take(), ElementsAre(error("创建 accept 线程失败")));
    EXPECT_FALSE(is_up());
    EXPECT_EQ(g_netip_running, 1);
    EXPECT_NE(netip_epoll_fd, -1);
    EXPECT_NE(g_io_threads, nullptr);
    EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 1; }));
    EXPECT_TRUE(eventually([] { return threads_named("tarn-accept") == 0; }));

    netip_deinit();
    expect_nothing_left(descriptors + 1, g_netip_tcp_listen);
}

TEST(netip_init, takes_down_first_what_was_left_standing)
{
    const int descriptors = descriptor_count();
    {
        Fail fail(Call::ThreadCreate, 2);
        EXPECT_EQ(start(), 1u);
    }
    {
        Layer layer;
        EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 1 && threads_named("tarn-accept") == 1; }));
        Peer peer;
        EXPECT_THAT(layer.events.wait_for(1), ElementsAre(connected(0)));
    }
    expect_nothing_left(descriptors + 1, g_netip_tcp_listen);
}

TEST(netip_init, makes_a_listener_anew_when_the_old_one_was_closed_from_outside)
{
    ASSERT_EQ(start(), 0u);
    netip_deinit();
    {
        Peer waking;
        ASSERT_TRUE(eventually([] { return threads_named("tarn-accept") == 0; }));
    }
    close(g_netip_tcp_listen);
    const Fd reused = take_number(g_netip_tcp_listen);
    Layer    layer;
    EXPECT_NE(g_netip_tcp_listen, reused.get());
    Peer peer;
    EXPECT_TRUE(eventually([&] { return layer.events.count(connected(1)) == 1; })); // the one in hand came first
    EXPECT_EQ(netip_get_client_port(1), peer.port());
}

TEST(netip_init, makes_a_listener_anew_when_its_number_became_a_listener_on_another_port)
{
    ASSERT_EQ(start(), 0u);
    netip_deinit();
    {
        Peer waking;
        ASSERT_TRUE(eventually([] { return threads_named("tarn-accept") == 0; }));
    }
    const int number = g_netip_tcp_listen;
    close(number);
    const Fd          other(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(0);
    ASSERT_EQ(bind(other.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(other.get(), 1), 0);
    const Fd reused(other.get() == number ? -1 : dup3(other.get(), number, O_CLOEXEC));
    Layer    layer;
    EXPECT_NE(g_netip_tcp_listen, number);
    EXPECT_EQ(port_of(g_netip_tcp_listen), 1883);
}

TEST(netip_deinit, alone_or_repeated_does_nothing)
{
    const int descriptors = descriptor_count();
    netip_deinit();
    netip_deinit();
    expect_nothing_left(descriptors);
    ASSERT_EQ(start(), 0u);
    netip_deinit();
    netip_deinit();
    expect_nothing_left(descriptors + 1, g_netip_tcp_listen);
}

TEST(netip_deinit, starts_and_stops_without_growth)
{
    ASSERT_EQ(start(), 0u);
    netip_deinit();
    const int descriptors = descriptor_count();
    const int threads     = thread_count();
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(start(1 + i % 3), 0u);
        netip_deinit();
    }
    EXPECT_EQ(descriptor_count(), descriptors);
    EXPECT_TRUE(eventually([&] { return thread_count() == threads; }));
}

TEST(netip_deinit, serves_handmade_slots_too)
{
    HandmadeSlot tcp(3), left_open(4);
    left_open.slot().type = NETIP_UDP;
    Recorder events;
    g_netip_cb     = Recorder::callback;
    g_netip_cb_arg = &events;
    g_last_handle  = 5;
    netip_deinit();
    EXPECT_THAT(events.seen(), ElementsAre(disconnected(3, 2), disconnected(4, 2)));
    EXPECT_EQ(g_netip_clients[3].in_use, 0);
    EXPECT_EQ(g_netip_clients[4].in_use, 0);
    EXPECT_EQ(fcntl(tcp.slot().fd, F_GETFD), -1);
    EXPECT_NE(fcntl(left_open.slot().fd, F_GETFD), -1); // the UDP socket is everybody's
    EXPECT_EQ(g_netip_cb, nullptr);
    EXPECT_EQ(g_netip_cb_arg, nullptr);
    EXPECT_EQ(g_last_handle, 0u);
    close(left_open.slot().fd);
}
