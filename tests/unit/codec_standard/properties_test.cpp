// All 27 properties in every packet, written once more from the standard (5.0 2.2.2 and the chapters of the packets).
#include "decoded.h"

#include <set>

using namespace tarn;
using namespace tarn::test;
using standard::Properties;

namespace {

struct Value {
    Bytes       wire;
    std::string printed;
};

struct Case {
    int                id;
    const char        *name; // as `printed` has it
    std::set<int>      packets;
    std::vector<Value> good;
    std::vector<Bytes> bad;
    Reason             bad_reason = Reason::ProtocolError;
};

constexpr int kWill = 0;
constexpr int kAuth = 15;

const std::set<int> kMessage  = {PUBLISH, kWill};
const std::set<int> kConnect  = {CONNECT};
const std::set<int> kConnack  = {CONNACK};
const std::set<int> kBoth     = {CONNECT, CONNACK};
const std::set<int> kWithAuth = {CONNECT, CONNACK, kAuth};

const std::vector<Value> kFlags   = {{wire("00"), "0"}, {wire("01"), "1"}};
const std::vector<Bytes> kNoFlags = {wire("02"), wire("80"), wire("FF")};
const std::vector<Value> kU16     = {{wire("00 00"), "0"}, {wire("00 01"), "1"}, {wire("FF FF"), "65535"}};
const std::vector<Value> kU16Not0 = {{wire("00 01"), "1"}, {wire("FF FF"), "65535"}};
const std::vector<Value> kU32     = {{wire("00 00 00 00"), "0"}, {wire("FF FF FF FF"), "4294967295"}};
const std::vector<Value> kU32Not0 = {{wire("00 00 00 01"), "1"}, {wire("FF FF FF FF"), "4294967295"}};

const std::string        kLong(65535, 'x');
const std::vector<Value> kTexts   = {{prefixed(""), ""}, {prefixed("text"), "text"}, {prefixed(kLong), kLong}};
const std::vector<Bytes> kNoTexts = {wire("00 01 00"), wire("00 01 FF"), wire("00 02 C0 80"), wire("00 03 ED A0 80")};
const std::vector<Value> kBinary  = {
     {prefixed(""), ""}, {wire("00 03 00 FF 80"), std::string("\0\xFF\x80", 3)}, {prefixed(kLong), kLong}};

const std::vector<Case> kCases = {
    {0x01, "payload_format", kMessage, kFlags, kNoFlags},
    {0x02, "message_expiry", kMessage, kU32, {}},
    {0x03, "content_type", kMessage, kTexts, kNoTexts, Reason::MalformedPacket},
    {0x08,
     "response_topic",
     kMessage,
     {{prefixed("r/t"), "r/t"}, {prefixed(kLong), kLong}},
     kNoTexts,
     Reason::MalformedPacket},
    {0x09, "correlation_data", kMessage, kBinary, {}},
    {0x0B,
     "subscription_identifier",
     {PUBLISH, SUBSCRIBE},
     {{wire("01"), "1"}, {wire("7F"), "127"}, {wire("80 01"), "128"}, {wire("FF FF FF 7F"), "268435455"}},
     {wire("00")}},
    {0x0B,
     "subscription_identifier",
     {PUBLISH, SUBSCRIBE},
     {},
     {wire("81 00"), wire("80 80 80 80")},
     Reason::MalformedPacket},
    {0x11, "session_expiry", {CONNECT, CONNACK, DISCONNECT}, kU32, {}},
    {0x12, "assigned_client_id", kConnack, kTexts, kNoTexts, Reason::MalformedPacket},
    {0x13, "server_keep_alive", kConnack, kU16, {}},
    {0x15, "authentication_method", kWithAuth, kTexts, kNoTexts, Reason::MalformedPacket},
    {0x17, "request_problem_information", kConnect, kFlags, kNoFlags},
    {0x18, "will_delay", {kWill}, kU32, {}},
    {0x19, "request_response_information", kConnect, kFlags, kNoFlags},
    {0x1A, "response_information", kConnack, kTexts, kNoTexts, Reason::MalformedPacket},
    {0x1C, "server_reference", {CONNACK, DISCONNECT}, kTexts, kNoTexts, Reason::MalformedPacket},
    {0x1F,
     "reason_string",
     {CONNACK, PUBACK, PUBREC, PUBREL, PUBCOMP, SUBACK, UNSUBACK, DISCONNECT, kAuth},
     kTexts,
     kNoTexts,
     Reason::MalformedPacket},
    {0x21, "receive_maximum", kBoth, kU16Not0, {wire("00 00")}},
    {0x22, "topic_alias_maximum", kBoth, kU16, {}},
    {0x23, "topic_alias", {PUBLISH}, kU16Not0, {wire("00 00")}, Reason::TopicAliasInvalid},
    {0x24, "maximum_qos", kConnack, kFlags, kNoFlags},
    {0x25, "retain_available", kConnack, kFlags, kNoFlags},
    {0x27, "maximum_packet_size", kBoth, kU32Not0, {wire("00 00 00 00")}},
    {0x28, "wildcard_subscription_available", kConnack, kFlags, kNoFlags},
    {0x29, "subscription_identifier_available", kConnack, kFlags, kNoFlags},
    {0x2A, "shared_subscription_available", kConnack, kFlags, kNoFlags},
};

const std::vector<int> kPackets = {kWill,   CONNECT,   CONNACK, PUBLISH,     PUBACK,   PUBREC,     PUBREL,
                                   PUBCOMP, SUBSCRIBE, SUBACK,  UNSUBSCRIBE, UNSUBACK, DISCONNECT, kAuth};

// Not decoded(): a block is whole between any two properties.
Decoded<Properties> decode(const Bytes &block, int packet)
{
    Decoded<Properties> out = {block, {}, {}};
    out.packet.shrink_to_fit();
    out.verdict = standard::decode_properties(out.packet, static_cast<PacketType>(packet), out.value);
    return out;
}

Bytes property(int id, const Bytes &value)
{
    return Bytes{static_cast<uint8_t>(id)} + value;
}

Bytes encode(const Properties &properties, int packet)
{
    const auto type = static_cast<PacketType>(packet);
    Bytes      block(standard::size_of_properties(properties, type));
    EXPECT_EQ(standard::encode_properties(properties, type, block), block.size());
    return block;
}

} // namespace

TEST(properties, each_stands_in_its_packets_alone)
{
    for (const Case &test : kCases)
        for (const Value &value : test.good)
            for (const int packet : kPackets) {
                SCOPED_TRACE(testing::Message() << test.name << " in " << packet);
                const auto block = property(test.id, value.wire);
                const auto found = decode(block, packet);
                if (!test.packets.contains(packet)) {
                    EXPECT_REFUSED(found, Reason::MalformedPacket);
                    continue;
                }
                EXPECT_OK(found);
                EXPECT_TRUE(printed(found.value) == test.name + ("=" + value.printed) + " ");
                EXPECT_TRUE(found.value.user_properties.empty());
                EXPECT_TRUE(encode(found.value, packet) == block);
            }
}

TEST(properties, values_out_of_range_are_refused)
{
    for (const Case &test : kCases)
        for (const Bytes &value : test.bad)
            for (const int packet : test.packets) {
                SCOPED_TRACE(testing::Message() << test.name << " in " << packet << ": " << hex(value));
                EXPECT_REFUSED(decode(property(test.id, value), packet), test.bad_reason);
            }
}

TEST(properties, none_stands_twice)
{
    for (const Case &test : kCases)
        for (const int packet : test.packets)
            if (!test.good.empty() && !(test.id == 0x0B && packet == PUBLISH)) {
                SCOPED_TRACE(testing::Message() << test.name << " in " << packet);
                const Bytes once = property(test.id, test.good[0].wire);
                EXPECT_REFUSED(decode(once + once, packet), Reason::ProtocolError);
                EXPECT_REFUSED(decode(once + user_property("a", "b") + once, packet), Reason::ProtocolError);
            }
}

TEST(properties, cut_values_are_malformed)
{
    for (const Case &test : kCases)
        for (const Value &value : test.good) {
            Bytes block = property(test.id, value.wire);
            block.pop_back();
            SCOPED_TRACE(testing::Message() << test.name << ": " << block.size());
            EXPECT_REFUSED(decode(block, *test.packets.begin()), Reason::MalformedPacket);
        }
}

TEST(properties, all_that_a_packet_may_have)
{
    for (const int packet : kPackets)
        for (const bool last : {false, true}) {
            Bytes       block;
            std::string expected;
            for (const Case &test : kCases)
                if (test.packets.contains(packet) && !test.good.empty()) {
                    const Value &value = last ? test.good.back() : test.good.front();
                    block              = block + property(test.id, value.wire);
                    expected += test.name + ("=" + value.printed) + " ";
                    if (test.id == 0x15) { // which has to be there for it
                        block = block + wire("16 00 01 'd'");
                        expected += "authentication_data=d ";
                    }
                }
            block = block + user_property("k", "v") + user_property("", "");
            expected += "user:k=v user:= ";
            const auto found = decode(block, packet);
            SCOPED_TRACE(packet);
            EXPECT_OK(found);
            EXPECT_TRUE(printed(found.value) == expected);
            EXPECT_TRUE(encode(found.value, packet) == block);
        }
}

TEST(properties, unknown_identifiers_are_malformed)
{
    std::set<int> known = {0x16, 0x26};
    for (const Case &test : kCases)
        known.insert(test.id);
    EXPECT_EQ(known.size(), 27U);
    for (int id = 0; id < 0x80; ++id)
        if (!known.contains(id))
            for (const int packet : kPackets)
                EXPECT_REFUSED(decode(property(id, wire("00 00 00 00")), packet), Reason::MalformedPacket);
    EXPECT_REFUSED(decode(wire("81 00 00"), PUBLISH), Reason::MalformedPacket); // 01 in two bytes [MQTT-1.5.5-1]
    EXPECT_REFUSED(decode(wire("FF FF FF 7F"), PUBLISH), Reason::MalformedPacket);
    EXPECT_REFUSED(decode(wire("80"), PUBLISH), Reason::MalformedPacket);
}

TEST(properties, authentication_data_needs_a_method)
{
    for (const int packet : kWithAuth) {
        EXPECT_REFUSED(decode(wire("16 00 01 'd'"), packet), Reason::ProtocolError);
        EXPECT_OK(decode(wire("16 00 02 00 FF | 15 00 01 'm'"), packet));
    }
    for (const int packet : {kWill, int{PUBLISH}, int{SUBSCRIBE}, int{DISCONNECT}})
        EXPECT_REFUSED(decode(wire("15 00 01 'm' 16 00 01 'd'"), packet), Reason::MalformedPacket);
}

TEST(properties, a_response_topic_is_a_topic_name) // [MQTT-3.3.2-14]
{
    for (const auto *topic : {"a/+", "#", "+", ""})
        for (const int packet : kMessage)
            EXPECT_REFUSED(decode(wire("08") + prefixed(topic), packet), Reason::TopicNameInvalid);
}

TEST(properties, several_subscription_identifiers_stand_in_a_servers_publish)
{
    const uint32_t identifiers[] = {1, 128, 268435455};
    Properties     properties;
    properties.subscription_identifiers = identifiers;
    EXPECT_EQ(hex(encode(properties, PUBLISH)), hex(wire("0B 01 0B 80 01 0B FF FF FF 7F")));
    EXPECT_OK(decode(wire("0B 01 0B 80 01 0B FF FF FF 7F"), PUBLISH));
    EXPECT_TRUE(encode(properties, SUBSCRIBE).empty());
}

// ---- User Properties

TEST(user_properties, keep_their_order_among_others) // [MQTT-3.3.2-18]
{
    const auto found = decode(wire("01 01") + user_property("b", "1") + wire("03 00 01 't'") + user_property("a", "2") +
                                  user_property("b", "1") + wire("23 00 07"),
                              PUBLISH);
    EXPECT_OK(found);
    EXPECT_EQ(printed(found.value), "payload_format=1 content_type=t topic_alias=7 user:b=1 user:a=2 user:b=1 ");
    EXPECT_EQ(found.value.user_properties.data(), found.packet.data() + 2);
    EXPECT_EQ(found.value.user_properties.size(), found.packet.size() - 2 - 3);
    Properties only_user;
    only_user.user_properties = found.value.user_properties;
    EXPECT_EQ(encode(only_user, PUBLISH), user_property("b", "1") + user_property("a", "2") + user_property("b", "1"));
}

TEST(user_properties, of_any_length_and_in_every_packet)
{
    const std::string longest(65535, 'v');
    const Bytes       block = user_property("", "") + user_property(longest, longest);
    for (const int packet : kPackets) {
        const auto found = decode(block, packet);
        EXPECT_OK(found);
        EXPECT_TRUE(encode(found.value, packet) == block);
    }
}

TEST(user_properties, are_two_texts)
{
    for (const auto *block :
         {"26 00 01 FF 00 01 'v'", "26 00 01 'k' 00 01 00", "26 00 01 'k'", "26 00 01 'k' 00 02 'v'", "26"})
        for (const int packet : kPackets)
            EXPECT_REFUSED(decode(wire(block), packet), Reason::MalformedPacket);
}

TEST(user_properties, are_taken_one_by_one)
{
    const Bytes block = wire("02 00 00 00 07 09 00 01 'c'") + user_property("k", "v") + wire("0B FF 7F 03 00 00 01 01");
    standard::Bytes        rest = block;
    standard::UserProperty user;
    ASSERT_TRUE(next_user_property(rest, user));
    EXPECT_EQ(user.name, "k");
    EXPECT_EQ(user.value, "v");
    EXPECT_EQ(hex(user.encoded.data(), user.encoded.size()), hex(user_property("k", "v")));
    EXPECT_FALSE(next_user_property(rest, user));
    EXPECT_TRUE(rest.empty());
}

TEST(user_properties, nothing_is_taken_of_what_is_no_block)
{
    standard::UserProperty user;
    for (const auto *block :
         {"", "26", "26 00 01", "26 00 01 'k' 00 05 'v'", "7F 26 00 00 00 00", "03 00 09 26 00 00 00 00"}) {
        const Bytes     bytes = wire(block);
        standard::Bytes rest  = bytes;
        EXPECT_FALSE(next_user_property(rest, user)) << block;
        EXPECT_TRUE(rest.empty());
    }
}

// ---- encoding

TEST(properties_encode, leaves_out_what_the_packet_cannot_have)
{
    const auto will = decode(wire("18 00 00 00 05 02 00 00 00 09") + user_property("k", "v"), kWill);
    EXPECT_EQ(encode(will.value, PUBLISH), wire("02 00 00 00 09") + user_property("k", "v"));
    EXPECT_EQ(encode(will.value, PUBACK), user_property("k", "v"));
    EXPECT_TRUE(encode(will.value, PINGRESP).empty());
}

TEST(properties_encode, into_too_little_room_writes_nothing)
{
    const auto found = decode(wire("02 00 00 00 09"), PUBLISH);
    Bytes      room(4, 0xEE);
    EXPECT_EQ(standard::encode_properties(found.value, PUBLISH, room), 0U);
    EXPECT_EQ(room, Bytes(4, 0xEE));
}

TEST(properties_encode, a_text_that_is_too_long_has_no_size)
{
    const std::string text(65536, 'x');
    Properties        properties;
    properties.content_type = text;
    EXPECT_GT(standard::size_of_properties(properties, PUBLISH), standard::kPacketMax);
    Properties number;
    number.subscription_identifier = 268435456;
    EXPECT_GT(standard::size_of_properties(number, SUBSCRIBE), standard::kPacketMax);
}
