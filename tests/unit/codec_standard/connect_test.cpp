// CONNECT (3.1) and CONNACK (3.2).
#include "decoded.h"

using namespace tarn;
using namespace tarn::test;
using standard::Connack;
using standard::Connect;

namespace {

Decoded<Connect> decode(const Bytes &packet)
{
    const auto found = decoded<Connect>(packet, standard::decode_connect);
    if (found.verdict.ok()) {
        EXPECT_EQ(standard::peek_client_id(standard::Bytes(found.packet)), found.value.client_id);
    }
    return found;
}

// Behind the protocol's name.
Decoded<Connect> decode(const char *body)
{
    return decode(packet(0x10, wire("00 04 'MQTT'") + wire(body)));
}

constexpr const char *kRest311 = " 00 3C 00 02 'id'";
constexpr const char *kRest5   = " 00 3C 00 00 02 'id'";

Decoded<Connect> with_flags(Level level, const char *flags, const char *behind = "")
{
    const bool is_5 = level == k5;
    return decode((std::string(is_5 ? "05 " : "04 ") + flags + (is_5 ? kRest5 : kRest311) + behind).c_str());
}

Bytes encode(const Connack &connack, const standard::Receiver &receiver)
{
    return encoded(connack, receiver);
}

} // namespace

// ---- decoding

TEST(connect, the_least_of_3_1_1)
{
    const auto found = decode("04 02 00 00 00 00");
    EXPECT_OK(found);
    EXPECT_EQ(found.value.level, k311);
    EXPECT_TRUE(found.value.clean_start);
    EXPECT_EQ(found.value.keep_alive, 0);
    EXPECT_EQ(found.value.client_id, "");
    EXPECT_FALSE(found.value.will || found.value.user_name || found.value.password);
}

TEST(connect, all_of_3_1_1)
{
    const auto found = decode("04 F4 12 34 00 02 'id' 00 01 'w' 00 03 00 FF 80 00 04 'user' 00 02 00 01");
    EXPECT_OK(found);
    EXPECT_FALSE(found.value.clean_start);
    EXPECT_EQ(found.value.keep_alive, 0x1234);
    EXPECT_EQ(found.value.client_id, "id");
    ASSERT_TRUE(found.value.will);
    EXPECT_EQ(found.value.will->qos, 2);
    EXPECT_TRUE(found.value.will->retain);
    EXPECT_EQ(found.value.will->topic, "w");
    EXPECT_EQ(text_of(found.value.will->payload), std::string("\0\xFF\x80", 3));
    EXPECT_EQ(found.value.user_name, "user");
    EXPECT_EQ(text_of(found.value.password.value()), std::string("\0\1", 2));
}

TEST(connect, all_of_5_0)
{
    const Bytes properties      = wire("11 00 00 00 64") + user_property("k", "v");
    const Bytes will_properties = wire("18 00 00 00 1E") + user_property("wk", "wv");
    const auto  counted         = [](const Bytes &block) { return Bytes{static_cast<uint8_t>(block.size())} + block; };
    const auto  found = decode(packet(0x10, wire("00 04 'MQTT' 05 EE 00 0A") + counted(properties) + prefixed("id") +
                                                counted(will_properties) + prefixed("w") + prefixed("") +
                                                prefixed("user") + prefixed("pw")));
    EXPECT_OK(found);
    EXPECT_EQ(found.value.level, k5);
    EXPECT_EQ(printed(found.value.properties), "session_expiry=100 user:k=v ");
    ASSERT_TRUE(found.value.will);
    EXPECT_EQ(found.value.will->qos, 1);
    EXPECT_EQ(printed(found.value.will->properties), "will_delay=30 user:wk=wv ");
    EXPECT_TRUE(found.value.will->payload.empty());
    EXPECT_EQ(found.value.user_name, "user");
}

TEST(connect, fields_up_to_65535_bytes)
{
    const std::string longest(65535, 'x');
    const auto found = decode(packet(0x10, wire("00 04 'MQTT' 04 C6 00 0A") + prefixed(longest) + prefixed(longest) +
                                               prefixed(longest) + prefixed(longest) + prefixed(longest)));
    EXPECT_OK(found);
    EXPECT_TRUE(found.value.client_id == longest && found.value.will->topic == longest);
    EXPECT_TRUE(text_of(*found.value.password) == longest);
}

TEST(connect, a_packet_that_ends_before_its_client_identifier_has_none)
{
    const Bytes whole = packet(0x10, wire("00 04 'MQTT' 05 02 00 3C 05 11 00 00 00 64 00 02 'id'"));
    for (size_t length = 0; length < whole.size(); ++length)
        EXPECT_EQ(standard::peek_client_id(standard::Bytes(whole).first(length)), std::nullopt) << length;
    const Bytes endless = packet(0x10, wire("00 04 'MQTT' 05 02 00 3C FF FF FF FF 01"));
    EXPECT_EQ(standard::peek_client_id(endless), std::nullopt);
}

TEST(connect, other_protocols_are_an_unsupported_version) // [MQTT-3.1.2-1]
{
    for (const auto *name : {"mqtt", "MQTX", "", "MQTTT", "HTTP"})
        EXPECT_REFUSED(decode(packet(0x10, prefixed(name) + wire("04 02 00 0A 00 00"))),
                       Reason::UnsupportedProtocolVersion);
    EXPECT_REFUSED(decode(packet(0x10, wire("00 01 FF 04 02 00 0A 00 00"))), Reason::MalformedPacket);
}

TEST(connect, other_levels_are_an_unsupported_version) // [MQTT-3.1.2-2]
{
    const std::pair<const char *, Level> levels[] = {{"00", k311}, {"03", k311}, {"06", k5}, {"7F", k5},
                                                     {"83", k311}, {"85", k5},   {"FF", k5}};
    for (const auto &[level, answer] : levels) {
        const auto found = decode((std::string(level) + " 02 00 0A 00 00").c_str());
        EXPECT_REFUSED(found, Reason::UnsupportedProtocolVersion);
        EXPECT_EQ(found.value.level, answer) << level;
    }
    const auto old = decode(packet(0x10, wire("00 06 'MQIsdp' 03 02 00 3C 00 02 'id'")));
    EXPECT_REFUSED(old, Reason::UnsupportedProtocolVersion);
    EXPECT_EQ(old.value.level, k311);
}

TEST(connect, a_bridge_marks_its_level)
{
    const auto bridge = decode("84 02 00 0A 00 00");
    EXPECT_TRUE(bridge.verdict.ok());
    EXPECT_EQ(bridge.value.level, k311);
    EXPECT_TRUE(bridge.value.is_bridge);
    EXPECT_FALSE(decode("04 02 00 0A 00 00").value.is_bridge);
}

TEST(connect, the_reserved_flag_is_0) // [MQTT-3.1.2-3]
{
    EXPECT_REFUSED(with_flags(k311, "03"), Reason::MalformedPacket);
    EXPECT_REFUSED(with_flags(k5, "03"), Reason::MalformedPacket);
}

TEST(connect, no_will_flags_without_a_will) // [MQTT-3.1.2-11] [MQTT-3.1.2-13]
{
    for (const auto *flags : {"08", "10", "18", "20", "2A"}) {
        EXPECT_REFUSED(with_flags(k311, flags), Reason::MalformedPacket);
        EXPECT_REFUSED(with_flags(k5, flags), Reason::MalformedPacket);
    }
}

TEST(connect, no_will_at_qos_3) // [MQTT-3.1.2-12], 3.1.1 [MQTT-3.1.2-14]
{
    EXPECT_REFUSED(with_flags(k311, "1C", "00 01 'w' 00 00"), Reason::MalformedPacket);
    EXPECT_REFUSED(with_flags(k5, "1C", "00 00 01 'w' 00 00"), Reason::MalformedPacket);
    EXPECT_OK(with_flags(k311, "14", "00 01 'w' 00 00"));
    EXPECT_OK(with_flags(k5, "14", "00 00 01 'w' 00 00"));
}

TEST(connect, a_password_without_a_user_name_is_of_5_0) // 3.1.1 [MQTT-3.1.2-22]
{
    EXPECT_REFUSED(with_flags(k311, "42", "00 01 'p'"), Reason::MalformedPacket);
    const auto found = with_flags(k5, "42", "00 01 'p'");
    EXPECT_OK(found);
    EXPECT_EQ(text_of(found.value.password.value()), "p");
}

TEST(connect, fields_that_the_flags_do_not_announce_are_malformed)
{
    EXPECT_REFUSED(with_flags(k311, "02", "00 01 'u'"), Reason::MalformedPacket);
    EXPECT_REFUSED(with_flags(k5, "02", "00"), Reason::MalformedPacket);
}

TEST(connect, texts_are_utf8) // [MQTT-3.1.3-4] [MQTT-3.1.3-11] [MQTT-3.1.3-12]
{
    EXPECT_REFUSED(decode("04 02 00 0A 00 01 FF"), Reason::MalformedPacket);
    EXPECT_REFUSED(decode("04 02 00 0A 00 01 00"), Reason::MalformedPacket);
    EXPECT_REFUSED(with_flags(k311, "06", "00 01 FF 00 00"), Reason::MalformedPacket);
    EXPECT_REFUSED(with_flags(k311, "82", "00 01 FF"), Reason::MalformedPacket);
    EXPECT_OK(with_flags(k311, "C2", "00 02 C3 A9 00 01 FF"));
}

TEST(connect, a_wills_topic_is_a_topic_name)
{
    for (const auto *topic : {"00 00", "00 01 '+'", "00 03 'a/#'"})
        EXPECT_REFUSED(with_flags(k311, "06", (std::string(topic) + "00 00").c_str()), Reason::TopicNameInvalid);
}

TEST(connect, a_fault_in_its_properties_is_found)
{
    EXPECT_REFUSED(decode("05 02 00 0A 03 21 00 00 00 00"), Reason::ProtocolError);
    EXPECT_REFUSED(decode("05 02 00 0A 02 01 00 00 00"), Reason::MalformedPacket);
    EXPECT_REFUSED(decode("05 06 00 0A 00 00 00 | 03 21 00 01 | 00 01 'w' 00 00"), Reason::MalformedPacket);
}

TEST(connect, the_remaining_length_is_in_its_shortest_form_at_5_0) // [MQTT-1.5.5-1]
{
    EXPECT_OK(decode(wire("10 8C 00 00 04 'MQTT' 04 02 00 0A 00 00")));
    EXPECT_REFUSED(decode(wire("10 8D 00 00 04 'MQTT' 05 02 00 0A 00 00 00")), Reason::MalformedPacket);
    EXPECT_OK(decode(wire("10 0D 00 04 'MQTT' 05 02 00 0A 00 00 00")));
}

TEST(connect, is_no_other_packet)
{
    EXPECT_REFUSED(decode(wire("C0 00")), Reason::ProtocolError);
    EXPECT_REFUSED(decode(wire("12 0C 00 04 'MQTT' 04 02 00 0A 00 00")), Reason::MalformedPacket);
    EXPECT_REFUSED(decode(Bytes()), Reason::MalformedPacket);
}

// ---- CONNACK

TEST(connack, of_3_1_1)
{
    EXPECT_EQ(encode({}, {k311}), wire("20 02 00 00"));
    EXPECT_EQ(encode({true, Reason::Success, {}}, {k311}), wire("20 02 01 00"));
    EXPECT_EQ(encode({false, Reason::NotAuthorized, {}}, {k311}), wire("20 02 00 05"));
    Connack connack;
    connack.properties.receive_maximum = 5;
    EXPECT_EQ(encode(connack, {k311}), wire("20 02 00 00"));
}

TEST(connack, of_3_1_1_there_is_none_for_a_reason_without_a_code)
{
    for (const Reason reason : {Reason::MalformedPacket, Reason::ProtocolError, Reason::PacketTooLarge})
        EXPECT_EQ(standard::size_of(Connack{false, reason, {}}, {k311}), 0U);
}

TEST(connack, of_5_0)
{
    EXPECT_EQ(encode({}, {k5}), wire("20 03 00 00 00"));
    EXPECT_EQ(encode({true, Reason::Success, {}}, {k5}), wire("20 03 01 00 00"));
    Connack connack;
    connack.properties.assigned_client_id  = "id";
    connack.properties.topic_alias_maximum = 10;
    EXPECT_EQ(encode(connack, {k5}), wire("20 0B 00 00 08 12 00 02 'id' 22 00 0A"));
}

TEST(connack, a_refusal_has_no_session) // [MQTT-3.2.2-6], 3.1.1 [MQTT-3.2.2-4]
{
    EXPECT_EQ(encode({true, Reason::NotAuthorized, {}}, {k311}), wire("20 02 00 05"));
    EXPECT_EQ(encode({true, Reason::NotAuthorized, {}}, {k5}), wire("20 03 00 87 00"));
}

TEST(connack, reads_back_with_every_property)
{
    const Bytes block =
        wire("11 00 00 00 64 12 00 02 'id' 13 00 1E 15 00 01 'm' 16 00 01 'd' 1A 00 01 'i' 1C 00 01 's' 1F 00 03 'why'"
             "21 00 05 22 00 06 24 01 25 00 27 00 00 10 00 28 00 29 01 2A 00") +
        user_property("k", "v");
    Connack connack = {false, Reason::UseAnotherServer, {}};
    ASSERT_TRUE(standard::decode_properties(block, CONNACK, connack.properties).ok());
    const Bytes packet = encode(connack, {k5});
    Connack     again;
    ASSERT_TRUE(decode_connack(packet, again).ok());
    EXPECT_EQ(again.reason, Reason::UseAnotherServer);
    EXPECT_EQ(printed(again.properties), printed(connack.properties));
}

TEST(connack, reason_string_and_user_properties_go_where_there_is_no_room) // [MQTT-3.2.2-19] [MQTT-3.2.2-20]
{
    const Bytes user = user_property("k", "v");
    Connack     connack;
    connack.reason                     = Reason::Banned;
    connack.properties.receive_maximum = 5;
    connack.properties.reason_string   = "because";
    connack.properties.user_properties = user;
    const size_t whole                 = standard::size_of(connack, {k5});
    EXPECT_EQ(encode(connack, {k5, whole}).size(), whole);
    EXPECT_EQ(encode(connack, {k5, whole - 1}), wire("20 06 00 8A 03 21 00 05"));
    EXPECT_EQ(encode(connack, {k5, 8}), wire("20 06 00 8A 03 21 00 05"));
    EXPECT_EQ(standard::size_of(connack, {k5, 7}), 0U);
}

TEST(connack, into_too_little_room_writes_nothing)
{
    Bytes room(4, 0xEE);
    EXPECT_EQ(standard::encode(Connack(), {k5}, room), 0U);
    EXPECT_EQ(room, Bytes(4, 0xEE));
}
