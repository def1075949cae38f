// PINGREQ, DISCONNECT, silence and the will.
#include "support/broker_process.h"
#include "support/peer.h"

#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

struct Watch { // a subscriber that sees wills
    BrokerProcess broker = BrokerProcess::start();
    Peer          v4     = Peer::tcp();
    Peer          client = Peer::tcp();
    Watch() { v4.connect_v4("watch").subscribe("w", 2); }
};

} // namespace

TEST(ping, is_answered_by_two_bytes)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a").send("C0 00");
    client.expect("D0 00");
    client.connect_v5("a").send("C0 00");
    client.expect("D0 00");
    client.send("CF 00 | C0 01 00"); // flags and content are not looked at
    client.expect("D0 00 | D0 00");
}

TEST(disconnect, v4)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a").send("E0 00");
    client.expect_closed();
}

TEST(disconnect, v4_with_content_is_refused)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    for (const char *refused : {"E0 01 00", "E0 02 00 00"}) {
        SCOPED_TRACE(refused);
        client.send(refused);
        client.expect_ignored();
    }
}

TEST(disconnect, v5)
{
    BrokerProcess broker = BrokerProcess::start();
    for (const char *taken : {
             "E0 02 | 00 00",
             "E0 02 | 04 00",
             "E0 07 | 00 | 05 | 10 00 00 00 3C",
             "E0 06 | 00 | 04 | 1F 00 01 'x'",
             "E0 06 | 00 | 04 | 26 00 01 'x'",
         }) {
        SCOPED_TRACE(taken);
        Peer client = Peer::tcp();
        client.connect_v5("a").send(taken);
        client.expect_closed();
    }
}

TEST(disconnect, v5_short_forms_and_other_properties_are_refused)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v5("a");
    for (const char *refused : {
             "E0 00", "E0 01 | 00",
             "E0 07 | 00 | 05 | 11 00 00 00 3C", // the interval under its usual number
             "E0 04 | 00 | 09 | 1F 00",          // a block past the end
             "E0 05 | 00 | 03 | 10 00 00",       // half a value
         }) {
        SCOPED_TRACE(refused);
        client.send(refused);
        client.expect_ignored();
    }
}

TEST(disconnect, what_was_answered_before_still_arrives)
{
    BrokerProcess broker = BrokerProcess::start();
    for (int i = 0; i < 20; ++i) {
        Peer client = Peer::tcp();
        client.send(connect_packet(5, "a", {.max_packet_size = 0}) + publish_packet(5, "t", std::string(250, 'x')));
        client.expect(connack_packet(5, {.max_packet_size = 0}) + wire("E0 02 95 00"));
        client.expect_closed();
    }
}

TEST(keep_alive, silence_ends_the_connection_and_pings_keep_it)
{
    BrokerProcess broker = BrokerProcess::start({.max_clients = 100}); // a scan sees a thousand clients
    Peer          silent = Peer::tcp(), busy = Peer::tcp();
    silent.connect_v4("silent", {.keep_alive_s = 1});
    busy.connect_v4("busy", {.keep_alive_s = 1});
    const double start = now_s();
    while (silent.drain() && now_s() - start < 15 * kSlowdown) { // a scan every 10 s
        busy.ping();
        pause_ms(200);
    }
    silent.expect_closed();
    EXPECT_GT(now_s() - start, 1.4);
    busy.ping();
}

TEST(will, is_sent_when_the_connection_drops)
{
    Watch test;
    test.client.connect_v4("a", {.will = Will{"w", "oops", 1, true}});
    test.client.hang_up();
    test.v4.expect("33 09 | 00 01 'w' | .. .. | 'oops'");
    test.v4.expect_nothing(1400); // not repeated
    Peer late = Peer::tcp();
    late.connect_v4("late").subscribe("w"); // and not kept, whatever its flag says
    late.ping();
}

TEST(will, is_sent_when_the_connection_is_reset)
{
    Watch test;
    test.client.connect_v4("a", {.will = Will{"w", "oops"}});
    test.client.reset();
    test.v4.expect("30 07 | 00 01 'w' | 'oops'");
}

TEST(will, is_dropped_by_a_disconnect)
{
    for (unsigned level : {4u, 5u}) {
        SCOPED_TRACE(level);
        Watch         test;
        const Connect options = {.will = Will{"w", "oops"}};
        test.client.connect(level, "a", options);
        test.client.disconnect();
        test.v4.expect_nothing();
    }
}

TEST(will, is_sent_when_an_oversized_packet_ends_the_connection)
{
    Watch test;
    test.client.connect_v5("a", {.max_packet_size = 0, .will = Will{"w", "oops"}});
    test.client.send(publish_packet(5, "x", std::string(250, 'x')));
    test.client.expect("E0 02 95 00");
    test.client.expect_closed();
    test.v4.expect("30 08 | 00 01 'w' | 00 'oops'");
}

// The fan-out reads the will by the receiver's level, while it was written at its owner's.
TEST(will, keeps_the_property_length_of_its_level)
{
    Watch test;
    Peer  v5 = Peer::tcp();
    v5.connect_v5("watch5").subscribe("w");
    test.client.connect_v5("a", {.will = Will{"w", "oops"}});
    test.client.hang_up();
    test.v4.expect("30 08 | 00 01 'w' | 00 'oops'");
    v5.expect("30 08 | 00 01 'w' | 00 | 'oops'");

    test.client = Peer::tcp();
    test.client.connect_v4("b", {.will = Will{"w", std::string("\x01xyz")}}); // 1: one byte of properties
    test.client.hang_up();
    test.v4.expect("30 07 | 00 01 'w' | 01 'xyz'");
    v5.expect("30 06 | 00 01 'w' | 00 | 'yz'");
}

// Where its remaining length takes two bytes, the second is read as the beginning of the topic.
TEST(will, sizes_that_reach_a_subscriber)
{
    const struct {
        unsigned level, qos;
        Bytes    properties;
        size_t   payload; // with a topic of one character
    } cases[] = {
        {4, 0, {}, 124}, {4, 1, {}, 122}, {5, 0, {}, 123}, {5, 1, {}, 121}, {5, 1, wire("02 00 00 00 3C"), 116},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(testing::Message() << "level " << one.level << ", QoS " << one.qos << ", " << one.payload
                                        << " bytes");
        Watch      test;
        const auto leaves = [&](size_t payload) {
            Peer          mortal  = Peer::tcp();
            const Connect options = {.will = Will{"w", std::string(payload, 'x'), one.qos, false, one.properties}};
            mortal.connect(one.level, "a", options);
            mortal.hang_up();
        };
        leaves(one.payload);
        const Bytes arrived = test.v4.read_packet();
        EXPECT_EQ(Bytes(arrived.end() - one.payload, arrived.end()), repeat('x', one.payload));
        leaves(one.payload + 1);
        test.v4.expect_nothing();
    }
}

TEST(will, waits_for_its_delay_and_is_cancelled_by_a_return)
{
    Watch         test;
    const Connect delayed = {.will = Will{"w", "oops", 0, false, wire("18 00 00 00 01")}};
    test.client.connect_v5("a", delayed);
    const double start = now_s();
    test.client.hang_up();
    test.v4.expect("30 08 | 00 01 'w' | 00 'oops'");
    EXPECT_GT(now_s() - start, 0.95);
    EXPECT_LT(now_s() - start, 1.0 + 0.5 * kSlowdown);

    test.client = Peer::tcp();
    test.client.connect_v5("a", delayed);
    test.client.hang_up();
    test.v4.expect_nothing(300);
    test.client = Peer::tcp();
    test.client.connect_v5("a");
    test.v4.expect_nothing(1300);
}

TEST(will, needs_two_length_bytes_and_reaches_nobody)
{
    Watch test;
    test.client.connect_v4("a", {.will = Will{"w", std::string(124, 'x')}}); // 127 in all
    test.client.hang_up();
    test.v4.expect_publish("w", std::string(124, 'x'));
    test.client = Peer::tcp();
    test.client.connect_v4("b", {.will = Will{"w", std::string(125, 'x')}});
    test.client.hang_up();
    test.v4.expect_nothing();
    test.v4.ping();
}
