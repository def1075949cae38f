// codec_context.cpp - the context that carries a connection's protocol level from packet to packet.
#include "codec_internal.h"

namespace tarn::codec {

void init(mqtt_codec_ctx_t &ctx) noexcept
{
    set_level(&ctx, 4); // until a CONNECT says otherwise
    shared(ctx.last_packet_type) = 0;
    shared(ctx.last_packet_len)  = 0;
    memset(ctx.reserved, 0, sizeof ctx.reserved);
    LOG_DEBUG("mqtt_codec_ctx_init: success");
}

} // namespace tarn::codec
