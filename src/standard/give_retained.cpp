// give_retained.cpp - retained messages for new subscriptions (3.3.1.3), piece by piece: as far as the client takes them,
// the journal has room for those that are kept for it, and a turn's work for all clients goes.
#include "../base/clock.h"
#include "engine.h"
#include "state/filter_match.h"

namespace tarn::standard {
namespace {

constexpr size_t kQueuedMost   = 1000;             // deliveries of a session; above, no more are given
constexpr size_t kBytesMost    = size_t{1} << 20;  // of them, in memory
constexpr size_t kUnsyncedMost = size_t{16} << 20; // bytes of the journal

bool has_room(Engine &engine, const Session &session) REQUIRES(engine_mutex)
{
    const Amount stored = session.deliveries.stored();
    const Amount qos0   = session.deliveries.waiting_qos0();
    return stored.count + qos0.count < kQueuedMost && stored.bytes + qos0.bytes < kBytesMost &&
           (!session.is_kept() || engine.journal.unsynced() < kUnsyncedMost);
}

// It is delivered as a retained message, whatever Retain As Published says [MQTT-3.3.1-8].
void give(Engine &engine, Session &session, const MessageRef &message, const SubscriptionOptions &options)
    REQUIRES(engine_mutex)
{
    if (message->expires_ms() != 0 && message->expires_ms() <= wall_ms())
        return;
    if (options.no_local && message->sender() == session.number) // [MQTT-3.8.3-3]
        return;
    engine.recorder.begin_publication(message);
    (void)deliver(engine, session, message, options, true);
    (void)engine.recorder.end_publication({}); // what is not recorded is given all the same, and once
}

// True when it was given all that it is to have.
bool give_one(Engine &engine, Session &session, RetainedWanted &wanted) REQUIRES(engine_mutex)
{
    --engine.retained_budget;
    if (const MessageRef message = engine.state.retained.find(wanted.text))
        give(engine, session, message, wanted.options);
    return true;
}

bool give_some(Engine &engine, Session &session, RetainedWanted &wanted) REQUIRES(engine_mutex)
{
    if (!std::exchange(wanted.is_begun, true))
        engine.state.retained.begin(wanted.walk);
    while (const RetainedEntry *const entry = wanted.walk.at()) {
        if (engine.retained_budget == 0 || !has_room(engine, session))
            return false;
        --engine.retained_budget;
        wanted.walk.go_on();
        if (matches(wanted.text, entry->message->topic()))
            give(engine, session, entry->message, wanted.options);
    }
    return true;
}

} // namespace

bool give_retained(Engine &engine, Session &session) noexcept
{
    bool has_given = false;
    while (RetainedWanted *const wanted = session.retained.first()) {
        if (engine.retained_budget == 0 || !has_room(engine, session))
            break;
        has_given = true;
        const bool done =
            has_wildcard(wanted->text) ? give_some(engine, session, *wanted) : give_one(engine, session, *wanted);
        if (!done)
            break;
        session.retained.drop_first();
    }
    return has_given;
}

} // namespace tarn::standard
