// connect.cpp - CONNECT (3.1) and CONNACK (3.2).
//
// CONNECT:  10  remaining:varint  "MQTT":text  level:u8  flags:u8  keep-alive:u16  [properties, 5.0]  client-id:text
//           [will: [properties, 5.0]  topic:text  payload:binary]  [user-name:text]  [password:binary]
// CONNACK:  20  remaining:varint  session-present:u8  reason:u8  [properties, 5.0]
#include "decoding.h"
#include "encoding.h"

namespace tarn::codec::standard {

// ---- CONNECT

namespace {

// Bits of the flags.
constexpr uint8_t kReserved   = 0x01;
constexpr uint8_t kCleanStart = 0x02;
constexpr uint8_t kWill       = 0x04;
constexpr uint8_t kWillQos    = 0x18;
constexpr uint8_t kWillRetain = 0x20;
constexpr uint8_t kPassword   = 0x40;
constexpr uint8_t kUserName   = 0x80;

constexpr uint8_t kBridgeLevel = 0x84;

// The level also says how to answer a client of none of our levels: one of a later level understands 5.0, one of an
// earlier level 3.1.1. Bridges of other brokers set the highest bit of 3.1.1's.
void read_protocol(Reader &in, Connect &connect)
{
    const std::string_view name  = in.text();
    const uint8_t          level = in.u8();
    connect.level                = (level & 0x7F) >= 5 ? Level::Mqtt5 : Level::Mqtt311;
    connect.is_bridge            = level == kBridgeLevel;
    if (name != "MQTT")
        in.refuse(Reason::UnsupportedProtocolVersion, "CONNECT is of MQTT 3.1 or no MQTT"); // [MQTT-3.1.2-1]
    if (level != 4 && level != 5 && !connect.is_bridge)
        in.refuse(Reason::UnsupportedProtocolVersion, "CONNECT has a level other than 4 and 5"); // [MQTT-3.1.2-2]
}

void check_flags(Reader &in, uint8_t flags, Level level)
{
    if (flags & kReserved)
        in.refuse(Reason::MalformedPacket, "CONNECT sets the reserved flag"); // [MQTT-3.1.2-3]
    if (!(flags & kWill) && flags & (kWillQos | kWillRetain))
        in.refuse(Reason::MalformedPacket, "CONNECT has will flags without a will"); // [MQTT-3.1.2-11] [MQTT-3.1.2-13]
    if ((flags & kWillQos) == kWillQos)
        in.refuse(Reason::MalformedPacket, "CONNECT with both QoS bits of the will"); // [MQTT-3.1.2-12]
    if (level == Level::Mqtt311 && flags & kPassword && !(flags & kUserName))
        in.refuse(Reason::MalformedPacket, "CONNECT has a password without a user name"); // 3.1.1 [MQTT-3.1.2-22]
}

void read_will(Reader &in, uint8_t flags, Connect &connect)
{
    Will &will  = connect.will.emplace();
    will.qos    = (flags & kWillQos) >> 3;
    will.retain = flags & kWillRetain;
    if (connect.level == Level::Mqtt5)
        read_properties(in, WILL, will.properties);
    will.topic   = in.text(); // [MQTT-3.1.3-11]
    will.payload = in.binary();
    if (in.ok() && !is_topic_name(will.topic))
        in.refuse(Reason::TopicNameInvalid, "the will's topic is empty or has a wildcard");
}

} // namespace

Verdict decode_connect(Bytes packet, Connect &connect) noexcept
{
    Reader in = open_packet(packet, CONNECT, Level::Mqtt311); // the level is not known yet
    read_protocol(in, connect);
    if (connect.level == Level::Mqtt5)
        in.refuse(open_packet(packet, CONNECT, connect.level).verdict());
    const uint8_t flags = in.u8();
    check_flags(in, flags, connect.level);
    connect.clean_start = flags & kCleanStart;
    connect.keep_alive  = in.u16();
    if (connect.level == Level::Mqtt5)
        read_properties(in, CONNECT, connect.properties);
    connect.client_id = in.text(); // [MQTT-3.1.3-3] [MQTT-3.1.3-4]
    if (flags & kWill)
        read_will(in, flags, connect);
    if (flags & kUserName)
        connect.user_name = in.text(); // [MQTT-3.1.3-12]
    if (flags & kPassword)
        connect.password = in.binary();
    in.end();
    return in.verdict();
}

std::optional<std::string_view> peek_client_id(Bytes packet) noexcept
{
    Reader in(packet);
    in.bytes(1);
    in.bytes(parse_varint(in.rest()).bytes);
    in.binary(); // the protocol's name
    const bool has_properties = in.u8() == static_cast<uint8_t>(Level::Mqtt5);
    in.bytes(3); // flags and keep-alive
    if (has_properties)
        in.bytes(in.varint());
    const Bytes id = in.binary();
    if (!in.ok())
        return std::nullopt;
    return std::string_view(reinterpret_cast<const char *>(id.data()), id.size());
}

// ---- CONNACK

namespace {

uint8_t first_byte(const Connack & /*connack*/)
{
    return CONNACK << 4;
}

void write_body(Writer &out, const Connack &connack, Level level)
{
    out.u8(connack.session_present && connack.reason == Reason::Success); // [MQTT-3.2.2-6], 3.1.1 [MQTT-3.2.2-4]
    if (level == Level::Mqtt5) {
        out.u8(static_cast<uint8_t>(connack.reason));
        write_properties(out, connack.properties, CONNACK);
    } else if (const std::optional<uint8_t> code = return_code_of(connack.reason)) {
        out.u8(*code);
    } else {
        out.refuse();
    }
}

constexpr AnswerForm<Connack> kConnack = {first_byte, write_body};

} // namespace

size_t size_of(const Connack &connack, const Receiver &receiver) noexcept
{
    return kConnack.size_of(connack, receiver);
}
size_t encode(const Connack &connack, const Receiver &receiver, std::span<uint8_t> to) noexcept
{
    return kConnack.encode(connack, receiver, to);
}

} // namespace tarn::codec::standard
