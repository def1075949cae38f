// PUBACK, PUBREC, PUBREL and PUBCOMP (3.4 to 3.7), both ways.
#include "decoded.h"

using namespace tarn;
using namespace tarn::test;
using standard::Ack;

namespace {

constexpr PacketType kTypes[] = {PUBACK, PUBREC, PUBREL, PUBCOMP};

uint8_t first_of(PacketType type)
{
    return static_cast<uint8_t>(type << 4 | (type == PUBREL ? 2 : 0));
}

Decoded<Ack> decode(const Bytes &bytes, Level level)
{
    Decoded<Ack> out = {bytes, {}, {}};
    out.packet.shrink_to_fit();
    out.verdict = standard::decode_ack(out.packet, level, out.value);
    return out;
}
Decoded<Ack> decode(PacketType type, const char *body, Level level)
{
    return decode(packet(first_of(type), wire(body)), level);
}

} // namespace

TEST(ack, of_3_1_1_is_an_identifier)
{
    for (const PacketType type : kTypes) {
        const auto found = decode(type, "12 34", k311);
        EXPECT_OK(found);
        EXPECT_EQ(found.value.type, type);
        EXPECT_EQ(found.value.packet_id, 0x1234);
        EXPECT_EQ(found.value.reason, Reason::Success);
        EXPECT_REFUSED(decode(type, "12 34 00", k311), Reason::MalformedPacket);
        EXPECT_REFUSED(decode(type, "12 34 00 00", k311), Reason::MalformedPacket);
    }
}

TEST(ack, of_5_0_in_its_three_forms)
{
    for (const PacketType type : kTypes) {
        EXPECT_OK(decode(type, "12 34", k5));
        const auto with_reason = decode(type, "12 34 00", k5);
        EXPECT_OK(with_reason);
        const auto with_properties = decode(type, "12 34 00 00", k5);
        EXPECT_OK(with_properties);
        const auto found = decode(type, "12 34 00 0D 1F 00 03 'why' 26 00 01 'k' 00 01 'v'", k5);
        EXPECT_OK(found);
        EXPECT_EQ(printed(found.value.properties), "reason_string=why user:k=v ");
        EXPECT_EQ(found.value.packet_id, 0x1234);
    }
}

TEST(ack, too_short_or_too_long_is_malformed)
{
    for (const PacketType type : kTypes)
        for (const char *body : {"", "12", "12 34 00 01", "12 34 00 00 00", "12 34 00 06 1F 00 03 'wh'"})
            EXPECT_REFUSED(decode(type, body, k5), Reason::MalformedPacket);
    EXPECT_REFUSED(decode(Bytes(), k5), Reason::MalformedPacket);
    EXPECT_REFUSED(decode(PUBACK, "12", k311), Reason::MalformedPacket);
}

TEST(ack, its_identifier_is_not_0)
{
    for (const PacketType type : kTypes)
        for (const Level level : {k311, k5})
            EXPECT_REFUSED(decode(type, "00 00", level), Reason::ProtocolError);
}

TEST(ack, its_reason_is_one_of_its_own) // [MQTT-3.4.2-1] [MQTT-3.5.2-1] [MQTT-3.6.2-1] [MQTT-3.7.2-1]
{
    for (const PacketType type : kTypes)
        for (int code = 0; code <= 0xFF; ++code) {
            const auto reason = static_cast<Reason>(code);
            const auto found  = decode(packet(first_of(type), wire("00 07") + Bytes{static_cast<uint8_t>(code)}), k5);
            EXPECT_EQ(found.verdict.reason,
                      standard::may_stand_in(type, reason) ? Reason::Success : Reason::ProtocolError);
            EXPECT_EQ(found.value.reason, reason);
        }
}

TEST(ack, flags_and_type_are_checked)
{
    for (const Level level : {k311, k5}) {
        EXPECT_REFUSED(decode(wire("42 02 00 07"), level), Reason::MalformedPacket);
        EXPECT_REFUSED(decode(wire("60 02 00 07"), level), Reason::MalformedPacket);
        EXPECT_REFUSED(decode(wire("C0 02 00 07"), level), Reason::ProtocolError);
    }
}

TEST(ack_encode, of_3_1_1_is_an_identifier)
{
    for (const PacketType type : kTypes) {
        Ack ack                      = {type, 0x1234, Reason::Success, {}};
        ack.properties.reason_string = "why";
        EXPECT_EQ(hex(encoded(ack, {k311})), hex(packet(first_of(type), wire("12 34"))));
    }
}

TEST(ack_encode, of_5_0_in_its_shortest_form)
{
    for (const PacketType type : kTypes) {
        Ack ack = {type, 0x1234, Reason::Success, {}};
        EXPECT_EQ(hex(encoded(ack, {k5})), hex(packet(first_of(type), wire("12 34"))));
        ack.reason = Reason::PacketIdentifierNotFound;
        EXPECT_EQ(hex(encoded(ack, {k5})), hex(packet(first_of(type), wire("12 34 92"))));
        ack.properties.reason_string = "why";
        EXPECT_EQ(hex(encoded(ack, {k5})), hex(packet(first_of(type), wire("12 34 92 06 1F 00 03 'why'"))));
        ack.reason = Reason::Success;
        EXPECT_EQ(hex(encoded(ack, {k5})), hex(packet(first_of(type), wire("12 34 00 06 1F 00 03 'why'"))));
    }
}

TEST(ack_encode, leaves_the_reason_string_out_where_there_is_no_room) // [MQTT-3.4.2-2] [MQTT-3.4.2-3]
{
    const Bytes user = user_property("k", "v");
    for (const PacketType type : kTypes) {
        Ack ack                        = {type, 7, Reason::Success, {}};
        ack.properties.reason_string   = "why";
        ack.properties.user_properties = user;
        EXPECT_EQ(encoded(ack, {k5, 19}).size(), 19U);
        EXPECT_EQ(hex(encoded(ack, {k5, 18})), hex(packet(first_of(type), wire("00 07"))));
        EXPECT_EQ(standard::size_of(ack, {k5, 3}), 0U);
    }
}
