#pragma GCC diagnostic ignored "-Wunused-parameter"
// Weak stand-ins that let the whole library link while the modules are being written.
#include "mqtt_codec.h"
extern "C" {
__attribute__((weak)) int mqtt_codec_encode_publish(mqtt_codec_ctx_t *ctx, const mqtt_publish_para_t *para, uint8_t *buf, int *buf_len) { return {}; }
__attribute__((weak)) int mqtt_codec_decode_publish(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_publish_para_t *para) { return {}; }
__attribute__((weak)) int mqtt_codec_encode_ack(mqtt_codec_ctx_t *ctx, int type, const mqtt_ack_para_t *para, uint8_t *buf, int *buf_len) { return {}; }
__attribute__((weak)) int mqtt_codec_decode_ack(mqtt_codec_ctx_t *ctx, int type, const uint8_t *buf, int *buf_len, mqtt_ack_para_t *para) { return {}; }
__attribute__((weak)) int mqtt_codec_encode_simple(mqtt_codec_ctx_t *ctx, int type, uint8_t *buf, int *buf_len) { return {}; }
__attribute__((weak)) int mqtt_codec_decode_simple(mqtt_codec_ctx_t *ctx, int type, const uint8_t *buf, int *buf_len) { return {}; }
__attribute__((weak)) int mqtt_codec_encode_subscribe(mqtt_codec_ctx_t *ctx, const mqtt_subscribe_para_t *para, uint8_t *buf, int *buf_len) { return {}; }
__attribute__((weak)) int mqtt_codec_decode_subscribe(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_subscribe_para_t *para) { return {}; }
__attribute__((weak)) int mqtt_codec_encode_unsubscribe(mqtt_codec_ctx_t *ctx, const mqtt_unsubscribe_para_t *para, uint8_t *buf, int *buf_len) { return {}; }
__attribute__((weak)) int mqtt_codec_decode_unsubscribe(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_unsubscribe_para_t *para) { return {}; }
}
