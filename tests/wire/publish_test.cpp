// PUBLISH from one client to others: what arrives, at which level, and what is too large.
#include "support/broker_process.h"
#include "support/peer.h"

#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

struct Trio { // a subscriber at each level, both on "t" at the QoS wanted, and a connection to publish on
    BrokerProcess broker = BrokerProcess::start();
    Peer          v4     = Peer::tcp();
    Peer          v5     = Peer::tcp();
    Peer          sender = Peer::tcp();
    explicit Trio(unsigned qos = 0)
    {
        v4.connect_v4("four").subscribe("t", qos);
        v5.connect_v5("five").subscribe("t", qos);
    }
    void nothing_came()
    {
        sender.ping();
        v4.ping();
        v5.ping();
    }
};

} // namespace

TEST(publish, from_v4_at_qos_0)
{
    Trio test;
    test.sender.connect_v4("p").send("30 08 | 00 01 't' | 'hello'");
    test.v4.expect("30 08 | 00 01 't' | 'hello'");
    test.v5.expect("30 09 | 00 01 't' | 00 | 'hello'");
}

TEST(publish, from_v5_at_qos_0)
{
    Trio test;
    test.sender.connect_v5("p").send("30 09 | 00 01 't' | 00 | 'hello'");
    test.v4.expect("30 08 | 00 01 't' | 'hello'");
    test.v5.expect("30 09 | 00 01 't' | 00 | 'hello'");
}

TEST(publish, empty_payloads)
{
    Trio test;
    test.sender.connect_v4("p").send("30 03 | 00 01 't'");
    test.v4.expect("30 03 | 00 01 't'");
    test.v5.expect("30 04 | 00 01 't' | 00");
    test.sender.connect_v5("p").send("30 04 | 00 01 't' | 00");
    test.v4.expect("30 03 | 00 01 't'");
    test.v5.expect("30 04 | 00 01 't' | 00");
}

TEST(publish, the_lower_qos_is_delivered)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          sender = Peer::tcp();
    sender.connect_v4("p");
    for (unsigned granted = 0; granted <= 2; ++granted) {
        Peer subscriber = Peer::tcp();
        subscriber.connect_v4("s").subscribe("t", granted);
        for (unsigned sent = 0; sent <= 2; ++sent) {
            SCOPED_TRACE(testing::Message() << "sent at " << sent << ", granted " << granted);
            sender.publish("t", "hello", {.qos = sent, .id = 77});
            subscriber.expect_publish("t", "hello", {.qos = std::min(sent, granted)});
        }
        subscriber.disconnect();
    }
}

TEST(publish, acknowledgements_follow_the_publishers_level)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("p");
    client.send("32 0A | 00 01 't' | 12 34 | 'hello'");
    client.expect("40 02 | 12 34");
    client.send("34 0A | 00 01 't' | 12 35 | 'hello'");
    client.expect("50 02 | 12 35");
    client.connect_v5("p");
    client.send("32 0B | 00 01 't' | 12 36 | 00 | 'hello'");
    client.expect("40 03 | 12 36 | 00");
    client.send("34 0B | 00 01 't' | 12 37 | 00 | 'hello'");
    client.expect("50 03 | 12 37 | 00");
}

TEST(publish, a_client_never_gets_its_own)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a").subscribe("#", 1);
    client.publish("t", "hello", {.qos = 1});
    client.expect_nothing();
    client.ping();
}

TEST(publish, retain_and_dup_are_not_passed_on)
{
    Trio test;
    test.sender.connect_v4("p").send("3B 0A | 00 01 't' | 00 07 | 'hello'");
    test.sender.expect("40 02 | 00 07");
    test.v4.expect("30 08 | 00 01 't' | 'hello'");
}

TEST(publish, an_empty_retained_payload_deletes_and_is_passed_on)
{
    Trio test;
    test.sender.connect_v4("p").publish("t", "kept", {.retain = true});
    test.v4.expect_publish("t", "kept");
    test.sender.publish("t", "", {.retain = true});
    test.v4.expect("30 03 | 00 01 't'");
    Peer late = Peer::tcp();
    late.connect_v4("late").subscribe("t");
    late.ping();
}

TEST(publish, the_last_retained_message_is_kept)
{
    Trio test;
    test.sender.connect_v4("p");
    test.sender.publish("r", "one", {.retain = true});
    test.sender.publish("r", "two", {.retain = true});
    test.sender.publish("r", "three");
    test.sender.ping();
    Peer late = Peer::tcp();
    late.connect_v5("late").send("82 07 | 00 01 | 00 | 00 01 'r' 00");
    late.expect("31 07 | 00 01 'r' | 00 | 'two' | 90 04 00 01 00 00");
}

TEST(publish, message_expiry_reaches_level_5)
{
    Trio test;
    test.sender.connect_v5("p").send("30 0E | 00 01 't' | 05 02 00 00 00 3C | 'hello'");
    test.v4.expect("30 08 | 00 01 't' | 'hello'");
    test.v5.expect("30 0E | 00 01 't' | 05 02 00 00 00 3C | 'hello'");
}

TEST(publish, a_topic_alias_is_passed_on_in_four_bytes)
{
    Trio test;
    test.sender.connect_v5("p").send("30 0C | 00 01 't' | 03 23 00 05 | 'hello'");
    test.v4.expect("30 08 | 00 01 't' | 'hello'");
    test.v5.expect("30 0D | 00 01 't' | 04 23 02 00 05 | 'hello'");
}

TEST(publish, unknown_properties_are_skipped)
{
    Trio test;
    test.sender.connect_v5("p").send("30 0B | 00 01 't' | 02 26 00 | 'hello'");
    test.v4.expect("30 08 | 00 01 't' | 'hello'");
    test.v5.expect("30 09 | 00 01 't' | 00 | 'hello'");
}

TEST(publish, the_level_is_told_from_the_bytes)
{
    Trio test;
    test.sender.connect_v4("p");
    test.sender.send("32 07 | 00 01 't' | 00 07 | 00 'A'"); // reads as an empty property block
    test.sender.expect("40 03 | 00 07 | 00");
    test.v4.expect("30 04 | 00 01 't' | 'A'");
    test.v5.expect("30 05 | 00 01 't' | 00 'A'");
    test.sender.send("32 0C | 00 01 't' | 00 08 | 02 26 00 'rest'"); // the head of a payload is lost as properties
    test.sender.expect("40 03 | 00 08 | 00");
    test.v4.expect("30 07 | 00 01 't' | 'rest'");
    test.v5.expect("30 08 | 00 01 't' | 00 'rest'");
    test.sender.send("32 0A | 00 01 't' | 00 09 | 'hello'"); // reads as nothing but a payload
    test.sender.expect("40 02 | 00 09");
    test.v4.expect("30 08 | 00 01 't' | 'hello'");
    test.v5.expect("30 09 | 00 01 't' | 00 'hello'");
    test.sender.send("32 05 | 00 01 't' | 00 0A"); // so does nothing at all
    test.sender.expect("40 02 | 00 0A");
}

// 124 bytes that begin with 7B, which counts the 123 behind it.
TEST(publish, a_long_json_payload_of_a_v4_client_is_lost)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          watch = Peer::tcp(), sender = Peer::tcp(), late = Peer::tcp();
    watch.connect_v4("watch").subscribe("#");
    sender.connect_v4("p", {.will = Will{"w", "gone"}});
    sender.publish("t", "old", {.retain = true});
    watch.expect_publish("t", "old");

    std::string json = R"({"temperature":21.5,"place":")";
    json             = json + std::string(122 - json.size(), 'x') + "\"}";
    ASSERT_EQ(json.size(), 124u);
    sender.send(publish_packet(4, "t", json, {.qos = 1, .retain = true, .id = 7}));
    sender.expect("40 03 | 00 07 | 00"); // as to a client of level 5
    watch.expect("30 03 | 00 01 't'");
    late.connect_v4("late").subscribe("t");
    late.ping(); // the message that was kept is gone

    sender.send("E0 00"); // is no DISCONNECT of level 5
    sender.expect_ignored();
    sender.hang_up();
    watch.expect("30 08 | 00 01 'w' | 00 'gone'");

    sender = Peer::tcp(); // one byte less is nothing but a payload
    sender.connect_v4("p").publish("t", json.substr(0, 123), {.qos = 1});
    watch.expect_publish("t", json.substr(0, 123));
}

TEST(publish, a_subscribers_own_publish_moves_it_to_the_other_level)
{
    Trio test;
    test.sender.connect_v4("p");
    test.v5.send("30 08 | 00 01 'x' | 'hello'"); // no property length
    test.v5.ping();
    test.sender.publish("t", "wow");
    test.v5.expect("30 06 | 00 01 't' | 'wow'");
    test.v5.send("30 09 | 00 01 'x' | 00 'hello'");
    test.v5.ping();
    test.sender.publish("t", "wow");
    test.v5.expect("30 07 | 00 01 't' | 00 'wow'");
}

TEST(publish, undecodable_packets_get_no_answer)
{
    Trio test(2);
    test.sender.connect_v4("p");
    for (const char *bad : {
             "36 0A | 00 01 't' | 00 07 | 'hello'", // QoS 3
             "32 0A | 00 01 't' | 00 00 | 'hello'", // packet identifier 0
             "34 0A | 00 01 't' | 00 00 | 'hello'",
             "30 07 | 00 00 | 'hello'",     // no topic
             "30 08 | 00 09 't' | 'hello'", // a topic past the end
             "32 04 | 00 01 't' | 00",      // half an identifier
             "30 01 | 00",
             "30 00",
         }) {
        SCOPED_TRACE(bad);
        test.sender.send(bad);
        test.sender.expect_ignored();
    }
    test.nothing_came();
}

TEST(publish, topics_have_at_most_256_characters)
{
    Trio test;
    test.v4.subscribe("#");
    test.sender.connect_v4("p").publish(std::string(256, 'T'), "hello");
    test.v4.expect_publish(std::string(256, 'T'), "hello");
    test.sender.publish(std::string(257, 'T'), "hello");
    test.nothing_came();
}

TEST(publish, wildcards_in_a_topic_are_ordinary_characters)
{
    Trio test;
    test.v4.subscribe("a/b").subscribe("a/+");
    test.sender.connect_v4("p").publish("a/+", "hello");
    test.v4.expect_publish("a/+", "hello");
    test.nothing_came();
}

// A delivery is built in 2048 bytes, whatever the receiver takes; what does not fit is not sent, but acknowledged.
TEST(publish, the_largest_deliveries)
{
    const struct {
        unsigned level, qos;
        Bytes    properties;
        size_t   payload; // with a topic of one character
    } cases[] = {
        {4, 0, {}, 2042},
        {4, 1, {}, 2040},
        {4, 2, {}, 2040},
        {5, 0, {}, 2041},
        {5, 1, {}, 2039},
        {5, 2, {}, 2039},
        {5, 0, wire("02 00 00 00 3C"), 2036},
        {5, 1, wire("02 00 00 00 3C"), 2034},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(testing::Message() << "level " << one.level << ", QoS " << one.qos << ", " << one.payload
                                        << " bytes");
        Trio        test(one.qos);
        Peer       &receiver = one.level == 5 ? test.v5 : test.v4;
        Publish     options  = {.qos = one.qos, .properties = one.properties};
        std::string most     = "\xFF\xFF\xFF\xFF"; // not a property length
        most.resize(one.payload, 'x');
        test.sender.connect_v5("p").publish("t", most, options);
        receiver.expect_publish("t", most, options);
        test.sender.publish("t", most + "x", options);
        test.sender.ping();
        receiver.expect_nothing();
    }
}

TEST(publish, a_payload_is_cut_to_2048_bytes)
{
    BrokerProcess     broker       = BrokerProcess::start();
    Peer              client       = Peer::tcp();
    const std::string long_payload = "\xFF\xFF\xFF\xFF" + std::string(2996, 'x');
    client.connect_v4("s").subscribe("t", 1);
    Peer sender = Peer::tcp();
    sender.connect_v4("p").publish("t", long_payload, {.qos = 1}); // decoded and acknowledged; 2048 bytes are too many
    client.expect_nothing();                                       // for one delivery, though
}

TEST(publish, level_5_without_a_maximum_has_256_bytes_both_ways)
{
    BrokerProcess     broker = BrokerProcess::start();
    Peer              client = Peer::tcp(), other = Peer::tcp();
    const std::string most(249, '\xFF'); // 30, two length bytes, 3 of topic, the property length: 256
    client.connect_v5("c", {.max_packet_size = 0}).subscribe("t");
    other.connect_v5("o").subscribe("u");
    other.publish("t", most);
    client.expect_publish("t", most);
    other.publish("t", most + "x");
    other.ping();
    client.expect_nothing();
    client.publish("u", most);
    other.expect_publish("u", most);
    client.publish("u", most + "x");
    client.expect("E0 02 | 95 00");
    client.expect_closed();
    other.expect_nothing();
}

TEST(publish, a_receiver_gets_nothing_above_its_maximum)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          small  = Peer::tcp();
    Peer          sender = Peer::tcp();
    small.connect_v5("s", {.max_packet_size = 300}).subscribe("t");
    sender.connect_v5("p");
    sender.publish("t", std::string(293, 'x')); // 30, two length bytes, 3 of topic, the property length: 300
    small.expect_publish("t", std::string(293, 'x'));
    sender.publish("t", std::string(294, 'x'));
    sender.ping();
    small.expect_nothing();
    small.ping();
}

TEST(publish, a_sender_above_its_own_maximum_is_disconnected)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v5("a", {.max_packet_size = 0}); // 256 are granted
    client.publish("t", std::string(249, 'x'), {});
    client.ping();
    client.send(publish_packet(5, "t", std::string(250, 'x'))); // 257 in all
    client.expect("E0 02 | 95 00");
    client.expect_closed();
}
