// route.cpp - who gets a message: each subscription that matches, and of each shared group one member (4.8.2).
//
// A member of a group gets the message if it can take it at once; if none can, one that can keep it.
#include "../base/clock.h"
#include "../log/log.h"
#include "../stats/stats.hpp"
#include "forward.h"

namespace tarn::standard {
namespace {

void log_full(Session &session)
{
    if (std::exchange(session.told_full, true))
        return;
    LOG_WARN("[standard] the queue of client %.*s is full: messages for it are refused",
             static_cast<int>(std::min<size_t>(session.text.size(), CLIENT_ID_CHARS)), session.text.data());
}

void note_full(Session &session)
{
    stats::count(stats::Counter::drop_queue_full);
    log_full(session);
}

bool is_lost(Offered offered, uint8_t qos)
{
    return offered != Offered::Queued && (qos > 0 || offered != Offered::NotConnected);
}

// At most once a second, since it looks at all that is queued. False: it was not time.
bool drop_expired(Session &session)
{
    const uint64_t now_ms = mono_ms();
    if (now_ms < session.next_look_ms)
        return false;
    session.next_look_ms = now_ms + 1000;
    session.deliveries.drop_expired(wall_ms());
    return true;
}

// ---- members of shared groups

bool is_there(const Session &session)
{
    return session.connection && !session.connection->is_broken;
}

// Most are by far, and need not be measured.
bool is_small_enough(const Connection &connection, const MessageParts &message, const SubscriptionOptions &options)
{
    const size_t most = kHeadMost + message.topic.size() + message.payload.size() + message.properties.size();
    return most <= connection.maximum_packet_size || fits(connection, message, options);
}

bool takes_at_once(const Session &session, const MessageParts &message, const SubscriptionOptions &options)
{
    return is_there(session) && !session.connection->is_blocked && !session.told_full &&
           session.deliveries.stored().count < std::min(session.connection->receive_maximum, kInFlightMost) &&
           is_small_enough(*session.connection, message, options);
}

// Why a member cannot keep a message. With several members, what stands last is what becomes of the message.
enum class Obstacle : uint8_t {
    None,
    Away,     // and nothing is kept for it
    TooLarge, // for its client's packets
    Full,     // its queue
};

bool has_room(const Session &session, const MessageParts &message, const SubscriptionOptions &options)
{
    const size_t identifier = options.identifier != 0 ? sizeof options.identifier : 0;
    return session.deliveries.has_room(std::min(options.qos, message.qos),
                                       sizeof(Delivery) + identifier + size_of_message(message));
}

Obstacle obstacle_of(Session &session, const MessageParts &message, const SubscriptionOptions &options)
{
    if (is_there(session)) {
        if (!is_small_enough(*session.connection, message, options))
            return Obstacle::TooLarge;
    } else if (std::min(options.qos, message.qos) == 0 || !session.is_kept()) {
        return Obstacle::Away;
    }
    if (has_room(session, message, options) || (drop_expired(session) && has_room(session, message, options)))
        return Obstacle::None;
    return Obstacle::Full;
}

class Route {
public:
    Route(Engine &engine, Draft &draft) noexcept
        : engine_(engine), draft_(draft), message_(draft.parts()), forwarder_(engine, draft)
    {
    }

    void plain(uint64_t number, const SubscriptionOptions &options) NO_LOCK_ANALYSIS
    {
        if (options.no_local && number == message_.sender)
            return; // [MQTT-3.8.3-3]
        if (Session *const session = engine_.state.sessions.find(number))
            give(*session, options);
    }

    void shared(SharedGroup &group) NO_LOCK_ANALYSIS
    {
        const Subscriber *chosen = group.next([this](uint64_t number, const SubscriptionOptions &options) {
            const Session *const session = engine_.state.sessions.find(number);
            return session && takes_at_once(*session, message_, options);
        });
        Obstacle          last   = Obstacle::Away;
        if (!chosen)
            chosen = group.next([this, &last](uint64_t number, const SubscriptionOptions &options) {
                const Obstacle obstacle = obstacle_for(number, options);
                last                    = std::max(last, obstacle);
                return obstacle == Obstacle::None;
            });
        if (chosen)
            give(*engine_.state.sessions.find(chosen->session), chosen->options);
        else
            give_to_nobody(group, last);
    }

    const Routed &routed() const { return routed_; }

private:
    Obstacle obstacle_for(uint64_t number, const SubscriptionOptions &options) const
    {
        Session *const session = engine_.state.sessions.find(number);
        return session ? obstacle_of(*session, message_, options) : Obstacle::Away;
    }
    // As a plain subscription would: what is too large, or at QoS 0, counts as delivered.
    void give_to_nobody(const SharedGroup &group, Obstacle why)
    {
        ++routed_.receivers;
        if (why == Obstacle::TooLarge)
            stats::count(stats::Counter::drop_too_big);
        if (why != Obstacle::Full)
            return;
        stats::count(stats::Counter::drop_queue_full);
        bool is_refused = false;
        for (const Subscriber &member : group.members())
            if (obstacle_for(member.session, member.options) == Obstacle::Full) {
                log_full(*engine_.state.sessions.find(member.session));
                is_refused |= std::min(member.options.qos, message_.qos) > 0;
            }
        routed_.refused += is_refused;
    }
    void give(Session &session, const SubscriptionOptions &options) REQUIRES(engine_mutex)
    {
        const bool retain = message_.retain && options.retain_as_published;
        ++routed_.receivers;
        if (!forwarder_.give(session, options, retain) && !queue(session, options, retain))
            ++routed_.refused;
    }
    bool queue(Session &session, const SubscriptionOptions &options, bool retain) REQUIRES(engine_mutex)
    {
        if (draft_.message())
            return deliver(engine_, session, draft_.message(), options, retain);
        stats::count(stats::Counter::drop_queue_full); // without memory
        return message_.qos == 0;
    }

    Engine             &engine_;
    Draft              &draft_;
    const MessageParts &message_;
    Forwarder           forwarder_;
    Routed              routed_;
};

} // namespace

bool deliver(Engine &engine, Session &session, const MessageRef &message, const SubscriptionOptions &options,
             bool retain) noexcept
{
    const uint8_t                   qos = std::min(options.qos, message->qos());
    const std::span<const uint32_t> identifiers(&options.identifier, options.identifier != 0 ? 1 : 0);
    Offered                         offered = session.deliveries.offer(message, qos, retain, identifiers);
    if ((offered == Offered::TooMany || offered == Offered::TooManyBytes) && drop_expired(session))
        offered = session.deliveries.offer(message, qos, retain, identifiers);
    if (offered == Offered::Queued) {
        if (!session.connection)
            stats::count(stats::Counter::offline_msg);
        else
            list_for_flush(engine, *session.connection);
        return true;
    }
    if (!is_lost(offered, qos))
        return true;
    if (offered == Offered::TooMany || offered == Offered::TooManyBytes)
        note_full(session);
    else
        stats::count(stats::Counter::drop_queue_full);
    return qos == 0; // which may be lost
}

Routed route(Engine &engine, Draft &draft) noexcept
{
    Route sink(engine, draft);
    engine.state.subscriptions.match(draft.parts().topic, sink);
    return sink.routed();
}

} // namespace tarn::standard
