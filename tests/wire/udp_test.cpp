// UDP: a datagram is a packet, a sender a client, and datagrams wait until something happens on TCP.
#include "support/broker_process.h"
#include "support/peer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

using namespace tarn::test;

namespace {

struct Udp {
    BrokerProcess broker = BrokerProcess::start();
    Peer          tcp    = Peer::tcp();
    Peer          udp    = Peer::udp();
    Udp()
    {
        tcp.connect_v4("tcp");
        pause_ms(50); // no event of the connection itself is left
    }
    // One round of the I/O thread, which takes at most one datagram.
    void turn() { tcp.ping(); }
};

} // namespace

TEST(udp, a_datagram_waits_for_tcp_traffic)
{
    Udp test;
    test.udp.send(connect_packet(4, "u"));
    test.udp.expect_nothing(400);
    test.turn();
    test.udp.expect("20 02 00 00");
}

TEST(udp, a_new_tcp_connection_is_traffic_too)
{
    Udp test;
    test.udp.send(connect_packet(4, "u"));
    test.udp.expect_nothing();
    Peer other = Peer::tcp();
    test.udp.expect("20 02 00 00");
}

TEST(udp, a_tcp_connection_that_ends_is_traffic_too)
{
    Udp  test;
    Peer other = Peer::tcp();
    other.ping();
    test.udp.send(connect_packet(4, "u"));
    test.udp.expect_nothing();
    other.hang_up();
    test.udp.expect("20 02 00 00");
}

TEST(udp, one_datagram_is_taken_a_round)
{
    Udp test;
    for (int i = 0; i < 3; ++i)
        test.udp.send("C0 00");
    for (int i = 0; i < 3; ++i) {
        test.udp.expect_nothing();
        test.turn();
        test.udp.expect("D0 00");
    }
}

TEST(udp, a_sender_is_one_client_and_another_sender_another)
{
    Udp  test;
    Peer second = Peer::udp();
    test.udp.send(connect_packet(4, "u1"));
    test.turn();
    test.udp.expect("20 02 00 00");
    second.send(connect_packet(5, "u2"));
    test.turn();
    second.expect(connack_packet(5, {}));
    test.udp.send(subscribe_packet(4, 1, "t", 0));
    test.turn();
    test.udp.expect("90 03 00 01 00");
    second.send(publish_packet(5, "t", "hello", {.qos = 1, .id = 7}));
    test.turn();
    second.expect("40 03 00 07 00");
    test.udp.expect("30 08 | 00 01 't' | 'hello'");
}

TEST(udp, messages_cross_between_udp_and_tcp)
{
    Udp test;
    test.udp.send(connect_packet(4, "u"));
    test.turn();
    test.udp.expect("20 02 00 00");
    test.udp.send(subscribe_packet(4, 1, "down", 1));
    test.turn();
    test.udp.expect("90 03 00 01 01");
    test.tcp.subscribe("up", 1);
    test.tcp.publish("down", "hello", {.qos = 1});
    const unsigned id = test.udp.expect_publish("down", "hello", {.qos = 1});
    test.udp.send(ack_packet(4, 0x40, id));
    test.turn();
    test.udp.expect_nothing(1400); // the acknowledgement arrived
    test.udp.send(publish_packet(4, "up", "hello"));
    test.turn();
    test.tcp.expect_publish("up", "hello");
}

TEST(udp, what_is_behind_the_first_packet_is_lost)
{
    Udp test;
    test.udp.send(connect_packet(4, "u") + wire("C0 00"));
    test.turn();
    test.udp.expect("20 02 00 00");
    test.turn();
    test.udp.expect_nothing();
}

TEST(udp, a_connect_that_says_it_is_longer_is_read_as_far_as_it_goes)
{
    Udp test;
    test.udp.send("10 40 | 00 04 'MQTT' 04 02 00 3C | 00 01 'u'");
    test.turn();
    test.udp.expect("20 02 00 00");
}

TEST(udp, half_a_packet_is_not_kept)
{
    Udp test;
    test.udp.send("32 0A | 00 01 't'");
    test.turn();
    test.udp.send("00 07 | 'hello'");
    test.turn();
    test.udp.send("C0 00");
    test.turn();
    test.udp.expect("D0 00");
}

TEST(udp, an_empty_datagram_harms_nobody)
{
    Udp test;
    ASSERT_EQ(::send(test.udp.fd(), "", 0, 0), 0);
    test.turn();
    test.udp.send("C0 00");
    test.turn();
    test.turn();
    test.udp.expect("D0 00");
}

TEST(slow_udp, a_sender_that_falls_silent_without_a_connect_ends_udp_for_all)
{
    BrokerProcess broker = BrokerProcess::start({.keep_alive_s = 1, .max_clients = 100});
    Peer          tcp = Peer::tcp(), silent = Peer::udp(), other = Peer::udp();
    tcp.connect_v4("tcp");
    pause_ms(50); // no event of the connection itself is left
    silent.send("C0 00");
    tcp.ping();
    silent.expect("D0 00");
    other.send(connect_packet(4, "other"));
    tcp.ping();
    other.expect("20 02 00 00");
    const auto silence_was_ended = [&] { return broker.log().find("[超时完成]") != std::string::npos; };
    EXPECT_TRUE(wait_until(silence_was_ended, 15000 * kSlowdown)); // looked for every 10 s
    other.send("C0 00");
    tcp.ping();
    tcp.ping();
    other.expect_nothing();
}

TEST(udp, a_disconnect_over_udp_ends_udp_for_all)
{
    Udp  test;
    Peer second = Peer::udp();
    second.send("C0 00");
    test.turn();
    second.expect("D0 00");
    test.udp.send(connect_packet(4, "u"));
    test.turn();
    test.udp.expect("20 02 00 00");
    test.udp.send("E0 00");
    test.turn();
    test.turn();
    second.send("C0 00");
    test.turn();
    second.expect_nothing();
    test.turn(); // TCP goes on
}
