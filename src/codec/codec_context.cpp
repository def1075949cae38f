// codec_context.cpp - the context that carries a connection's protocol level from packet to packet.
#include "codec_internal.h"

using namespace tarn;
using namespace tarn::codec;

int mqtt_codec_ctx_init(mqtt_codec_ctx_t *ctx)
{
    if (!ctx)
        return REFUSE(CODEC_E_PARAM, "mqtt_codec_ctx_init: ctx is NULL");

    set_level(ctx, 4); // until a CONNECT says otherwise
    shared(ctx->last_packet_type) = 0;
    shared(ctx->last_packet_len)  = 0;
    memset(ctx->reserved, 0, sizeof ctx->reserved);
    LOG_DEBUG("mqtt_codec_ctx_init: success");
    return CODEC_OK;
}
