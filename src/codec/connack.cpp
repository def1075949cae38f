// connack.cpp - CONNACK in both directions. The broker only writes it.
//
// CONNACK:  20  remaining-length  session-present:u8  code:u8  [property-length property*, 5.0]
//
// What the encoder writes is always 20 02 SP 00 at level 4 and 20 0B SP RC 08 21 RM RM 27 MP MP MP MP at level 5.
#include "codec_calls.h"
#include "codec_internal.h"

using namespace tarn;
using namespace tarn::codec;

namespace {

constexpr int kMinLevel4 = 4; // capacity of an encoder's buffer, and the shortest input

// QUIRK(connack-v5-properties): Receive Maximum and Maximum Packet Size are written even when 0, which the standard
// calls a protocol error [MQTT 5.0 3.2.2.3.3] [MQTT 5.0 3.2.2.3.6], and session-present is not masked to one bit
// [MQTT-3.2.2-1]. The reply has one fixed shape, filled from the record as it is.
//   standard profile: lifted (wire)
//   test: connack_encode.v5_always_has_thirteen_bytes
void put_properties(Writer &body, const mqtt_connack_para_t &para)
{
    body.u8(8).u8(0x21).u16(para.receive_max).u8(0x27).u32(para.max_packet_size);
    LOG_DEBUG("Property SessionExpiry(0x10): DISABLED (compatible with MQTTX v1.13.0)");
    LOG_DEBUG("Property TopicAliasMax(0x22): DISABLED");
    LOG_DEBUG("Property MaxQoS(0x27): DISABLED");
    LOG_DEBUG("Property RetainAvailable(0x28): DISABLED");
    LOG_DEBUG("Property MaxPacketSize(0x11): %u bytes", para.max_packet_size);
}

// QUIRK(connack-v4-code): 3.1.1 never sees a refusal code; the code is written as 0 [MQTT 3.1.1 3.2.2.3] and the close
// that follows tells the client. Kept as the codec's policy for every caller.
//   standard profile: lifted (wire): where 3.1.1 has no code for the refusal, the connection ends without CONNACK
//   test: connack_encode.v4_never_shows_a_refusal
uint8_t shown_code(uint32_t level, const mqtt_connack_para_t &para)
{
    if (level == 5)
        return para.reason_code;
    if (para.reason_code != 0)
        LOG_WARN("CONNACK encode: 3.1.1 force code=0");
    return 0;
}

} // namespace

int codec::encode_connack(mqtt_codec_ctx_t *ctx, const mqtt_connack_para_t *para, uint8_t *buf, int *buf_len) noexcept
{
    LOG_DEBUG("========== CONNACK encode start ==========");
    const uint32_t level    = ctx ? level_of(ctx) : 0;
    const int      capacity = length_of(buf_len);
    if (!ctx || !para || !buf || capacity < (level == 4 ? kMinLevel4 : CODEC_MIN_CAPACITY))
        return REFUSE(CODEC_E_PARAM, "CONNACK encode: invalid param");
    if (!known_level(level))
        return REFUSE(CODEC_E_VERSION, "CONNACK encode: unsupported version %d", static_cast<int>(level));

    const uint8_t code = shown_code(level, *para);
    open_packet(buf, capacity, CONNACK << 4);
    uint8_t scratch[2 + 9];
    Writer  body(scratch);
    body.u8(para->session_present).u8(code);
    if (level == 5)
        put_properties(body, *para);

    // Neither can happen with these lengths.
    const Sealed sealed = seal_packet(buf, capacity, body);
    if (sealed.length_bytes == 0)
        return REFUSE(CODEC_E_MALFORMED, "CONNACK encode: encode remaining length failed");
    if (sealed.total > capacity)
        return REFUSE(CODEC_E_BUFFER, "CONNACK encode: buffer full (need %d, have %d)", sealed.total, capacity);

    LOG_DEBUG("CONNACK encode success: total_len=%d", sealed.total);
    LOG_DEBUG("========== CONNACK encode end ==========");
    return encoded(ctx, CONNACK, sealed.total, buf_len);
}

// ---- decoding

namespace {

// The value of a known property. One that passes the input's end is stepped over all the same.
template <class T> void read_value(Reader &in, T &field)
{
    uint32_t value = 0;
    if (in.number(sizeof field, value))
        field = static_cast<T>(value);
    else
        in.seek(in.end());
}

// QUIRK(connack-decode-properties): Session Expiry Interval is 0x10 here, 0x11 in the standard [MQTT 5.0 3.2.2.3.2],
// and any property but these three is skipped as if a length stood before its value [MQTT 5.0 2.2.2.2], which
// mis-steps over values of fixed size: the codec's one rule for unknown properties of unknown shape.
//   standard profile: stays: a broker receives no CONNACK; hosts that call this exported decoder meet it
//   test: connack_decode.unknown_properties_are_skipped_as_length_prefixed
void read_property(Reader &in, int block_end, uint8_t id, mqtt_connack_para_t &para)
{
    switch (id) {
    case 0x21:
        return read_value(in, para.receive_max);
    case 0x22:
        return read_value(in, para.topic_alias_max);
    case 0x10:
        return read_value(in, para.session_expiry_interval);
    default:
        LOG_WARN("CONNACK decode: unknown property type 0x%02X", id);
    }
    const VarInt length = peek_varint(in.block(block_end));
    const int    behind = in.pos() + length.bytes + length.value;
    if (length.ok())
        in.seek(behind < in.end() ? behind : in.end());
    else // nothing behind it can be found
        in.seek(block_end);
}

// properties:  length:varint  (id:u8  value)*       The walk is bounded by the input, values may cross the block's end.
int read_properties(Reader &in, int packet_end, mqtt_connack_para_t &para)
{
    Reader       head   = in.block(packet_end);
    const VarInt length = read_varint(head);
    if (!length.ok())
        return REFUSE(CODEC_E_MALFORMED, "CONNACK decode: invalid property length");
    in.seek(head.pos());

    const int block_end = in.block(in.pos() + length.value).end();
    uint8_t   id        = 0;
    while (in.pos() < block_end && in.u8(id))
        read_property(in, block_end, id, para);
    return CODEC_OK;
}

} // namespace

int codec::decode_connack(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_connack_para_t *para) noexcept
{
    const int input_len = length_of(buf_len);
    if (!ctx || !buf || !para || input_len < kMinLevel4)
        return REFUSE(CODEC_E_PARAM, "CONNACK decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d, para=%p)",
                      addr(ctx), addr(buf), addr(buf_len), input_len, addr(para));
    memset(para, 0, sizeof *para);

    const FixedHeader header = read_fixed_header(buf, input_len);
    if (header.type != CONNACK)
        return REFUSE(CODEC_E_MALFORMED, "CONNACK decode: not a CONNACK packet (type=%d)", header.type);
    if (!header.length.ok() || header.end > input_len)
        return REFUSE(CODEC_E_MALFORMED, "CONNACK decode: invalid remaining length (len=%d, consumed=%d)",
                      header.length.value, header.length.bytes);

    Reader  in(buf, input_len, header.body);
    uint8_t acknowledge_flags = 0;
    if (!in.has(2) || !in.u8(acknowledge_flags) || !in.u8(para->reason_code))
        return REFUSE(CODEC_E_MALFORMED, "CONNACK decode: buffer too short for variable header");
    para->session_present = acknowledge_flags & 1;

    const uint32_t level = in.pos() < header.end ? 5 : 4; // by the packet's shape alone
    if (level == 5)
        if (const int code = read_properties(in, header.end, *para))
            return code;

    set_level(ctx, level);
    LOG_DEBUG("CONNACK decode success: version=%d, code=%d, len=%d", static_cast<int>(level), para->reason_code,
              in.pos());
    return decoded(ctx, CONNACK, in.pos(), buf_len);
}
