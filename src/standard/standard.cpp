// standard.cpp - start and stop of the engine, and what hosts call.
#include "standard.hpp"

#include "../base/clock.h"
#include "../log/log.h"
#include "../stats/stats.hpp"
#include "state/filter_match.h"
#include "profile.h"
#include "records/restore.h"
#include "stored_id.h"

#include <new>

namespace tarn::standard {

constinit Mutex engine_mutex{};

namespace {

constinit Engine *g_engine GUARDED_BY(engine_mutex) = nullptr;

// What restored sessions need to go on, and what is due of them.
void take_up(Engine &engine) REQUIRES(engine_mutex)
{
    for (Session *session = engine.state.sessions.first(); session; session = session->next) {
        engine.state.sessions.set_known_to_files(*session, true);
        session->deliveries.set_sink(&engine.recorder);
        for (const Subscription &subscription : engine.state.subscriptions.of(session->number))
            session->wildcard_subscriptions += has_wildcard(subscription.filter());
        set_due(engine, *session);
    }
}

bool open(Engine &engine, const char *directory) REQUIRES(engine_mutex)
{
    Restorer restorer(engine.state, wall_ms());
    if (engine.journal.open(directory, restorer).status != OpenStatus::Ok)
        return false;
    restorer.finish();
    take_up(engine);
    return true;
}

bool has_key(const IdKey &key)
{
    return key.words[0] != 0 || key.words[1] != 0;
}

bool make_key_once(Engine &engine) REQUIRES(engine_mutex)
{
    if (has_key(engine.state.id_key))
        return true;
    return make_key(engine.state.id_key) && engine.recorder.key(engine.state.id_key);
}

} // namespace

Engine *running_engine() noexcept
{
    return g_engine;
}

bool start(const char *directory, const Limits &limits) noexcept
{
    const ScopedLock lock(engine_mutex);
    auto *const      engine = new (std::nothrow) Engine(limits);
    if (!engine) {
        LOG_ERROR("[standard] no memory to start");
        return false;
    }
    if (!open(*engine, directory) || !make_key_once(*engine)) {
        engine->journal.close();
        delete engine;
        return false;
    }
    g_engine = engine;
    client::use_profile(&profile());
    return true;
}

void stop() noexcept
{
    Engine *engine = nullptr;
    {
        const ScopedLock lock(engine_mutex);
        engine = g_engine;
    }
    if (!engine)
        return;
    engine->journal.close(); // its waiters take the mutex
    {
        const ScopedLock lock(engine_mutex);
        g_engine = nullptr;
    }
    client::use_profile(nullptr);
    free_connections();
    {
        const ScopedLock lock(engine_mutex);
        Outbox::free_spares();
    }
    delete engine;
}

void end_all_connections() noexcept
{
    for (uint32_t handle = 0; handle < NETIP_CLIENTS_MAX; ++handle)
        if (Connection *const connection = connection_at(handle); connection) {
            Turn turn;
            if (!turn)
                return;
            end_connection(*turn, *connection, Reason::ServerShuttingDown);
        }
}

bool is_on() noexcept
{
    const ScopedLock lock(engine_mutex);
    return g_engine != nullptr;
}

// ---- for hosts

Published publish(const HostMessage &message) noexcept
{
    if (!codec::standard::is_topic_name(message.topic) || !codec::standard::is_utf8(message.topic))
        return Published::NoTopic;
    Turn turn;
    if (!turn)
        return Published::NoRoom;
    const MessageRef made =
        MessageRef::make({.number     = ++turn->state.last_message,
                          .expires_ms = message.expiry_s != 0 ? wall_ms() + uint64_t{message.expiry_s} * 1000 : 0,
                          .sender     = 0,
                          .qos        = message.qos,
                          .retain     = message.retain,
                          .topic      = message.topic,
                          .properties = {},
                          .payload    = message.payload});
    if (!made)
        return Published::NoRoom;
    Draft               draft(made);
    const PublishResult result =
        publish(*turn, {.draft = draft, .has_answer = made->qos() > 0 || made->retain(), .is_refusable = true});
    return result == PublishResult::Done || result == PublishResult::NobodyThere ? Published::Done : Published::NoRoom;
}

bool clear_retained(std::string_view topic) noexcept
{
    Turn turn;
    return turn && turn->state.retained.remove(topic) && turn->recorder.retained_is_gone(topic);
}

int32_t list_retained_topics(std::span<char> to) noexcept
{
    size_t at = 0;
    Turn   turn;
    if (!turn || turn->state.retained.count() == 0)
        return -1;
    for (const MessageRef &message : turn->state.retained) {
        const std::string_view topic = message->topic();
        if (to.size() - at < topic.size() + 2)
            continue;
        at += topic.copy(&to[at], topic.size());
        to[at++] = '\n';
        to[at]   = '\0';
    }
    return static_cast<int32_t>(at);
}

void kick(mqtt_client_t &client, uint8_t reason) noexcept
{
    Turn              turn;
    Connection *const connection = turn ? connection_at(client.handle) : nullptr;
    if (connection && connection->record.get() == &client) // else its handle is another one's
        end_connection(*turn, *connection, static_cast<Reason>(reason));
}

namespace {

bool is_stored_as(const Engine &engine, const Session &session, std::string_view stored)
{
    return stored == stored_id(session.text, engine.state.id_key).text;
}

// Ids that records have no room for are looked for one by one: few ask for them.
Session *find_stored(Engine &engine, std::string_view stored) REQUIRES(engine_mutex)
{
    Session *session = engine.state.sessions.find(stored);
    if (session && is_stored_as(engine, *session, stored))
        return session;
    if (!stored.starts_with('~'))
        return nullptr;
    session = engine.state.sessions.first();
    while (session && !is_stored_as(engine, *session, stored))
        session = session->next;
    return session;
}

} // namespace

bool describe_session(std::string_view id, SessionInfo &info) noexcept
{
    Turn                 turn;
    const Session *const session = turn ? find_stored(*turn, id) : nullptr;
    if (!session)
        return false;
    info = {.subscriptions = turn->state.subscriptions.count_of(session->number),
            .is_online     = session->connection != nullptr,
            .is_kept       = session->is_kept(),
            .has_will      = static_cast<bool>(session->will.message)};
    return true;
}

Counts counts() noexcept
{
    const Turn turn;
    if (!turn)
        return {};
    return {turn->state.sessions.count(), turn->state.subscriptions.count(), turn->state.retained.count()};
}

} // namespace tarn::standard
