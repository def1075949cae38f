// ack_decode.cpp - the six packets that answer with a packet identifier, into their common record.
//
// The length tells the level: a remaining length of 2 is 3.1.1, anything longer 5.0.
#include "codec_calls.h"
#include "codec_internal.h"

using namespace tarn;
using namespace tarn::codec;

namespace {

// properties: length:varint ... stepped over unread.
//
// QUIRK(ack-zero-property-length): a property length of 0 is not counted as consumed, against [MQTT 5.0 2.2.2.1]
// (it is part of the packet); for SUBACK it becomes the first code. The encoder of this codec never writes the
// byte.
//   standard profile: lifted (wire)
//   test: ack_decode.a_zero_property_length_is_not_consumed
void skip_properties(Reader &in)
{
    const VarInt length = peek_varint(in);
    if (length.value > 0)
        in.skip(length.bytes + length.value);
}

// code:u8 * 0..16, up to the packet's end
void read_codes(Reader &in, mqtt_ack_para_t &para)
{
    for (uint8_t code; para.return_code_count < CODEC_FILTERS_MAX && in.u8(code);)
        para.return_codes[para.return_code_count++] = code;
}

} // namespace

// type+flags:u8  remaining:varint  packet-id:u16  [reason:u8  properties  { SUBACK: code:u8 * 0..16 }]
//
// QUIRK(ack-flags): the flags are not looked at, although those of PUBREL are fixed [MQTT-3.6.1-1] and all others
// reserved [MQTT-2.1.3-1]: an acknowledgement that names its identifier is worth more than its flags.
//   standard profile: lifted (strictness)
//   test: ack_decode.does_not_look_at_the_flags
//
// QUIRK(ack-level-detection): the level follows from the length instead of from CONNECT [MQTT 5.0 3.1.2.2]. A 5.0
// client that leaves out a reason code of 0 [MQTT 5.0 3.4.2.1] moves its context to 3.1.1, a 3.1.1 SUBACK with
// codes reads as 5.0 with its first code as the reason.
//   standard profile: lifted (wire)
//   test: ack_decode.the_length_tells_the_level
int codec::decode_ack(mqtt_codec_ctx_t *ctx, int type, const uint8_t *buf, int *buf_len, mqtt_ack_para_t *para) noexcept
{
    if (!ctx || !buf || !para || length_of(buf_len) < 3)
        return REFUSE(CODEC_E_PARAM, "ACK decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d, para=%p)",
                      addr(ctx), addr(buf), addr(buf_len), length_of(buf_len), addr(para));
    const int         input  = *buf_len;
    const FixedHeader header = read_fixed_header(buf, input);
    if (header.type != type)
        return REFUSE(CODEC_E_MALFORMED, "ACK decode: packet type mismatch (expected=%d, actual=%d)", type,
                      header.type);
    memset(para, 0, sizeof *para);

    if (!header.length.ok())
        return REFUSE(CODEC_E_MALFORMED, "ACK decode: invalid remaining length (len=%d, consumed=%d)",
                      header.length.value, header.length.bytes);
    if (header.end > input)
        return REFUSE(CODEC_E_MALFORMED, "ACK decode: packet incomplete (need=%d, actual=%d)", header.end, input);
    Reader in(buf, header.end, header.body);
    if (!in.u16(para->msg_id))
        return REFUSE(CODEC_E_MALFORMED, "ACK decode: buffer too short for msg id");

    uint32_t level = 4;
    if (in.u8(para->reason_code)) {
        level = 5;
        skip_properties(in);
        if (type == SUBACK)
            read_codes(in, *para);
    }

    // A property length beyond the packet leads beyond its end, but never beyond the input.
    const int consumed = in.pos() < input ? in.pos() : input;
    set_level(ctx, level);
    LOG_DEBUG("ACK decode success: type=%d, msg_id=%d, version=%d, len=%d", type, para->msg_id, level, consumed);
    return decoded(ctx, static_cast<uint32_t>(type), consumed, buf_len);
}
