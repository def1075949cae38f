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
constexpr size_t kFew          = 200;              // that are given at once
constexpr size_t kLooksAtOnce  = 2'000;            // of one session, before others have their turn

bool fits(const Amount &held, const Amount &bound, size_t bytes)
{
    return held.count == 0 ||
           (held.count < std::min(kQueuedMost, bound.count) && held.bytes + bytes <= std::min(kBytesMost, bound.bytes));
}

bool has_room(Engine &engine, const Session &session, const Message &message, const SubscriptionOptions &options)
    REQUIRES(engine_mutex)
{
    const DeliveryBounds bounds = engine.state.bounds();
    const size_t         bytes  = sizeof(Delivery) + message.size();
    if (std::min(options.qos, message.qos()) == 0)
        return fits(session.deliveries.waiting_qos0(), bounds.qos0, bytes);
    return fits(session.deliveries.stored(), bounds.stored, bytes) &&
           (!session.is_kept() || engine.journal.unsynced() < kUnsyncedMost);
}

// It is delivered as a retained message, whatever Retain As Published says [MQTT-3.3.1-8].
void give(Engine &engine, Session &session, const MessageRef &message, const RetainedWanted &wanted)
    REQUIRES(engine_mutex)
{
    const SubscriptionOptions &options = wanted.options;
    if (message->number() > wanted.after)
        return; // it came live

    if (message->expires_ms() != 0 && message->expires_ms() <= wall_ms())
        return;
    if (options.no_local && message->sender() == session.number) // [MQTT-3.8.3-3]
        return;
    engine.recorder.begin_publication(message);
    (void)deliver(engine, session, message, options, true);
    (void)engine.recorder.end_publication({}); // what is not recorded is given all the same, and once
}

// All: true when it was given all that it is to have.
bool give_one(Engine &engine, Session &session, const RetainedWanted &wanted) REQUIRES(engine_mutex)
{
    const MessageRef message = engine.state.retained.find(wanted.text);
    if (!message)
        return true;
    if (!has_room(engine, session, *message, wanted.options))
        return false;
    give(engine, session, message, wanted);
    return true;
}

// The common case: a filter that matches few.
bool give_few(Engine &engine, Session &session, const RetainedWanted &wanted) REQUIRES(engine_mutex)
{
    const RetainedStore &retained = engine.state.retained;
    size_t               count = 0, bytes = 0;
    retained.match(wanted.text, [&](const MessageRef &message) {
        ++count;
        bytes += message->size();
    });
    engine.retained_budget -= static_cast<int64_t>(count);
    if (count > kFew || bytes > kBytesMost ||
        session.deliveries.stored().count + session.deliveries.waiting_qos0().count > 0)
        return count == 0;
    auto give_it = [&](const MessageRef &message) NO_LOCK_ANALYSIS { give(engine, session, message, wanted); };
    retained.match(wanted.text, give_it);
    return true;
}

bool give_some(Engine &engine, Session &session, RetainedWanted &wanted) REQUIRES(engine_mutex)
{
    if (!wanted.is_begun) {
        if (give_few(engine, session, wanted))
            return true;
        wanted.is_begun = true;
        engine.state.retained.begin(wanted.walk);
    }
    for (size_t looks = 0; const RetainedEntry *const entry = wanted.walk.at(); ++looks) {
        if (looks == kLooksAtOnce || engine.retained_budget <= 0)
            return false;
        const bool is_wanted = matches(wanted.text, entry->message->topic());
        if (is_wanted && !has_room(engine, session, *entry->message, wanted.options))
            return false;
        --engine.retained_budget;
        wanted.walk.go_on();
        if (is_wanted)
            give(engine, session, entry->message, wanted);
    }
    return true;
}

} // namespace

bool give_retained(Engine &engine, Session &session) noexcept
{
    const Amount stored = session.deliveries.stored();
    const Amount qos0   = session.deliveries.waiting_qos0();
    while (RetainedWanted *const wanted = session.retained.first()) {
        if (!has_wildcard(wanted->text)) {
            if (!give_one(engine, session, *wanted))
                break;
        } else if (engine.retained_budget <= 0 || !give_some(engine, session, *wanted)) {
            break;
        }
        session.retained.drop_first();
    }
    return session.deliveries.stored().count != stored.count || session.deliveries.waiting_qos0().count != qos0.count;
}

} // namespace tarn::standard
