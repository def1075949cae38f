// packets.h - the packets as plain structs: decoded from what clients send, encoded for what a server sends.
//
// Decoders take exactly one whole packet and copy nothing: texts, bytes and properties point into it. What they refuse
// must end the connection, with the verdict's reason where the level can say it; the struct then holds no more than
// what was read before. They see all that the packet alone can show. What needs to know more is the caller's: which
// packet comes first, identifiers in use, aliases, maxima that were agreed, rights.
//
// Encoders write whole packets. size_of() says how many bytes; 0 says that this receiver must not or cannot be sent it.
// encode() returns the same number, or 0 if there was too little room; then nothing was written.
#ifndef TARN_CODEC_STANDARD_PACKETS_H
#define TARN_CODEC_STANDARD_PACKETS_H

#include "filters.h"
#include "properties.h"
#include "reason.h"

namespace tarn::codec::standard {

// Whom a packet is encoded for.
struct Receiver {
    Level  level;
    size_t maximum_packet_size = kPacketMax; // of its CONNECT
};

// ---- CONNECT and CONNACK

struct Will {
    uint8_t          qos    = 0;
    bool             retain = false;
    std::string_view topic;
    Bytes            payload;
    Properties       properties;
};

struct Connect {
    Level                           level       = Level::Mqtt311;
    bool                            is_bridge   = false; // of another broker, which marks its level so; at 3.1.1
    bool                            clean_start = false; // 3.1.1: clean session
    uint16_t                        keep_alive  = 0;     // s, 0 = off
    std::string_view                client_id;           // may be empty; whether it may be is the caller's to say
    Properties                      properties;
    std::optional<Will>             will;
    std::optional<std::string_view> user_name;
    std::optional<Bytes>            password;
};

// Of a refused CONNECT `level` is right all the same: the one to answer at. UnsupportedProtocolVersion: a level that is
// neither 4 nor 5 [MQTT-3.1.2-2], or another protocol's name. `connect` is as it was made: clearing it once more would
// cost more than the rest.
Verdict decode_connect(Bytes packet, Connect &connect) noexcept;

// Of a CONNECT that decodes, its client identifier, for a fraction of that cost. Of another one what stands in its place,
// or nothing.
[[nodiscard]] std::optional<std::string_view> peek_client_id(Bytes packet) noexcept;

// Beside a failure `session_present` is written as 0 [MQTT-3.2.2-6]. At 3.1.1 there is a packet only for reasons with a
// return code (return_code_of).
struct Connack {
    bool       session_present = false;
    Reason     reason          = Reason::Success;
    Properties properties;
};
[[nodiscard]] size_t size_of(const Connack &connack, const Receiver &receiver) noexcept;
size_t               encode(const Connack &connack, const Receiver &receiver, std::span<uint8_t> to) noexcept;

// ---- PUBLISH, both ways

struct Publish {
    bool             dup    = false;
    bool             retain = false;
    uint8_t          qos    = 0;
    std::string_view topic;         // empty: the topic of the alias, 5.0
    uint16_t         packet_id = 0; // QoS 1 and 2
    Properties       properties;
    Bytes            stored_properties; // encoded: to be sent behind those above. Decoders leave it empty.
    Bytes            payload;
};
// `publish` is as it was made: clearing it once more would cost as much as the rest.
Verdict decode_publish(Bytes packet, Level level, Publish &publish) noexcept;

// One without properties and without a fault, as most are: of it nothing needs to be looked for. An encoder would write
// the same bytes.
struct PlainPublish {
    bool             dup       = false;
    bool             retain    = false;
    uint8_t          qos       = 0;
    uint16_t         packet_id = 0; // QoS 1 and 2
    std::string_view topic;
    Bytes            payload;
};
// False: it is not such a one, and decode_publish() tells what it is.
[[nodiscard]] bool decode_plain_publish(Bytes packet, Level level, PlainPublish &publish) noexcept;

// The head is all that stands before stored properties and payload, which are sent behind it from where they lie: their
// lengths count, their bytes are not read. At 3.1.1 there are no properties.
[[nodiscard]] size_t size_of_head(const Publish &publish, const Receiver &receiver) noexcept;
size_t               encode_head(const Publish &publish, const Receiver &receiver, std::span<uint8_t> to) noexcept;

// Where the two bytes of the packet identifier stand in a head of QoS 1 or 2; 0 if it has none.
[[nodiscard]] size_t packet_id_offset(Bytes head) noexcept;

// One encoded head for many receivers: gives it another identifier, marks it as sent before. Neither changes its size.
void set_packet_id(std::span<uint8_t> head, uint16_t packet_id) noexcept;
void set_dup(std::span<uint8_t> head) noexcept;

// ---- PUBACK, PUBREC, PUBREL and PUBCOMP, both ways

struct Ack {
    PacketType type      = PUBACK;
    uint16_t   packet_id = 0;
    Reason     reason    = Reason::Success; // 5.0
    Properties properties;
};
Verdict              decode_ack(Bytes packet, Level level, Ack &ack) noexcept; // of any of the four types
[[nodiscard]] size_t size_of(const Ack &ack, const Receiver &receiver) noexcept;
size_t               encode(const Ack &ack, const Receiver &receiver, std::span<uint8_t> to) noexcept;

// One to be sent that says Success and has no properties; the same at both levels.
struct ShortAck {
    uint8_t bytes[4];

    constexpr ShortAck(PacketType type, uint16_t packet_id) noexcept
        : bytes{static_cast<uint8_t>(type << 4 | (type == PUBREL ? 2 : 0)), 2, static_cast<uint8_t>(packet_id >> 8),
                static_cast<uint8_t>(packet_id)}
    {
    }
};

// ---- SUBSCRIBE, SUBACK, UNSUBSCRIBE and UNSUBACK

struct Subscribe {
    uint16_t      packet_id = 0;
    Properties    properties;
    Subscriptions subscriptions; // at least one
};
Verdict decode_subscribe(Bytes packet, Level level, Subscribe &subscribe) noexcept;

struct Unsubscribe {
    uint16_t     packet_id = 0;
    Properties   properties;
    TopicFilters filters; // at least one
};
Verdict decode_unsubscribe(Bytes packet, Level level, Unsubscribe &unsubscribe) noexcept;

// SUBACK or UNSUBACK. At 3.1.1 each failure in a SUBACK is written as 0x80, and UNSUBACK has no codes.
struct SubscriptionAck {
    PacketType              type      = SUBACK;
    uint16_t                packet_id = 0;
    std::span<const Reason> reasons; // one for each filter, in their order [MQTT-3.8.4-6]
    Properties              properties;
};
[[nodiscard]] size_t size_of(const SubscriptionAck &ack, const Receiver &receiver) noexcept;
size_t               encode(const SubscriptionAck &ack, const Receiver &receiver, std::span<uint8_t> to) noexcept;

// ---- PINGREQ, PINGRESP

Verdict           decode_pingreq(Bytes packet, Level level) noexcept;
constexpr uint8_t kPingresp[] = {PINGRESP << 4, 0};

// ---- DISCONNECT, both ways; a 3.1.1 server sends none

struct Disconnect {
    Reason     reason = Reason::NormalDisconnection; // 5.0
    Properties properties;
};
// `disconnect` is as it was made.
Verdict              decode_disconnect(Bytes packet, Level level, Disconnect &disconnect) noexcept;
[[nodiscard]] size_t size_of(const Disconnect &disconnect, const Receiver &receiver) noexcept;
size_t               encode(const Disconnect &disconnect, const Receiver &receiver, std::span<uint8_t> to) noexcept;

// ---- AUTH, 5.0

struct Auth {
    Reason     reason = Reason::Success;
    Properties properties;
};
Verdict decode_auth(Bytes packet, Level level, Auth &auth) noexcept;

} // namespace tarn::codec::standard

#endif
