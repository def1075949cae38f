// PUBLISH (3.3), both ways.
#include "decoded.h"

using namespace tarn;
using namespace tarn::test;
using standard::Properties;
using standard::Publish;

namespace {

Decoded<Publish> decode(const Bytes &bytes, Level level)
{
    Decoded<Publish> out = {bytes, {}, {}};
    out.packet.shrink_to_fit();
    out.verdict = standard::decode_publish(out.packet, level, out.value);
    return out;
}
Decoded<Publish> decode(const char *text, Level level)
{
    return decode(wire(text), level);
}

Publish message(uint8_t qos = 0)
{
    Publish out;
    out.qos       = qos;
    out.topic     = "a/b";
    out.packet_id = 7;
    out.payload   = bytes_of("hi");
    return out;
}

// Whether the quick decoder takes it. If so, it says the same as the other one, and an encoder would write these bytes.
bool is_plain(const Bytes &bytes, Level level)
{
    const auto             whole = decode(bytes, level);
    standard::PlainPublish plain;
    if (!standard::decode_plain_publish(whole.packet, level, plain))
        return false;
    EXPECT_OK(whole);
    EXPECT_EQ(plain.dup, whole.value.dup);
    EXPECT_EQ(plain.retain, whole.value.retain);
    EXPECT_EQ(plain.qos, whole.value.qos);
    EXPECT_EQ(plain.packet_id, whole.value.packet_id);
    EXPECT_EQ(plain.topic, whole.value.topic);
    EXPECT_EQ(text_of(plain.payload), text_of(whole.value.payload));
    EXPECT_EQ(encoded(whole.value, {level}), bytes);
    return true;
}
bool is_plain(const char *text, Level level)
{
    return is_plain(wire(text), level);
}

} // namespace

// ---- decoding

TEST(publish, at_each_qos_of_3_1_1)
{
    const auto qos_0 = decode("31 07 00 03 'a/b' 'hi'", k311);
    EXPECT_OK(qos_0);
    EXPECT_EQ(qos_0.value.topic, "a/b");
    EXPECT_EQ(qos_0.value.qos, 0);
    EXPECT_TRUE(qos_0.value.retain);
    EXPECT_FALSE(qos_0.value.dup);
    EXPECT_EQ(text_of(qos_0.value.payload), "hi");

    const auto qos_1 = decode("3A 09 00 03 'a/b' 12 34 'hi'", k311);
    EXPECT_OK(qos_1);
    EXPECT_EQ(qos_1.value.qos, 1);
    EXPECT_EQ(qos_1.value.packet_id, 0x1234);
    EXPECT_TRUE(qos_1.value.dup);
    EXPECT_FALSE(qos_1.value.retain);

    EXPECT_EQ(decode("34 07 00 03 'a/b' FF FF", k311).value.qos, 2);
    EXPECT_TRUE(decode("34 07 00 03 'a/b' FF FF", k311).value.payload.empty());
}

TEST(publish, with_every_property_of_5_0)
{
    const Bytes block = wire("01 01 02 00 00 00 3C 03 00 04 'text' 08 00 03 'r/t' 09 00 02 00 FF 23 00 05") +
                        user_property("k", "v") + user_property("k", "w");
    const auto found = decode(
        packet(0x32, wire("00 03 'a/b' 00 07") + Bytes{static_cast<uint8_t>(block.size())} + block + text("hi")), k5);
    EXPECT_OK(found);
    EXPECT_EQ(printed(found.value.properties),
              std::string("payload_format=1 message_expiry=60 content_type=text response_topic=r/t correlation_data=") +
                  std::string("\0\xFF", 2) + " topic_alias=5 user:k=v user:k=w ");
    EXPECT_EQ(text_of(found.value.payload), "hi");
    EXPECT_EQ(hex(encoded(found.value, {k5})), hex(found.packet));
}

TEST(publish, an_alias_stands_for_the_topic)
{
    const auto found = decode("30 07 00 00 03 23 00 05 'x'", k5);
    EXPECT_OK(found);
    EXPECT_EQ(found.value.topic, "");
    EXPECT_EQ(found.value.properties.topic_alias, 5U);
}

TEST(publish, without_topic_or_alias)
{
    EXPECT_REFUSED(decode("30 03 00 00 00", k5), Reason::ProtocolError);
    EXPECT_REFUSED(decode("30 03 00 00 'x'", k311), Reason::TopicNameInvalid); // [MQTT-4.7.3-1]
}

TEST(publish, alias_0_is_invalid) // [MQTT-3.3.2-8]
{
    EXPECT_REFUSED(decode("30 07 00 01 'a' 03 23 00 00", k5), Reason::TopicAliasInvalid);
}

TEST(publish, no_wildcards_in_its_topic) // [MQTT-3.3.2-2]
{
    for (const auto *topic : {"+", "#", "a/+/b", "a/#", "a+"}) {
        EXPECT_REFUSED(decode(packet(0x30, prefixed(topic)), k311), Reason::TopicNameInvalid);
        EXPECT_REFUSED(decode(packet(0x30, prefixed(topic) + wire("00")), k5), Reason::TopicNameInvalid);
        EXPECT_REFUSED(decode(packet(0x30, prefixed(topic) + wire("03 23 00 05")), k5), Reason::TopicNameInvalid);
    }
}

TEST(publish, its_topic_is_utf8) // [MQTT-3.3.2-1]
{
    for (const Level level : {k311, k5}) {
        EXPECT_REFUSED(decode("30 04 00 01 FF 00", level), Reason::MalformedPacket);
        EXPECT_REFUSED(decode("30 04 00 01 00 00", level), Reason::MalformedPacket);
        EXPECT_REFUSED(decode("30 03 00 02 'a'", level), Reason::MalformedPacket);
    }
}

TEST(publish, no_qos_3_and_no_dup_at_qos_0) // [MQTT-3.3.1-4] [MQTT-3.3.1-2]
{
    for (const Level level : {k311, k5})
        for (const auto *packet : {"36 06 00 01 'a' 00 07 00", "3E 06 00 01 'a' 00 07 00", "38 04 00 01 'a' 00"})
            EXPECT_REFUSED(decode(packet, level), Reason::MalformedPacket);
}

TEST(publish, its_identifier_is_not_0) // [MQTT-2.2.1-3], 3.1.1 [MQTT-2.3.1-1]
{
    for (const Level level : {k311, k5})
        for (const auto *packet : {"32 06 00 01 'a' 00 00 00", "34 06 00 01 'a' 00 00 00"})
            EXPECT_REFUSED(decode(packet, level), Reason::ProtocolError);
}

TEST(publish, cut_before_its_payload_is_malformed)
{
    for (const char *packet : {"32 04 00 01 'a' 00", "32 03 00 01 'a'", "30 01 00", "30 00"})
        for (const Level level : {k311, k5})
            EXPECT_REFUSED(decode(packet, level), Reason::MalformedPacket);
    EXPECT_REFUSED(decode("30 03 00 01 'a'", k5), Reason::MalformedPacket); // no property length
    EXPECT_REFUSED(decode("30 04 00 01 'a' 01", k5), Reason::MalformedPacket);
    EXPECT_REFUSED(decode("30 05 00 01 'a' 80 00", k5), Reason::MalformedPacket); // not the shortest form
}

TEST(publish, has_no_subscription_identifier_from_a_client) // [MQTT-3.3.4-6]
{
    EXPECT_REFUSED(decode("30 06 00 01 'a' 02 0B 01", k5), Reason::ProtocolError);
}

TEST(publish, is_as_long_as_it_says)
{
    for (const Level level : {k311, k5})
        for (const char *packet :
             {"30 05 00 01 'a' 00", "30 03 00 01 'a' 00", "31 FF FF FF FF 00 01 'a' 00", "30", "", "30 80"})
            EXPECT_REFUSED(decode(packet, level), Reason::MalformedPacket);
    EXPECT_REFUSED(decode("30 84 00 00 01 'a' 00", k5), Reason::MalformedPacket); // [MQTT-1.5.5-1]
    EXPECT_OK(decode("30 84 00 00 01 'a' 00", k311));
}

TEST(publish, of_ten_mebibytes)
{
    const Bytes payload(10 << 20, 0x5A);
    const auto  found = decode(packet(0x30, prefixed("a") + payload), k311);
    EXPECT_OK(found);
    EXPECT_EQ(found.value.payload.size(), payload.size());
    EXPECT_EQ(found.value.payload.data(), found.packet.data() + 1 + 4 + 3);
}

// ---- decoding what has neither properties nor a fault

TEST(plain_publish, is_taken_at_each_qos)
{
    EXPECT_TRUE(is_plain("30 07 00 03 'a/b' 'hi'", k311));
    EXPECT_TRUE(is_plain("31 05 00 03 'a/b'", k311));
    EXPECT_TRUE(is_plain("3A 09 00 03 'a/b' 12 34 'hi'", k311));
    EXPECT_TRUE(is_plain("34 07 00 03 'a/b' FF FF", k311));
    EXPECT_TRUE(is_plain("30 08 00 03 'a/b' 00 'hi'", k5));
    EXPECT_TRUE(is_plain("33 08 00 03 'a/b' 12 34 00", k5));
    EXPECT_TRUE(is_plain("30 08 00 04 'a/' C3 A4 'hi'", k311));
}

TEST(plain_publish, with_something_unusual_is_left_to_the_other_decoder)
{
    EXPECT_FALSE(is_plain("30 0A 00 03 'a/b' 02 01 01 'hi'", k5)); // a property
    EXPECT_FALSE(is_plain("30 06 00 00 03 23 00 05", k5));         // an alias for the topic
    EXPECT_FALSE(is_plain("30 87 00 00 03 'a/b' 'hi'", k311));     // a length that could be shorter
    EXPECT_FALSE(is_plain("30 09 00 03 'a/b' 80 00 'hi'", k5));    // likewise, that of the properties
    EXPECT_FALSE(is_plain("32 07 00 03 'a/b' 00 00", k311));       // the identifier is 0
    EXPECT_FALSE(is_plain("30 07 00 03 'a/+' 'hi'", k311));        // a wildcard
    EXPECT_FALSE(is_plain("30 04 00 00 'hi'", k311));              // no topic
    EXPECT_FALSE(is_plain("38 07 00 03 'a/b' 'hi'", k311));        // DUP at QoS 0
    EXPECT_FALSE(is_plain("36 09 00 03 'a/b' 12 34 'hi'", k311));  // QoS 3
    EXPECT_FALSE(is_plain("40 07 00 03 'a/b' 'hi'", k311));        // another type
    EXPECT_FALSE(is_plain("30 07 00 03 'a' FF 'b' 'hi'", k311));   // no UTF-8
    EXPECT_FALSE(is_plain("30 05 00 03 'a/b'", k5));               // cut before its properties
}

// Each packet that is cut, or has another byte somewhere, is judged as the other decoder does.
TEST(plain_publish, is_never_one_that_is_refused)
{
    for (const Level level : {k311, k5})
        for (const char *const text : {"32 0D 00 05 'a/b/c' 12 34 00 'hi'", "30 0D 00 09 'topics/of' 00 'x'"}) {
            const Bytes packet = wire(text);
            for (size_t at = 0; at < packet.size(); ++at) {
                (void)is_plain(Bytes(packet.begin(), packet.begin() + static_cast<ptrdiff_t>(at)), level);
                for (unsigned byte = 0; byte < 256; ++byte) {
                    Bytes changed = packet;
                    changed[at]   = static_cast<uint8_t>(byte);
                    (void)is_plain(changed, level);
                }
            }
        }
}

TEST(ascii_topic_name, is_a_topic_name_of_ascii_characters)
{
    EXPECT_FALSE(standard::is_ascii_topic_name(""));
    for (size_t size = 1; size < 20; ++size)
        for (size_t at = 0; at < size; ++at)
            for (unsigned byte = 0; byte < 256; ++byte) {
                std::string topic(size, '/');
                topic[at] = static_cast<char>(byte);
                EXPECT_EQ(standard::is_ascii_topic_name(topic), byte > 0 && byte < 0x80 && byte != '+' && byte != '#')
                    << size << " " << at << " " << byte;
            }
}

// ---- encoding

TEST(publish_encode, of_3_1_1_has_no_properties)
{
    Publish publish                   = message(1);
    publish.retain                    = true;
    publish.properties.message_expiry = 5;
    EXPECT_EQ(hex(encoded(publish, {k311})), hex(wire("33 09 00 03 'a/b' 00 07 'hi'")));
    publish.qos = 0;
    EXPECT_EQ(hex(encoded(publish, {k311})), hex(wire("31 07 00 03 'a/b' 'hi'")));
}

TEST(publish_encode, of_5_0_has_what_was_asked_for)
{
    const uint32_t identifiers[]                = {5, 300};
    Publish        publish                      = message(2);
    publish.dup                                 = true;
    publish.properties.message_expiry           = 9;
    publish.properties.topic_alias              = 1;
    publish.properties.subscription_identifiers = identifiers;
    publish.topic                               = "";
    EXPECT_EQ(hex(encoded(publish, {k5})),
              hex(wire("3C 14 00 00 00 07 0D 02 00 00 00 09 23 00 01 0B 05 0B AC 02 'hi'")));
    EXPECT_EQ(hex(encoded(message(), {k5})), hex(wire("30 08 00 03 'a/b' 00 'hi'")));
}

TEST(publish_encode, a_will_is_published_with_its_properties)
{
    const Bytes block   = wire("18 00 00 00 1E 02 00 00 00 3C") + user_property("k", "v");
    Publish     publish = message();
    ASSERT_TRUE(standard::decode_properties(block, standard::WILL, publish.properties).ok());
    const Packet packet = encoded(publish, {k5});
    EXPECT_EQ(printed(decode(packet, k5).value.properties), "message_expiry=60 user:k=v ");
}

TEST(publish_encode, lengths_at_each_bound)
{
    for (const size_t payload : {0, 122, 123, 16378, 16379, 2097146, 2097147}) {
        const Bytes bytes(payload, 'x');
        Publish     publish = message();
        publish.payload     = bytes;
        const Packet packet = encoded(publish, {k311});
        EXPECT_EQ(standard::packet_length(packet).length, packet.size());
        EXPECT_EQ(decode(packet, k311).value.payload.size(), payload);
    }
}

TEST(publish_encode, not_above_the_receivers_maximum) // [MQTT-3.1.2-24]
{
    EXPECT_EQ(standard::size_of_head(message(), {k5, 10}), 8U);
    EXPECT_EQ(standard::size_of_head(message(), {k5, 9}), 0U);
    Bytes room(100);
    EXPECT_EQ(standard::encode_head(message(), {k5, 9}, room), 0U);
    // User Properties of a message are no diagnostics: they are never left out [MQTT-3.3.2-17].
    const Bytes user                   = user_property("k", "v");
    Publish     publish                = message();
    publish.properties.user_properties = user;
    EXPECT_EQ(standard::size_of_head(publish, {k5, 16}), 0U);
    EXPECT_EQ(standard::size_of_head(publish, {k5, 17}), 15U);
}

TEST(publish_encode, not_what_no_packet_can_hold)
{
    const std::string topic(65536, 't');
    Publish           publish = message();
    publish.topic             = topic;
    EXPECT_EQ(standard::size_of_head(publish, {k311}), 0U);
    // Its bytes are not read.
    publish         = message();
    publish.payload = {bytes_of("x").data(), standard::kVarintMax - 5};
    EXPECT_EQ(standard::size_of_head(publish, {k311}), 5U + 5);
    publish.payload = {bytes_of("x").data(), standard::kVarintMax - 4};
    EXPECT_EQ(standard::size_of_head(publish, {k311}), 0U);
}

TEST(publish_encode, into_too_little_room_writes_nothing)
{
    Bytes room(7, 0xEE);
    EXPECT_EQ(standard::encode_head(message(), {k5}, room), 0U);
    EXPECT_EQ(room, Bytes(7, 0xEE));
}

TEST(publish_head, is_given_other_identifiers)
{
    for (const size_t payload : {2, 200, 20000}) {
        const Bytes bytes(payload, 'x');
        Publish     publish            = message(1);
        publish.payload                = bytes;
        publish.properties.topic_alias = 0x0101;
        Packet       head(standard::size_of_head(publish, {k5}));
        const size_t written = standard::encode_head(publish, {k5}, head);
        ASSERT_EQ(written, head.size());
        standard::set_packet_id(head, 0xABCD);
        standard::set_dup(head);
        publish.packet_id = 0xABCD;
        publish.dup       = true;
        Packet expected(head.size());
        standard::encode_head(publish, {k5}, expected);
        EXPECT_EQ(hex(head), hex(expected));
    }
}

TEST(publish_head, without_an_identifier_stays_as_it_is)
{
    for (const char *bytes : {"30 05 00 03 'a/b'", "", "32", "32 09 00", "32 07 00 03 'a/b'",
                              "82 06 00 01 'a' 00 07 00", "32 80 80 80 80 80"}) {
        Bytes       head   = wire(bytes);
        const Bytes before = head;
        EXPECT_EQ(standard::packet_id_offset(head), 0U) << bytes;
        standard::set_packet_id(head, 0xABCD);
        EXPECT_EQ(head, before);
    }
    Bytes qos_0 = wire("30 05 00 03 'a/b'");
    standard::set_dup(qos_0);
    EXPECT_EQ(qos_0[0], 0x30); // [MQTT-3.3.1-2]
    Bytes pubrel = wire("62 02 00 07");
    standard::set_dup(pubrel);
    EXPECT_EQ(pubrel[0], 0x62);
    standard::set_dup({});
}
