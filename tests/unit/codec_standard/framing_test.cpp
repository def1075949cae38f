// The fixed header (2.1): lengths, types, flags.
#include "codec/standard/framing.h"
#include "decoded.h"

using namespace tarn;
using namespace tarn::test;
using codec::standard::packet_length;

namespace {

size_t length_of(const char *stream)
{
    const standard::PacketLength found = packet_length(wire(stream));
    EXPECT_TRUE(found.verdict.ok());
    return found.length;
}

Reason first_byte(int first, Level level = k5)
{
    return standard::check_first_byte(static_cast<uint8_t>(first), level).reason;
}

} // namespace

TEST(packet_length, at_each_bound_of_the_remaining_length)
{
    EXPECT_EQ(length_of("30 00"), 2U);
    EXPECT_EQ(length_of("30 7F"), 2U + 127);
    EXPECT_EQ(length_of("30 80 01"), 3U + 128);
    EXPECT_EQ(length_of("30 FF 7F"), 3U + 16383);
    EXPECT_EQ(length_of("30 80 80 01"), 4U + 16384);
    EXPECT_EQ(length_of("30 FF FF 7F"), 4U + 2097151);
    EXPECT_EQ(length_of("30 80 80 80 01"), 5U + 2097152);
    EXPECT_EQ(length_of("30 FF FF FF 7F"), 5U + 268435455);
    EXPECT_EQ(length_of("30 FF FF FF 7F"), standard::kPacketMax);
}

TEST(packet_length, is_unknown_until_the_header_is_there)
{
    for (const auto *stream : {"", "30", "30 80", "30 FF FF", "30 FF FF FF"})
        EXPECT_EQ(length_of(stream), 0U) << stream;
    EXPECT_EQ(length_of("30 80 00"), 3U);             // 3.1.1 does not ask for the shortest form; decoders of 5.0 do
    EXPECT_EQ(length_of("C0 00 10 FF FF FF FF"), 2U); // what follows is the next packet's
}

TEST(packet_length, a_fifth_byte_is_malformed)
{
    EXPECT_EQ(packet_length(wire("30 80 80 80 80")).verdict.reason, Reason::MalformedPacket);
    EXPECT_EQ(packet_length(wire("30 FF FF FF FF 7F")).verdict.reason, Reason::MalformedPacket);
}

TEST(packet_length, above_the_limit_is_too_large_at_once)
{
    EXPECT_TRUE(packet_length(wire("30 80 01"), 131).verdict.ok());
    EXPECT_EQ(packet_length(wire("30 80 01"), 130).verdict.reason, Reason::PacketTooLarge);
    EXPECT_EQ(packet_length(wire("30 FF FF FF 7F"), 10485760).verdict.reason, Reason::PacketTooLarge);
}

TEST(first_byte, flags_are_those_of_the_type) // [MQTT-2.1.3-1], 3.1.1 [MQTT-2.2.2-2]
{
    for (const int type : {1, 4, 5, 6, 7, 8, 10, 12, 14, 15})
        for (int flags = 0; flags <= 0x0F; ++flags) {
            const bool right = flags == (type == 6 || type == 8 || type == 10 ? 2 : 0);
            EXPECT_EQ(first_byte(type << 4 | flags), right ? Reason::Success : Reason::MalformedPacket)
                << type << " " << flags;
        }
}

TEST(first_byte, flags_of_publish)
{
    for (int flags = 0; flags <= 0x0F; ++flags) {
        const int  qos   = flags >> 1 & 3;
        const bool wrong = qos == 3 || (qos == 0 && flags & 8); // [MQTT-3.3.1-4] [MQTT-3.3.1-2]
        EXPECT_EQ(first_byte(0x30 | flags), wrong ? Reason::MalformedPacket : Reason::Success) << flags;
    }
}

TEST(first_byte, types_that_no_client_sends)
{
    EXPECT_EQ(first_byte(0x00), Reason::MalformedPacket);
    EXPECT_EQ(first_byte(0xF0, k311), Reason::MalformedPacket);
    EXPECT_EQ(first_byte(0xF0, k5), Reason::Success);
    for (const int first : {0x20, 0x90, 0xB0, 0xD0})
        EXPECT_EQ(first_byte(first), Reason::ProtocolError) << first;
}
