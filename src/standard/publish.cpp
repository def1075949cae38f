// publish.cpp - PUBLISH of a client (3.3), and what each message does: a will and the host publish, too.
#include "../api/api.hpp"
#include "../base/clock.h"
#include "../log/log.h"
#include "../stats/stats.hpp"
#include "c_text.h"
#include "engine.h"
#include "stored_properties.h"

namespace tarn::standard {

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

} // namespace

PublishResult publish(Engine &engine, const Publication &publication) noexcept
{
    const MessageRef &message     = publication.message;
    bool              is_retained = false;
    const bool may_be_recorded    = message->retain() || publication.sender || engine.state.sessions.count_kept() > 0;
    if (publication.has_answer && may_be_recorded && !engine.journal.can_take(message->size() + kReceiversMost))
        return PublishResult::NotRecorded;
    if (message->retain()) {
        is_retained = retain(engine.state.retained, message);
        if (!is_retained && publication.is_refusable)
            return PublishResult::RetainedFull;
        note_retained(engine, is_retained);
    }
    engine.recorder.begin_publication(message);
    const Routed routed   = route(engine, message);
    const bool   recorded = engine.recorder.end_publication({is_retained, publication.sender, publication.packet_id});
    if (!recorded)
        return PublishResult::NotRecorded;
    if (routed.refused > 0 && routed.refused == routed.receivers)
        return PublishResult::QueueFull;
    return routed.receivers > 0 ? PublishResult::Done : PublishResult::NobodyThere;
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

// Made without the mutex: it may be long.
MessageRef message_of(const Connection &connection, const Publish &publish)
{
    codec::standard::Properties forwarded = publish.properties;
    const auto                  expiry_s  = std::exchange(forwarded.message_expiry, std::nullopt);
    forwarded.topic_alias.reset();
    const StoredProperties properties(forwarded);
    if (!properties)
        return {};
    return MessageRef::make({.number     = ++*connection.message_numbers,
                             .expires_ms = expiry_s ? wall_ms() + uint64_t{*expiry_s} * 1000 : 0,
                             .sender     = connection.session_number,
                             .qos        = publish.qos,
                             .retain     = publish.retain,
                             .topic      = publish.topic,
                             .properties = properties.bytes(),
                             .payload    = publish.payload});
}

// The identifier is free again, as a file must know.
void release(Engine &engine, Session &session, uint16_t packet_id) REQUIRES(engine_mutex)
{
    if (session.incoming.release(packet_id) && session.is_kept())
        (void)engine.recorder.released(session, packet_id);
}

// The answer to a PUBLISH at QoS 1 or 2. A refusal at QoS 2 ends the exchange, and 3.1.1 has none: there a message that
// was not recorded ends the connection, so that the client sends it again.
void answer(Engine &engine, Connection &connection, const Publish &publish, PublishResult result, uint64_t before)
    REQUIRES(engine_mutex)
{
    if (publish.qos == 0)
        return;
    Reason reason = reason_of(result);
    if (!connection.speaks_v5() && result != PublishResult::NotRecorded)
        reason = Reason::Success;
    if (publish.qos == 2 && is_failure(reason))
        release(engine, *connection.session, publish.packet_id);
    if (!connection.speaks_v5() && is_failure(reason))
        return end_connection(engine, connection, reason);
    const uint64_t behind = engine.recorder.position();
    send_ack(engine, connection, publish.qos == 1 ? PUBACK : PUBREC, publish.packet_id, reason,
             behind != before ? behind : 0); // without a record it waits for nothing
}

// At QoS 2 once for each packet identifier, until it is released. False: there is nothing to publish.
bool begin_exchange(Engine &engine, Connection &connection, const Publish &publish) REQUIRES(engine_mutex)
{
    if (publish.qos != 2)
        return true;
    switch (connection.session->incoming.begin(publish.packet_id)) {
    case Begun::New:
        return true;
    case Begun::Duplicate:
        send_ack(engine, connection, PUBREC, publish.packet_id, Reason::Success, engine.recorder.position());
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

void accept(Engine &engine, Connection &connection, const Publish &publish, const MessageRef &message)
    REQUIRES(engine_mutex)
{
    if (!begin_exchange(engine, connection, publish))
        return;
    const uint64_t before = engine.recorder.position();
    Publication    publication{.message = message};
    publication.sender       = publish.qos == 2 ? connection.session : nullptr;
    publication.packet_id    = publish.packet_id;
    publication.has_answer   = publish.qos > 0;
    publication.is_refusable = publish.qos > 0 && connection.speaks_v5();
    answer(engine, connection, publish, standard::publish(engine, publication), before);
}

// The host does not allow it: 3.1.1 acknowledges it nevertheless, as it has no other answer.
void deny(Engine &engine, Connection &connection, const Publish &publish) REQUIRES(engine_mutex)
{
    if (publish.qos == 0)
        return;
    const PacketType type = publish.qos == 1 ? PUBACK : PUBREC;
    if (connection.speaks_v5()) {
        if (publish.qos == 2) // an earlier connection may have begun it
            release(engine, *connection.session, publish.packet_id);
        return send_ack(engine, connection, type, publish.packet_id, Reason::NotAuthorized, engine.recorder.position());
    }
    if (begin_exchange(engine, connection, publish))
        send_ack(engine, connection, type, publish.packet_id);
}

} // namespace

void handle_publish(const Incoming &incoming) noexcept
{
    Connection &connection = incoming.connection;
    Publish     publish;
    Verdict     verdict = codec::standard::decode_publish(incoming.packet, connection.level, publish);
    if (verdict.ok())
        verdict = resolve_alias(connection, publish);
    if (!verdict.ok())
        return refuse_packet(connection, verdict);
    stats::count_qos(publish.qos);

    const CText topic(publish.topic);
    const bool  is_allowed = topic && api::allows(*connection.record, topic.get(), BROKER_ACL_PUBLISH);
    MessageRef  message;
    if (is_allowed) {
        api::tell(*connection.record, BROKER_EVENT_PUBLISH, topic.get(), publish.qos);
        if (connection.stage.load() != Stage::Connected)
            return; // it was closed meanwhile, perhaps with the engine
        message = message_of(connection, publish);
        if (!message)
            return refuse_packet(connection, {Reason::QuotaExceeded, "there was no memory for its message"});
    }
    Turn turn;
    if (!turn || !connection.session)
        return; // it was taken over or kicked meanwhile
    if (is_allowed)
        accept(*turn, connection, publish, message);
    else
        deny(*turn, connection, publish);
}

} // namespace tarn::standard
