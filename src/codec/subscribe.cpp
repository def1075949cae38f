// subscribe.cpp - SUBSCRIBE in both directions. The broker only reads it.
//
// SUBSCRIBE:  82  remaining:varint  packet-id:u16  [properties, 5.0]  { filter:text  options:u8 } * 1..16
#include "subscribe_internal.h"

#include "../base/text.h"
#include "codec_calls.h"
#include "codec_internal.h"

using namespace tarn;
using namespace tarn::codec;

namespace {

constexpr uint8_t kFlags = 0x02;

// Filters in order; how many were written. An empty or unterminated one is passed over.
int put_filters(Writer &body, const mqtt_subscribe_para_t &para)
{
    int written = 0;
    for (int i = 0; i < para.filter_count; ++i) {
        const std::string_view filter = text_of(para.topic_filters[i]);
        if (filter.empty() || filter.size() > CODEC_TOPIC_MAX) {
            LOG_WARN("SUBSCRIBE encode: invalid filter len %d for index %d", static_cast<int>(filter.size()), i);
            continue;
        }
        body.text(filter).u8(para.qos[i] & 3);
        ++written;
    }
    return written;
}

} // namespace

int codec::encode_subscribe(mqtt_codec_ctx_t *ctx, const mqtt_subscribe_para_t *para, uint8_t *buf,
                            int *buf_len) noexcept
{
    if (!ctx || !para || !buf || length_of(buf_len) < CODEC_MIN_CAPACITY)
        return REFUSE(CODEC_E_PARAM, "SUBSCRIBE encode: invalid param");
    if (para->filter_count < 1 || para->filter_count > CODEC_FILTERS_MAX)
        return REFUSE(CODEC_E_PARAM, "SUBSCRIBE encode: invalid filter count %d", para->filter_count);
    const uint32_t level = level_of(ctx);
    if (!known_level(level))
        return REFUSE(CODEC_E_VERSION, "SUBSCRIBE encode: unsupported version %d", level);
    if (para->msg_id == 0)
        return REFUSE(CODEC_E_PARAM, "SUBSCRIBE encode: msg_id cannot be zero");

    const int capacity = *buf_len;
    open_packet(buf, capacity, SUBSCRIBE << 4 | kFlags);
    uint8_t area[CODEC_SUBSCRIBE_MAX];
    Writer  body(area);
    body.u16(para->msg_id);
    put_subscription_properties(body, level, para->subscription_identifier);
    if (put_filters(body, *para) == 0)
        return REFUSE(CODEC_E_PARAM, "SUBSCRIBE encode: no valid topic filters");
    if (!body.fits())
        return REFUSE(CODEC_E_BUFFER, "SUBSCRIBE encode: buffer full (need %d, have %d)", static_cast<int>(body.need()),
                      CODEC_SUBSCRIBE_MAX);

    const Sealed sealed = seal_packet(buf, capacity, body);
    if (sealed.length_bytes == 0) // cannot happen with a body this short
        return REFUSE(CODEC_E_MALFORMED, "SUBSCRIBE encode: encode remaining length failed");
    if (sealed.total > capacity)
        return REFUSE(CODEC_E_BUFFER, "SUBSCRIBE encode: buffer full (need %d, have %d)", sealed.total, capacity);
    return encoded(ctx, SUBSCRIBE, sealed.total, buf_len);
}

// ---- decoding

namespace {

// QUIRK(subscribe-properties): this codec's SUBSCRIBE has a Max QoS (26), a Retain Handling (27) and a Subscription
// Identifier (0B) of one byte each, where the standard has a variable byte integer for 0B and User Property as 26,
// and a property length that cannot be read means none [MQTT 5.0 3.8.2.1]. The broker stores none of them, so a
// client that sends the standard's is only misread here.
//   standard profile: lifted (wire)
//   test: subscribe_decode.properties_are_one_byte_each
struct PropertyRow {
    uint8_t id;
    void (*store)(mqtt_subscribe_para_t &para, uint8_t value);
    const char *incomplete;
};

constexpr PropertyRow kProperties[] = {
    {0x0B, [](mqtt_subscribe_para_t &para, uint8_t value) { para.subscription_identifier = value; },
     "SUBSCRIBE decode: incomplete subscription identifier"},
    {0x26, [](mqtt_subscribe_para_t &para, uint8_t value) { para.max_qos = value & 3; },
     "SUBSCRIBE decode: incomplete max QoS"},
    {0x27, [](mqtt_subscribe_para_t &para, uint8_t value) { para.retain_handling = value; },
     "SUBSCRIBE decode: incomplete retain handling"},
};

const PropertyRow *row_of(uint8_t id)
{
    for (const PropertyRow &row : kProperties)
        if (row.id == id)
            return &row;
    return nullptr;
}

// One property with a row: two bytes, also where the second lies outside the block.
void read_known(Reader &block, const PropertyRow &row, mqtt_subscribe_para_t &para)
{
    uint8_t value = 0;
    if (block.u8(value)) {
        row.store(para, value);
        return;
    }
    LOG_WARN("%s", row.incomplete);
    block.skip(1);
}

// One without: stepped over as if length-prefixed; with no length to go by, the rest of the block is passed over.
void skip_unknown(Reader &block, uint8_t id, int block_end)
{
    const VarInt length = peek_varint(block);
    LOG_WARN("SUBSCRIBE decode: unknown property type 0x%02X, attr_len=%d", id, length.value);
    if (length.value >= 1)
        block.skip(length.bytes + length.value);
    else
        block.seek(block_end);
}

// properties:  length:varint  { id:u8  value:u8 } ...
// A length that cannot be read means no properties: the filters start where it stands. So do they behind the last step,
// wherever that led.
void read_properties(Reader &in, mqtt_subscribe_para_t &para)
{
    const VarInt length = read_varint(in);
    if (!length.ok())
        return;
    const int block_end = in.pos() + length.value;
    Reader    block     = in.block(block_end);
    for (uint8_t id = 0; block.u8(id);) {
        if (const PropertyRow *row = row_of(id))
            read_known(block, *row, para);
        else
            skip_unknown(block, id, block_end);
    }
    in.seek(block.pos());
}

// filter:text  options:u8. False ends the list; what was read before stays.
//
// QUIRK(subscribe-options): of the options only QoS is kept, No Local, Retain As Published and Retain Handling are
// dropped [MQTT-3.8.3-3], reserved bits [MQTT-3.8.3-5] and QoS 3 [MQTT 5.0 3.8.3.1] pass: delivery decides what it
// can do.
//   standard profile: lifted (wire): reserved bits and QoS 3 end the connection
//   test: subscribe_decode.keeps_only_the_qos_bits
bool read_filter(Reader &in, mqtt_subscribe_para_t &para)
{
    uint16_t length = 0;
    if (!in.u16(length)) {
        LOG_ERROR("SUBSCRIBE decode: buffer too short for topic filter length (pos=%d, payload_end=%d)", in.pos(),
                  in.end());
        return false;
    }
    char *filter = para.topic_filters[para.filter_count];
    if (length == 0 || length > CODEC_TOPIC_MAX || !in.bytes(filter, length)) {
        LOG_WARN("SUBSCRIBE decode: invalid topic filter length %d (max=%d, pos+len=%d, payload_end=%d)", length,
                 CODEC_TOPIC_MAX, in.pos() + length, in.end());
        return false;
    }
    uint8_t options = 0;
    if (!in.u8(options)) {
        LOG_ERROR("SUBSCRIBE decode: buffer too short for req qos (pos=%d, payload_end=%d)", in.pos(), in.end());
        return false;
    }
    para.qos[para.filter_count++] = options & 3;
    return true;
}

int no_filters()
{
    return REFUSE(CODEC_E_MALFORMED, "SUBSCRIBE decode: no valid topic filters (filter_count=0)");
}

// QUIRK(subscribe-partial): a bad filter ends the list instead of making the packet malformed [MQTT-4.7.3-1]
// [MQTT 5.0 4.13.1], and filters behind the 16th are ignored although each wants its code [MQTT-3.8.4-6]: the good ones
// are worth having.
//   standard profile: lifted (strictness): a bad filter ends the connection, and there may be any number of good ones
//   test: subscribe_decode.a_bad_filter_ends_the_list
//   test: subscribe_decode.a_17th_filter_is_ignored
int read_filters(Reader &in, int input, mqtt_subscribe_para_t &para)
{
    while (in.pos() < input && para.filter_count < CODEC_FILTERS_MAX && read_filter(in, para) && !in.at_end()) {}
    return para.filter_count > 0 ? CODEC_OK : no_filters();
}

void log_input(mqtt_codec_ctx_t *ctx, const uint8_t *buf, const int *buf_len, const mqtt_subscribe_para_t *para)
{
    LOG_DEBUG("SUBSCRIBE decode: input param - ctx=%p, buf=%p, buf_len=%p (len=%d), para=%p", addr(ctx), addr(buf),
              addr(buf_len), length_of(buf_len), addr(para));
    if (length_of(buf_len) > 0)
        LOG_HEXDUMP("SUBSCRIBE decode: full input data", buf, *buf_len);
}

} // namespace

// SUBSCRIBE:  82  remaining:varint  packet-id:u16  [properties, 5.0]  { filter:text  options:u8 } * 1..16
int codec::decode_subscribe(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len,
                            mqtt_subscribe_para_t *para) noexcept
{
    log_input(ctx, buf, buf_len, para);
    if (!ctx || !buf || !para || length_of(buf_len) < 6)
        return REFUSE(CODEC_E_PARAM, "SUBSCRIBE decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d, para=%p)",
                      addr(ctx), addr(buf), addr(buf_len), length_of(buf_len), addr(para));
    memset(para, 0, sizeof *para);

    const int         input  = *buf_len;
    const FixedHeader header = read_fixed_header(buf, input);
    if (header.type != SUBSCRIBE)
        return REFUSE(CODEC_E_MALFORMED, "SUBSCRIBE decode: not a SUBSCRIBE packet (type=%d, expect=%d)", header.type,
                      SUBSCRIBE);
    if (header.flags != kFlags)
        return REFUSE(CODEC_E_MALFORMED, "SUBSCRIBE decode: invalid flags (0x%02X, expect=0x02)", header.flags);
    if (!header.length.ok() || header.end > input)
        return REFUSE(CODEC_E_MALFORMED,
                      "SUBSCRIBE decode: invalid remaining length (len=%d, consumed=%d, total=%d, buf_len=%d)",
                      header.length.value, header.length.bytes, header.end, input);

    Reader in(buf, header.end, header.body);
    if (!in.u16(para->msg_id))
        return REFUSE(CODEC_E_MALFORMED, "SUBSCRIBE decode: buffer too short for msg id (pos=%d, payload_end=%d)",
                      in.pos(), in.end());
    if (para->msg_id == 0)
        return REFUSE(CODEC_E_MALFORMED, "SUBSCRIBE decode: invalid msg id (0, must be >0)");

    const uint32_t level = level_of(ctx);
    if (level == 5 && !in.at_end()) {
        read_properties(in, *para);
        if (in.at_end())
            return no_filters();
    }
    if (const int refused = read_filters(in, input, *para); refused != CODEC_OK)
        return refused;
    LOG_DEBUG("SUBSCRIBE decode success - version=%d, msg_id=%d, filters=%d, decode_len=%d", level, para->msg_id,
              para->filter_count, in.pos());
    return decoded(ctx, SUBSCRIBE, in.pos(), buf_len);
}
