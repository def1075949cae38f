// Fixed headers, lengths, texts and properties: what each packet must be before it means anything (chapters 1.5 and 2).
#include "support/levels.h"

using namespace tarn::conformance;

namespace {

struct framing : AtEachLevel {
    // A connected client sends it, and that is its end.
    void expect_refused(const Bytes &bytes, std::initializer_list<unsigned> reasons = {0x81},
                        Where where = Where::here())
    {
        SCOPED_TRACE(tarn::test::hex(bytes));
        Client client = come("refused", {}, where);
        client.send(bytes);
        client.expect_end(reasons, where);
    }
    void expect_refused(const char *transcript, std::initializer_list<unsigned> reasons = {0x81},
                        Where where = Where::here())
    {
        expect_refused(wire(transcript), reasons, where);
    }
};
AT_EACH_LEVEL(framing);

struct framing_5 : At5 {
    // The packet with these properties.
    static Bytes publish(const Bytes &properties) { return packet(0x30, prefixed("t") + block(5, properties)); }
    void expect_refused(const Bytes &bytes, std::initializer_list<unsigned> reasons, Where where = Where::here())
    {
        SCOPED_TRACE(tarn::test::hex(bytes));
        Client client = come("refused", {}, where);
        client.send(bytes);
        client.expect_end(reasons, where);
    }
};

const char *const kIllFormed[] = {"\xC0\x80",         // U+0000 in two bytes
                                  "\xC1\xBF",         // a character in more bytes than it needs
                                  "\xE0\x9F\xBF",     // the same in three
                                  "\xED\xA0\x80",     // half of a surrogate pair
                                  "\xED\xBF\xBF",     // the other half
                                  "\xF0\x8F\xBF\xBF", // four bytes where three do
                                  "\xF4\x90\x80\x80", // above U+10FFFF
                                  "\xF5\x80\x80\x80", "\xFF", "\x80",
                                  "a\xE2\x82", // cut
                                  "\xE2\x82z"};

} // namespace

// [MQTT-1.5.4-1] 3.1.1 [MQTT-1.5.3-1] [MQTT-3.3.2-1] 3.1.1 [MQTT-3.3.2-1]
TEST_P(framing, topics_are_well_formed_utf8)
{
    for (const char *text : kIllFormed)
        expect_refused(publish_packet(level(), text, "x"));
}

// [MQTT-3.8.3-1] 3.1.1 [MQTT-3.8.3-1] [MQTT-3.10.3-1] 3.1.1 [MQTT-3.10.3-1]
TEST_P(framing, filters_are_well_formed_utf8)
{
    for (const char *text : {"\xED\xA0\x80", "a/\xFF", "\xC0\x80/b"}) {
        expect_refused(subscribe_packet(level(), 1, {{text}}), {0x81, 0x8F});
        expect_refused(unsubscribe_packet(level(), 1, {text}), {0x81, 0x8F});
    }
}

// [MQTT-1.5.4-2] 3.1.1 [MQTT-1.5.3-2] [MQTT-4.7.3-2] 3.1.1 [MQTT-4.7.3-2]
TEST_P(framing, no_text_holds_a_null_character)
{
    const std::string_view null("a\0b", 3);
    expect_refused(publish_packet(level(), null, "x"), {0x81, 0x90});
    expect_refused(subscribe_packet(level(), 1, {{std::string(null)}}), {0x81, 0x8F});
    expect_refused(unsubscribe_packet(level(), 1, {std::string(null)}), {0x81, 0x8F});
}

// [MQTT-1.5.4-3] 3.1.1 [MQTT-1.5.3-3]
TEST_P(framing, a_byte_order_mark_is_a_character)
{
    Client client = come("c");
    client.subscribe("\xEF\xBB\xBFx");
    client.publish("x", "without");
    client.publish("\xEF\xBB\xBFx", "with");
    client.take("\xEF\xBB\xBFx", "with");
    client.expect_silence();
}

TEST_P(framing, characters_of_every_length_pass_unchanged)
{
    Client client = come("c");
    client.subscribe("#");
    for (const char *topic :
         {"~", "\xC3\x84", "\xE2\x82\xAC/\xED\x9F\xBF/\xEE\x80\x80", "\xF0\x9F\x90\x9F", " ", "/"}) {
        client.publish(topic, topic);
        client.take(topic, topic);
    }
}

// [MQTT-2.1.3-1] 3.1.1 [MQTT-2.2.2-1] 3.1.1 [MQTT-2.2.2-2] [MQTT-3.6.1-1] 3.1.1 [MQTT-3.6.1-1] [MQTT-3.8.1-1]
// 3.1.1 [MQTT-3.8.1-1] [MQTT-3.10.1-1] 3.1.1 [MQTT-3.10.1-1] [MQTT-3.14.1-1] 3.1.1 [MQTT-3.14.1-1]
TEST_P(framing, reserved_flags_are_as_the_table_says)
{
    const Bytes subscribe = subscribe_packet(level(), 1, {{"t"}}), unsubscribe = unsubscribe_packet(level(), 1, {"t"});
    for (unsigned flags = 0; flags < 16; ++flags) {
        const auto with_flags = [&](Bytes bytes) {
            bytes[0] = static_cast<uint8_t>((bytes[0] & 0xF0) | flags);
            return bytes;
        };
        if (flags == 1 || flags == 8 || flags == 4) {
            for (const char *bytes : {"40 02 00 01", "50 02 00 01", "70 02 00 01", "C0 00", "E0 00"})
                expect_refused(with_flags(wire(bytes)));
        }
        if (flags == 0 || flags == 3 || flags == 10) {
            expect_refused(with_flags(wire("60 02 00 01")));
            expect_refused(with_flags(subscribe));
            expect_refused(with_flags(unsubscribe));
        }
    }
}

TEST_P(framing, type_0_is_forbidden)
{
    expect_refused("00 00", {0x81, 0x82});
}

TEST_P(framing, what_only_servers_send)
{
    for (const char *bytes : {"20 02 00 00", "90 03 00 01 00", "B0 02 00 01", "D0 00"})
        expect_refused(bytes, {0x81, 0x82});
}

TEST_P(framing, a_remaining_length_has_four_bytes_at_most)
{
    expect_refused("30 80 80 80 80 01");
    expect_refused("C0 FF FF FF FF 7F");
}

// 3.1.1 [MQTT-4.8.0-1] [MQTT-4.13.1-1]
TEST_P(framing, packets_that_end_too_early)
{
    for (const char *bytes : {"30 01 00", "30 03 00 05 'a'", "32 03 00 01 't'", "32 04 00 01 't' 00", "82 00",
                              "82 01 00", "82 04 00 01 00 05", "A2 01 00", "40 01 00", "50 00", "62 01 00", "70 01 01"})
        expect_refused(bytes, {0x81, 0x82});
}

TEST_P(framing, packets_that_end_too_late)
{
    expect_refused("C0 01 00", {0x81, 0x82});
    if (!is_5())
        for (const char *bytes : {"40 03 00 01 00", "50 03 00 01 00", "62 03 00 01 00", "E0 01 00"})
            expect_refused(bytes);
}

// 3.1.1 [MQTT-2.3.1-1] [MQTT-2.2.1-3]
TEST_P(framing, the_identifier_0_is_none)
{
    expect_refused(subscribe_packet(level(), 0, {{"t"}}), {0x81, 0x82});
    expect_refused(unsubscribe_packet(level(), 0, {"t"}), {0x81, 0x82});
    expect_refused(publish_packet(level(), "t", "x", {.qos = 1}), {0x81, 0x82});
    expect_refused(publish_packet(level(), "t", "x", {.qos = 2}), {0x81, 0x82});
}

TEST_P(framing, packets_may_come_byte_by_byte)
{
    Client client = open();
    Bytes  all    = connect_packet(level(), "c") + subscribe_packet(level(), 7, {{"t", 1}}) +
                publish_packet(level(), "t", "hello", {.qos = 1, .id = 8}) + wire("C0 00");
    for (const uint8_t byte : all) {
        client.send(Bytes{byte});
        tarn::test::pause_ms(1);
    }
    client.expect(CONNACK);
    EXPECT_EQ(client.expect(SUBACK).id, 7u);
    client.expect_ack(PUBACK, 8);
    client.take("t", "hello", {.qos = 1});
    client.expect(PINGRESP);
}

TEST_P(framing, many_packets_may_come_at_once)
{
    Client client = open();
    Bytes  all    = connect_packet(level(), "c") + subscribe_packet(level(), 7, {{"t"}});
    for (int i = 0; i < 100; ++i)
        all = all + publish_packet(level(), "t", std::to_string(i));
    client.send(all + wire("C0 00"));
    client.expect(CONNACK);
    client.expect(SUBACK);
    client.expect(PINGRESP);
    for (int i = 0; i < 100; ++i)
        client.take("t", std::to_string(i));
}

// A remaining length of 1, 2 and 3 bytes, at the borders between them.
TEST_P(framing, every_length_of_a_remaining_length)
{
    Client client = come("c");
    client.subscribe("t");
    for (const size_t remaining : {127u, 128u, 16383u, 16384u, 20000u}) {
        const std::string payload(remaining - 3 - (is_5() ? 1 : 0), 'x');
        client.publish("t", payload);
        EXPECT_EQ(client.take("t", payload).whole.size(), remaining + 1 + varint(remaining).size());
    }
}

// [MQTT-1.5.5-1]
TEST_F(framing_5, numbers_have_as_few_bytes_as_they_need)
{
    expect_refused(wire("30 05 00 01 't' 80 00"), {0x81});                               // property length
    expect_refused(wire("82 0A 00 01 03 0B 81 00 00 01 't' 00"), {0x81});                // identifier
    expect_refused(wire("82 0C 00 01 06 0B 80 80 80 80 01 00 01 't' 00"), {0x81, 0x82}); // five bytes
}

// [MQTT-1.5.7-1] [MQTT-3.3.2-13] [MQTT-3.3.2-19]
TEST_F(framing_5, texts_of_properties_are_well_formed_utf8)
{
    for (const char *text : {"\xED\xA0\x80", "\xFF"}) {
        expect_refused(publish(user(text, "v")), {0x81});
        expect_refused(publish(user("n", text)), {0x81});
        expect_refused(publish(property(ContentType, text)), {0x81});
        expect_refused(publish(property(ResponseTopic, text)), {0x81, 0x90});
    }
}

TEST_F(framing_5, a_property_that_may_stand_once_stands_once)
{
    expect_refused(publish(property(MessageExpiry, 1) + property(MessageExpiry, 1)), {0x82});
    expect_refused(publish(property(PayloadFormat, 1) + property(PayloadFormat, 1)), {0x82});
    expect_refused(publish(property(ContentType, "a") + property(ContentType, "a")), {0x82});
    expect_refused(publish(property(CorrelationData, "a") + property(CorrelationData, "b")), {0x82});
    expect_refused(publish(property(Alias, 1) + property(Alias, 1)), {0x82});
    expect_refused(subscribe_packet(5, 1, {{"t"}}, property(SubscriptionId, 1) + property(SubscriptionId, 2)), {0x82});
}

TEST_F(framing_5, a_property_stands_where_it_belongs)
{
    expect_refused(publish(property(SessionExpiry, 1)), {0x81, 0x82});
    expect_refused(publish(property(ReasonString, "x")), {0x81, 0x82});
    expect_refused(subscribe_packet(5, 1, {{"t"}}, property(MessageExpiry, 1)), {0x81, 0x82});
    expect_refused(unsubscribe_packet(5, 1, {"t"}, property(SubscriptionId, 1)), {0x81, 0x82});
    expect_refused(publish(wire("00 00")), {0x81, 0x82});
    expect_refused(publish(wire("7F 00")), {0x81, 0x82});
}

TEST_F(framing_5, a_property_with_a_value_that_it_cannot_have)
{
    expect_refused(publish(property(PayloadFormat, 2)), {0x81, 0x82});
    expect_refused(subscribe_packet(5, 1, {{"t"}}, property(SubscriptionId, 0)), {0x82});
}

TEST_F(framing_5, properties_end_where_their_length_says)
{
    expect_refused(wire("30 06 00 01 't' 01 01 01"), {0x81, 0x82}); // the length cuts a property
    expect_refused(wire("30 06 00 01 't' 7F 01 01"), {0x81});       // more than the packet has
    expect_refused(wire("30 03 00 01 't'"), {0x81});                // [MQTT-2.2.2-1]: not even a length
}

// [MQTT-3.4.2-1] [MQTT-3.5.2-1] [MQTT-3.6.2-1] [MQTT-3.7.2-1] [MQTT-3.14.2-1] [MQTT-3.15.2-1]
TEST_F(framing_5, reasons_are_those_of_the_packet)
{
    for (const char *bytes :
         {"40 03 00 01 01", "50 03 00 01 18", "62 03 00 01 10", "70 03 00 01 80", "E0 01 01", "F0 01 80"})
        expect_refused(wire(bytes), {0x81, 0x82});
}
