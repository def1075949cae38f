/*
 * mqtt_codec.h - MQTT control packets to bytes and back, for protocol levels 4 and 5.
 *
 * Encoders: *buf_len is the capacity on entry, the packet length on success. Decoders: *buf_len is the input length
 * on entry, the bytes consumed on success. A failing call leaves *buf_len alone. Results are CODEC_*.
 * Nothing here locks, allocates or keeps state outside the context.
 */
#ifndef TARN_CODEC_MQTT_CODEC_H
#define TARN_CODEC_MQTT_CODEC_H

#include "mqtt_codec_types.h"

TARN_API_BEGIN

int      mqtt_codec_ctx_init(mqtt_codec_ctx_t *ctx);
uint32_t codec_encode_remaining_length(uint8_t *buf, uint32_t len); /* bytes written, 0 = failed */
int      codec_decode_remaining_length(const uint8_t *buf, int avail, uint32_t *consumed); /* value, -1 = failed */

int mqtt_codec_encode_connect(mqtt_codec_ctx_t *ctx, const mqtt_connect_para_t *para, uint8_t *buf, int *buf_len);
int mqtt_codec_decode_connect(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_connect_para_t *para);
int mqtt_codec_encode_connack(mqtt_codec_ctx_t *ctx, const mqtt_connack_para_t *para, uint8_t *buf, int *buf_len);
int mqtt_codec_decode_connack(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_connack_para_t *para);
int mqtt_codec_encode_publish(mqtt_codec_ctx_t *ctx, const mqtt_publish_para_t *para, uint8_t *buf, int *buf_len);
int mqtt_codec_decode_publish(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_publish_para_t *para);
int mqtt_codec_encode_ack(mqtt_codec_ctx_t *ctx, int type, const mqtt_ack_para_t *para, uint8_t *buf, int *buf_len);
int mqtt_codec_decode_ack(mqtt_codec_ctx_t *ctx, int type, const uint8_t *buf, int *buf_len, mqtt_ack_para_t *para);
int mqtt_codec_encode_simple(mqtt_codec_ctx_t *ctx, int type, uint8_t *buf, int *buf_len);
int mqtt_codec_decode_simple(mqtt_codec_ctx_t *ctx, int type, const uint8_t *buf, int *buf_len);
int mqtt_codec_encode_subscribe(mqtt_codec_ctx_t *ctx, const mqtt_subscribe_para_t *para, uint8_t *buf, int *buf_len);
int mqtt_codec_decode_subscribe(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_subscribe_para_t *para);
int mqtt_codec_encode_unsubscribe(mqtt_codec_ctx_t *ctx, const mqtt_unsubscribe_para_t *para, uint8_t *buf,
                                  int *buf_len);
int mqtt_codec_decode_unsubscribe(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len,
                                  mqtt_unsubscribe_para_t *para);
int mqtt_codec_encode_disconnect(mqtt_codec_ctx_t *ctx, const mqtt_disconnect_para_t *para, uint8_t *buf, int *buf_len);
int mqtt_codec_decode_disconnect(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_disconnect_para_t *para);

TARN_API_END

#endif
