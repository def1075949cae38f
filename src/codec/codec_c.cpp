// codec_c.cpp - mqtt_codec.h: what hosts call. Null pointers go as far as the first line of each call, which prints them.
#include "codec_calls.h"
#include "codec_internal.h"

using namespace tarn;

int mqtt_codec_ctx_init(mqtt_codec_ctx_t *ctx)
{
    if (!ctx)
        return REFUSE(CODEC_E_PARAM, "mqtt_codec_ctx_init: ctx is NULL");
    codec::init(*ctx);
    return CODEC_OK;
}

uint32_t codec_encode_remaining_length(uint8_t *buf, uint32_t len)
{
    if (!buf)
        return REFUSE(0u, "codec_encode_remaining_length: buf is NULL");
    return codec::encode_length(buf, len);
}

int codec_decode_remaining_length(const uint8_t *buf, int avail, uint32_t *consumed)
{
    return buf && consumed ? codec::decode_length(buf, avail, *consumed) : -1;
}

int mqtt_codec_encode_connect(mqtt_codec_ctx_t *ctx, const mqtt_connect_para_t *para, uint8_t *buf, int *buf_len)
{
    return codec::encode_connect(ctx, para, buf, buf_len);
}

int mqtt_codec_decode_connect(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_connect_para_t *para)
{
    return codec::decode_connect(ctx, buf, buf_len, para);
}

int mqtt_codec_encode_connack(mqtt_codec_ctx_t *ctx, const mqtt_connack_para_t *para, uint8_t *buf, int *buf_len)
{
    return codec::encode_connack(ctx, para, buf, buf_len);
}

int mqtt_codec_decode_connack(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_connack_para_t *para)
{
    return codec::decode_connack(ctx, buf, buf_len, para);
}

int mqtt_codec_encode_publish(mqtt_codec_ctx_t *ctx, const mqtt_publish_para_t *para, uint8_t *buf, int *buf_len)
{
    return codec::encode_publish(ctx, para, buf, buf_len);
}

int mqtt_codec_decode_publish(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_publish_para_t *para)
{
    return codec::decode_publish(ctx, buf, buf_len, para, true);
}

int mqtt_codec_encode_ack(mqtt_codec_ctx_t *ctx, int type, const mqtt_ack_para_t *para, uint8_t *buf, int *buf_len)
{
    return codec::encode_ack(ctx, type, para, buf, buf_len);
}

int mqtt_codec_decode_ack(mqtt_codec_ctx_t *ctx, int type, const uint8_t *buf, int *buf_len, mqtt_ack_para_t *para)
{
    return codec::decode_ack(ctx, type, buf, buf_len, para);
}

int mqtt_codec_encode_simple(mqtt_codec_ctx_t *ctx, int type, uint8_t *buf, int *buf_len)
{
    return codec::encode_simple(ctx, type, buf, buf_len);
}

int mqtt_codec_decode_simple(mqtt_codec_ctx_t *ctx, int type, const uint8_t *buf, int *buf_len)
{
    return codec::decode_simple(ctx, type, buf, buf_len);
}

int mqtt_codec_encode_subscribe(mqtt_codec_ctx_t *ctx, const mqtt_subscribe_para_t *para, uint8_t *buf, int *buf_len)
{
    return codec::encode_subscribe(ctx, para, buf, buf_len);
}

int mqtt_codec_decode_subscribe(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_subscribe_para_t *para)
{
    return codec::decode_subscribe(ctx, buf, buf_len, para);
}

int mqtt_codec_encode_unsubscribe(mqtt_codec_ctx_t *ctx, const mqtt_unsubscribe_para_t *para, uint8_t *buf,
                                  int *buf_len)
{
    return codec::encode_unsubscribe(ctx, para, buf, buf_len);
}

int mqtt_codec_decode_unsubscribe(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len,
                                  mqtt_unsubscribe_para_t *para)
{
    return codec::decode_unsubscribe(ctx, buf, buf_len, para);
}

int mqtt_codec_encode_disconnect(mqtt_codec_ctx_t *ctx, const mqtt_disconnect_para_t *para, uint8_t *buf, int *buf_len)
{
    return codec::encode_disconnect(ctx, para, buf, buf_len);
}

int mqtt_codec_decode_disconnect(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_disconnect_para_t *para)
{
    bool expiry_given = false;
    return codec::decode_disconnect(ctx, buf, buf_len, para, &expiry_given);
}
