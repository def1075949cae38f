// PUBLISH from a client, and on to those that subscribed (3.3 to 3.7, 4.3).
#include "support/levels.h"

#include <set>

using namespace tarn::conformance;
using testing::ElementsAre;

namespace {

struct publish : AtEachLevel {
    void expect_refused(const Bytes &bytes, std::initializer_list<unsigned> reasons, Where where = Where::here())
    {
        SCOPED_TRACE(tarn::test::hex(bytes));
        Client client = come("refused", {}, where);
        client.send(bytes);
        client.expect_end(reasons, where);
    }
};
AT_EACH_LEVEL(publish);

struct qos_2 : AtEachLevel {
    // Sends it without going on.
    static void begin(Client &client, unsigned id, std::string_view payload, bool dup = false,
                      Where where = Where::here())
    {
        client.send(publish_packet(client.level(), "t", payload, {.qos = 2, .dup = dup, .id = id}));
        client.expect_ack(PUBREC, id, where);
    }
    static void finish(Client &client, unsigned id, Where where = Where::here())
    {
        client.send(ack_packet(PUBREL, id));
        client.expect_ack(PUBCOMP, id, where);
    }
};
AT_EACH_LEVEL(qos_2);

struct publish_5 : At5 {};
struct properties : At5 {};

} // namespace

// [MQTT-3.8.4-8] 3.1.1 [MQTT-3.8.4-6] [MQTT-3.3.4-1] 3.1.1 [MQTT-3.3.4-1] [MQTT-4.3.1-1] 3.1.1 [MQTT-4.3.1-1]
// [MQTT-4.3.2-2] [MQTT-4.3.2-4] 3.1.1 [MQTT-4.3.2-2] 3.1.1 [MQTT-4.3.2-1] [MQTT-4.3.3-2] [MQTT-4.3.3-8]
// [MQTT-4.3.3-11] 3.1.1 [MQTT-4.3.3-1] 3.1.1 [MQTT-4.3.3-2] [MQTT-2.2.1-5] 3.1.1 [MQTT-2.3.1-6] [MQTT-4.3.3-4]
TEST_P(publish, comes_at_the_lower_of_both_qos)
{
    std::vector<Client> readers;
    for (unsigned granted = 0; granted < 3; ++granted) {
        readers.push_back(come("reader" + std::to_string(granted)));
        readers.back().subscribe("t", granted);
    }
    Client sender = come("sender");
    for (unsigned qos = 0; qos < 3; ++qos) {
        const std::string payload = "at " + std::to_string(qos);
        sender.publish("t", payload, {.qos = qos, .id = 0x1234});
        for (unsigned granted = 0; granted < 3; ++granted)
            readers[granted].take("t", payload, {.qos = std::min(qos, granted)});
    }
    for (Client &reader : readers)
        reader.expect_silence();
}

// [MQTT-2.2.1-2] 3.1.1 [MQTT-2.3.1-5] [MQTT-3.3.1-2] 3.1.1 [MQTT-3.3.1-2]
TEST_P(publish, at_qos_0_has_no_identifier)
{
    Client client = come("c");
    client.subscribe("t", 2);
    client.publish("t", "payload");
    client.peer().expect(is_5() ? "30 0B 00 01 't' 00 'payload'" : "30 0A 00 01 't' 'payload'");
}

// [MQTT-3.3.1-4] 3.1.1 [MQTT-3.3.1-4]
TEST_P(publish, at_qos_3_is_malformed)
{
    expect_refused(is_5() ? wire("36 06 00 01 't' 00 01 00") : wire("36 05 00 01 't' 00 01"), {0x81});
}

// [MQTT-3.3.1-2] 3.1.1 [MQTT-3.3.1-2]
TEST_P(publish, at_qos_0_is_no_repetition)
{
    expect_refused(publish_packet(level(), "t", "x", {.dup = true}), {0x81, 0x82});
}

// [MQTT-3.3.2-2] 3.1.1 [MQTT-3.3.2-2] [MQTT-4.7.0-1] 3.1.1 [MQTT-4.7.1-1]
TEST_P(publish, to_a_topic_without_wildcards)
{
    for (const char *topic : {"#", "+", "a/#", "a/+/b", "a#", "a+b"})
        expect_refused(publish_packet(level(), topic, "x"), {0x81, 0x82, 0x90});
}

// [MQTT-4.7.3-1] 3.1.1 [MQTT-4.7.3-1]
TEST_P(publish, to_a_topic_with_a_character)
{
    expect_refused(publish_packet(level(), "", "x"), {0x81, 0x82, 0x90});
}

// [MQTT-4.7.3-3] 3.1.1 [MQTT-4.7.3-3]
TEST_P(publish, to_topics_of_any_length)
{
    Client client = come("c");
    client.subscribe("#");
    for (const size_t length : {255u, 256u, 1000u, 65535u}) {
        const std::string topic(length, 'x');
        client.publish(topic, "x");
        client.take(topic, "x");
    }
    std::string deep; // many levels
    for (int i = 0; i < 100; ++i)
        deep += "/x";
    client.subscribe(deep);
    client.unsubscribe({"#"});
    client.publish(deep, "x");
    client.take(deep, "x");
}

// [MQTT-3.3.1-3] 3.1.1 [MQTT-3.3.1-3]
TEST_P(publish, that_was_repeated_is_none_for_its_readers)
{
    Client reader = come("reader"), sender = come("sender");
    reader.subscribe("t", 2);
    sender.publish("t", "one", {.qos = 1, .dup = true});
    sender.publish("t", "two", {.qos = 2, .dup = true});
    reader.take("t", "one", {.qos = 1});
    reader.take("t", "two", {.qos = 2});
}

TEST_P(publish, comes_to_its_own_sender)
{
    Client client = come("c");
    client.subscribe("t", 2);
    for (unsigned qos = 0; qos < 3; ++qos) {
        client.publish("t", "mine", {.qos = qos});
        client.take("t", "mine", {.qos = qos});
    }
}

TEST_P(publish, with_any_payload)
{
    Client client = come("c");
    client.subscribe("t", 1);
    std::string all_bytes;
    for (int i = 0; i < 256; ++i)
        all_bytes.push_back(static_cast<char>(i));
    for (const std::string &payload : {std::string(), std::string(1, '\0'), all_bytes, std::string("{\"a\":[1,2]}"),
                                       std::string(300, ' '), std::string("\xFF\xFE")}) {
        client.publish("t", payload, {.qos = 1});
        client.take("t", payload, {.qos = 1});
    }
}

// [MQTT-4.6.0-5] [MQTT-4.6.0-6] 3.1.1 [MQTT-4.6.0-5] 3.1.1 [MQTT-4.6.0-6]
TEST_P(publish, comes_in_order)
{
    constexpr int kMessages = 200;
    Client        reader = come("reader"), sender = come("sender");
    reader.subscribe("t", 2);
    for (unsigned qos = 0; qos < 3; ++qos) {
        for (int i = 0; i < kMessages; ++i)
            sender.publish("t", std::to_string(i), {.qos = qos});
        for (int i = 0; i < kMessages; ++i)
            reader.take("t", std::to_string(i), {.qos = qos});
    }
}

// [MQTT-4.6.0-2] [MQTT-4.6.0-3] 3.1.1 [MQTT-4.6.0-2] 3.1.1 [MQTT-4.6.0-3]
TEST_P(publish, is_acknowledged_in_order)
{
    Client client = come("c");
    Bytes  ones, twos;
    for (unsigned id = 1; id <= 50; ++id) {
        ones = ones + publish_packet(level(), "t", "x", {.qos = 1, .id = id});
        twos = twos + publish_packet(level(), "t", "x", {.qos = 2, .id = id + 100});
    }
    client.send(ones);
    for (unsigned id = 1; id <= 50; ++id)
        client.expect_ack(PUBACK, id);
    client.send(twos);
    for (unsigned id = 1; id <= 50; ++id)
        client.expect_ack(PUBREC, id + 100);
}

// [MQTT-4.6.0-4] 3.1.1 [MQTT-4.6.0-4]
TEST_P(publish, is_released_in_the_order_of_pubrec)
{
    Client client = come("c"), sender = come("sender");
    client.subscribe("t", 2);
    std::vector<Received> got;
    for (int i = 0; i < 5; ++i) {
        sender.publish("t", std::to_string(i), {.qos = 2});
        got.push_back(client.expect_publish("t", std::to_string(i), {.qos = 2}));
    }
    for (const size_t i : {3u, 0u, 4u, 1u, 2u})
        client.send(ack_packet(PUBREC, got[i].id));
    for (const size_t i : {3u, 0u, 4u, 1u, 2u})
        client.expect_ack(PUBREL, got[i].id);
}

// [MQTT-2.2.1-4] 3.1.1 [MQTT-2.3.1-4] [MQTT-4.3.2-1] [MQTT-4.3.3-1]
TEST_P(publish, has_an_identifier_that_is_not_in_use)
{
    Client client = come("c"), sender = come("sender");
    client.subscribe("t", 2);
    std::set<unsigned>    used;
    std::vector<Received> open;
    for (int i = 0; i < 60; ++i) {
        const unsigned qos = i % 2 + 1;
        sender.publish("t", "x", {.qos = qos});
        const Received got = client.expect_publish("t", "x", {.qos = qos});
        EXPECT_NE(got.id, 0u);
        EXPECT_TRUE(used.insert(got.id).second) << got.id;
        if (i % 3 == 0) { // some are acknowledged, theirs may come again
            client.acknowledge(got);
            used.erase(got.id);
        }
    }
}

// The identifiers of both directions have nothing to do with each other.
TEST_P(publish, may_have_the_identifier_of_one_from_the_broker)
{
    Client client = come("c"), sender = come("sender");
    client.subscribe("t", 2);
    sender.publish("t", "to", {.qos = 2});
    const Received got = client.expect_publish("t", "to", {.qos = 2});
    client.send(publish_packet(level(), "other", "from", {.qos = 2, .id = got.id}));
    client.expect_ack(PUBREC, got.id);
    client.send(ack_packet(PUBREC, got.id));
    client.expect_ack(PUBREL, got.id);
    client.send(ack_packet(PUBREL, got.id));
    client.expect_ack(PUBCOMP, got.id);
    client.send(ack_packet(PUBCOMP, got.id));
    client.expect_silence();
}

// [MQTT-4.3.2-5] 3.1.1 [MQTT-4.3.2-2]
TEST_P(publish, at_qos_1_with_an_identifier_of_before_is_another_message)
{
    Client client = come("c"), reader = come("reader");
    reader.subscribe("t", 1);
    for (int i = 0; i < 3; ++i) {
        client.publish("t", "x", {.qos = 1, .dup = i > 0, .id = 5});
        reader.take("t", "x", {.qos = 1});
    }
}

// [MQTT-4.4.0-1] 3.1.1 [MQTT-4.4.0-1] [MQTT-4.3.2-3] [MQTT-4.3.3-3]
TEST_P(publish, is_not_repeated_on_a_live_connection)
{
    Client client = come("c"), sender = come("sender");
    client.subscribe("t", 2);
    sender.publish("t", "1", {.qos = 1});
    sender.publish("t", "2", {.qos = 2});
    client.expect_publish("t", "1", {.qos = 1});
    client.expect_publish("t", "2", {.qos = 2});
    tarn::test::pause_ms(1500);
    client.expect_silence();
}

// ---- QoS 2, from the client

// [MQTT-4.3.3-10] 3.1.1 [MQTT-4.3.3-2]
TEST_P(qos_2, a_repeated_publish_is_delivered_once)
{
    Client client = come("c"), reader = come("reader");
    reader.subscribe("t", 2);
    begin(client, 9, "x");
    begin(client, 9, "x", true);
    begin(client, 9, "x", true);
    finish(client, 9);
    reader.take("t", "x", {.qos = 2});
    reader.expect_silence();
}

// [MQTT-4.3.3-12]
TEST_P(qos_2, an_identifier_is_free_again_after_pubcomp)
{
    Client client = come("c"), reader = come("reader");
    reader.subscribe("t", 2);
    for (const char *payload : {"one", "two", "three"}) {
        begin(client, 9, payload);
        finish(client, 9);
        reader.take("t", payload, {.qos = 2});
    }
}

// [MQTT-4.3.3-11]
TEST_P(qos_2, every_pubrel_is_answered)
{
    Client client = come("c");
    begin(client, 9, "x");
    finish(client, 9);
    for (const unsigned id : {9u, 77u}) {
        client.send(ack_packet(PUBREL, id));
        client.expect_ack(PUBCOMP, id, is_5() ? 0x92 : 0);
    }
}

TEST_P(qos_2, many_at_a_time)
{
    Client client = come("c"), reader = come("reader");
    reader.subscribe("t", 2);
    for (unsigned id = 1; id <= 20; ++id)
        begin(client, id, std::to_string(id));
    for (unsigned id = 20; id >= 1; --id)
        finish(client, id);
    for (unsigned id = 1; id <= 20; ++id)
        reader.take("t", std::to_string(id), {.qos = 2});
    reader.expect_silence();
}

// [MQTT-4.3.3-4] [MQTT-4.3.3-6] [MQTT-4.3.3-5]
TEST_P(qos_2, every_pubrec_is_answered)
{
    Client client = come("c"), sender = come("sender");
    client.subscribe("t", 2);
    sender.publish("t", "x", {.qos = 2});
    const Received got = client.expect_publish("t", "x", {.qos = 2});
    for (int i = 0; i < 2; ++i) {
        client.send(ack_packet(PUBREC, got.id));
        client.expect_ack(PUBREL, got.id);
    }
    client.send(ack_packet(PUBCOMP, got.id));
    client.expect_silence();
}

// ---- at 5.0 only

TEST_F(publish_5, pubrec_for_an_identifier_not_in_use)
{
    Client client = come("c");
    client.send(ack_packet(PUBREC, 77));
    client.expect_ack(PUBREL, 77, 0x92);
}

// [MQTT-4.4.0-2]
TEST_F(publish_5, refused_by_its_reader_is_done)
{
    Client client = come_to_stay("c"), sender = come("sender");
    client.subscribe("t", 2);
    for (const unsigned qos : {1u, 2u}) {
        sender.publish("t", "x", {.qos = qos});
        const Received got = client.expect_publish("t", "x", {.qos = qos});
        client.send(
            ack_packet(qos == 1 ? PUBACK : PUBREC, got.id, 0x80, property(ReasonString, "no") + user("a", "b")));
        client.expect_silence(); // no PUBREL
    }
    client.drop();
    client = come_to_stay("c");
    EXPECT_TRUE(client.connack().session_present);
    client.expect_silence();
}

// An acknowledgement may be short, or have a reason, or that and properties.
TEST_F(publish_5, acknowledgements_of_every_length)
{
    Client client = come_to_stay("c"), sender = come("sender");
    client.subscribe("t", 2);
    const char *const kRests[] = {"", "00", "00 00", "00 07 1F 00 04 'fine'", "00 07 26 00 01 'a' 00 01 'b'"};
    for (const char *rest : kRests) {
        sender.publish("t", "1", {.qos = 1});
        client.send(packet(0x40, u16(client.expect_publish("t", "1", {.qos = 1}).id) + wire(rest)));
        sender.publish("t", "2", {.qos = 2});
        const unsigned id = client.expect_publish("t", "2", {.qos = 2}).id;
        client.send(packet(0x50, u16(id) + wire(rest)));
        client.expect_ack(PUBREL, id);
        client.send(packet(0x70, u16(id) + wire(rest)));
        sender.send(publish_packet(5, "other", "x", {.qos = 2, .id = 9}));
        sender.expect_ack(PUBREC, 9);
        sender.send(packet(0x62, u16(9) + wire(rest)));
        sender.expect_ack(PUBCOMP, 9);
    }
    client.drop();
    client = come_to_stay("c");
    client.expect_silence(); // all of them were done
}

// [MQTT-3.3.4-6]
TEST_F(publish_5, with_a_subscription_identifier_is_not_a_clients)
{
    Client client = come("c");
    client.send(publish_packet(5, "t", "x", {.properties = property(SubscriptionId, 1)}));
    client.expect_end({0x82});
}

// [MQTT-3.3.2-14]
TEST_F(publish_5, with_a_response_topic_without_wildcards)
{
    for (const char *topic : {"a/#", "+", "a/+/b"}) {
        Client client = come("c");
        client.send(publish_packet(5, "t", "x", {.properties = property(ResponseTopic, topic)}));
        client.expect_end({0x81, 0x82, 0x90});
    }
}

// [MQTT-3.4.2-1] [MQTT-3.5.2-1]: there was somebody, or perhaps not.
TEST_F(publish_5, reasons_are_of_success)
{
    Client client = come("c");
    for (const unsigned qos : {1u, 2u})
        EXPECT_THAT(client.publish("nobody", "x", {.qos = qos}), testing::AnyOf(0u, 0x10u));
    client.subscribe("t", 0);
    for (const unsigned qos : {1u, 2u}) {
        EXPECT_EQ(client.publish("t", "x", {.qos = qos}), 0u);
        client.take("t", "x");
    }
}

// ---- properties that are forwarded

// [MQTT-3.3.2-4] [MQTT-3.3.2-15] [MQTT-3.3.2-16] [MQTT-3.3.2-17] [MQTT-3.3.2-18] [MQTT-3.3.2-20]
TEST_F(properties, are_forwarded_as_they_came)
{
    const std::string binary("\0\xFF\x01", 3);
    Client            reader = come("reader"), old_reader(4, "old"), sender = come("sender");
    reader.subscribe("t", 2);
    old_reader.subscribe("t", 2);
    const Bytes all = user("z", "1") + property(PayloadFormat, 1) + property(ContentType, "text/plain") +
                      user("a", "2") + property(ResponseTopic, "answers/here") + property(CorrelationData, binary) +
                      user("z", "1") + user("", "") + user("a", "0");
    for (unsigned qos = 0; qos < 3; ++qos) {
        sender.publish("t", "x", {.qos = qos, .properties = all});
        EXPECT_EQ(reader.take("t", "x", {.qos = qos}).properties.printed(),
                  "01=1 03=text/plain 08=answers/here 09=" + binary + " user z=1 user a=2 user z=1 user = user a=0");
        old_reader.take("t", "x", {.qos = qos});
    }
    sender.publish("t", "x", {.properties = property(PayloadFormat, 0u)});
    EXPECT_THAT(reader.take("t", "x").properties.number(PayloadFormat), testing::AnyOf(std::nullopt, 0u));
    sender.publish("t", "x");
    EXPECT_EQ(reader.take("t", "x").properties.printed(), "");
}

TEST_F(properties, may_be_many_and_long)
{
    Client client = come("c");
    client.subscribe("t", 1);
    Bytes       users;
    std::string expected;
    for (int i = 0; i < 300; ++i) {
        users = users + user("name" + std::to_string(i % 7), std::to_string(i));
        expected += (i ? " user name" : "user name") + std::to_string(i % 7) + "=" + std::to_string(i);
    }
    const std::string data(65535, 'd');
    client.publish("t", "x", {.qos = 1, .properties = users + property(CorrelationData, data)});
    EXPECT_EQ(client.take("t", "x", {.qos = 1}).properties.printed(), "09=" + data + " " + expected);
}

// [MQTT-3.1.2-29]
TEST_F(properties, of_acknowledgements_are_left_out_when_asked)
{
    Client client = come("c", {.properties = property(RequestProblem, 0u)});
    EXPECT_EQ(client.publish("t", "x", {.qos = 1}), client.publish("t", "x", {.qos = 1}));
    client.send(ack_packet(PUBREL, 77)); // not found
    EXPECT_EQ(client.expect_ack(PUBCOMP, 77, 0x92).properties.printed(), "");
    client.send(ack_packet(PUBREC, 77));
    EXPECT_EQ(client.expect_ack(PUBREL, 77, 0x92).properties.printed(), "");
    client.send(unsubscribe_packet(5, 7, {"none"}));
    EXPECT_EQ(client.expect(UNSUBACK).properties.printed(), "");
}
