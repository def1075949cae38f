#include "net_fixture.h"
#include "support/faults.h"
#include "support/log_capture.h"

using namespace tarn;
using namespace tarn::net;
using namespace tarn::test;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(netip_close, twice_is_once)
{
    LogCapture log;
    Layer      layer;
    Peer       peer;
    layer.events.wait_for(1);
    const int fd = g_netip_clients[0].fd;
    netip_close(0);
    const Fd reused = take_number(fd);
    netip_close(0);
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(peer.end(), 0);
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), disconnected(0, 2)));
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(netip_close, ignores_unknown_handles)
{
    Layer layer;
    for (const uint32_t handle : {0u, 10999u, 11000u, 0xFFFFFFFFu})
        netip_close(handle);
    EXPECT_THAT(layer.events.seen(), IsEmpty());
}

TEST(netip_close, clears_what_belonged_to_the_peer)
{
    HandmadeSlot  connection(7);
    netip_conn_t &slot = connection.slot();
    slot.peer          = loopback();
    slot.peer_len      = 16;
    slot.rx_len        = 3;
    slot.pkt_len       = 9;
    slot.pkt_len_known = 1;
    slot.rx_buf[0] = slot.rx_buf[4095] = 7;
    netip_close(7); // without any callback
    EXPECT_EQ(slot.in_use, 0);
    EXPECT_THAT(slot.ip, Each('\0'));
    EXPECT_EQ(slot.port, 0);
    EXPECT_EQ(slot.peer.sin_port, 0);
    EXPECT_EQ(slot.peer_len, 0u);
    EXPECT_THAT(slot.rx_buf, Each(0));
    EXPECT_EQ(slot.rx_len, 0);
    EXPECT_EQ(slot.pkt_len, 0);
    EXPECT_EQ(slot.pkt_len_known, 0);
    EXPECT_EQ(slot.last_active, 99u); // the rest stays
    uint8_t byte;
    EXPECT_EQ(read(connection.peer.get(), &byte, 1), 0);
}

TEST(netip_close, frees_the_slot_before_its_event)
{
    std::atomic<int> in_use{-1}, port{-1};
    Layer            layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DISCONNECTED) {
            in_use = peek(g_netip_clients[event.handle].in_use);
            port   = netip_get_client_port(event.handle);
            netip_close(event.handle); // returns at once
        }
        return true;
    });
    Peer             peer;
    layer.events.wait_for(1);
    netip_close(0);
    EXPECT_EQ(in_use, 0);
    EXPECT_EQ(port, 0);
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), disconnected(0, 2)));
}

TEST(netip_close, of_a_connection_with_unread_input_does_not_spin_while_its_event_is_delivered)
{
    static std::atomic<int>  rounds{0};
    static std::atomic<bool> reading{false}, closing{false};
    Layer                    layer([](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA) { // keeps the I/O thread from reading what comes next
            reading = true;
            eventually([] { return closing.load(); });
        } else if (event.event == NETIP_EVENT_DISCONNECTED) {
            closing = true;
            std::this_thread::sleep_for(2 * kSilence);
        }
        return true;
    });
    Peer                     peer;
    peer.send("C0 00");
    ASSERT_TRUE(eventually([] { return reading.load(); }));
    peer.send("C0 00");
    set_round_hooks({[] { ++rounds; }, nullptr});
    netip_close(0);
    set_round_hooks({});
    EXPECT_LE(rounds, 2);
    EXPECT_EQ(peer.end(), 0);
}

TEST(netip_close, over_unread_input_still_delivers_what_was_sent)
{
    const Fd    listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback();
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener.get(), 1), 0);
    Peer          peer;
    netip_conn_t &slot = g_netip_clients[3];
    slot.type          = NETIP_TCP;
    slot.fd            = accept(listener.get(), nullptr, nullptr);
    slot.in_use        = 1;
    peer.send(repeat('x', 60000));
    ASSERT_TRUE(readable(slot.fd, kPatience));
    EXPECT_EQ(send_bytes(3, wire("E0 00")), 0u);
    netip_close(3);
    EXPECT_EQ(hex(peer.receive(2)), "E0 00");
    EXPECT_EQ(peer.end(), 0); // not ECONNRESET
}

TEST(netip_close, an_objecting_callback_keeps_the_socket_open_until_deinit)
{
    Layer layer([](const Recorder::Event &event) { return event.event != NETIP_EVENT_DISCONNECTED; });
    Peer  peer;
    layer.events.wait_for(1);
    const int fd = g_netip_clients[0].fd;
    netip_close(0);
    EXPECT_EQ(g_netip_clients[0].in_use, 0);
    EXPECT_STREQ(g_netip_clients[0].ip, "127.0.0.1"); // nothing is cleared
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    peer.send("C0 00"); // nobody reads it
    EXPECT_FALSE(readable(peer.fd(), kSilence));
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), disconnected(0, 2)));
    netip_deinit();
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), disconnected(0, 2)));
}

TEST(netip_close, many_objections_are_all_kept_and_all_closed)
{
    Layer layer([](const Recorder::Event &event) { return event.event != NETIP_EVENT_DISCONNECTED; });
    std::vector<std::unique_ptr<Peer>> peers;
    for (size_t i = 0; i < 40; ++i) {
        peers.push_back(std::make_unique<Peer>());
        layer.events.wait_for(2 * i + 1);
        netip_close(static_cast<uint32_t>(i));
    }
    const int descriptors = descriptor_count();
    netip_deinit();
    EXPECT_EQ(descriptor_count(), descriptors - 43); // with epoll, g_wake_fd and UDP
}

TEST(netip_close, without_memory_an_objection_costs_a_descriptor)
{
    Layer layer([](const Recorder::Event &event) { return event.event != NETIP_EVENT_DISCONNECTED; });
    Peer  peer;
    layer.events.wait_for(1);
    const int fd = g_netip_clients[0].fd;
    {
        ScopedLock lock(g_netip_lock); // a callback that allocates nothing itself
        g_netip_cb = [](uint32_t, uint32_t, const uint8_t *, uint32_t, uint32_t, uint32_t, void *) -> uint8_t {
            return 0;
        };
        Fail fail(Call::Allocate);
        netip_close(0);
        EXPECT_EQ(fail.failed(), 1);
    }
    netip_deinit();
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    close(fd);
}

TEST(netip_close, of_a_handmade_udp_slot_closes_its_own_descriptor)
{
    HandmadeSlot connection(7);
    connection.slot().type = NETIP_UDP;
    const int fd           = connection.slot().fd;
    netip_close(7);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST(hang_up, an_objecting_callback_is_asked_again_every_100_ms)
{
    std::atomic<int> objections{3};
    Layer            layer(
        [&](const Recorder::Event &event) { return event.event != NETIP_EVENT_DISCONNECTED || objections-- <= 0; });
    Peer peer;
    layer.events.wait_for(1);
    const auto from = std::chrono::steady_clock::now();
    peer.close();
    layer.events.wait_for(2);
    EXPECT_EQ(netip_get_client_port(0) != 0, true); // still in use
    EXPECT_THAT(layer.events.wait_for(5), ElementsAre(connected(0), disconnected(0, 0), disconnected(0, 0),
                                                      disconnected(0, 0), disconnected(0, 0)));
    EXPECT_GE(std::chrono::steady_clock::now() - from, 290ms);
    EXPECT_TRUE(eventually([] { return netip_get_client_port(0) == 0; }));
}

TEST(hang_up, is_asked_again_also_in_a_busy_layer)
{
    std::atomic<int>  objections{1};
    std::atomic<bool> stop{false};
    Layer             layer(
        [&](const Recorder::Event &event) { return event.event != NETIP_EVENT_DISCONNECTED || objections-- <= 0; });
    Peer busy, peer;
    layer.events.wait_for(2);
    std::thread    traffic([&] {
        while (!stop) {
            busy.send("C0 00");
            std::this_thread::sleep_for(2ms); // no round ever times out
        }
    });
    const uint32_t handle = netip_get_client_port(0) == peer.port() ? 0 : 1;
    peer.close();
    EXPECT_TRUE(eventually([&] { return layer.events.count(disconnected(handle, 0)) == 2; }));
    stop = true;
    traffic.join();
}

TEST(hang_up, a_resting_connection_can_still_be_closed)
{
    std::atomic<int> objections{1};
    Layer            layer(
        [&](const Recorder::Event &event) { return event.event != NETIP_EVENT_DISCONNECTED || objections-- <= 0; });
    Peer peer;
    layer.events.wait_for(1);
    peer.close();
    layer.events.wait_for(2);
    netip_close(0);
    std::this_thread::sleep_for(2 * kSilence);
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), disconnected(0, 0), disconnected(0, 2)));
}

TEST(hang_up, a_close_nested_in_its_event_closes_once)
{
    std::atomic<bool> nested{false};
    Layer             layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DISCONNECTED && !nested.exchange(true))
            close_connection(event.handle, generation_of(event.handle));
        return true;
    });
    const int         descriptors = descriptor_count();
    {
        Peer peer;
        layer.events.wait_for(1);
    }
    EXPECT_THAT(layer.events.wait_for(3), ElementsAre(connected(0), disconnected(0, 0), disconnected(0, 2)));
    EXPECT_TRUE(eventually([&] { return descriptor_count() == descriptors; }));
}

TEST(hang_up, by_another_thread_meanwhile_closes_once)
{
    std::atomic<bool> inside{false}, closed{false};
    Layer             layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DISCONNECTED && !inside.exchange(true))
            eventually([&] { return closed.load(); });
        return true;
    });
    Peer              peer;
    layer.events.wait_for(1);
    const int fd = g_netip_clients[0].fd;
    peer.close();
    ASSERT_TRUE(eventually([&] { return inside.load(); }));
    netip_close(0);
    const Fd reused = take_number(fd);
    closed          = true;
    netip_deinit();
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), disconnected(0, 0), disconnected(0, 2)));
}

TEST(hang_up, of_a_descriptor_that_somebody_duplicated_leaves_nothing_in_epoll)
{
    static std::atomic<int> rounds{0};
    Layer                   layer;
    Peer                    peer;
    layer.events.wait_for(1);
    Fd kept; // as a child that the host forked would hold it
    {
        SlotLock slot(0);
        kept = Fd(dup(slot->fd));
    }
    peer.close();
    layer.events.wait_for(2);
    std::this_thread::sleep_for(kSilence);
    set_round_hooks({[] { ++rounds; }, nullptr});
    std::this_thread::sleep_for(kSilence);
    set_round_hooks({});
    EXPECT_EQ(rounds, 0);
}

TEST(close_connection, closes_only_the_connection_it_names)
{
    HandmadeSlot connection(7);
    close_connection(7, 5); // not this one
    EXPECT_EQ(connection.slot().in_use, 1);
    close_connection(7, 0); // whoever it is
    EXPECT_EQ(connection.slot().in_use, 0);
    close_connection(11000, 0);
    close_connection(11000, 1);
}

TEST(close_connection, a_slot_is_not_handed_out_while_its_event_is_delivered)
{
    std::atomic<uint32_t> next{0};
    Layer                 layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DISCONNECTED) {
            ScopedLock lock(g_netip_lock);
            g_last_handle = 0;
            next          = netip_get_free_handle();
        }
        return true;
    });
    Peer                  peer;
    layer.events.wait_for(1);
    netip_close(0);
    EXPECT_EQ(next, 1u);
    EXPECT_TRUE(eventually([] { // the accept thread may still be on its way out of the connected event
        ScopedLock lock(g_netip_lock);
        g_last_handle = 0;
        return netip_get_free_handle() == 0;
    }));
}
