// properties.h - the properties of MQTT 5.0 (2.2.2). Which there are and where each may stand is one table in
// properties.cpp.
#ifndef TARN_CODEC_STANDARD_PROPERTIES_H
#define TARN_CODEC_STANDARD_PROPERTIES_H

#include "reason.h"

#include <optional>

namespace tarn::codec::standard {

// What a property block holds; what is absent has no value. Texts and bytes point into the packet.
//
// An encoder writes of it what its packet may have and leaves out the rest. So what a will or a PUBLISH came with can
// be handed to the encoder of the PUBLISH that forwards it; expiry and alias must be set anew.
struct Properties {
    using Number = std::optional<uint32_t>;
    using Text   = std::optional<std::string_view>;
    using Binary = std::optional<Bytes>;

    // Of a message: PUBLISH, and the will
    Number payload_format; // 0 bytes, 1 UTF-8
    Number message_expiry; // s
    Text   content_type;
    Text   response_topic;
    Binary correlation_data;
    Number topic_alias;             // PUBLISH; of one connection
    Number will_delay;              // s; will
    Number subscription_identifier; // SUBSCRIBE

    // PUBLISH to a client: one for each of its subscriptions that match and have one. Decoders leave it empty.
    std::span<const uint32_t> subscription_identifiers;

    // Of a connection: CONNECT, CONNACK, DISCONNECT, AUTH
    Number session_expiry; // s, 0xFFFFFFFF = for ever
    Number receive_maximum;
    Number maximum_packet_size;
    Number topic_alias_maximum;
    Number request_problem_information;
    Number request_response_information;
    Number server_keep_alive; // s
    Number maximum_qos;
    Number retain_available;
    Number wildcard_subscription_available;
    Number subscription_identifier_available;
    Number shared_subscription_available;
    Text   assigned_client_id;
    Text   response_information;
    Text   server_reference;
    Text   authentication_method;
    Binary authentication_data;

    Text reason_string; // of what a server or an acknowledgement answers

    // The part of a property block from the first User Property to the last. Others may stand between them; an encoder
    // takes the User Properties alone, in their order [MQTT-3.3.2-18].
    Bytes user_properties;
};

// ---- a block without its length, as it may be stored

// `packet` says whose properties they are. Refused are properties that it cannot have, values out of their range, and
// what stands twice, but for User Property.
Verdict decode_properties(Bytes block, PacketType packet, Properties &properties) noexcept;

// Above kPacketMax if a text or a number cannot be written.
[[nodiscard]] size_t size_of_properties(const Properties &properties, PacketType packet) noexcept;

// Writes them into `to`; how many bytes, 0 if there are none or too little room.
size_t encode_properties(const Properties &properties, PacketType packet, std::span<uint8_t> to) noexcept;

// ---- User Properties

struct UserProperty {
    std::string_view name;
    std::string_view value;
    Bytes            encoded; // identifier, name and value
};

// Takes the next one off the front of `block`; false if there is none. Other properties are passed over.
[[nodiscard]] bool next_user_property(Bytes &block, UserProperty &next) noexcept;

} // namespace tarn::codec::standard

#endif
