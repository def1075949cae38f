// publish.cpp - PUBLISH of a client (3.3), and what each message does: a will and the host publish, too.
#include "../api/api.hpp"
#include "../base/clock.h"
#include "../log/log.h"
#include "../stats/stats.hpp"
#include "c_text.h"
#include "engine.h"
#include "stored_properties.h"

namespace tarn::standard {

using codec::standard::PlainPublish;
using codec::standard::Publish;
using codec::standard::Verdict;

// ---- any message

namespace {

// False: it could not be kept, and nothing changed.
bool retain(RetainedStore &retained, const MessageRef &message)
{
    if (message->payload().empty()) { // [MQTT-3.3.1-6]
        (void)retained.remove(message->topic());
        return true;
    }
    const RetainedStore::Set result = retained.set(message);
    return result == RetainedStore::Set::Stored || result == RetainedStore::Set::Replaced;
}

constexpr size_t kReceiversMost = size_t{1} << 20; // bytes of a record that say who is to have a message

// One line each time that it gets full.
void note_retained(Engine &engine, bool is_retained) REQUIRES(engine_mutex)
{
    if (!is_retained && !engine.told_retained_full)
        LOG_WARN("[standard] the store of retained messages is full: messages are delivered and not retained");
    engine.told_retained_full = !is_retained;
}

// Whether a file may have to know of it: it is retained, a kept session may get it at QoS 1 or 2, or the kept one of its
// sender holds the identifier.
bool may_be_recorded(const Engine &engine, const Publication &publication)
{
    const MessageParts &message = publication.draft.parts();
    return message.retain || (publication.sender && publication.sender->is_kept()) ||
           (message.qos > 0 && engine.state.sessions.count_kept() > 0);
}

PublishResult result_of(const Routed &routed)
{
    if (routed.refused > 0 && routed.refused == routed.receivers)
        return PublishResult::QueueFull;
    return routed.receivers > 0 ? PublishResult::Done : PublishResult::NobodyThere;
}

PublishResult publish_and_record(Engine &engine, const Publication &publication) REQUIRES(engine_mutex)
{
    const MessageRef &message     = publication.draft.message();
    bool              is_retained = false;
    if (!message || (publication.has_answer && !engine.journal.can_take(message->size() + kReceiversMost)))
        return PublishResult::NotRecorded;
    if (message->retain()) {
        is_retained = retain(engine.state.retained, message);
        if (!is_retained && publication.is_refusable)
            return PublishResult::RetainedFull;
        note_retained(engine, is_retained);
    }
    engine.recorder.begin_publication(message);
    const Routed routed   = route(engine, publication.draft);
    const bool   recorded = engine.recorder.end_publication({is_retained, publication.sender, publication.packet_id});
    return recorded ? result_of(routed) : PublishResult::NotRecorded;
}

} // namespace

PublishResult publish(Engine &engine, const Publication &publication) noexcept
{
    if (may_be_recorded(engine, publication))
        return publish_and_record(engine, publication);
    return result_of(route(engine, publication.draft));
}

// ---- PUBLISH

namespace {

Reason reason_of(PublishResult result)
{
    switch (result) {
    case PublishResult::Done:
        return Reason::Success;
    case PublishResult::NobodyThere:
        return Reason::NoMatchingSubscribers;
    case PublishResult::QueueFull:
    case PublishResult::RetainedFull:
        return Reason::QuotaExceeded;
    case PublishResult::NotRecorded:
        break;
    }
    return Reason::ImplementationSpecificError;
}

// Puts the topic of the alias into the packet, or notes it for the alias (3.3.2.3.4).
Verdict resolve_alias(Connection &connection, Publish &publish)
{
    if (!publish.properties.topic_alias)
        return {};
    const uint32_t alias = *publish.properties.topic_alias;
    if (!IncomingAliases::is_valid(alias)) // [MQTT-3.3.2-9]
        return {Reason::TopicAliasInvalid, "a topic alias above the maximum"};
    if (publish.topic.empty()) {
        publish.topic = connection.incoming_aliases.topic_of(alias);
        if (publish.topic.empty())
            return {Reason::ProtocolError, "a topic alias that was not set"};
        return {};
    }
    if (!connection.incoming_aliases.set(alias, publish.topic))
        return {Reason::QuotaExceeded, "no memory for a topic alias"};
    return {};
}

// As they are stored and sent on.
codec::standard::Properties forwarded(const Publish &publish)
{
    codec::standard::Properties properties = publish.properties;
    properties.message_expiry.reset();
    properties.topic_alias.reset();
    return properties;
}

constexpr Verdict kNoMemory = {Reason::QuotaExceeded, "there was no memory for its message"};

// What is left of a PUBLISH once it is read.
struct Arrived {
    MessageParts message;
    uint16_t     packet_id = 0; // QoS 1 and 2
    Original     original;
};

Arrived arrived_of(const Incoming &incoming, const PlainPublish &publish)
{
    const bool may_go_on = !publish.dup && !publish.retain;
    return {.message   = {.sender  = incoming.connection.session_number,
                          .qos     = publish.qos,
                          .retain  = publish.retain,
                          .topic   = publish.topic,
                          .payload = publish.payload},
            .packet_id = publish.packet_id,
            .original  = {may_go_on ? incoming.packet : codec::standard::Bytes(), incoming.connection.level}};
}

Arrived arrived_of(const Connection &connection, const Publish &publish, const StoredProperties &properties)
{
    const auto expiry_s = publish.properties.message_expiry;
    return {.message   = {.expires_ms = expiry_s ? wall_ms() + uint64_t{*expiry_s} * 1000 : 0,
                          .sender     = connection.session_number,
                          .qos        = publish.qos,
                          .retain     = publish.retain,
                          .topic      = publish.topic,
                          .properties = properties.bytes(),
                          .payload    = publish.payload},
            .packet_id = publish.packet_id,
            .original  = {}};
}

// It is kept, or sent from where it lies. Then it is made without the mutex, since it may be long.
bool is_surely_made(const MessageParts &message)
{
    return message.qos > 0 || message.retain || message.properties.size() + message.payload.size() > Outbox::kCopiedMax;
}

// The identifier is free again. False: a file may hold it still, and cannot be told; so the client must not hear of it,
// or after a restart its next message under that identifier would be taken for this one.
bool release(Engine &engine, Session &session, uint16_t packet_id) REQUIRES(engine_mutex)
{
    return !session.incoming.release(packet_id) || !session.is_kept() || engine.recorder.released(session, packet_id);
}

// The answer to a PUBLISH at QoS 1 or 2. A refusal at QoS 2 ends the exchange, and 3.1.1 has none: there a message that
// was not recorded ends the connection, so that the client sends it again.
void answer(Engine &engine, Connection &connection, const Arrived &arrived, PublishResult result, uint64_t before)
    REQUIRES(engine_mutex)
{
    if (arrived.message.qos == 0)
        return;
    Reason reason = reason_of(result);
    if (!connection.speaks_v5() && result != PublishResult::NotRecorded)
        reason = Reason::Success;
    if (arrived.message.qos == 2 && is_failure(reason) && !release(engine, *connection.session, arrived.packet_id) &&
        result == PublishResult::QueueFull) // else it was not recorded, and no file holds it
        return end_connection(engine, connection, Reason::ServerBusy);
    if (!connection.speaks_v5() && is_failure(reason))
        return end_connection(engine, connection, reason);
    const uint64_t behind = engine.recorder.position();
    send_ack(engine, connection, arrived.message.qos == 1 ? PUBACK : PUBREC, arrived.packet_id, reason,
             behind != before ? behind : 0); // without a record it waits for nothing
}

// At QoS 2 once for each packet identifier, until it is released. False: there is nothing to publish.
bool begin_exchange(Engine &engine, Connection &connection, const Arrived &arrived) REQUIRES(engine_mutex)
{
    if (arrived.message.qos != 2)
        return true;
    switch (connection.session->incoming.begin(arrived.packet_id)) {
    case Begun::New:
        return true;
    case Begun::Duplicate:
        send_ack(engine, connection, PUBREC, arrived.packet_id, Reason::Success, engine.recorder.position());
        return false;
    case Begun::TooMany:
        end_connection(engine, connection, Reason::ReceiveMaximumExceeded);
        return false;
    case Begun::NoMemory:
        end_connection(engine, connection, Reason::QuotaExceeded);
        return false;
    }
    return false;
}

void accept(Engine &engine, Connection &connection, const Arrived &arrived, Draft &draft) REQUIRES(engine_mutex)
{
    if (!begin_exchange(engine, connection, arrived))
        return;
    const uint64_t before = engine.recorder.position();
    Publication    publication{.draft = draft};
    publication.sender       = arrived.message.qos == 2 ? connection.session : nullptr;
    publication.packet_id    = arrived.packet_id;
    publication.has_answer   = arrived.message.qos > 0;
    publication.is_refusable = arrived.message.qos > 0 && connection.speaks_v5();
    answer(engine, connection, arrived, standard::publish(engine, publication), before);
}

// Asks the host, and tells it of what it allows. Most hosts want neither, and then no text is made for them.
bool is_allowed(Connection &connection, std::string_view topic_name, uint8_t qos)
{
    mqtt_client_t &record = *connection.record;
    if (!api::asks_about_topics(record) && !api::hears_events(record))
        return true;
    const CText topic(topic_name);
    if (!topic || !api::allows(record, topic.get(), BROKER_ACL_PUBLISH))
        return false;
    api::tell(record, BROKER_EVENT_PUBLISH, topic.get(), qos);
    return true;
}

// The host does not allow it: 3.1.1 acknowledges it nevertheless, as it has no other answer. At QoS 2 an earlier
// connection may have begun the exchange, which ends with the refusal.
void deny(Engine &engine, Connection &connection, const Arrived &arrived) REQUIRES(engine_mutex)
{
    if (arrived.message.qos == 0)
        return;
    const PacketType type = arrived.message.qos == 1 ? PUBACK : PUBREC;
    if (connection.speaks_v5()) {
        if (arrived.message.qos == 2 && !release(engine, *connection.session, arrived.packet_id)) {
            (void)connection.session->incoming.restore(arrived.packet_id); // to be released when it comes again
            return end_connection(engine, connection, Reason::ServerBusy);
        }
        return send_ack(engine, connection, type, arrived.packet_id, Reason::NotAuthorized, engine.recorder.position());
    }
    if (begin_exchange(engine, connection, arrived))
        send_ack(engine, connection, type, arrived.packet_id);
}

// Once it was counted and the host was asked.
void take(Connection &connection, const Arrived &arrived, bool allowed)
{
    Draft draft(arrived.message, *connection.message_numbers, arrived.original);
    if (allowed && is_surely_made(arrived.message) && !draft.message())
        return refuse_packet(connection, kNoMemory);
    Turn turn;
    if (!turn || !connection.session)
        return; // it was taken over or kicked meanwhile
    if (allowed)
        accept(*turn, connection, arrived, draft);
    else
        deny(*turn, connection, arrived);
}

void handle_plain(const Incoming &incoming, const PlainPublish &publish)
{
    Connection &connection = incoming.connection;
    count_received_publish(publish.qos);
    const bool allowed = is_allowed(connection, publish.topic, publish.qos);
    if (connection.stage.load() != Stage::Connected)
        return; // it was closed meanwhile, perhaps with the engine
    take(connection, arrived_of(incoming, publish), allowed);
}

} // namespace

void handle_publish(const Incoming &incoming) noexcept
{
    Connection &connection = incoming.connection;
    if (PlainPublish plain; codec::standard::decode_plain_publish(incoming.packet, connection.level, plain))
        return handle_plain(incoming, plain);
    Publish publish;
    Verdict verdict = codec::standard::decode_publish(incoming.packet, connection.level, publish);
    if (verdict.ok())
        verdict = resolve_alias(connection, publish);
    if (!verdict.ok())
        return refuse_packet(connection, verdict);
    count_received_publish(publish.qos);
    const bool allowed = is_allowed(connection, publish.topic, publish.qos);
    if (connection.stage.load() != Stage::Connected)
        return; // as above
    const StoredProperties properties(forwarded(publish));
    if (!properties)
        return refuse_packet(connection, kNoMemory);
    take(connection, arrived_of(connection, publish, properties), allowed);
}

} // namespace tarn::standard
