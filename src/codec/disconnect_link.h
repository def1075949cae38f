// disconnect_link.h - the DISCONNECT decoder for the packet handler.
#ifndef TARN_CODEC_DISCONNECT_LINK_H
#define TARN_CODEC_DISCONNECT_LINK_H

#include "mqtt_codec_types.h"

namespace tarn::codec {

// mqtt_codec_decode_disconnect, which also says whether the packet carried a session expiry interval: the record shows
// an absent one and one of 0 alike, but only the second changes the session.
int decode_disconnect(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_disconnect_para_t *para,
                      bool *expiry_given) noexcept;

} // namespace tarn::codec

#endif
