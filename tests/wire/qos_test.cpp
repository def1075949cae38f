// QoS 1 and 2 in both directions: handshakes, repetitions, and answers that come twice.
#include "support/broker_process.h"
#include "support/peer.h"

#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

struct Pair { // a subscriber on "t" at QoS 2 and a publisher
    BrokerProcess broker     = BrokerProcess::start();
    Peer          subscriber = Peer::tcp();
    Peer          sender     = Peer::tcp();
    explicit Pair(unsigned level = 4)
    {
        subscriber.connect(level, "s");
        subscriber.subscribe("t", 2);
        sender.connect_v4("p");
    }
    unsigned deliver(unsigned qos)
    {
        sender.publish("t", "hello", {.qos = qos});
        return subscriber.expect_publish("t", "hello", {.qos = qos});
    }
};

constexpr int kPastFirstRepeat_ms = 1400; // a delivery is repeated after one second, seen by a scan every 100 ms

} // namespace

TEST(qos, v4_inbound_handshake)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    client.send("34 0A | 00 01 't' | 00 07 | 'hello'");
    client.expect("50 02 | 00 07");
    client.send("62 02 | 00 07");
    client.expect("70 02 | 00 07");
    client.send("62 02 | 00 07"); // answered whether it is known or not
    client.expect("70 02 | 00 07");
}

TEST(qos, v5_inbound_handshake)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v5("a");
    client.send("34 0B | 00 01 't' | 00 07 | 00 | 'hello'");
    client.expect("50 03 | 00 07 | 00");
    client.send("62 04 | 00 07 | 00 00");
    client.expect("70 03 | 00 07 | 00");
    client.send("62 02 | 00 08"); // the short form moves the client to level 4
    client.expect("70 02 | 00 08");
}

TEST(qos, a_message_at_qos_2_is_passed_on_at_once_and_each_time)
{
    Pair test;
    for (const char *packet : {"34 0A | 00 01 't' | 00 07 | 'hello'", "3C 0A | 00 01 't' | 00 07 | 'hello'"}) {
        SCOPED_TRACE(packet);
        test.sender.send(packet);
        test.sender.expect("50 02 | 00 07");
        test.subscriber.expect("34 0A | 00 01 't' | .. .. | 'hello'");
    }
}

TEST(qos, an_acknowledged_delivery_is_not_repeated)
{
    for (unsigned level : {4u, 5u}) {
        SCOPED_TRACE(level);
        Pair test(level);
        test.subscriber.acknowledge(0x40, test.deliver(1));
        test.subscriber.expect_nothing(kPastFirstRepeat_ms);
    }
}

TEST(qos, an_unacknowledged_delivery_is_repeated_first_without_dup)
{
    Pair           test;
    const unsigned id    = test.deliver(1);
    const double   start = now_s();
    EXPECT_EQ(test.subscriber.expect_publish("t", "hello", {.qos = 1}), id);
    EXPECT_GT(now_s() - start, 0.9);
    EXPECT_EQ(test.subscriber.expect_publish("t", "hello", {.qos = 1, .dup = true}), id);
    EXPECT_GT(now_s() - start, 2.8);
    test.subscriber.acknowledge(0x40, id);
    test.subscriber.ping();
}

TEST(qos, v5_repetition)
{
    Pair           test(5);
    const unsigned id = test.deliver(2);
    EXPECT_EQ(test.subscriber.expect_publish("t", "hello", {.qos = 2}), id);
    test.subscriber.acknowledge(0x50, id);
    test.subscriber.expect(wire("62 03") + u16(id) + wire("00 | 62 03") + u16(id) + wire("00"));
}

TEST(qos, v4_outbound_handshake_sends_pubrel_twice)
{
    Pair           test;
    const unsigned id = test.deliver(2);
    test.subscriber.acknowledge(0x50, id);
    test.subscriber.expect(wire("62 02") + u16(id) + wire("62 02") + u16(id));
    test.subscriber.acknowledge(0x50, id); // the queue has moved on: its own PUBREL came once
    test.subscriber.expect(wire("62 02") + u16(id));
    test.subscriber.acknowledge(0x70, id);
    test.subscriber.expect_nothing(kPastFirstRepeat_ms);
}

TEST(qos, v5_outbound_handshake_sends_pubrel_twice)
{
    Pair           test(5);
    const unsigned id = test.deliver(2);
    test.subscriber.acknowledge(0x50, id);
    test.subscriber.expect(wire("62 03") + u16(id) + wire("00 | 62 03") + u16(id) + wire("00"));
    test.subscriber.acknowledge(0x70, id);
    test.subscriber.expect_nothing(kPastFirstRepeat_ms);
}

TEST(qos, a_delivery_in_the_second_half_is_not_repeated)
{
    Pair           test;
    const unsigned id = test.deliver(2);
    test.subscriber.acknowledge(0x50, id);
    test.subscriber.expect(wire("62 02") + u16(id) + wire("62 02") + u16(id));
    test.subscriber.expect_nothing(kPastFirstRepeat_ms);
}

TEST(qos, pubrel_for_a_delivery_is_answered_twice)
{
    Pair           test;
    const unsigned id = test.deliver(2);
    test.subscriber.acknowledge(0x50, id);
    test.subscriber.expect(wire("62 02") + u16(id) + wire("62 02") + u16(id));
    test.subscriber.acknowledge(0x62, id);
    test.subscriber.expect(wire("70 02") + u16(id) + wire("70 02") + u16(id));
}

TEST(qos, acknowledgements_for_nothing)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    client.send("40 02 | 00 09 | 70 02 | 00 09");
    client.expect_ignored();
    client.send("50 02 | 00 09");
    client.expect("62 02 | 00 09");
    client.send("40 01 00 | 50 01 00 | 62 01 00 | 70 01 00"); // half an identifier
    client.expect_ignored();
}

TEST(qos, a_puback_completes_a_delivery_at_qos_2)
{
    Pair test;
    test.subscriber.acknowledge(0x40, test.deliver(2));
    test.subscriber.expect_nothing(kPastFirstRepeat_ms);
}

TEST(qos, a_pubcomp_leaves_a_delivery_at_qos_1)
{
    Pair           test;
    const unsigned id = test.deliver(1);
    test.subscriber.acknowledge(0x70, id);
    EXPECT_EQ(test.subscriber.expect_publish("t", "hello", {.qos = 1}), id);
}

TEST(qos, a_short_puback_moves_a_v5_client_to_level_4)
{
    Pair           test(5);
    const unsigned id = test.deliver(1);
    test.subscriber.send(wire("40 02") + u16(id));
    test.subscriber.ping();
    test.sender.publish("t", "hello");
    test.subscriber.expect("30 08 | 00 01 't' | 'hello'");
}

TEST(qos, identifiers_of_the_publisher_are_not_those_of_the_deliveries)
{
    Pair test;
    int  same = 0;
    for (unsigned id = 1; id <= 20; ++id) {
        test.sender.publish("t", "hello", {.qos = 1, .id = id});
        const unsigned delivered = test.subscriber.expect_publish("t", "hello", {.qos = 1});
        same += delivered == id;
        test.subscriber.acknowledge(0x40, delivered);
    }
    EXPECT_LT(same, 3);
}

TEST(qos, what_a_client_that_left_had_pending_is_forgotten)
{
    Pair test;
    test.deliver(1);
    test.subscriber.disconnect();
    test.subscriber = Peer::tcp();
    test.subscriber.connect_v4("s").expect_nothing(kPastFirstRepeat_ms);
}
