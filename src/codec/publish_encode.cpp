// publish_encode.cpp - PUBLISH from a record or from a view.
//
// The busiest encoder. What stands before the payload is built in a small area, so that the remaining length is known,
// and copied behind that length; the payload follows, unless the caller brings the two together elsewhere. Trace lines
// cost one test of the level.
//
// PUBLISH:  3d:u8  remaining:varint  topic:text  [packet-id:u16, QoS 1 and 2]  [properties, 5.0]  payload
#include "../base/text.h"
#include "codec_calls.h"
#include "codec_internal.h"
#include "publish_view.h"

namespace tarn::codec {
namespace {

constexpr size_t kExpiryBytes = 5;
constexpr size_t kAliasBytes  = 4;
static_assert(kPublishBodyHeadMax == 2 + CODEC_TOPIC_MAX + 2 + 1 + kExpiryBytes + kAliasBytes);
static_assert(kPublishBodyHeadMax <= CODEC_BODY_MAX, "only the payload can be too much");

bool carries_id(const PublishView &message)
{
    return message.qos == 1 || message.qos == 2;
}

// The fields in the order in which they are looked at; 0 or the refusal.
int check(uint32_t level, const PublishView &message, int capacity)
{
    if (capacity < CODEC_MIN_CAPACITY)
        return REFUSE(CODEC_E_PARAM,
                      "[PUBLISH ENCODE] Step 1 ERROR: Buffer too small (required=%d, actual=%d) [MQTT 5.0 §3.3.1.4]\n",
                      CODEC_MIN_CAPACITY, capacity);
    if (!known_level(level))
        return REFUSE(CODEC_E_VERSION,
                      "[PUBLISH ENCODE] Step 1 ERROR: Unsupported version %d (only 3.1.1/5.0) [MQTT 5.0 §1.2]\n",
                      level);
    if (message.topic.empty() || message.topic.size() > CODEC_TOPIC_MAX)
        return REFUSE(CODEC_E_PARAM,
                      "[PUBLISH ENCODE] Step 1 ERROR: Invalid topic (len=%d, max=%d) [MQTT 5.0 §3.3.2.1]\n",
                      static_cast<int>(message.topic.size()), CODEC_TOPIC_MAX);
    if (carries_id(message) && message.msg_id == 0)
        return REFUSE(CODEC_E_PARAM,
                      "[PUBLISH ENCODE] Step 1 ERROR: QoS1/2 requires non-zero Packet ID [MQTT 5.0 §3.3.2.2]\n");
    if (message.payload.size() > CODEC_PAYLOAD_MAX)
        return REFUSE(CODEC_E_PARAM,
                      "[PUBLISH ENCODE] Step 1 ERROR: Invalid payload len (len=%d, max=%d) [MQTT 5.0 §3.3.3]\n",
                      static_cast<int>(message.payload.size()), CODEC_PAYLOAD_MAX);
    return CODEC_OK;
}

// QUIRK(publish-encode-flags): QoS 3 [MQTT-3.3.1-4], DUP on QoS 0 [MQTT-3.3.1-2] and flag values above 1 are
// written as given, and topics with wildcards [MQTT-3.3.2-2] pass: the routing in front of this function rules them
// out, and what it hands over is not judged twice.
//   standard profile: stays: only hosts that call this exported encoder meet it
//   test: publish_encode.writes_the_flags_it_is_given
uint8_t first_byte(const PublishView &message)
{
    return static_cast<uint8_t>(0x30 | (message.dup & 0x1F) << 3 | (message.qos & 3) << 1 | message.retain);
}

// QUIRK(publish-alias-item): Topic Alias is written as 23 02 hi lo, with a byte between identifier and value that
// the standard does not have [MQTT 5.0 3.3.2.3.4]; receivers of this encoder know the item in this form.
//   standard profile: lifted (wire)
//   test: publish_encode.topic_alias_is_four_bytes
void put_properties(Writer &out, const PublishView &message)
{
    if (message.msg_expiry_interval != 0)
        out.u8(0x02).u32(message.msg_expiry_interval);
    if (message.topic_alias != 0)
        out.u8(0x23).u8(0x02).u16(message.topic_alias);
}

uint32_t property_bytes(const PublishView &message)
{
    return static_cast<uint32_t>((message.msg_expiry_interval != 0 ? kExpiryBytes : 0) +
                                 (message.topic_alias != 0 ? kAliasBytes : 0));
}

void log_head(uint32_t level, const PublishView &message, uint8_t first, const Writer &head, size_t properties_at)
{
    log::write(AGENT_LOG_DEBUG, "[PUBLISH ENCODE] Step 1: Parameters accepted (version=%u)\n", level);
    log::write(AGENT_LOG_DEBUG, "[PUBLISH ENCODE] Step 2: Buffer ready\n");
    log::write(AGENT_LOG_DEBUG, "[PUBLISH ENCODE] Step 3: Fixed header = 0x%02X\n", first);
    log::write(AGENT_LOG_DEBUG, "[PUBLISH ENCODE] Step 4.1: Topic = %.*s (len=%zu)\n",
               static_cast<int>(message.topic.size()), message.topic.data(), message.topic.size());
    if (carries_id(message))
        log::write(AGENT_LOG_DEBUG, "[PUBLISH ENCODE] Step 4.2: Packet ID = %u\n", message.msg_id);
    if (level != 5)
        return;
    log::write(AGENT_LOG_DEBUG, "[PUBLISH ENCODE] Step 4.3: Property Length = %zu\n", head.size() - properties_at);
    for (size_t i = properties_at; i < head.size(); ++i)
        log::write(AGENT_LOG_DEBUG, "  var_header[%d] = 0x%02X\n", static_cast<int>(i), head.data()[i]);
}

void log_packet(const PublishView &message, uint32_t remaining, int total)
{
    log::write(AGENT_LOG_DEBUG, "[PUBLISH ENCODE] Step 4.4: Payload len = %zu\n", message.payload.size());
    log::write(AGENT_LOG_DEBUG, "[PUBLISH ENCODE] Step 5: Remaining Length = %u\n", remaining);
    log::write(AGENT_LOG_DEBUG, "[PUBLISH ENCODE] Step 6: Packet copied (len=%d)\n", total);
    log::write(AGENT_LOG_DEBUG, "[PUBLISH ENCODE] SUCCESS: qos=%u, msg_id=%u, payload_len=%zu, total_len=%d\n",
               message.qos, message.msg_id, message.payload.size(), total);
}

// Topic, identifier and property block. Neither refusal can happen with the limits above.
int put_head(uint32_t level, const PublishView &message, Writer &head, size_t &properties_at)
{
    head.text(message.topic);
    if (carries_id(message))
        head.u16(message.msg_id);
    if (level == 5) {
        const uint32_t bytes = property_bytes(message);
        if (!put_varint(head, bytes))
            return REFUSE(CODEC_E_MALFORMED,
                          "[PUBLISH ENCODE] Step 4.3 ERROR: Encode Property Length failed (len=%d)\n", bytes);
        properties_at = head.size();
        put_properties(head, message);
    }
    if (!head.fits())
        return REFUSE(CODEC_E_BUFFER, "[PUBLISH ENCODE] Step 4.3 ERROR: Prop buffer overflow (need=%d, have=%d)\n",
                      static_cast<int>(head.need()), CODEC_BODY_MAX);
    return CODEC_OK;
}

// Everything behind the checks but the payload. A refusal leaves header bytes only.
int write_head(uint32_t level, const PublishView &message, uint8_t *buf, int *buf_len, int *head_len)
{
    const bool traced = log_passes(AGENT_LOG_DEBUG);
    buf[0]            = first_byte(message);

    uint8_t area[kPublishBodyHeadMax];
    Writer  head(area);
    size_t  properties_at = 0;
    if (const int refused = put_head(level, message, head, properties_at); refused != CODEC_OK)
        return refused;
    if (traced)
        log_head(level, message, buf[0], head, properties_at);

    const auto body = static_cast<uint32_t>(head.size() + message.payload.size());
    if (body > CODEC_BODY_MAX)
        return REFUSE(CODEC_E_BUFFER, "[PUBLISH ENCODE] Step 4.4 ERROR: Payload buffer overflow (need=%d, have=%d)\n",
                      body, CODEC_BODY_MAX);

    const uint32_t length_bytes = encode_length(buf + 1, body);
    if (length_bytes == 0) // cannot happen with a body this short
        return REFUSE(CODEC_E_MALFORMED,
                      "[PUBLISH ENCODE] Step 5 ERROR: Encode Remaining Length failed (len=%d) [MQTT 5.0 §2.1.4]\n",
                      body);
    const auto total = static_cast<int>(1 + length_bytes + body);
    if (total > *buf_len)
        return REFUSE(CODEC_E_BUFFER, "[PUBLISH ENCODE] Step 6 ERROR: Final buffer overflow (need=%d, have=%d)\n",
                      total, *buf_len);

    memcpy(buf + 1 + length_bytes, head.data(), head.size());
    *head_len = total - static_cast<int>(message.payload.size());
    *buf_len  = total;
    if (traced)
        log_packet(message, body, total);
    return CODEC_OK;
}

PublishView view_of(const mqtt_publish_para_t &para)
{
    return {.topic               = text_of(para.topic),
            .payload             = {para.payload, para.payload_len},
            .qos                 = para.qos,
            .msg_id              = para.msg_id,
            .retain              = para.retain,
            .dup                 = para.dup,
            .msg_expiry_interval = para.msg_expiry_interval,
            .topic_alias         = para.topic_alias};
}

} // namespace

PublishHead encode_publish_head(uint32_t level, const PublishView &message, std::span<uint8_t> buf,
                                size_t capacity) noexcept
{
    int length   = static_cast<int>(capacity);
    int head_len = 0;
    int refused  = check(level, message, length);
    if (refused == CODEC_OK)
        refused = write_head(level, message, buf.data(), &length, &head_len);
    if (refused != CODEC_OK)
        return {Result{refused}, {}, 0};
    return {Result::Ok, buf.first(static_cast<size_t>(head_len)), static_cast<size_t>(length)};
}

int publish_id_offset(std::span<const uint8_t> packet) noexcept
{
    const int len = static_cast<int>(packet.size());
    if (!packet.data() || len < 2)
        return -1;
    const FixedHeader header = read_fixed_header(packet.data(), len);
    const int         qos    = header.flags >> 1 & 3;
    if (header.type != PUBLISH || !header.length.ok() || (qos != 1 && qos != 2))
        return -1;

    Reader   in(packet.data(), len, header.body);
    uint16_t topic_len = 0;
    if (!in.u16(topic_len) || !in.has(topic_len + 2))
        return -1;
    return in.pos() + topic_len;
}

int encode_publish(mqtt_codec_ctx_t *ctx, const mqtt_publish_para_t *para, uint8_t *buf, int *buf_len) noexcept
{
    if (!ctx || !para || !buf || !buf_len)
        return REFUSE(CODEC_E_PARAM,
                      "[PUBLISH ENCODE] Step 1 ERROR: Null pointer detected (ctx=%p, para=%p, buf=%p, buf_len=%p)\n",
                      addr(ctx), addr(para), addr(buf), addr(buf_len));

    return encode_publish(*ctx, view_of(*para), buf, buf_len);
}

int encode_publish(mqtt_codec_ctx_t &ctx, const PublishView &message, uint8_t *buf, int *buf_len) noexcept
{
    const uint32_t level = level_of(&ctx);
    if (const int refused = check(level, message, *buf_len); refused != CODEC_OK)
        return refused;
    memset(buf, 0, static_cast<size_t>(*buf_len));
    int total    = *buf_len;
    int head_len = 0;
    if (const int refused = write_head(level, message, buf, &total, &head_len); refused != CODEC_OK)
        return refused;
    if (!message.payload.empty())
        memcpy(buf + head_len, message.payload.data(), message.payload.size());
    return encoded(&ctx, PUBLISH, total, buf_len);
}

} // namespace tarn::codec
