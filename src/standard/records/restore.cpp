// restore.cpp - see restore.h.
#include "restore.h"

#include "../../codec/standard/standard_codec.hpp"
#include "../state/object.h"

#include <algorithm>

namespace tarn::standard {
namespace {

// Numbers count up from 1, and no broker comes so far; so there is always a next one.
constexpr uint64_t kNumberMax = UINT64_MAX / 2;

constexpr uint8_t  kQosMax            = 2;
constexpr uint8_t  kRetainHandlingMax = 2;
constexpr uint32_t kIdentifierMax     = codec::standard::kVarintMax;

uint64_t hash_of(uint64_t number)
{
    return hash_pair(number, uint64_t{0});
}

bool is_number(uint64_t number)
{
    return number > 0 && number <= kNumberMax;
}

bool is_filter(std::string_view text)
{
    codec::standard::TopicFilter parsed;
    return codec::standard::parse_filter(text, parsed);
}

} // namespace

Restorer::~Restorer()
{
    forget_messages();
}

bool Restorer::record(uint8_t type, std::span<const uint8_t> bytes) noexcept
{
    FieldReader reader(bytes);
    return restore(static_cast<RecordType>(type), reader) != Read::NoMemory;
}

Restorer::Read Restorer::restore(RecordType type, FieldReader &reader) noexcept
{
    Session *session = nullptr;
    switch (type) {
    case RecordType::Key:
        return restore_key(reader);
    case RecordType::Counters:
        return restore_counters(reader);
    case RecordType::Session:
        return restore_session(reader, session);
    case RecordType::SessionState:
        return restore_session_state(reader);
    case RecordType::SessionGone:
        return restore_session_gone(reader);
    case RecordType::Subscribed:
        return restore_subscribed(reader);
    case RecordType::Unsubscribed:
        return restore_unsubscribed(reader);
    case RecordType::Message:
        return restore_message(reader);
    case RecordType::Publication:
        return restore_publication(reader);
    case RecordType::Sent:
    case RecordType::Received:
    case RecordType::Done:
        return restore_step(type, reader);
    case RecordType::Released:
        return restore_released(reader);
    case RecordType::Retained:
        return restore_retained(reader);
    case RecordType::RetainedGone:
        state_.retained.restore_removal(reader.rest());
        return Read::Done;
    }
    return Read::Passed;
}

// A session that ends with its connection has ended. The others have been away since they are known to be; a
// clock that was set back counts from now on.
void Restorer::finish() noexcept
{
    Session *next = state_.sessions.first();
    while (Session *const session = next) {
        next = session->next;
        if (!session->is_kept())
            forget(*session);
        else if (session->away_ms == 0 || session->away_ms > now_ms_)
            session->away_ms = now_ms_;
    }
    forget_messages();
}

// ---- What there is one of

Restorer::Read Restorer::restore_key(FieldReader &reader) noexcept
{
    IdKey key{};
    for (uint64_t &word : key.words)
        reader.numbers(word);
    if (!reader.is_complete())
        return Read::Passed;
    state_.id_key = key;
    has_key_      = true;
    return Read::Done;
}

Restorer::Read Restorer::restore_counters(FieldReader &reader) noexcept
{
    uint64_t last_session = 0;
    uint64_t last_message = 0;
    reader.numbers(last_session, last_message);
    if (is_number(last_session))
        state_.sessions.note_number(last_session);
    note_message_number(last_message);
    return Read::Done;
}

void Restorer::note_message_number(uint64_t number) noexcept
{
    if (is_number(number))
        state_.last_message = std::max(state_.last_message.load(), number);
}

// ---- Sessions

Restorer::Read Restorer::restore_session(FieldReader &reader, Session *&session) noexcept
{
    uint64_t   number = 0, away_ms = 0;
    uint32_t   expiry_s = 0, will_expiry_s = 0, id_size = 0;
    uint8_t    will_flags = 0;
    StoredWill will;
    reader.numbers(number, expiry_s, away_ms, will_flags, will.delay_s, will_expiry_s, id_size);
    const std::string_view id = reader.text(id_size);
    if (will_flags & kWillExpires)
        will.expiry_s = will_expiry_s;
    Read read = reader.is_complete() ? Read::Done : Read::Passed;
    if (read == Read::Done && (will_flags & kHasWill))
        read = read_message(reader, will.message);
    if (read == Read::Done)
        read = find_or_make(number, id, session);
    if (read != Read::Done)
        return read;
    session->expiry_s = expiry_s;
    session->away_ms  = away_ms;
    session->will     = std::move(will);
    return Read::Done;
}

// Of two sessions of an id the later one counts: the other is gone, and a record behind this one says so.
Restorer::Read Restorer::find_or_make(uint64_t number, std::string_view id, Session *&session) noexcept
{
    session = state_.sessions.find(number);
    if (session)
        return Read::Done;
    Session *const other = state_.sessions.find(id);
    if (!is_number(number) || id.empty() || (other && other->number > number))
        return Read::Passed;
    if (other)
        forget(*other);
    session = state_.sessions.make(id, state_.bounds(), number);
    return session ? Read::Done : Read::NoMemory;
}

// The session with all that belongs to it alone.
Restorer::Read Restorer::restore_session_state(FieldReader &reader) noexcept
{
    Session *session = nullptr;
    if (const Read read = restore_session(reader, session); read != Read::Done)
        return read;
    uint64_t last_number = 0;
    uint32_t incoming    = 0;
    reader.numbers(last_number, incoming);
    for (; incoming > 0 && reader.is_complete(); --incoming) {
        uint16_t packet_id = 0;
        reader.numbers(packet_id);
        if (hold(session->number, packet_id) == Read::NoMemory)
            return Read::NoMemory;
    }
    uint32_t deliveries = 0;
    reader.numbers(deliveries);
    for (; deliveries > 0 && reader.is_complete(); --deliveries) {
        uint64_t message = 0;
        reader.numbers(message);
        DeliveryRecord delivery;
        const Read     read  = read_delivery(reader, delivery);
        KnownMessage  *known = find_known(message);
        if (known && !delivery.received)
            delivery.message = known->message;
        if (read == Read::NoMemory ||
            (read == Read::Done && session->deliveries.restore(delivery) == Restored::NoMemory))
            return Read::NoMemory;
    }
    if (is_number(last_number))
        session->deliveries.restore_last_number(last_number);
    return Read::Done;
}

Restorer::Read Restorer::restore_session_gone(FieldReader &reader) noexcept
{
    Session *const session = read_session_number(reader);
    if (!session)
        return Read::Passed;
    forget(*session);
    return Read::Done;
}

void Restorer::forget(Session &session) noexcept
{
    state_.subscriptions.remove_all_of(session.number);
    state_.sessions.destroy(session);
}

Session *Restorer::read_session_number(FieldReader &reader) const noexcept
{
    uint64_t number = 0;
    reader.numbers(number);
    return state_.sessions.find(number);
}

// ---- Subscriptions

Restorer::Read Restorer::restore_subscribed(FieldReader &reader) noexcept
{
    const Session *const session = read_session_number(reader);
    SubscriptionOptions  options;
    uint8_t              bits = 0;
    reader.numbers(options.identifier, options.qos, bits);
    options.no_local              = bits & kNoLocal;
    options.retain_as_published   = bits & kRetainAsPublished;
    options.retain_handling       = bits >> kRetainHandlingShift;
    const std::string_view filter = reader.rest();
    if (!session || options.qos > kQosMax || options.retain_handling > kRetainHandlingMax ||
        options.identifier > kIdentifierMax || !is_filter(filter))
        return Read::Passed;
    const auto added = state_.subscriptions.add(session->number, filter, options);
    return added == SubscriptionTree::Added::NoMemory ? Read::NoMemory : Read::Done;
}

Restorer::Read Restorer::restore_unsubscribed(FieldReader &reader) noexcept
{
    if (const Session *const session = read_session_number(reader))
        state_.subscriptions.remove(session->number, reader.rest());
    return Read::Done;
}

// ---- Messages

Restorer::Read Restorer::read_message(FieldReader &reader, MessageRef &message) noexcept
{
    MessageParts parts;
    uint8_t      retain     = 0;
    uint32_t     topic_size = 0, properties_size = 0, payload_size = 0;
    reader.numbers(parts.number, parts.expires_ms, parts.sender, parts.qos, retain, topic_size, properties_size,
                   payload_size);
    parts.retain     = retain != 0;
    parts.topic      = reader.text(topic_size);
    parts.properties = reader.bytes(properties_size);
    parts.payload    = reader.bytes(payload_size);
    if (!reader.is_complete() || parts.qos > kQosMax || parts.sender > kNumberMax ||
        !codec::standard::is_topic_name(parts.topic))
        return Read::Passed;
    note_message_number(parts.number);
    state_.sessions.note_number(parts.sender); // no other client's session may get it (No Local)
    message = find_message(parts);
    if (!message)
        message = MessageRef::make(parts);
    return message ? Read::Done : Read::NoMemory;
}

// One message is one object where this is cheap to know: the checkpoint had it, or it is retained and sent for that.
MessageRef Restorer::find_message(const MessageParts &parts) const noexcept
{
    if (const KnownMessage *const known = find_known(parts.number))
        return known->message;
    const MessageRef retained = state_.retained.find(parts.topic);
    return retained && retained->number() == parts.number && is_number(parts.number) ? retained : MessageRef();
}

Restorer::KnownMessage *Restorer::find_known(uint64_t number) const noexcept
{
    return messages_.find(hash_of(number),
                          [number](const KnownMessage &known) { return known.message->number() == number; });
}

Restorer::Read Restorer::restore_message(FieldReader &reader) noexcept
{
    MessageRef message;
    if (const Read read = read_message(reader, message); read != Read::Done)
        return read;
    if (!is_number(message->number()) || find_known(message->number()))
        return Read::Passed;
    auto *const known = make_object<KnownMessage>();
    if (!known)
        return Read::NoMemory;
    known->message = std::move(message);
    messages_.insert(*known, hash_of(known->message->number()));
    return Read::Done;
}

void Restorer::forget_messages() noexcept
{
    messages_.for_each([this](KnownMessage &known) {
        messages_.remove(known);
        destroy_object(&known);
    });
}

Restorer::Read Restorer::restore_publication(FieldReader &reader) noexcept
{
    uint8_t    effects   = 0;
    uint64_t   sender    = 0;
    uint16_t   packet_id = 0;
    MessageRef message;
    reader.numbers(effects, sender, packet_id);
    Read read = read_message(reader, message);
    if (read != Read::Done)
        return read;
    if (effects & kIsRetained)
        read = retain(message);
    if (read != Read::NoMemory)
        read = hold(sender, packet_id);
    while (read != Read::NoMemory && reader.left() > 0) {
        Session *const session = read_session_number(reader);
        DeliveryRecord delivery;
        read             = read_delivery(reader, delivery);
        delivery.message = message;
        if (read == Read::Done && session && session->deliveries.restore(delivery) == Restored::NoMemory)
            read = Read::NoMemory;
    }
    return read;
}

// At QoS 2, from PUBLISH to PUBREL.
Restorer::Read Restorer::hold(uint64_t sender, uint16_t packet_id) noexcept
{
    Session *const session = state_.sessions.find(sender);
    if (!session || packet_id == 0)
        return Read::Passed;
    return session->incoming.restore(packet_id) ? Read::Done : Read::NoMemory;
}

Restorer::Read Restorer::restore_released(FieldReader &reader) noexcept
{
    Session *const session   = read_session_number(reader);
    uint16_t       packet_id = 0;
    reader.numbers(packet_id);
    if (session)
        session->incoming.release(packet_id);
    return Read::Done;
}

Restorer::Read Restorer::restore_retained(FieldReader &reader) noexcept
{
    uint64_t number = 0;
    reader.numbers(number);
    const KnownMessage *const known = find_known(number);
    return known ? retain(known->message) : Read::Passed;
}

Restorer::Read Restorer::retain(const MessageRef &message) noexcept
{
    if (message->payload().empty())
        state_.retained.restore_removal(message->topic());
    else if (state_.retained.restore(message) == RetainedStore::Set::NoMemory)
        return Read::NoMemory;
    return Read::Done;
}

// ---- Deliveries

// All but the message.
Restorer::Read Restorer::read_delivery(FieldReader &reader, DeliveryRecord &delivery) noexcept
{
    uint8_t  flags = 0;
    uint32_t count = 0;
    reader.numbers(delivery.number, flags, delivery.packet_id, count);
    delivery.qos      = flags & kDeliveryQos;
    delivery.retain   = flags & kDeliveryRetain;
    delivery.received = flags & kDeliveryReceived;
    bool is_possible  = is_number(delivery.number);
    identifiers_.clear();
    for (; count > 0 && reader.is_complete(); --count) {
        uint32_t identifier = 0;
        reader.numbers(identifier);
        is_possible = is_possible && identifier > 0 && identifier <= kIdentifierMax;
        if (!identifiers_.push(identifier))
            return Read::NoMemory;
    }
    delivery.subscription_identifiers = {identifiers_.data(), identifiers_.size()};
    return is_possible && reader.is_complete() ? Read::Done : Read::Passed;
}

Restorer::Read Restorer::restore_step(RecordType type, FieldReader &reader) noexcept
{
    Session *const session   = read_session_number(reader);
    uint64_t       number    = 0;
    uint16_t       packet_id = 0;
    reader.numbers(number, packet_id);
    if (!session || !reader.is_complete())
        return Read::Passed;
    if (type == RecordType::Sent)
        session->deliveries.restore_sent(number, packet_id);
    else if (type == RecordType::Received)
        session->deliveries.restore_received(number, packet_id);
    else
        session->deliveries.restore_done(number, packet_id);
    return Read::Done;
}

} // namespace tarn::standard
