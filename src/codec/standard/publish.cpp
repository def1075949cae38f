// publish.cpp - PUBLISH (3.3), both ways.
//
// PUBLISH:  30|dup,qos,retain  remaining:varint  topic:text  [packet-id:u16, QoS 1 and 2]  [properties, 5.0]  payload
#include "decoding.h"
#include "encoding.h"
#include "topic.h"

namespace tarn::codec::standard {

namespace {

constexpr uint8_t kDup    = 0x08;
constexpr uint8_t kQos    = 0x06;
constexpr uint8_t kRetain = 0x01;

void check_topic(Reader &in, const Publish &publish, Level level)
{
    if (!in.ok() || is_topic_name(publish.topic))
        return;
    if (!publish.topic.empty())
        in.refuse(Reason::TopicNameInvalid, "the topic has a wildcard"); // [MQTT-3.3.2-2]
    else if (level == Level::Mqtt311)
        in.refuse(Reason::TopicNameInvalid, "the topic is empty"); // [MQTT-4.7.3-1]
    else if (!publish.properties.topic_alias)
        in.refuse(Reason::ProtocolError, "neither a topic nor a Topic Alias");
}

} // namespace

Verdict decode_publish(Bytes packet, Level level, Publish &publish) noexcept
{
    Reader in = open_packet(packet, PUBLISH, level);
    if (!in.ok())
        return in.verdict();
    publish.dup    = packet[0] & kDup;
    publish.qos    = (packet[0] & kQos) >> 1;
    publish.retain = packet[0] & kRetain;
    publish.topic  = in.text(); // [MQTT-3.3.2-1]
    if (publish.qos != 0)
        publish.packet_id = read_packet_id(in);
    if (level == Level::Mqtt5)
        read_properties(in, PUBLISH, publish.properties);
    check_topic(in, publish, level);
    if (publish.properties.subscription_identifier)
        in.refuse(Reason::ProtocolError, "a Subscription Identifier in a client's PUBLISH"); // [MQTT-3.3.4-6]
    publish.payload = in.all();
    return in.verdict();
}

// ---- without properties

namespace {

constexpr size_t kTextLength = 2, kPacketIdSize = 2, kNoProperties = 1; // bytes

size_t u16_at(const uint8_t *at)
{
    return static_cast<size_t>(at[0] << 8 | at[1]);
}

// Of all that stands between the topic and the payload.
size_t size_behind_topic(uint8_t qos, Level level)
{
    return (qos != 0 ? kPacketIdSize : 0) + (level == Level::Mqtt5 ? kNoProperties : 0);
}

bool is_any_topic_name(std::string_view topic)
{
    return is_ascii_topic_name(topic) || (is_utf8(topic) && is_topic_name(topic));
}

// Where the body begins; 0 if the packet is no right PUBLISH, or not as long as it says in the shortest form.
size_t body_of(Bytes packet, Level level)
{
    if (packet.empty() || type_of(packet[0]) != PUBLISH || !check_first_byte(packet[0], level).ok())
        return 0;
    const Varint length = parse_varint(packet.subspan(1));
    const size_t body   = 1 + length.bytes;
    return length.state == Varint::Complete && length.is_shortest() && length.value == packet.size() - body ? body : 0;
}

} // namespace

bool decode_plain_publish(Bytes packet, Level level, PlainPublish &publish) noexcept
{
    const size_t body = body_of(packet, level);
    if (body == 0 || packet.size() - body < kTextLength)
        return false;
    const uint8_t *const topic = packet.data() + body + kTextLength;
    const size_t         size  = u16_at(packet.data() + body);
    publish.dup                = packet[0] & kDup;
    publish.qos                = (packet[0] & kQos) >> 1;
    publish.retain             = packet[0] & kRetain;
    publish.topic              = {reinterpret_cast<const char *>(topic), size};
    const size_t head          = body + kTextLength + size + size_behind_topic(publish.qos, level);
    if (head > packet.size() || !is_any_topic_name(publish.topic))
        return false;
    if (level == Level::Mqtt5 && packet[head - 1] != 0) // the length of its properties
        return false;
    publish.packet_id = publish.qos != 0 ? static_cast<uint16_t>(u16_at(topic + size)) : 0;
    publish.payload   = packet.subspan(head);
    return publish.qos == 0 || publish.packet_id != 0;
}

// ---- encoding

namespace {

uint8_t first_byte(const Publish &publish)
{
    return static_cast<uint8_t>(PUBLISH << 4 | (publish.dup ? kDup : 0) | (publish.qos << 1 & kQos) |
                                (publish.retain ? kRetain : 0));
}

struct Sizes {
    size_t properties = 0; // without stored ones
    size_t body       = 0;
    size_t behind     = 0; // the head: stored properties and payload
};

Sizes sizes_of(const Publish &publish, Level level)
{
    const bool is_v5 = level == Level::Mqtt5;
    Sizes      sizes;
    sizes.properties     = is_v5 ? size_of_properties(publish.properties, PUBLISH) : 0;
    const size_t stored  = is_v5 ? publish.stored_properties.size() : 0;
    const size_t block   = sizes.properties + stored;
    const size_t lengths = 2 + (publish.qos != 0 ? 2 : 0) + (is_v5 ? varint_size(block) : 0);
    sizes.behind         = stored + publish.payload.size();
    sizes.body =
        publish.topic.size() > kTextMax ? kTooLarge : lengths + publish.topic.size() + block + publish.payload.size();
    return sizes;
}

// 0 if there is no such packet, or none for this receiver [MQTT-3.1.2-24].
size_t head_size(const Sizes &sizes, const Receiver &receiver)
{
    const size_t size = packet_size(sizes.body, receiver);
    return size != 0 ? size - sizes.behind : 0;
}

} // namespace

size_t size_of_head(const Publish &publish, const Receiver &receiver) noexcept
{
    return head_size(sizes_of(publish, receiver.level), receiver);
}

size_t encode_head(const Publish &publish, const Receiver &receiver, std::span<uint8_t> to) noexcept
{
    const Sizes  sizes = sizes_of(publish, receiver.level);
    const size_t size  = head_size(sizes, receiver);
    if (size == 0 || size > to.size())
        return 0;
    Writer out(to);
    out.u8(first_byte(publish)).varint(sizes.body).text(publish.topic);
    if (publish.qos != 0)
        out.u16(publish.packet_id);
    if (receiver.level == Level::Mqtt5)
        write_properties(out, publish.properties, PUBLISH, sizes.properties, publish.stored_properties.size());
    return size;
}

// ---- an encoded head

size_t packet_id_offset(Bytes head) noexcept
{
    if (head.empty() || type_of(head[0]) != PUBLISH || !(head[0] & kQos))
        return 0;
    Reader in(head.subspan(1));
    in.varint();
    in.binary(); // the topic
    const size_t offset = head.size() - in.rest().size();
    return in.rest().size() >= 2 ? offset : 0;
}

void set_packet_id(std::span<uint8_t> head, uint16_t packet_id) noexcept
{
    if (const size_t offset = packet_id_offset(head); offset != 0)
        Writer(head.subspan(offset)).u16(packet_id);
}

void set_dup(std::span<uint8_t> head) noexcept
{
    if (!head.empty() && type_of(head[0]) == PUBLISH && head[0] & kQos)
        head[0] |= kDup;
}

} // namespace tarn::codec::standard
