// subscribe.cpp - SUBSCRIBE, SUBACK, UNSUBSCRIBE and UNSUBACK (3.8 to 3.11).
//
// SUBSCRIBE:    82  remaining:varint  packet-id:u16  [properties, 5.0]  { filter:text  options:u8 } * 1..
// UNSUBSCRIBE:  A2  remaining:varint  packet-id:u16  [properties, 5.0]  { filter:text } * 1..
// SUBACK:       90  remaining:varint  packet-id:u16  [properties, 5.0]  reason:u8 * 1..
// UNSUBACK:     B0  the same; at 3.1.1 without reasons
#include "decoding.h"
#include "encoding.h"

namespace tarn::codec::standard {

// ---- one entry of a list

namespace {

// Bits of the options.
constexpr uint8_t kQos               = 0x03;
constexpr uint8_t kNoLocal           = 0x04;
constexpr uint8_t kRetainAsPublished = 0x08;
constexpr uint8_t kRetainHandling    = 0x30;
constexpr uint8_t kReserved          = 0xC0;

void read_filter(Reader &in, std::string_view &text, TopicFilter &filter)
{
    text = in.text(); // [MQTT-3.8.3-1] [MQTT-3.10.3-1]
    if (in.ok() && !parse_filter(text, filter))
        in.refuse(Reason::TopicFilterInvalid, "no topic filter"); // [MQTT-4.7.1-1] and others, see parse_filter
}

void read_entry(Reader &in, Subscription &entry)
{
    read_filter(in, entry.text, entry.filter);
    const uint8_t options = in.u8();
    if (options & kReserved)
        in.refuse(Reason::MalformedPacket, "reserved subscription options"); // [MQTT-3.8.3-5]
    entry.qos                 = options & kQos;
    entry.no_local            = options & kNoLocal;
    entry.retain_as_published = options & kRetainAsPublished;
    entry.retain_handling     = (options & kRetainHandling) >> 4;
}

void read_entry(Reader &in, UnsubscribedFilter &entry)
{
    read_filter(in, entry.text, entry.filter);
}

} // namespace

// The decoder has read all entries, so none of them is refused.
template <class Entry> void EntryList<Entry>::Iterator::step() noexcept
{
    at_end_ = rest_.empty();
    if (at_end_)
        return;
    Reader in(rest_);
    read_entry(in, entry_);
    rest_ = in.rest();
}
template class EntryList<Subscription>;
template class EntryList<UnsubscribedFilter>;

// ---- the lists

namespace {

void check_entry(Reader &in, const Subscription &entry, Level level)
{
    const bool has_5_options = entry.no_local || entry.retain_as_published || entry.retain_handling != 0;
    if (level == Level::Mqtt311 && has_5_options)
        in.refuse(Reason::MalformedPacket, "reserved subscription options"); // 3.1.1 [MQTT-3-8.3-4]
    if (entry.qos == 3)
        in.refuse(Reason::ProtocolError, "a subscription with QoS 3");
    if (entry.retain_handling == 3)
        in.refuse(Reason::ProtocolError, "a subscription with Retain Handling 3");
    if (entry.no_local && entry.filter.is_shared())
        in.refuse(Reason::ProtocolError, "No Local on a shared subscription"); // [MQTT-3.8.3-4]
}
void check_entry(Reader & /*in*/, const UnsubscribedFilter & /*entry*/, Level /*level*/) {}

// Reads all entries to see that they are right.
template <class Entry> EntryList<Entry> read_entries(Reader &in, Level level)
{
    const Bytes entries = in.rest();
    size_t      count   = 0;
    for (Entry entry; !in.at_end(); ++count) {
        read_entry(in, entry);
        check_entry(in, entry, level);
    }
    if (count == 0)
        in.refuse(Reason::ProtocolError, "no topic filter at all"); // [MQTT-3.8.3-2] [MQTT-3.10.3-2]
    return in.ok() ? EntryList<Entry>(entries, count) : EntryList<Entry>();
}

} // namespace

Verdict decode_subscribe(Bytes packet, Level level, Subscribe &subscribe) noexcept
{
    subscribe           = {};
    Reader in           = open_packet(packet, SUBSCRIBE, level);
    subscribe.packet_id = read_packet_id(in);
    if (level == Level::Mqtt5)
        read_properties(in, SUBSCRIBE, subscribe.properties);
    subscribe.subscriptions = read_entries<Subscription>(in, level);
    return in.verdict();
}

Verdict decode_unsubscribe(Bytes packet, Level level, Unsubscribe &unsubscribe) noexcept
{
    unsubscribe           = {};
    Reader in             = open_packet(packet, UNSUBSCRIBE, level);
    unsubscribe.packet_id = read_packet_id(in);
    if (level == Level::Mqtt5)
        read_properties(in, UNSUBSCRIBE, unsubscribe.properties);
    unsubscribe.filters = read_entries<UnsubscribedFilter>(in, level);
    return in.verdict();
}

// ---- SUBACK and UNSUBACK

namespace {

uint8_t first_byte(const SubscriptionAck &ack)
{
    return static_cast<uint8_t>(ack.type << 4);
}

// 3.1.1 has 0x80 for all failures [MQTT-3.9.3-2].
Reason reason_at(Level level, Reason reason)
{
    return level == Level::Mqtt311 && is_failure(reason) ? Reason::UnspecifiedError : reason;
}

void write_body(Writer &out, const SubscriptionAck &ack, Level level)
{
    out.u16(ack.packet_id);
    if (level == Level::Mqtt5)
        write_properties(out, ack.properties, ack.type);
    if (level == Level::Mqtt5 || ack.type == SUBACK)
        for (const Reason reason : ack.reasons)
            out.u8(static_cast<uint8_t>(reason_at(level, reason)));
}

constexpr AnswerForm<SubscriptionAck> kSubscriptionAck = {first_byte, write_body};

} // namespace

size_t size_of(const SubscriptionAck &ack, const Receiver &receiver) noexcept
{
    return kSubscriptionAck.size_of(ack, receiver);
}
size_t encode(const SubscriptionAck &ack, const Receiver &receiver, std::span<uint8_t> to) noexcept
{
    return kSubscriptionAck.encode(ack, receiver, to);
}

} // namespace tarn::codec::standard
