// codec_calls.h - one function a packet and direction. Each takes what a host may pass, null pointers included: its first
// line prints them all. codec.cpp calls them for the library, codec_c.cpp for hosts.
#ifndef TARN_CODEC_CODEC_CALLS_H
#define TARN_CODEC_CODEC_CALLS_H

#include "mqtt_codec_types.h"
#include "publish_view.h"

namespace tarn::codec {

// CODEC_*; everything else is as mqtt_codec.h says of the function of that name.
int encode_connect(mqtt_codec_ctx_t *ctx, const mqtt_connect_para_t *para, uint8_t *buf, int *buf_len) noexcept;
int decode_connect(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_connect_para_t *para) noexcept;
int encode_connack(mqtt_codec_ctx_t *ctx, const mqtt_connack_para_t *para, uint8_t *buf, int *buf_len) noexcept;
int decode_connack(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_connack_para_t *para) noexcept;
int encode_publish(mqtt_codec_ctx_t *ctx, const mqtt_publish_para_t *para, uint8_t *buf, int *buf_len) noexcept;
int encode_publish(mqtt_codec_ctx_t &ctx, const PublishView &message, uint8_t *buf, int *buf_len) noexcept;
// What topic and payload leave of their arrays is cleared if asked for, which takes longer than all else.
int decode_publish(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_publish_para_t *para,
                   bool clears_arrays) noexcept;
int encode_ack(mqtt_codec_ctx_t *ctx, int type, const mqtt_ack_para_t *para, uint8_t *buf, int *buf_len) noexcept;
int decode_ack(mqtt_codec_ctx_t *ctx, int type, const uint8_t *buf, int *buf_len, mqtt_ack_para_t *para) noexcept;
int encode_simple(mqtt_codec_ctx_t *ctx, int type, uint8_t *buf, int *buf_len) noexcept;
int decode_simple(mqtt_codec_ctx_t *ctx, int type, const uint8_t *buf, int *buf_len) noexcept;
int encode_subscribe(mqtt_codec_ctx_t *ctx, const mqtt_subscribe_para_t *para, uint8_t *buf, int *buf_len) noexcept;
int decode_subscribe(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_subscribe_para_t *para) noexcept;
int encode_unsubscribe(mqtt_codec_ctx_t *ctx, const mqtt_unsubscribe_para_t *para, uint8_t *buf, int *buf_len) noexcept;
int decode_unsubscribe(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_unsubscribe_para_t *para) noexcept;
int encode_disconnect(mqtt_codec_ctx_t *ctx, const mqtt_disconnect_para_t *para, uint8_t *buf, int *buf_len) noexcept;
int decode_disconnect(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_disconnect_para_t *para,
                      bool *expiry_given) noexcept;

} // namespace tarn::codec

#endif
