// ack_encode.cpp - the six packets that answer with a packet identifier.
//
// 3.1.1:  type+flags:u8  remaining:varint  packet-id:u16  { SUBACK: code:u8 * 0..16 }
// 5.0:    type+flags:u8  remaining:varint  packet-id:u16  reason:u8  { SUBACK: code:u8 * 0..16 }
//
// The lines about granted QoS at INFO follow one subscription from request to wire; operators read them in this
// order.
#include "codec_calls.h"
#include "codec_internal.h"

using namespace tarn;
using namespace tarn::codec;

namespace {

constexpr int kHeadMax   = 3;  // identifier and reason code
constexpr int kTracedMax = 16; // bytes that each trace list shows, written or not

bool is_ack(int type)
{
    return (type >= PUBACK && type <= PUBCOMP) || type == SUBACK || type == UNSUBACK;
}

uint8_t first_byte(int type)
{
    if (type != PUBREL)
        return static_cast<uint8_t>(type << 4);
    constexpr uint8_t kPubrel = PUBREL << 4 | 0x02;
    LOG_DEBUG("ACK encode: PUBREL packet, set QoS1 flag, fixed_header=0x%02X", kPubrel);
    return kPubrel;
}

// QUIRK(ack-no-properties): a 5.0 acknowledgement is three bytes, identifier and reason code, and never has a
// property length, which is legal for the four PUBxxx [MQTT 5.0 3.4.2.2.1]. UNSUBACK is built the same way although
// [MQTT-3.11.3-1] wants properties and one code a filter: receivers of this broker know it as a plain
// acknowledgement.
//   standard profile: lifted (wire): UNSUBACK has a code for each filter
//   test: ack_encode.unsuback_has_one_reason_code_at_5
//
// QUIRK(suback-third-byte): the third byte of a 5.0 SUBACK is 0 whatever the record's reason code says. It stands
// where the property length belongs [MQTT 5.0 3.9.2.1], so a standard receiver reads "no properties" and then the
// codes.
//   standard profile: lifted (wire)
//   test: ack_encode.suback_reason_code_is_forced_to_zero
void put_reason(Writer &head, int type, const mqtt_ack_para_t &para)
{
    if (type == SUBACK) {
        head.u8(0x00);
        LOG_INFO("【QoS溯源3】MQTT 5.0 SUBACK全局Reason Code修正：强制设为0x00（Success），原参数值=0x%02X",
                 para.reason_code);
        return;
    }
    head.u8(para.reason_code);
    LOG_DEBUG("ACK encode: no properties, skip properties length field (reduce redundancy)");
}

// QUIRK(suback-without-codes): a record without codes gives a SUBACK without codes, against [MQTT-3.9.3-1] (one for
// each filter); how many there must be is known only to who fills the record.
//   standard profile: stays: only hosts that call this exported encoder meet it
//   test: ack_encode.suback_without_codes
void put_codes(Writer &codes, uint32_t level, const mqtt_ack_para_t &para)
{
    for (int i = 0; i < para.return_code_count && i < CODEC_FILTERS_MAX; ++i) {
        const auto code = static_cast<uint8_t>(para.return_codes[i]);
        codes.u8(code);
        if (level == 5)
            LOG_INFO("【QoS溯源5】编码SUBACK QoS[%d]：参数值=%d (0x%02X) → 写入负载缓冲区地址=0x%p, 值=0x%02X", i,
                     para.return_codes[i], para.return_codes[i], addr(codes.data() + i), code);
    }
}

void log_head(const uint8_t *head)
{
    LOG_INFO("【QoS溯源6】SUBACK可变头（前16字节）：");
    for (int i = 0; i < kTracedMax; ++i)
        LOG_INFO("var_header[%d] = 0x%02X", i, head[i]);
}

void log_codes(const uint8_t *codes)
{
    LOG_INFO("【QoS溯源6】SUBACK负载（前16字节）：");
    for (int i = 0; i < kTracedMax; ++i)
        LOG_INFO("payload_buf[%d] = 0x%02X", i, codes[i]);
}

void log_packet(const uint8_t *packet, int total)
{
    LOG_INFO("【QoS溯源7】发送SUBACK前最终缓冲区（长度=%d）：", total);
    for (int i = 0; i < kTracedMax; ++i)
        LOG_INFO("ack_buf[%d] = 0x%02X", i, packet[i]);
    LOG_HEXDUMP("【QoS溯源7】SUBACK final packet hex dump", packet, total);
}

} // namespace

int codec::encode_ack(mqtt_codec_ctx_t *ctx, int type, const mqtt_ack_para_t *para, uint8_t *buf, int *buf_len) noexcept
{
    if (!ctx || !para || !buf || length_of(buf_len) < CODEC_MIN_CAPACITY)
        return REFUSE(CODEC_E_PARAM, "ACK encode: invalid param (ctx=%p, para=%p, buf=%p, buf_len=%p, len=%d)",
                      addr(ctx), addr(para), addr(buf), addr(buf_len), length_of(buf_len));
    if (!is_ack(type))
        return REFUSE(CODEC_E_UNSUPPORTED, "ACK encode: unsupported packet type %d", type);
    const uint32_t level = level_of(ctx);
    if (!known_level(level))
        return REFUSE(CODEC_E_VERSION, "ACK encode: unsupported version %d", level);

    const int capacity = *buf_len;
    open_packet(buf, capacity, first_byte(type));

    // Both areas are as long as the trace lists them.
    uint8_t head_area[kTracedMax] = {};
    uint8_t code_area[kTracedMax] = {};
    Writer  head({head_area, kHeadMax});
    Writer  codes(code_area);
    head.u16(para->msg_id);
    if (level == 5)
        put_reason(head, type, *para);
    if (type == SUBACK)
        put_codes(codes, level, *para);

    if (log_passes(AGENT_LOG_INFO)) {
        log_head(head_area);
        if (type == SUBACK)
            log_codes(code_area);
    }

    uint8_t body_area[kHeadMax + CODEC_FILTERS_MAX];
    Writer  body(body_area);
    body.bytes(head.data(), head.size()).bytes(codes.data(), codes.size());
    // Neither can happen with these lengths.
    const Sealed sealed = seal_packet(buf, capacity, body);
    if (sealed.length_bytes == 0)
        return REFUSE(CODEC_E_MALFORMED, "ACK encode: encode remaining length failed (bytes=%d)", sealed.length_bytes);
    if (sealed.total > capacity)
        return REFUSE(CODEC_E_BUFFER, "ACK encode: buffer full (need %d bytes, have %d bytes)", sealed.total, capacity);

    if (level == 5 && type == SUBACK && log_passes(AGENT_LOG_INFO))
        log_packet(buf, sealed.total);
    LOG_DEBUG("ACK encode success: type=%d, msg_id=%d, version=%d, len=%d", type, para->msg_id, level, sealed.total);
    return encoded(ctx, static_cast<uint32_t>(type), sealed.total, buf_len);
}
