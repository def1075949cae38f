// framing.cpp - the fixed header.
#include "framing.h"

#include "varint.h"

namespace tarn::codec::standard {

PacketLength packet_length(Bytes stream, size_t limit) noexcept
{
    if (stream.size() < 2)
        return {};
    const Varint remaining = parse_varint(stream.subspan(1));
    if (remaining.state == Varint::Incomplete)
        return {};
    if (remaining.state == Varint::Malformed)
        return {{Reason::MalformedPacket, "the remaining length has more than four bytes"}, 0};
    const size_t length = 1 + remaining.bytes + remaining.value;
    if (length > limit)
        return {{Reason::PacketTooLarge, "the packet is larger than the server takes"}, length};
    return {{}, length};
}

namespace {

constexpr Verdict check_publish_flags(uint8_t first)
{
    const bool    dup = first & 0x08;
    const uint8_t qos = first >> 1 & 3;
    if (qos == 3)
        return {Reason::MalformedPacket, "PUBLISH with both QoS bits"}; // [MQTT-3.3.1-4]
    if (dup && qos == 0)
        return {Reason::MalformedPacket, "PUBLISH with DUP at QoS 0"}; // [MQTT-3.3.1-2]
    return {};
}

constexpr Verdict judge_first_byte(uint8_t first, Level level)
{
    constexpr PacketSet kFromClient =
        packets(CONNECT, PUBLISH, PUBACK, PUBREC, PUBREL, PUBCOMP, SUBSCRIBE, UNSUBSCRIBE, PINGREQ, DISCONNECT, AUTH);
    constexpr PacketSet kFlags2 = packets(PUBREL, SUBSCRIBE, UNSUBSCRIBE);

    const PacketType type = type_of(first);
    if (type == 0 || (type == AUTH && level != Level::Mqtt5))
        return {Reason::MalformedPacket, "a reserved packet type"};
    if (!contains(kFromClient, type))
        return {Reason::ProtocolError, "a packet that only servers send"};
    if (type == PUBLISH)
        return check_publish_flags(first);
    if ((first & 0x0F) != (contains(kFlags2, type) ? 2 : 0))
        return {Reason::MalformedPacket, "wrong flags in the fixed header"}; // [MQTT-2.1.3-1], 3.1.1 [MQTT-2.2.2-2]
    return {};
}

// Each packet's first byte is looked at twice, when it comes and when it is decoded.
struct RightFirstBytes {
    bool at[256] = {};

    explicit constexpr RightFirstBytes(Level level)
    {
        for (unsigned first = 0; first < 256; ++first)
            at[first] = judge_first_byte(static_cast<uint8_t>(first), level).ok();
    }
};
constexpr RightFirstBytes kRightAt311(Level::Mqtt311), kRightAt5(Level::Mqtt5);

} // namespace

Verdict check_first_byte(uint8_t first, Level level) noexcept
{
    const RightFirstBytes &right = level == Level::Mqtt5 ? kRightAt5 : kRightAt311;
    return right.at[first] ? Verdict{} : judge_first_byte(first, level);
}

} // namespace tarn::codec::standard
