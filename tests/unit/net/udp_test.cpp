#include "net_fixture.h"
#include "support/faults.h"
#include "support/log_capture.h"

using namespace tarn;
using namespace tarn::net;
using namespace tarn::test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// One TCP event, so that UDP is looked at. Its own events are left out of what tests expect by using data events only.
void make_a_round(Peer &peer)
{
    peer.send("C0 00");
}

} // namespace

TEST(udp, a_new_sender_connects_with_reason_3_and_its_datagram_is_one_packet)
{
    ManualClock clock;
    LogCapture  log(AGENT_LOG_ERROR);
    Layer       layer;
    Peer        tcp;
    layer.events.wait_for(1);
    std::this_thread::sleep_for(kSilence);
    UdpPeer udp;
    udp.send("30 FF FF 'not framed'");
    make_a_round(tcp);
    EXPECT_THAT(layer.events.wait_for(4), ElementsAre(connected(0), data(0, wire("C0 00")), connected(1, 3),
                                                      data(1, wire("30 FF FF 'not framed'"))));
    const netip_conn_t &slot = g_netip_clients[1];
    EXPECT_EQ(slot.handle, 1u);
    EXPECT_EQ(slot.type, unsigned{NETIP_UDP});
    EXPECT_EQ(slot.fd, g_netip_udp);
    EXPECT_STREQ(slot.ip, "127.0.0.1");
    EXPECT_EQ(slot.port, udp.port());
    EXPECT_EQ(slot.peer_len, 16u);
    const uint64_t at = static_cast<uint64_t>(clock.wall_s()) * 1000;
    EXPECT_EQ(netip_get_client_last_active(1), at);

    clock.advance_ms(700);
    udp.send("C0 00");
    make_a_round(tcp);
    layer.events.wait_for(6);
    EXPECT_EQ(layer.events.seen().back(), data(1, wire("C0 00"))); // the same handle, no second connect
    EXPECT_EQ(netip_get_client_last_active(1), at + 700);
}

TEST(udp, waits_for_a_tcp_event_and_is_read_once_a_round)
{
    Layer layer;
    Peer  tcp;
    layer.events.wait_for(1);
    std::this_thread::sleep_for(kSilence);
    UdpPeer udp;
    udp.send("C0 00");
    udp.send("D0 00");
    std::this_thread::sleep_for(2 * kSilence);
    EXPECT_EQ(layer.events.seen().size(), 1u);
    make_a_round(tcp);
    layer.events.wait_for(4);
    std::this_thread::sleep_for(kSilence);
    EXPECT_THAT(layer.events.seen(),
                ElementsAre(connected(0), data(0, wire("C0 00")), connected(1, 3), data(1, wire("C0 00"))));
    make_a_round(tcp);
    layer.events.wait_for(6);
    EXPECT_EQ(layer.events.seen().back(), data(1, wire("D0 00")));
}

TEST(udp, a_new_connection_is_an_event_also_when_it_was_accepted_before_epoll_was_asked)
{
    std::atomic<bool> inside{false}, leave{false}, both_read{false};
    Layer             layer;
    layer.events.on_event = [&](const Recorder::Event &event) {
        if (event.handle == 0 && event.event == NETIP_EVENT_DATA) {
            inside = true;
            eventually([&] { return leave.load(); });
        } else if (event.handle == 1) { // the round is owed already, not only when this callback is over
            leave     = true;
            both_read = layer.events.wait_for(7).size() == 7;
        }
        return true;
    };
    Peer tcp;
    layer.events.wait_for(1);
    std::this_thread::sleep_for(kSilence);
    make_a_round(tcp);
    ASSERT_TRUE(eventually([&] { return inside.load(); }));
    UdpPeer first, second;
    first.send("C0 00");
    second.send("D0 00");
    Peer silent; // nothing of it is left for epoll to see when the I/O thread asks again
    EXPECT_TRUE(eventually([&] { return both_read.load(); }));
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), data(0, wire("C0 00")), connected(1), connected(2, 3),
                                                 data(2, wire("C0 00")), connected(3, 3), data(3, wire("D0 00"))));
}

TEST(udp, each_new_connection_is_an_event)
{
    Layer                                 layer;
    std::vector<std::unique_ptr<UdpPeer>> senders; // all stay: a port that is given out again is a sender known already
    std::vector<std::unique_ptr<Peer>>    silent;
    for (size_t i = 0; i < 50; ++i) {
        senders.push_back(std::make_unique<UdpPeer>());
        senders.back()->send("C0 00");
        silent.push_back(std::make_unique<Peer>());
        ASSERT_EQ(layer.events.wait_for(3 * (i + 1)).size(), 3 * (i + 1)) << i;
    }
}

TEST(udp, a_connection_that_finds_no_slot_is_an_event_too)
{
    Layer layer;
    Peer  tcp;
    {
        UdpPeer udp;
        layer.events.wait_for(1);
        std::this_thread::sleep_for(kSilence);
        udp.send("C0 00");
        make_a_round(tcp);
        layer.events.wait_for(4);
        {
            ScopedLock lock(g_netip_lock);
            for (uint32_t handle = 2; handle < 11000; ++handle) {
                g_netip_clients[handle].type   = 9;
                g_netip_clients[handle].in_use = 1;
            }
        }
        udp.send("D0 00");
        Peer turned_away;
        EXPECT_EQ(turned_away.end(), 0);
        EXPECT_EQ(layer.events.wait_for(5).back(), data(1, wire("D0 00")));
    }
    ScopedLock lock(g_netip_lock);
    for (uint32_t handle = 2; handle < 11000; ++handle)
        g_netip_clients[handle].in_use = 0;
}

TEST(udp, senders_differ_by_address_and_port)
{
    Layer   layer;
    Peer    tcp;
    UdpPeer a, b;
    layer.events.wait_for(1);
    std::this_thread::sleep_for(kSilence);
    a.send("C0 00");
    make_a_round(tcp);
    layer.events.wait_for(4);
    b.send("D0 00");
    make_a_round(tcp);
    layer.events.wait_for(7);
    EXPECT_EQ(netip_get_client_port(1), a.port());
    EXPECT_EQ(netip_get_client_port(2), b.port());
    EXPECT_EQ(layer.events.seen().back(), data(2, wire("D0 00")));
}

TEST(udp, senders_with_one_port_differ_by_address)
{
    Layer       layer;
    Peer        tcp;
    UdpPeer     a;
    sockaddr_in other     = loopback(a.port());
    other.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
    UdpPeer b(other);
    layer.events.wait_for(1);
    std::this_thread::sleep_for(kSilence);
    a.send("C0 00");
    make_a_round(tcp);
    layer.events.wait_for(4);
    b.send("D0 00");
    make_a_round(tcp);
    layer.events.wait_for(7);
    EXPECT_EQ(layer.events.seen().back(), data(2, wire("D0 00")));
    char ip[16];
    EXPECT_EQ(netip_get_client_ip(2, ip, sizeof ip), 1);
    EXPECT_STREQ(ip, "127.0.0.2");
}

TEST(udp, a_tcp_connection_with_the_address_of_a_sender_is_somebody_else)
{
    Layer   layer;
    Peer    tcp;
    UdpPeer udp(loopback(tcp.port()));
    layer.events.wait_for(1);
    std::this_thread::sleep_for(kSilence);
    udp.send("D0 00");
    make_a_round(tcp);
    layer.events.wait_for(4);
    EXPECT_THAT(layer.events.seen(),
                ElementsAre(connected(0), data(0, wire("C0 00")), connected(1, 3), data(1, wire("D0 00"))));
}

TEST(udp, answers_go_to_the_sender)
{
    Layer   layer;
    UdpPeer udp;
    udp.send("C0 00");
    Peer tcp;
    make_a_round(tcp);
    layer.events.wait_for(4);
    const uint32_t handle = netip_get_client_port(0) == udp.port() ? 0 : 1;
    EXPECT_EQ(send_bytes(handle, wire("D0 00")), 0u);
    EXPECT_EQ(hex(udp.receive()), "D0 00");

    const Bytes     first = wire("30 01 01"), second = wire("30 01 02");
    const OutPacket packets[] = {{first.data(), 3}, {second.data(), 3}, {second.data(), 0}};
    const Sent      sent      = send_packets(handle, packets, 3);
    EXPECT_EQ(sent.packets, 2);
    EXPECT_EQ(sent.result, unsigned{NETIP_INVALID});
    EXPECT_EQ(hex(udp.receive()), "30 01 01"); // a datagram each
    EXPECT_EQ(hex(udp.receive()), "30 01 02");
    EXPECT_EQ(send_bytes(handle, repeat('x', 4096)), 0u);
    EXPECT_EQ(udp.receive().size(), 4096u);
}

TEST(udp, a_datagram_is_cut_at_4096_bytes)
{
    Layer   layer;
    UdpPeer udp;
    udp.send(repeat('x', 4097));
    Peer tcp;
    make_a_round(tcp);
    layer.events.wait_for(4);
    EXPECT_TRUE(layer.events.count(data(0, repeat('x', 4096))) + layer.events.count(data(1, repeat('x', 4096))) == 1);
}

TEST(udp, an_empty_datagram_is_no_packet_and_makes_no_connection)
{
    Layer   layer;
    Peer    tcp;
    UdpPeer udp;
    layer.events.wait_for(1);
    std::this_thread::sleep_for(kSilence);
    udp.send(Bytes{});
    make_a_round(tcp);
    layer.events.wait_for(2);
    make_a_round(tcp); // it is gone
    layer.events.wait_for(3);
    netip_deinit();
    EXPECT_THAT(layer.events.seen(),
                ElementsAre(connected(0), data(0, wire("C0 00")), data(0, wire("C0 00")), disconnected(0, 2)));
}

TEST(udp, a_sender_with_no_free_slot_is_dropped)
{
    Layer layer;
    Peer  tcp;
    layer.events.wait_for(1);
    std::this_thread::sleep_for(kSilence);
    {
        ScopedLock lock(g_netip_lock);
        for (uint32_t handle = 1; handle < 11000; ++handle) {
            g_netip_clients[handle].type   = 9;
            g_netip_clients[handle].in_use = 1;
        }
    }
    UdpPeer udp;
    udp.send("C0 00");
    make_a_round(tcp);
    layer.events.wait_for(2);
    std::this_thread::sleep_for(kSilence);
    EXPECT_THAT(layer.events.seen(), ElementsAre(connected(0), data(0, wire("C0 00"))));
    {
        ScopedLock lock(g_netip_lock);
        for (uint32_t handle = 1; handle < 11000; ++handle)
            g_netip_clients[handle].in_use = 0;
    }
    make_a_round(tcp); // the datagram is gone
    layer.events.wait_for(3);
    std::this_thread::sleep_for(kSilence);
    EXPECT_EQ(layer.events.seen().size(), 3u);
}

TEST(udp, closing_one_peer_ends_udp_until_the_next_start)
{
    Recorder events;
    ASSERT_EQ(netip_init(Recorder::callback, &events, 1), 0u);
    Peer    tcp;
    UdpPeer a, b;
    events.wait_for(1);
    std::this_thread::sleep_for(kSilence);
    a.send("C0 00");
    make_a_round(tcp);
    events.wait_for(4);
    b.send("C0 00");
    make_a_round(tcp);
    events.wait_for(7);
    const int shared = int32_t{g_netip_udp};

    netip_close(1);
    EXPECT_EQ(events.seen().back(), disconnected(1, 2));
    EXPECT_EQ(g_netip_udp, -1);
    EXPECT_EQ(send_bytes(2, wire("D0 00")), 6u);
    EXPECT_EQ(netip_get_client_port(2), b.port()); // still in use
    const Fd reused = take_number(shared);
    EXPECT_EQ(send_bytes(2, wire("D0 00")), 6u); // the number now belongs to somebody else
    netip_close(2);
    EXPECT_NE(fcntl(reused.get(), F_GETFD), -1);
    netip_deinit();

    Recorder again;
    ASSERT_EQ(netip_init(Recorder::callback, &again, 1), 0u);
    UdpPeer c;
    c.send("D0 00");
    Peer other;
    make_a_round(other);
    EXPECT_TRUE(
        eventually([&] { return again.count(data(0, wire("D0 00"))) + again.count(data(1, wire("D0 00"))) == 1; }));
    netip_deinit();
}

TEST(udp, an_objecting_callback_keeps_the_shared_socket_and_deinit_closes_it_once)
{
    std::atomic<bool> agree{false};
    Layer   layer([&](const Recorder::Event &event) { return event.event != NETIP_EVENT_DISCONNECTED || agree; });
    Peer    tcp;
    UdpPeer a, b;
    layer.events.wait_for(1);
    std::this_thread::sleep_for(kSilence);
    a.send("C0 00");
    make_a_round(tcp);
    layer.events.wait_for(4);
    const int shared = int32_t{g_netip_udp};
    netip_close(1);
    EXPECT_EQ(layer.events.seen().back(), disconnected(1, 2));
    EXPECT_EQ(g_netip_udp, shared);
    b.send("D0 00"); // and UDP goes on
    make_a_round(tcp);
    EXPECT_EQ(layer.events.wait_for(8).back(), data(2, wire("D0 00")));
    agree = true;
    netip_close(2);
    const Fd reused = take_number(shared);
    netip_deinit();
    EXPECT_NE(fcntl(shared, F_GETFD), -1);
}

TEST(udp, closing_a_peer_of_a_dead_socket_touches_nobody_else)
{
    Layer   layer;
    Peer    tcp;
    UdpPeer a, b;
    layer.events.wait_for(1);
    std::this_thread::sleep_for(kSilence);
    a.send("C0 00");
    make_a_round(tcp);
    layer.events.wait_for(4);
    b.send("C0 00");
    make_a_round(tcp);
    layer.events.wait_for(7);
    const int shared = int32_t{g_netip_udp};
    Fd first(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), second(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    netip_close(1);
    Peer next(std::move(first)); // the kernel had chosen a number for it when accept went to sleep
    layer.events.wait_for(9);
    Peer last(std::move(second)); // gets the number that was the UDP socket's
    layer.events.wait_for(10);
    ASSERT_EQ(peek(g_netip_clients[4].fd), shared);
    netip_close(2);
    last.send("D0 00");
    layer.events.wait_for(12);
    EXPECT_EQ(layer.events.seen().back(), data(4, wire("D0 00")));
}

TEST(udp, a_handmade_slot_may_name_the_shared_socket)
{
    Layer         layer;
    netip_conn_t &slot = g_netip_clients[50];
    slot.type          = NETIP_UDP;
    slot.fd            = int32_t{g_netip_udp};
    slot.in_use        = 1;
    netip_close(50);
    EXPECT_EQ(g_netip_udp, -1);
}

TEST(udp, a_peer_closed_in_its_connected_event_gets_no_data)
{
    Layer   layer([](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_CONNECTED && g_netip_clients[event.handle].type == NETIP_UDP)
            netip_close(event.handle);
        return true;
    });
    Peer    tcp;
    UdpPeer udp;
    layer.events.wait_for(1);
    std::this_thread::sleep_for(kSilence);
    udp.send("C0 00");
    make_a_round(tcp);
    layer.events.wait_for(4);
    std::this_thread::sleep_for(kSilence);
    EXPECT_THAT(layer.events.seen(),
                ElementsAre(connected(0), data(0, wire("C0 00")), connected(1, 3), disconnected(1, 2)));
}

TEST(udp, without_a_callback_the_slot_is_filled_and_the_datagram_dropped)
{
    Layer layer;
    {
        ScopedLock lock(g_netip_lock);
        g_netip_cb = nullptr;
    }
    UdpPeer udp;
    udp.send("C0 00");
    Peer tcp;
    make_a_round(tcp);
    EXPECT_TRUE(
        eventually([&] { return netip_get_client_port(0) == udp.port() || netip_get_client_port(1) == udp.port(); }));
    EXPECT_THAT(layer.events.seen(), IsEmpty());
}

TEST(udp, deinit_leaves_the_shared_socket_to_its_end)
{
    Recorder events;
    ASSERT_EQ(netip_init(Recorder::callback, &events, 1), 0u);
    Peer    tcp;
    UdpPeer udp;
    events.wait_for(1);
    std::this_thread::sleep_for(kSilence);
    udp.send("C0 00");
    make_a_round(tcp);
    events.wait_for(4);
    const int descriptors = descriptor_count();
    netip_deinit();
    EXPECT_THAT(events.seen(), Contains(disconnected(1, 2)));
    EXPECT_EQ(descriptor_count(), descriptors - 4); // TCP, UDP, epoll and g_wake_fd
}

TEST(udp, the_thread_that_delivers_knows_its_connection)
{
    std::atomic<uint32_t> generation{0};
    Layer                 layer([&](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_DATA)
            if (event.length == 3 && current_connection().handle == event.handle)
                generation = current_connection().generation;
        return true;
    });
    UdpPeer               udp;
    udp.send("30 01 00");
    Peer tcp;
    make_a_round(tcp);
    EXPECT_TRUE(eventually([&] { return generation != 0; }));
    EXPECT_TRUE(generation == generation_of(0) || generation == generation_of(1));
}
