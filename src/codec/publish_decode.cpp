// publish_decode.cpp - PUBLISH into its record.
//
// The packet itself tells its level: bytes behind topic and identifier that read as a property block which fits
// make it 5.0, anything else 3.1.1. What the context thinks is not asked; it learns the answer.
#include "codec_calls.h"
#include "codec_internal.h"

using namespace tarn;
using namespace tarn::codec;

namespace {

struct PropertyRow {
    uint8_t id;
    int     width; // value bytes on the wire
    bool (*read)(Reader &in, mqtt_publish_para_t &para);
    const char *too_short; // takes the position of the identifier
};

constexpr PropertyRow kProperties[] = {
    {0x02, 4, [](Reader &in, mqtt_publish_para_t &para) { return in.u32(para.msg_expiry_interval); },
     "PUBLISH decode: msg_expiry_interval buffer short - pos=%d, need 4 bytes"},
    {0x23, 2, [](Reader &in, mqtt_publish_para_t &para) { return in.u16(para.topic_alias); },
     "PUBLISH decode: topic_alias buffer short - pos=%d, need 2 bytes"},
};

const PropertyRow *row_of(uint8_t id)
{
    for (const PropertyRow &row : kProperties)
        if (row.id == id)
            return &row;
    return nullptr;
}

// The closing banner of a refused packet, behind its ERROR line.
int ended(int code, const char *why)
{
    LOG_DEBUG("========== PUBLISH DECODE DEBUG END (FAIL: %s) ==========\n", why);
    return code;
}

void log_input(mqtt_codec_ctx_t *ctx, const uint8_t *buf, const int *buf_len, const mqtt_publish_para_t *para)
{
    LOG_DEBUG("========== PUBLISH DECODE DEBUG START ==========");
    LOG_DEBUG("PUBLISH decode: input param - ctx=%p, buf=%p, buf_len=%p (len=%d), para=%p", addr(ctx), addr(buf),
              addr(buf_len), length_of(buf_len), addr(para));
    if (length_of(buf_len) > 0)
        LOG_HEXDUMP("packet", buf, *buf_len);
}

void log_success(uint32_t level, const mqtt_publish_para_t &para, int consumed)
{
    LOG_DEBUG("PUBLISH decode success: version=%d, topic=%s, qos=%d, msg_id=%d, payload_len=%d, total len=%d", level,
              para.topic, para.qos, para.msg_id, para.payload_len, consumed);
    LOG_DEBUG("========== PUBLISH DECODE DEBUG END (SUCCESS) ==========\n");
}

// QUIRK(publish-flags): of the reserved combinations only QoS 3 is refused [MQTT-3.3.1-4]; DUP on QoS 0
// [MQTT-3.3.1-2] passes. Topics are taken as bytes: neither UTF-8 [MQTT-1.5.4-1], nor a NUL inside [MQTT-1.5.4-2],
// nor wildcards [MQTT-3.3.2-2] are looked for, because routing compares bytes.
//   standard profile: lifted (strictness)
//   test: publish_decode.takes_flags_and_topics_as_they_come
int read_flags(const FixedHeader &header, mqtt_publish_para_t &para)
{
    if (header.type != PUBLISH) {
        LOG_ERROR("PUBLISH decode: not a PUBLISH packet (type=%d, expect=%d)", header.type, PUBLISH);
        return ended(CODEC_E_MALFORMED, "INVALID PACKET TYPE");
    }
    para.qos    = header.flags >> 1 & 3;
    para.retain = header.flags & 1;
    para.dup    = header.flags >> 3;
    if (para.qos == 3) {
        LOG_ERROR("PUBLISH decode: invalid QoS=%d (protocol require 0/1/2)", para.qos);
        return ended(CODEC_E_MALFORMED, "INVALID QoS");
    }
    return CODEC_OK;
}

// topic:text
//
// QUIRK(publish-topic-in-input): the topic is bounded by the input, not by the packet's own end, against
// [MQTT 5.0 2.1.4] (the remaining length counts everything that belongs to the packet); the framing hands over single
// packets, where both ends are one.
//   standard profile: stays: only hosts that hand this exported decoder more than one packet meet it
//   test: publish_decode.topic_may_reach_past_the_packet_into_the_input
//
// QUIRK(publish-empty-topic): an empty topic is refused at 5.0 too, where a Topic Alias may stand for it
// [MQTT 5.0 3.3.2.3.4]; the broker keeps no aliases.
//   standard profile: lifted (wire): clients may set 32 aliases
//   test: publish_decode.refuses_an_empty_topic
int read_topic(Reader &in, mqtt_publish_para_t &para)
{
    uint16_t length = 0;
    if (!in.u16(length)) {
        LOG_ERROR("PUBLISH decode: buffer too short for topic length (need 2 bytes) - pos=%d, buf_len=%d", in.pos(),
                  in.end());
        return ended(CODEC_E_MALFORMED, "TOPIC LENGTH SHORT");
    }
    if (length == 0) {
        LOG_ERROR("PUBLISH decode: invalid topic length=0 (protocol require non-empty topic)");
        return ended(CODEC_E_MALFORMED, "EMPTY TOPIC");
    }
    if (length > CODEC_TOPIC_MAX) {
        LOG_ERROR("PUBLISH decode: topic length exceed max (%d > %d)", length, CODEC_TOPIC_MAX);
        return ended(CODEC_E_MALFORMED, "TOPIC TOO LONG");
    }
    if (!in.text(para.topic, length)) {
        LOG_ERROR("PUBLISH decode: buffer too short for topic content - pos+len=%d > buf_len=%d", in.pos() + length,
                  in.end());
        return ended(CODEC_E_MALFORMED, "TOPIC CONTENT SHORT");
    }
    return CODEC_OK;
}

// packet-id:u16, inside both the packet and the input
int read_id(Reader &in, int packet_end, mqtt_publish_para_t &para)
{
    if (packet_end - in.pos() < 2 || !in.u16(para.msg_id)) {
        LOG_ERROR("PUBLISH decode: buffer too short for msg id (need 2 bytes) - remaining=%d, pos+2=%d > buf_len=%d",
                  packet_end - in.pos(), in.pos() + 2, in.end());
        return ended(CODEC_E_MALFORMED, "MSG ID SHORT");
    }
    if (para.msg_id == 0) {
        LOG_ERROR("PUBLISH decode: invalid msg id=0 (protocol require 1~65535 for QoS1/QoS2)");
        return ended(CODEC_E_MALFORMED, "INVALID MSG ID");
    }
    return CODEC_OK;
}

// QUIRK(publish-level-detection): the level is read off the packet instead of taken from the connection
// [MQTT 5.0 3.1.2.2]. A 3.1.1 payload whose first byte, below 80, is less than its length is read as 5.0: JSON from 124
// bytes on when it begins with '{', from 92 with '[', a text from one byte more than the code of its first character,
// other data from one byte on when that is 00. A first byte from 80 on makes a longer length with the second. Lost are
// the bytes of the length and those it counts, and what the last of these, read as properties, make it step over: up to
// the whole payload [MQTT 3.1.1 3.3.3]. Emptied like that, a retained message deletes the one before. The context
// moves to 5.0 until the next packet that tells a level: the client is answered in 5.0, which some stock ones take for
// a broken stream, come back and repeat the message for ever; its DISCONNECT is refused and its will published.
// Clients that change their mind about the level are served as they speak; those payloads are the known price. Three
// bytes from 80 on in front, as in the mark EF BB BF of UTF-8, are never a length and keep a payload whole.
//   standard profile: lifted (wire): the level is that of CONNECT
//   test: publish_decode.a_payload_that_looks_like_properties_makes_it_5,
//   publish_decode.a_payload_longer_than_its_first_byte_says_is_read_as_5,
//   publish_decode.three_bytes_from_80_on_keep_a_payload_whole, publish.a_long_json_payload_of_a_v4_client_is_lost
//
// True, and `in` behind the length field, when a property block stands here. Sets its end.
bool property_block(Reader &in, int packet_end, int &block_end)
{
    const Reader rest   = in.block(packet_end);
    const VarInt length = peek_varint(rest);
    if (!length.ok() || length.bytes + length.value > rest.left())
        return false;
    in.skip(length.bytes);
    block_end = in.pos() + length.value;
    return true;
}

// QUIRK(unknown-property-skip): an identifier without a row is stepped over as if its value were length-prefixed,
// which misreads the fixed-size properties of the standard [MQTT 5.0 2.2.2.2], and may even lead
// beyond the block. One rule for all families of this codec; nothing it misreads is kept.
//   standard profile: lifted (wire)
//   test: publish_decode.unknown_properties_are_skipped_as_length_prefixed
void skip_unknown(Reader &in, uint8_t id, int block_end)
{
    LOG_WARN("PUBLISH decode: unknown property type 0x%02X, pos=%d", id, in.pos());
    in.skip(1);
    if (in.pos() >= block_end)
        return;
    const VarInt length = peek_varint(in.block(block_end));
    if (length.ok()) {
        in.skip(length.bytes + length.value);
        return;
    }
    LOG_ERROR("PUBLISH decode: invalid attr len for type 0x%02X, skip 1 byte", id);
    in.skip(1);
}

// properties:  { id:u8  value:u8[width of its row] } ... up to the block's end. A value cut by that end is not stored,
// but stepped over all the same, so the payload may start behind the block's end.
void read_properties(Reader &in, int block_end, mqtt_publish_para_t &para)
{
    while (in.pos() < block_end && !in.at_end()) {
        const uint8_t      id  = *in.at();
        const PropertyRow *row = row_of(id);
        if (!row) {
            skip_unknown(in, id, block_end);
            continue;
        }
        Reader value = in.block(block_end);
        value.skip(1);
        if (!row->read(value, para))
            LOG_WARN(row->too_short, in.pos());
        in.skip(1 + row->width);
    }
}

// payload: the rest of the packet.
//
// QUIRK(publish-truncate): of a payload above 2048 bytes the first 2048 are kept and the rest is not consumed,
// instead of answering with 0x95 Packet too large [MQTT 5.0 3.2.2.3.6]. The record has room for no more, and what is
// left reaches nobody, see delivery-size and files-read-in-part; the publisher is acknowledged all the same.
//   standard profile: lifted (sizes)
//   test: publish_decode.a_long_payload_is_cut_at_its_limit, publish.a_payload_is_cut_to_2048_bytes
int read_payload(Reader &in, int packet_end, mqtt_publish_para_t &para)
{
    int length = packet_end - in.pos();
    if (length < 1) {
        LOG_DEBUG("PUBLISH decode: empty payload (len=0)");
        return CODEC_OK;
    }
    if (length > CODEC_PAYLOAD_MAX) {
        LOG_WARN("PUBLISH decode: payload length exceed max (%d > %d), truncate to max", length, CODEC_PAYLOAD_MAX);
        length = CODEC_PAYLOAD_MAX;
    }
    if (!in.bytes(para.payload, length)) { // cannot happen: the packet was found complete before
        LOG_ERROR("PUBLISH decode: buffer too short for payload - pos+len=%d > buf_len=%d", in.pos() + length,
                  in.end());
        return ended(CODEC_E_MALFORMED, "PAYLOAD SHORT");
    }
    para.payload_len = static_cast<uint32_t>(length);
    return CODEC_OK;
}

void clear(mqtt_publish_para_t &para, bool arrays_too)
{
    constexpr size_t kPayloadEnd = offsetof(mqtt_publish_para_t, payload) + sizeof para.payload;
    if (arrays_too) {
        memset(para.topic, 0, sizeof para.topic);
        memset(para.payload, 0, sizeof para.payload);
    }
    memset(reinterpret_cast<char *>(&para) + kPayloadEnd, 0, sizeof para - kPayloadEnd);
}

} // namespace

// PUBLISH:  3d:u8  remaining:varint  topic:text  [packet-id:u16, QoS 1 and 2]  [properties, 5.0]  payload
int codec::decode_publish(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_publish_para_t *para,
                          bool clears_arrays) noexcept
{
    log_input(ctx, buf, buf_len, para);
    if (!buf || !para || !ctx || length_of(buf_len) < 2) {
        LOG_ERROR("PUBLISH decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d, para=%p)", addr(ctx), addr(buf),
                  addr(buf_len), length_of(buf_len), addr(para));
        return ended(CODEC_E_PARAM, "INVALID PARAM");
    }
    clear(*para, clears_arrays);

    const int         input  = *buf_len;
    const FixedHeader header = read_fixed_header(buf, input);
    if (const int refused = read_flags(header, *para); refused != CODEC_OK)
        return refused;
    if (!header.length.ok() || header.end > input) {
        LOG_ERROR("PUBLISH decode: invalid remaining length (len=%d, consumed=%d, total need=%d, buf_len=%d)",
                  header.length.value, header.length.bytes, header.end, input);
        return ended(CODEC_E_MALFORMED, "INVALID REMAINING LENGTH");
    }

    Reader in(buf, input, header.body);
    if (const int refused = read_topic(in, *para); refused != CODEC_OK)
        return refused;
    if (para->qos != 0)
        if (const int refused = read_id(in, header.end, *para); refused != CODEC_OK)
            return refused;

    uint32_t level     = 4;
    int      block_end = 0;
    if (property_block(in, header.end, block_end)) {
        level = 5;
        read_properties(in, block_end, *para);
    }
    if (const int refused = read_payload(in, header.end, *para); refused != CODEC_OK)
        return refused;

    // A step over a cut value may have passed the input's end, the count may not.
    const int consumed = in.pos() < input ? in.pos() : input;
    LOG_HEXDUMP("payload", para->payload, para->payload_len);
    set_level(ctx, level);
    log_success(level, *para, consumed);
    return decoded(ctx, PUBLISH, consumed, buf_len);
}
