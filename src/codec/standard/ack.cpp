// ack.cpp - PUBACK, PUBREC, PUBREL and PUBCOMP (3.4 to 3.7), both ways.
//
//   type|flags  remaining:varint  packet-id:u16  [reason:u8  [properties]]
//
// The optional fields are of 5.0; what would be Success and empty is left out.
#include "decoding.h"
#include "encoding.h"

namespace tarn::codec::standard {

Verdict decode_ack(Bytes packet, Level level, Ack &ack) noexcept
{
    ack                     = {};
    const PacketType type   = packet.empty() ? PUBACK : type_of(packet[0]);
    const bool       is_ack = contains(packets(PUBACK, PUBREC, PUBREL, PUBCOMP), type);
    ack.type                = is_ack ? type : PUBACK;
    Reader in               = open_packet(packet, ack.type, level);
    ack.packet_id           = read_packet_id(in);
    if (level == Level::Mqtt5 && !in.at_end())
        ack.reason = static_cast<Reason>(in.u8());
    if (level == Level::Mqtt5 && !in.at_end())
        read_properties(in, ack.type, ack.properties);
    if (!may_stand_in(ack.type, ack.reason))
        in.refuse(Reason::ProtocolError, "an acknowledgement has a reason code that it cannot have"); // [MQTT-3.4.2-1]
    in.end();
    return in.verdict();
}

namespace {

uint8_t first_byte(const Ack &ack)
{
    return static_cast<uint8_t>(ack.type << 4 | (ack.type == PUBREL ? 2 : 0));
}

void write_body(Writer &out, const Ack &ack, Level level)
{
    out.u16(ack.packet_id);
    if (level == Level::Mqtt311)
        return;
    const bool has_properties = size_of_properties(ack.properties, ack.type) != 0;
    if (has_properties || ack.reason != Reason::Success)
        out.u8(static_cast<uint8_t>(ack.reason));
    if (has_properties)
        write_properties(out, ack.properties, ack.type);
}

constexpr AnswerForm<Ack> kAck = {first_byte, write_body};

} // namespace

size_t size_of(const Ack &ack, const Receiver &receiver) noexcept
{
    return kAck.size_of(ack, receiver);
}
size_t encode(const Ack &ack, const Receiver &receiver, std::span<uint8_t> to) noexcept
{
    return kAck.encode(ack, receiver, to);
}

} // namespace tarn::codec::standard
