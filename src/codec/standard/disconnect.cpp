// disconnect.cpp - DISCONNECT (3.14), AUTH (3.15) and PINGREQ (3.12).
//
// DISCONNECT:  E0  remaining:varint  [reason:u8  [properties]]      the optional fields are of 5.0
// AUTH:        F0  the same
// PINGREQ:     C0 00
#include "decoding.h"
#include "encoding.h"

namespace tarn::codec::standard {

namespace {

// The body of DISCONNECT and AUTH at 5.0.
void read_reason(Reader &in, PacketType packet, Reason &reason, Properties &properties)
{
    if (!in.at_end())
        reason = static_cast<Reason>(in.u8());
    if (!in.at_end())
        read_properties(in, packet, properties);
}

void check_reason(Reader &in, PacketType packet, Reason reason)
{
    if (!client_may_send(packet, reason))
        in.refuse(Reason::ProtocolError, "a reason code that a client cannot send"); // [MQTT-3.14.2-1] [MQTT-3.15.2-1]
}

} // namespace

Verdict decode_disconnect(Bytes packet, Level level, Disconnect &disconnect) noexcept
{
    Reader in = open_packet(packet, DISCONNECT, level);
    if (level == Level::Mqtt5) {
        read_reason(in, DISCONNECT, disconnect.reason, disconnect.properties);
        check_reason(in, DISCONNECT, disconnect.reason);
        if (disconnect.properties.server_reference) // 3.14.2.2.5
            in.refuse(Reason::ProtocolError, "DISCONNECT of a client has a Server Reference");
    }
    in.end(); // [MQTT-3.14.1-1]
    return in.verdict();
}

Verdict decode_auth(Bytes packet, Level level, Auth &auth) noexcept
{
    auth      = {};
    Reader in = open_packet(packet, AUTH, level); // [MQTT-3.15.1-1]
    read_reason(in, AUTH, auth.reason, auth.properties);
    check_reason(in, AUTH, auth.reason);
    if (!auth.properties.authentication_method)
        in.refuse(Reason::ProtocolError, "AUTH without Authentication Method");
    in.end();
    return in.verdict();
}

Verdict decode_pingreq(Bytes packet, Level level) noexcept
{
    Reader in = open_packet(packet, PINGREQ, level);
    in.end();
    return in.verdict();
}

// ---- encoding

namespace {

uint8_t first_byte(const Disconnect & /*disconnect*/)
{
    return DISCONNECT << 4;
}

void write_body(Writer &out, const Disconnect &disconnect, Level level)
{
    if (level == Level::Mqtt311)
        return out.refuse();
    const bool has_properties = size_of_properties(disconnect.properties, DISCONNECT) != 0;
    if (has_properties || disconnect.reason != Reason::NormalDisconnection)
        out.u8(static_cast<uint8_t>(disconnect.reason));
    if (has_properties)
        write_properties(out, disconnect.properties, DISCONNECT);
}

constexpr AnswerForm<Disconnect> kDisconnect = {first_byte, write_body};

} // namespace

size_t size_of(const Disconnect &disconnect, const Receiver &receiver) noexcept
{
    return kDisconnect.size_of(disconnect, receiver);
}
size_t encode(const Disconnect &disconnect, const Receiver &receiver, std::span<uint8_t> to) noexcept
{
    return kDisconnect.encode(disconnect, receiver, to);
}

} // namespace tarn::codec::standard
