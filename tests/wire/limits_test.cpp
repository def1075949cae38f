// Limits that a client can run into, and that nobody else suffers when one does.
#include "support/broker_process.h"
#include "support/peer.h"

#include <gtest/gtest.h>
#include <vector>

using namespace tarn::test;

TEST(limits, clients_beyond_the_maximum_are_closed_at_their_first_packet)
{
    BrokerProcess broker = BrokerProcess::start({.max_clients = 2});
    Peer          first = Peer::tcp(), second = Peer::tcp(), third = Peer::tcp();
    first.connect_v4("1");
    second.connect_v4("2");
    third.expect_nothing(); // a connection alone is no client
    third.send(connect_packet(4, "3"));
    third.expect_closed();
    first.disconnect();
    third = Peer::tcp();
    third.connect_v4("3");
    second.ping();
}

TEST(limits, a_published_will_keeps_the_place_of_its_client)
{
    BrokerProcess broker = BrokerProcess::start({.max_clients = 2});
    Peer          stays  = Peer::tcp();
    stays.connect_v4("stays");
    Peer::tcp().connect_v4("gone", {.will = Will{"t", "x"}}).hang_up();
    stays.ping(); // the end has been seen
    Peer next = Peer::tcp();
    next.send(connect_packet(4, "next"));
    next.expect_closed();
}

TEST(limits, a_client_that_goes_without_a_will_leaves_its_place)
{
    BrokerProcess broker = BrokerProcess::start({.max_clients = 2});
    Peer          stays  = Peer::tcp();
    stays.connect_v4("stays");
    Peer::tcp().connect_v4("gone").hang_up();
    stays.ping();
    Peer::tcp().connect_v4("next");
}

TEST(limits, the_default_maximum_packet_size_holds_until_connect)
{
    BrokerProcess broker = BrokerProcess::start({.max_packet_size = 256});
    Peer          client = Peer::tcp();
    client.send(packet(0x30, wire("00 01 't'") + repeat(0xFF, 250))); // 256 bytes
    client.ping();
    client.send(packet(0x30, wire("00 01 't'") + repeat(0xFF, 251)));
    client.expect("E0 00"); // level 4 has no reason code
    client.expect_closed();
    client = Peer::tcp();
    client.connect_v4("a"); // level 4 is given 4096 bytes
    client.send(packet(0x32, wire("00 01 't' | 00 07") + repeat(0xFF, 2000)));
    client.expect("40 02 00 07");
}

TEST(limits, ten_thousand_subscriptions)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    constexpr unsigned kCapacity = 10000, kEach = 16;
    for (unsigned n = 0; n < kCapacity && client.ok(); n += kEach) {
        Bytes body = u16(n + 1);
        for (unsigned i = 0; i < kEach; ++i)
            body = body + prefixed("f/" + std::to_string(n + i)) + wire("00");
        client.send(packet(0x82, body));
        client.expect(wire("90 12") + u16(n + 1) + repeat(0, kEach));
    }
    client.send(subscribe_packet(4, 1, "one/more", 1));
    client.expect("90 03 00 01 80");
    client.send(subscribe_packet(4, 2, "f/9999", 1)); // changing one that exists still works
    client.expect("90 03 00 02 01");
    client.unsubscribe("f/0");
    client.subscribe("one/more", 1);
    Peer sender = Peer::tcp();
    sender.connect_v4("p").publish("f/5000", "hello");
    client.expect_publish("f/5000", "hello");
}

TEST(limits, a_client_that_does_not_read_holds_up_nobody)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          asleep = Peer::tcp(), awake = Peer::tcp(), sender = Peer::tcp();
    asleep.connect_v4("asleep").subscribe("t");
    awake.connect_v4("awake").subscribe("t");
    sender.connect_v4("p");
    const std::string payload(1000, '\xFF');
    for (unsigned i = 1; i <= 12000 && awake.ok() && sender.ok(); ++i) { // more than any socket buffer holds
        sender.publish("t", payload, {.qos = 1, .id = i});
        awake.expect_publish("t", payload);
    }
    awake.ping();
    Peer::tcp().connect_v4("new").ping();
}

TEST(limits, a_burst_larger_than_the_queue_reaches_a_reader)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          reader = Peer::tcp(), sender = Peer::tcp();
    reader.connect_v4("r").subscribe("t");
    sender.connect_v4("p");
    Bytes burst;
    for (unsigned i = 0; i < 1000; ++i)
        burst = burst + publish_packet(4, "t", u16(0xFFFF) + u16(0xFFFF) + u16(i));
    sender.send(burst);
    for (unsigned i = 0; i < 1000 && reader.ok(); ++i)
        reader.expect(publish_packet(4, "t", u16(0xFFFF) + u16(0xFFFF) + u16(i)));
}

TEST(limits, a_thousand_connections_that_come_and_go)
{
    BrokerProcess broker = BrokerProcess::start();
    for (int i = 0; i < 1000; ++i) {
        Peer client = Peer::tcp();
        if (i % 3 == 0)
            client.connect_v4("c" + std::to_string(i % 7));
        if (i % 5 == 0)
            client.reset();
        if (::testing::Test::HasFailure())
            break;
    }
    Peer::tcp().connect_v4("last").ping();
}
