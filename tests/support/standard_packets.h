// standard_packets.h - the directions that the standard's codec does without: packets that clients send, encoded;
// packets that servers send, decoded; and properties as text. For unit tests and fuzzers.
#ifndef TARN_TESTS_STANDARD_PACKETS_H
#define TARN_TESTS_STANDARD_PACKETS_H

#include "codec/standard/decoding.h"
#include "codec/standard/standard_codec.hpp"
#include "codec/standard/writer.h"

#include <string>
#include <vector>

namespace tarn::test {

namespace standard = codec::standard;
using Packet       = std::vector<uint8_t>;

// ---- encoding

// Appends to a packet what a Writer would.
class PacketBuilder {
public:
    PacketBuilder &u8(unsigned value)
    {
        bytes_.push_back(static_cast<uint8_t>(value));
        return *this;
    }
    PacketBuilder &u16(unsigned value) { return u8(value >> 8).u8(value); }
    PacketBuilder &varint(size_t value)
    {
        for (; value > 0x7F; value >>= 7)
            u8(static_cast<uint8_t>(value | 0x80));
        return u8(static_cast<uint8_t>(value));
    }
    PacketBuilder &bytes(standard::Bytes from)
    {
        bytes_.insert(bytes_.end(), from.begin(), from.end());
        return *this;
    }
    PacketBuilder &binary(standard::Bytes from) { return u16(static_cast<unsigned>(from.size())).bytes(from); }
    PacketBuilder &text(std::string_view from)
    {
        return binary({reinterpret_cast<const uint8_t *>(from.data()), from.size()});
    }
    PacketBuilder &properties(const standard::Properties &properties, PacketType packet)
    {
        Packet block(standard::size_of_properties(properties, packet));
        standard::encode_properties(properties, packet, block);
        return varint(block.size()).bytes(block);
    }
    // The packet with this as its body.
    Packet packet(unsigned first) const
    {
        PacketBuilder whole;
        whole.u8(first).varint(bytes_.size()).bytes(bytes_);
        return whole.bytes_;
    }

private:
    Packet bytes_;
};

inline Packet encode_connect(const standard::Connect &connect)
{
    const bool     is_5 = connect.level == standard::Level::Mqtt5;
    const unsigned will = connect.will ? 4U | connect.will->qos << 3U | (connect.will->retain ? 0x20U : 0U) : 0U;
    const unsigned flags =
        will | (connect.user_name ? 0x80U : 0U) | (connect.password ? 0x40U : 0U) | (connect.clean_start ? 2U : 0U);
    PacketBuilder out;
    out.text("MQTT").u8(static_cast<unsigned>(connect.level)).u8(flags).u16(connect.keep_alive);
    if (is_5)
        out.properties(connect.properties, CONNECT);
    out.text(connect.client_id);
    if (connect.will && is_5)
        out.properties(connect.will->properties, standard::WILL);
    if (connect.will)
        out.text(connect.will->topic).binary(connect.will->payload);
    if (connect.user_name)
        out.text(*connect.user_name);
    if (connect.password)
        out.binary(*connect.password);
    return out.packet(0x10);
}

inline Packet encode_subscribe(const standard::Subscribe &subscribe, standard::Level level)
{
    PacketBuilder out;
    out.u16(subscribe.packet_id);
    if (level == standard::Level::Mqtt5)
        out.properties(subscribe.properties, SUBSCRIBE);
    for (const standard::Subscription &entry : subscribe.subscriptions)
        out.text(entry.text)
            .u8(entry.qos | (entry.no_local ? 4U : 0U) | (entry.retain_as_published ? 8U : 0U) |
                entry.retain_handling << 4U);
    return out.packet(0x82);
}

inline Packet encode_unsubscribe(const standard::Unsubscribe &unsubscribe, standard::Level level)
{
    PacketBuilder out;
    out.u16(unsubscribe.packet_id);
    if (level == standard::Level::Mqtt5)
        out.properties(unsubscribe.properties, UNSUBSCRIBE);
    for (const standard::UnsubscribedFilter &entry : unsubscribe.filters)
        out.text(entry.text);
    return out.packet(0xA2);
}

inline Packet encode_auth(const standard::Auth &auth)
{
    PacketBuilder out;
    out.u8(static_cast<unsigned>(auth.reason)).properties(auth.properties, standard::AUTH);
    return out.packet(0xF0);
}

// What the library encodes, in memory of exactly its size; empty if the receiver is sent none.
template <class Struct> Packet encoded(const Struct &packet, const standard::Receiver &receiver)
{
    Packet out(standard::size_of(packet, receiver));
    return standard::encode(packet, receiver, out) == out.size() ? out : Packet();
}
inline Packet encoded(const standard::Publish &publish, const standard::Receiver &receiver)
{
    Packet out(standard::size_of_head(publish, receiver));
    if (out.empty() || standard::encode_head(publish, receiver, out) != out.size())
        return {};
    out.insert(out.end(), publish.payload.begin(), publish.payload.end());
    return out;
}

// ---- decoding

// Behind the fixed header, which was checked.
inline standard::Reader open_answer(standard::Bytes packet, uint8_t first)
{
    standard::Reader       in(packet);
    const standard::Varint length = standard::parse_varint(packet.subspan(1));
    if (in.u8() != first || length.value + 1 + length.bytes != packet.size())
        in.refuse(standard::Reason::MalformedPacket, "not such a packet");
    in.bytes(length.bytes);
    return in;
}

inline standard::Verdict decode_connack(standard::Bytes packet, standard::Connack &connack)
{
    standard::Reader in     = open_answer(packet, 0x20);
    connack.session_present = in.u8() == 1;
    connack.reason          = static_cast<standard::Reason>(in.u8());
    standard::read_properties(in, CONNACK, connack.properties);
    in.end();
    return in.verdict();
}

struct DecodedSubscriptionAck {
    unsigned                      packet_id = 0;
    standard::Properties          properties;
    std::vector<standard::Reason> reasons;
};

inline standard::Verdict decode_subscription_ack(standard::Bytes packet, PacketType type, DecodedSubscriptionAck &ack)
{
    standard::Reader in = open_answer(packet, static_cast<uint8_t>(type << 4));
    ack.packet_id       = in.u16();
    standard::read_properties(in, type, ack.properties);
    while (!in.at_end())
        ack.reasons.push_back(static_cast<standard::Reason>(in.u8()));
    return in.verdict();
}

// ---- as text

inline std::string printed(const standard::Properties &p)
{
    std::string out;
    const auto  add = [&](const char *name, const auto &value) {
        if (!value)
            return;
        out += std::string(name) + "=";
        if constexpr (std::is_same_v<decltype(value), const standard::Properties::Number &>)
            out += std::to_string(*value);
        else
            out.append(reinterpret_cast<const char *>(value->data()), value->size());
        out += " ";
    };
    add("payload_format", p.payload_format);
    add("message_expiry", p.message_expiry);
    add("content_type", p.content_type);
    add("response_topic", p.response_topic);
    add("correlation_data", p.correlation_data);
    add("subscription_identifier", p.subscription_identifier);
    add("session_expiry", p.session_expiry);
    add("assigned_client_id", p.assigned_client_id);
    add("server_keep_alive", p.server_keep_alive);
    add("authentication_method", p.authentication_method);
    add("authentication_data", p.authentication_data);
    add("request_problem_information", p.request_problem_information);
    add("will_delay", p.will_delay);
    add("request_response_information", p.request_response_information);
    add("response_information", p.response_information);
    add("server_reference", p.server_reference);
    add("reason_string", p.reason_string);
    add("receive_maximum", p.receive_maximum);
    add("topic_alias_maximum", p.topic_alias_maximum);
    add("topic_alias", p.topic_alias);
    add("maximum_qos", p.maximum_qos);
    add("retain_available", p.retain_available);
    add("maximum_packet_size", p.maximum_packet_size);
    add("wildcard_subscription_available", p.wildcard_subscription_available);
    add("subscription_identifier_available", p.subscription_identifier_available);
    add("shared_subscription_available", p.shared_subscription_available);
    standard::UserProperty user;
    for (standard::Bytes rest = p.user_properties; standard::next_user_property(rest, user);)
        out += "user:" + std::string(user.name) + "=" + std::string(user.value) + " ";
    return out;
}

} // namespace tarn::test

#endif
