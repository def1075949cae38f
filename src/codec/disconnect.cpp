// disconnect.cpp - DISCONNECT in both directions. The level comes from the context and is never changed here.
//
// DISCONNECT:  E0  remaining-length  [reason:u8  property-length property*, 5.0]
// property:    10 expiry:u32 | 1F length:u16 characters | 26 length:u16 bytes
//
// QUIRK(disconnect-properties): Session Expiry Interval is 0x10, 0x11 in the standard [MQTT 5.0 3.14.2.2.2], and User
// Property is one text, a pair in the standard [MQTT 5.0 3.14.2.2.4]; the codec keeps its own numbering and shapes in
// both directions.
//   standard profile: lifted (wire)
//   test: disconnect_decode.properties_of_this_codec
#include "../base/text.h"
#include "codec_calls.h"
#include "codec_internal.h"

using namespace tarn;
using namespace tarn::codec;

// ---- encoding, which logs nothing

namespace {

constexpr size_t kPropertiesMax = 128;
constexpr int    kTextMax       = sizeof(mqtt_disconnect_para_t::reason_string) - 1;

int put_properties(Writer &properties, const mqtt_disconnect_para_t &para)
{
    const std::string_view reason = text_of(para.reason_string);
    if (para.session_expiry_interval)
        properties.u8(0x10).u32(para.session_expiry_interval);
    if (reason.size() > kTextMax)
        return CODEC_E_BUFFER;
    if (!reason.empty())
        properties.u8(0x1F).text(reason);
    if (para.user_property_len && para.user_property[0]) {
        if (para.user_property_len > kTextMax)
            return CODEC_E_BUFFER;
        properties.u8(0x26).text({para.user_property, para.user_property_len});
    }
    return properties.fits() ? CODEC_OK : CODEC_E_BUFFER;
}

int put_body(Writer &body, const mqtt_disconnect_para_t &para)
{
    uint8_t area[kPropertiesMax];
    Writer  properties(area);
    if (const int code = put_properties(properties, para))
        return code;
    body.u8(para.reason_code);
    if (!put_varint(body, static_cast<uint32_t>(properties.size())))
        return CODEC_E_MALFORMED;
    body.bytes(properties.data(), properties.size());
    return CODEC_OK;
}

} // namespace

int codec::encode_disconnect(mqtt_codec_ctx_t *ctx, const mqtt_disconnect_para_t *para, uint8_t *buf,
                             int *buf_len) noexcept
{
    if (!ctx || !para || !buf || length_of(buf_len) < 1)
        return CODEC_E_PARAM;
    const uint32_t level = level_of(ctx);
    if (!known_level(level))
        return CODEC_E_VERSION;

    open_packet(buf, *buf_len, DISCONNECT << 4);
    uint8_t scratch[1 + 2 + kPropertiesMax];
    Writer  body(scratch);
    if (level == 5)
        if (const int code = put_body(body, *para))
            return code;

    const Sealed sealed = seal_packet(buf, *buf_len, body);
    if (sealed.length_bytes == 0)
        return CODEC_E_MALFORMED;
    if (sealed.total > *buf_len)
        return CODEC_E_BUFFER;
    return encoded(ctx, DISCONNECT, sealed.total, buf_len);
}

// ---- decoding

namespace {

// length:u16 and that many bytes, terminated
bool read_text(Reader &block, char *to, uint16_t &length)
{
    return block.u16(length) && length <= kTextMax && block.text(to, length);
}

// One value behind its identifier. CODEC_OK, or why the walk ends.
int read_property(Reader &block, uint8_t id, mqtt_disconnect_para_t &para, bool &expiry_given)
{
    uint16_t length = 0;
    switch (id) {
    case 0x1F:
        return read_text(block, para.reason_string, length) ? CODEC_OK : CODEC_E_BUFFER;
    case 0x26:
        if (!read_text(block, para.user_property, length))
            return CODEC_E_BUFFER;
        para.user_property_len = length;
        return CODEC_OK;
    case 0x10:
        if (!block.u32(para.session_expiry_interval))
            return CODEC_E_BUFFER;
        expiry_given = true;
        return CODEC_OK;
    default:
        return CODEC_E_UNSUPPORTED;
    }
}

// body, 5.0:  reason:u8  property-length:varint  property*
//
// QUIRK(disconnect-short-forms): reason and property length must both be there; E0 00 and E0 01 RC, which the standard
// allows [MQTT 5.0 3.14.2.1] [MQTT 5.0 3.14.2.2], are malformed. A deliberate strictness: a client that wants to leave
// without its will says so in full.
//   standard profile: lifted (wire)
//   test: disconnect_decode.v5_short_forms_are_refused
int read_v5(Reader &in, mqtt_disconnect_para_t &para, bool &expiry_given)
{
    (void)in.u8(para.reason_code); // without one the property length is missing, too
    const VarInt length = read_varint(in);
    if (!length.ok())
        return REFUSE(CODEC_E_MALFORMED, "DISCONNECT decode: invalid property length");
    if (!in.has(length.value))
        return REFUSE(CODEC_E_MALFORMED, "DISCONNECT decode: property length exceed remaining data");

    Reader  block = in.block(in.pos() + length.value);
    uint8_t id    = 0;
    while (block.u8(id))
        if (const int code = read_property(block, id, para, expiry_given))
            return REFUSE(code, "DISCONNECT decode: parse properties failed (err=%d)", code);
    in.seek(block.end());
    LOG_DEBUG("DISCONNECT decode: MQTT 5.0, reason=0x%02X", para.reason_code);
    return CODEC_OK;
}

int read_body(uint32_t level, Reader &in, mqtt_disconnect_para_t &para, bool &expiry_given)
{
    if (level == 5)
        return read_v5(in, para, expiry_given);
    if (level != 4)
        return REFUSE(CODEC_E_VERSION, "DISCONNECT decode: unsupported MQTT version");
    if (!in.at_end())
        return REFUSE(CODEC_E_MALFORMED, "DISCONNECT decode: MQTT 3.1.1 remaining length must be 0 (got %d)",
                      in.left());
    LOG_DEBUG("DISCONNECT decode: MQTT 3.1.1");
    return CODEC_OK;
}

// QUIRK(disconnect-flags): the flags of the first byte are not checked [MQTT-3.14.1-1]; E5 00 disconnects like E0 00.
//   standard profile: lifted (strictness)
//   test: disconnect_decode.flags_are_not_checked
int check_fixed_header(const FixedHeader &header, int input_len)
{
    if (header.type != DISCONNECT)
        return REFUSE(CODEC_E_MALFORMED, "DISCONNECT decode: not a DISCONNECT packet (type=%d)", header.type);
    if (!header.length.ok())
        return REFUSE(CODEC_E_MALFORMED, "DISCONNECT decode: invalid remaining length");
    if (header.end > input_len)
        return REFUSE(CODEC_E_BUFFER, "DISCONNECT decode: buffer too short (need=%d, have=%d)", header.end, input_len);
    return CODEC_OK;
}

} // namespace

int codec::decode_disconnect(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_disconnect_para_t *para,
                             bool *expiry_given) noexcept
{
    *expiry_given = false;
    if (!ctx || !buf || !para || length_of(buf_len) < 1)
        return REFUSE(CODEC_E_PARAM, "DISCONNECT decode: invalid param");

    // Before any other check: a client that sends anything like a DISCONNECT is leaving.
    shared(ctx->last_packet_type) = DISCONNECT;
    shared(ctx->last_packet_len)  = 0;

    const FixedHeader header = read_fixed_header(buf, *buf_len);
    if (const int code = check_fixed_header(header, *buf_len))
        return code;
    memset(para, 0, sizeof *para);

    const uint32_t level = level_of(ctx);
    Reader         in(buf, header.end, header.body);
    if (const int code = read_body(level, in, *para, *expiry_given))
        return code;
    LOG_DEBUG("DISCONNECT decode success: version=%d, len=%d", static_cast<int>(level), in.pos());
    return decoded(ctx, DISCONNECT, in.pos(), buf_len);
}
