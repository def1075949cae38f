// give_retained.cpp - retained messages for new subscriptions (3.3.1.3), piece by piece: as far as the client takes them,
// the journal has room for those that are kept for it, and the time for that goes, of which each session has a share.
#include "../base/clock.h"
#include "engine.h"
#include "state/filter_match.h"

namespace tarn::standard {
namespace {

constexpr size_t  kQueuedMost   = 1000;             // deliveries of a session; above, no more are given
constexpr size_t  kBytesMost    = size_t{1} << 20;  // of them, in memory
constexpr size_t  kUnsyncedMost = size_t{16} << 20; // bytes of the journal
constexpr size_t  kFew          = 200;              // that are given at once
constexpr int64_t kShare_us     = 500;              // of one session, before others have their turn
constexpr size_t  kLooks        = 64;               // between two looks at the clock
constexpr size_t  kAlways       = 512;              // filters without wildcards that need no time to be left

// A message of any size fits while little is held.
bool fits(const Amount &held, const Amount &bound, size_t bytes)
{
    return held.count == 0 || (held.count < std::min(kQueuedMost, bound.count) && held.bytes < kBytesMost &&
                               held.bytes + bytes <= bound.bytes);
}

// The time that a session has.
class Share {
public:
    explicit Share(Engine &engine) noexcept : engine_(engine), start_us_(mono_us()) {}
    ~Share() { engine_.retained_us -= used_us(); }
    Share(const Share &)            = delete;
    Share &operator=(const Share &) = delete;

    bool is_used_up() const { return used_us() >= std::min(kShare_us, engine_.retained_us); }

private:
    int64_t used_us() const { return static_cast<int64_t>(elapsed(mono_us(), start_us_)); }

    Engine  &engine_;
    uint64_t start_us_;
};

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

// The common case: a filter that matches few, of a session that holds little.
bool give_few(Engine &engine, Session &session, const RetainedWanted &wanted) REQUIRES(engine_mutex)
{
    const RetainedStore &retained = engine.state.retained;
    const DeliveryBounds bounds   = engine.state.bounds();
    size_t               count = 0, bytes = 0;
    retained.match(wanted.text, [&](const MessageRef &message) {
        ++count;
        bytes += sizeof(Delivery) + message->size();
    });
    const Amount stored = session.deliveries.stored(), qos0 = session.deliveries.waiting_qos0();
    const size_t held = std::max(stored.count, qos0.count) + count;
    const bool   has_room =
        held <= std::min({kFew, bounds.stored.count, bounds.qos0.count}) && bytes <= kBytesMost / 2 &&
        std::max(stored.bytes, qos0.bytes) + bytes <= std::min(bounds.stored.bytes, bounds.qos0.bytes) &&
        (!session.is_kept() || engine.journal.unsynced() < kUnsyncedMost);
    if (!has_room)
        return count == 0;
    auto give_it = [&](const MessageRef &message) NO_LOCK_ANALYSIS { give(engine, session, message, wanted); };
    retained.match(wanted.text, give_it);
    return true;
}

bool give_some(Engine &engine, Session &session, RetainedWanted &wanted, const Share &share) REQUIRES(engine_mutex)
{
    if (!wanted.is_begun) {
        if (give_few(engine, session, wanted))
            return true;
        wanted.is_begun = true;
        engine.state.retained.begin(wanted.walk);
    }
    for (size_t looks = 1; const RetainedEntry *const entry = wanted.walk.at(); ++looks) {
        if (looks % kLooks == 0 && share.is_used_up())
            return false;
        const bool is_wanted = matches(wanted.text, entry->message->topic());
        if (is_wanted && !has_room(engine, session, *entry->message, wanted.options))
            return false;
        wanted.walk.go_on();
        if (is_wanted)
            give(engine, session, entry->message, wanted);
    }
    return true;
}

} // namespace

void give_retained(Engine &engine, Session &session) noexcept
{
    const Share share(engine);
    size_t      done = 0;
    while (RetainedWanted *const wanted = session.retained.first()) {
        if ((done++ >= kAlways || has_wildcard(wanted->text)) && share.is_used_up())
            return;
        const bool is_done = has_wildcard(wanted->text) ? give_some(engine, session, *wanted, share)
                                                        : give_one(engine, session, *wanted);
        if (!is_done)
            return;
        session.retained.drop_first();
    }
}

} // namespace tarn::standard
