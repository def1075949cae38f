// simple.cpp - packets that are a fixed header and nothing else: PINGREQ, PINGRESP and the bare DISCONNECT.
#include "codec_calls.h"
#include "codec_internal.h"

using namespace tarn;
using namespace tarn::codec;

// type:u8  00  [00, DISCONNECT at 5.0]
//
// QUIRK(simple-disconnect-byte): the 5.0 DISCONNECT is E0 00 00, a byte more than its remaining length counts
// [MQTT 5.0 2.1.4]; users of this encoder rely on the three bytes. The broker sends the form of disconnect.cpp.
//   standard profile: stays: only hosts that call this exported encoder meet it
//   test: simple_encode.disconnect_has_a_third_byte_at_5
int codec::encode_simple(mqtt_codec_ctx_t *ctx, int type, uint8_t *buf, int *buf_len) noexcept
{
    if (!ctx || !buf || length_of(buf_len) < CODEC_MIN_CAPACITY)
        return REFUSE(CODEC_E_PARAM, "Simple encode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d)", addr(ctx),
                      addr(buf), addr(buf_len), length_of(buf_len));
    if (type != PINGREQ && type != PINGRESP && type != DISCONNECT)
        return REFUSE(CODEC_E_UNSUPPORTED, "Simple encode: unsupported packet type %d", type);
    const uint32_t level = level_of(ctx);
    if (!known_level(level))
        return REFUSE(CODEC_E_VERSION, "Simple encode: unsupported version %d", level);

    open_packet(buf, *buf_len, static_cast<uint8_t>(type << 4)); // the zeroes behind it are the rest of the packet
    const int total = type == DISCONNECT && level == 5 ? 3 : 2;
    if (total > *buf_len) // cannot happen with the capacity asked for above
        return REFUSE(CODEC_E_BUFFER, "Simple encode: buffer overflow (need %d, have %d)", total, *buf_len);
    LOG_DEBUG("Simple encode success: type=%d, version=%d, len=%d", type, level, total);
    return encoded(ctx, static_cast<uint32_t>(type), total, buf_len);
}

// type+flags:u8  remaining:varint  [anything]
//
// QUIRK(simple-lenient): any type may be asked for, flags [MQTT-2.1.3-1] are not looked at, content is stepped over
// unread and may be incomplete; content means 5.0, none means 3.1.1 instead of the level of CONNECT
// [MQTT 5.0 3.1.2.2]. The decoder only answers "is it this packet, and where does it end".
//   standard profile: stays: only hosts that call this exported decoder meet it
//   test: simple_decode.content_means_5_and_may_be_incomplete
int codec::decode_simple(mqtt_codec_ctx_t *ctx, int type, const uint8_t *buf, int *buf_len) noexcept
{
    if (!ctx || !buf || length_of(buf_len) < 2)
        return REFUSE(CODEC_E_PARAM, "Simple decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d)", addr(ctx),
                      addr(buf), addr(buf_len), length_of(buf_len));
    const int         input  = *buf_len;
    const FixedHeader header = read_fixed_header(buf, input);
    if (header.type != type)
        return REFUSE(CODEC_E_MALFORMED, "Simple decode: packet type mismatch (expected=%d, actual=%d)", type,
                      header.type);
    if (!header.length.ok())
        return REFUSE(CODEC_E_MALFORMED, "Simple decode: invalid remaining length");

    const int      consumed = header.end < input ? header.end : input;
    const uint32_t level    = header.length.value != 0 ? 5 : 4;
    set_level(ctx, level);
    LOG_DEBUG("Simple decode success: type=%d, version=%d, len=%d", type, level, consumed);
    return decoded(ctx, static_cast<uint32_t>(type), consumed, buf_len);
}
