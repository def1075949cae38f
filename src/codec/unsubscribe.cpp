// unsubscribe.cpp - UNSUBSCRIBE in both directions. The broker only reads it.
//
// UNSUBSCRIBE:  A2  remaining:length  packet-id:u16  [properties, 5.0]  { filter:text } * 0..16
//
// The decoder reads lengths in its own way and judges stricter than SUBSCRIBE's: one bad filter fails the packet.
#include "subscribe_internal.h"

#include "../base/text.h"
#include "codec_calls.h"
#include "codec_internal.h"

using namespace tarn;
using namespace tarn::codec;

namespace {

constexpr uint8_t kFirstByte = UNSUBSCRIBE << 4 | 0x02;

// Filters in order; how many were written. An empty or unterminated one is passed over.
int put_filters(Writer &body, const mqtt_unsubscribe_para_t &para)
{
    int written = 0;
    for (int i = 0; i < para.filter_count; ++i) {
        const std::string_view filter = text_of(para.topic_filters[i]);
        if (filter.empty() || filter.size() > CODEC_TOPIC_MAX) {
            LOG_WARN("UNSUBSCRIBE encode: invalid filter len %d for index %d", static_cast<int>(filter.size()), i);
            continue;
        }
        body.text(filter);
        ++written;
    }
    return written;
}

} // namespace

int codec::encode_unsubscribe(mqtt_codec_ctx_t *ctx, const mqtt_unsubscribe_para_t *para, uint8_t *buf,
                              int *buf_len) noexcept
{
    if (!ctx || !para || !buf || length_of(buf_len) < CODEC_MIN_CAPACITY)
        return REFUSE(CODEC_E_PARAM, "UNSUBSCRIBE encode: invalid param (ctx=%p, para=%p, buf=%p, buf_len=%p, len=%d)",
                      addr(ctx), addr(para), addr(buf), addr(buf_len), length_of(buf_len));
    const uint32_t level = level_of(ctx);
    if (!known_level(level))
        return REFUSE(CODEC_E_VERSION, "UNSUBSCRIBE encode: unsupported version %d", level);
    if (para->filter_count < 1 || para->filter_count > CODEC_FILTERS_MAX)
        return REFUSE(CODEC_E_PARAM, "UNSUBSCRIBE encode: invalid filter count %d", para->filter_count);
    if (para->msg_id == 0)
        return REFUSE(CODEC_E_PARAM, "UNSUBSCRIBE encode: msg_id cannot be zero");

    const int capacity = *buf_len;
    open_packet(buf, capacity, kFirstByte);
    uint8_t area[CODEC_SUBSCRIBE_MAX];
    Writer  body(area);
    body.u16(para->msg_id);
    put_subscription_properties(body, level, para->subscription_identifier);
    if (put_filters(body, *para) == 0)
        return REFUSE(CODEC_E_PARAM, "UNSUBSCRIBE encode: no valid topic filters");
    if (!body.fits())
        return REFUSE(CODEC_E_BUFFER, "UNSUBSCRIBE encode: buffer full (need %d, have %d)",
                      static_cast<int>(body.need()), CODEC_SUBSCRIBE_MAX);

    const Sealed sealed = seal_packet(buf, capacity, body);
    if (sealed.length_bytes == 0) // cannot happen with a body this short
        return REFUSE(CODEC_E_MALFORMED, "UNSUBSCRIBE encode: encode remaining length failed");
    if (sealed.total > capacity)
        return REFUSE(CODEC_E_BUFFER, "UNSUBSCRIBE encode: buffer full (need %d, have %d)", sealed.total, capacity);
    LOG_DEBUG("UNSUBSCRIBE encode success: version=%d, msg_id=%d, filters=%d, len=%d", level, para->msg_id,
              para->filter_count, sealed.total);
    return encoded(ctx, UNSUBSCRIBE, sealed.total, buf_len);
}

// ---- decoding

namespace {

constexpr uint32_t kRemainingMax = 2048;
constexpr uint32_t kNoLimit      = UINT32_MAX;

enum class Length { Read, RanOut, TooLong };

// QUIRK(unsubscribe-length): lengths are read with the weights 1, 128, 0, 0, ... and any number of bytes, instead
// of 128 to the power of 0..3 in at most four bytes [MQTT-1.5.5-1]. Up to the limits in force here, two bytes say
// all.
//   standard profile: lifted (wire)
//   test: unsubscribe_decode.a_third_length_byte_counts_nothing
Length read_length(Reader &in, uint32_t limit, uint32_t &value)
{
    value           = 0;
    uint32_t weight = 1;
    for (uint8_t byte = 0x80; byte & 0x80; weight = 128 * (weight & 1)) {
        if (!in.u8(byte))
            return Length::RanOut;
        value += (byte & 0x7Fu) * weight;
        if (value > limit)
            return Length::TooLong;
    }
    return Length::Read;
}

// A2  remaining:length. Leaves `in` behind it and bounded by the packet's end.
int read_header(Reader &in, uint32_t &remaining)
{
    const int total = in.end();
    switch (read_length(in, kRemainingMax, remaining)) {
    case Length::RanOut:
        return REFUSE(CODEC_E_BUFFER, "UNSUBSCRIBE剩余长度解码越界：offset=%d total_len=%d", in.pos(), total);
    case Length::TooLong:
        return REFUSE(CODEC_E_BUFFER, "UNSUBSCRIBE剩余长度超限：rem_len=%u 最大允许=%u", remaining, kRemainingMax);
    case Length::Read:
        break;
    }
    if (remaining < 2 || !in.has(static_cast<int>(remaining)))
        return REFUSE(CODEC_E_BUFFER, "UNSUBSCRIBE剩余长度不合法：offset=%d rem_len=%u total_len=%d", in.pos(),
                      remaining, total);
    in = in.block(in.pos() + static_cast<int>(remaining));
    return CODEC_OK;
}

// properties, 5.0:  length  { id:u8  value:u8 } ...; the filters start at the block's end, whatever the last step was.
//
// QUIRK(unsubscribe-properties): a one-byte Subscription Identifier is read, which UNSUBSCRIBE does not have, and
// all others, User Property with its strings included, count as two bytes [MQTT 5.0 3.10.2.1]; nothing of it is
// used.
//   standard profile: lifted (wire)
//   test: unsubscribe_decode.properties_go_in_steps_of_two
int read_properties(Reader &in, uint32_t remaining, mqtt_unsubscribe_para_t &para)
{
    uint32_t length = 0;
    switch (read_length(in, remaining - 2, length)) {
    case Length::RanOut:
        return REFUSE(CODEC_E_MALFORMED, "UNSUBSCRIBE 5.0属性长度解码越界：offset=%d rem_len_end=%d", in.pos(),
                      in.end());
    case Length::TooLong:
        return REFUSE(CODEC_E_BUFFER, "UNSUBSCRIBE 5.0属性长度超限：prop_len=%u 最大允许=%u", length, remaining - 2);
    case Length::Read:
        break;
    }
    const int block_end = in.pos() + static_cast<int>(length);
    if (block_end > in.end())
        return REFUSE(CODEC_E_MALFORMED, "UNSUBSCRIBE 5.0属性长度越界：prop_end=%d rem_len_end=%d", block_end,
                      in.end());

    Reader block = in.block(block_end);
    for (uint8_t id = 0, value = 0; block.u8(id);) {
        if (id != 0x0B) {
            LOG_WARN("MQTT 5.0不支持的UNSUBSCRIBE属性：0x%02X", id);
            block.skip(1);
            continue;
        }
        if (!block.u8(value))
            return REFUSE(CODEC_E_MALFORMED, "UNSUBSCRIBE 5.0订阅标识符长度不足");
        para.subscription_identifier = value;
    }
    in.seek(block_end);
    return CODEC_OK;
}

// A context that has seen no CONNECT: 5.0 when something that reads as a property block ends before the packet does.
// The block is stepped over unread.
uint32_t detect_level(Reader &in)
{
    Reader   behind = in;
    uint32_t length = 0;
    if (read_length(behind, kNoLimit, length) != Length::Read || behind.left() <= static_cast<int>(length)) {
        LOG_INFO("UNSUBSCRIBE自动识别为3.1.1版本");
        return 4;
    }
    LOG_INFO("UNSUBSCRIBE自动识别为5.0版本");
    behind.skip(static_cast<int>(length));
    in = behind;
    return 5;
}

// { filter:text } up to the packet's end
//
// QUIRK(unsubscribe-filters): a packet without filters is accepted [MQTT-3.10.3-2] and filters behind the 16th are
// ignored [MQTT-3.10.4-6]: the first leaves nothing to do, the second asks for more than a record can hold.
//   standard profile: lifted (strictness)
//   test: unsubscribe_decode.no_filter_at_all_is_accepted
//   test: unsubscribe_decode.a_17th_filter_is_ignored
int read_filters(Reader &in, mqtt_unsubscribe_para_t &para)
{
    while (!in.at_end()) {
        if (para.filter_count == CODEC_FILTERS_MAX) {
            LOG_WARN("UNSUBSCRIBE Topic数超过上限：当前=%d 最大=%d", para.filter_count, CODEC_FILTERS_MAX);
            break;
        }
        uint16_t length = 0;
        if (!in.u16(length))
            return REFUSE(CODEC_E_MALFORMED, "UNSUBSCRIBE Topic长度字段越界：offset=%d rem_len_end=%d", in.pos(),
                          in.end());
        char *filter = para.topic_filters[para.filter_count];
        if (length == 0 || length > CODEC_TOPIC_MAX || !in.bytes(filter, length))
            return REFUSE(CODEC_E_MALFORMED,
                          "UNSUBSCRIBE Topic长度非法：len=%u 最大允许=%u offset+len=%d rem_len_end=%d", length,
                          CODEC_TOPIC_MAX, in.pos() + length, in.end());
        LOG_DEBUG("UNSUBSCRIBE解析Topic[%d]：%s（长度=%u）", para.filter_count, filter, length);
        ++para.filter_count;
    }
    return CODEC_OK;
}

} // namespace

// UNSUBSCRIBE:  A2  remaining:length  packet-id:u16  [properties, 5.0]  { filter:text } * 0..16
int codec::decode_unsubscribe(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len,
                              mqtt_unsubscribe_para_t *para) noexcept
{
    if (!ctx || !buf || !para || length_of(buf_len) < 4)
        return REFUSE(CODEC_E_PARAM, "UNSUBSCRIBE解码参数非法：ctx=%p buf=%p buf_len=%d para=%p", addr(ctx), addr(buf),
                      length_of(buf_len), addr(para));
    memset(para, 0, sizeof *para);
    if (buf[0] != kFirstByte)
        return REFUSE(CODEC_E_MALFORMED, "UNSUBSCRIBE固定报头非法：类型=%d 保留位=0x%02X（预期0x02）", buf[0] >> 4,
                      buf[0] & 0x0F);
    shared(ctx->last_packet_type) = UNSUBSCRIBE; // stays, even when the packet fails further down

    Reader   in(buf, *buf_len, 1);
    uint32_t remaining = 0;
    if (const int refused = read_header(in, remaining); refused != CODEC_OK)
        return refused;
    if (!in.u16(para->msg_id) || para->msg_id == 0)
        return REFUSE(CODEC_E_PARAM, "UNSUBSCRIBE消息ID非法：msg_id=0");
    LOG_DEBUG("UNSUBSCRIBE解析消息ID：%u", para->msg_id);

    const uint32_t known = level_of(ctx);
    uint32_t       level = known;
    if (known == 5) {
        if (const int refused = read_properties(in, remaining, *para); refused != CODEC_OK)
            return refused;
    } else if (known == 4) {
        LOG_DEBUG("UNSUBSCRIBE 3.1.1版本，无属性字段");
    } else {
        level = detect_level(in);
    }
    if (const int refused = read_filters(in, *para); refused != CODEC_OK)
        return refused;

    if (level != known)
        set_level(ctx, level);
    LOG_INFO("UNSUBSCRIBE解码完成：总解码字节=%d Topic数量=%d 消息ID=%u 版本=%s", in.pos(), para->filter_count,
             para->msg_id, level == 5 ? "5.0" : "3.1.1");
    return decoded(ctx, UNSUBSCRIBE, in.pos(), buf_len);
}
