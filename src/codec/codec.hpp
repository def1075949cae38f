// codec.hpp - MQTT control packets to bytes and back, for the other modules of the library: the directions that a broker
// needs. Hosts have all of them as mqtt_codec.h, which says of each what it does to context, record and log.
#ifndef TARN_CODEC_CODEC_HPP
#define TARN_CODEC_CODEC_HPP

#include "../base/relaxed.h"
#include "mqtt_codec_types.h"
#include "packet_type.h"
#include "publish_view.h"

#include <span>
#include <string_view>

namespace tarn::codec {

// "未知错误" for what is no failure.
const char *error_text(Result result) noexcept;

// ---- the context of a connection, which any thread may read and write

void init(mqtt_codec_ctx_t &ctx) noexcept; // level 4 until a CONNECT says otherwise

[[nodiscard]] inline uint32_t level_of(const mqtt_codec_ctx_t &ctx) noexcept
{
    return shared(ctx.version);
}
// For a packet that was encoded without its context.
inline void note_packet(mqtt_codec_ctx_t &ctx, PacketType type) noexcept
{
    shared(ctx.last_packet_type) = uint32_t{type};
}

// ---- decoding: exactly one packet

using Bytes = std::span<const uint8_t>;

// What a CONNECT asks for, without a line and without judging the packet; as it is made when that cannot be read.
struct ConnectPeek {
    std::string_view client_id;        // in the packet, not terminated and of any length
    bool             is_clean = false; // no session is to be kept
};
ConnectPeek peek_connect(Bytes connect) noexcept;

Result decode_connect(mqtt_codec_ctx_t &ctx, Bytes packet, mqtt_connect_para_t &para) noexcept;
Result decode_publish(mqtt_codec_ctx_t &ctx, Bytes packet, mqtt_publish_para_t &para) noexcept;
Result decode_ack(mqtt_codec_ctx_t &ctx, int type, Bytes packet, mqtt_ack_para_t &para) noexcept;
Result decode_subscribe(mqtt_codec_ctx_t &ctx, Bytes packet, mqtt_subscribe_para_t &para) noexcept;
Result decode_unsubscribe(mqtt_codec_ctx_t &ctx, Bytes packet, mqtt_unsubscribe_para_t &para) noexcept;
// Also says whether the packet carried a session expiry interval: the record shows an absent one and one of 0 alike, but
// only the second changes the session.
Result decode_disconnect(mqtt_codec_ctx_t &ctx, Bytes packet, mqtt_disconnect_para_t &para,
                         bool &expiry_given) noexcept;

// ---- encoding: `packet` is the room, and after success the packet in it

Result encode_connack(mqtt_codec_ctx_t &ctx, const mqtt_connack_para_t &para, std::span<uint8_t> &packet) noexcept;
Result encode_publish(mqtt_codec_ctx_t &ctx, const mqtt_publish_para_t &para, std::span<uint8_t> &packet) noexcept;
Result encode_publish(mqtt_codec_ctx_t &ctx, const PublishView &message, std::span<uint8_t> &packet) noexcept;
Result encode_ack(mqtt_codec_ctx_t &ctx, int type, const mqtt_ack_para_t &para, std::span<uint8_t> &packet) noexcept;
Result encode_disconnect(mqtt_codec_ctx_t &ctx, const mqtt_disconnect_para_t &para,
                         std::span<uint8_t> &packet) noexcept;

} // namespace tarn::codec

#endif
