// route.cpp - who gets a message: each subscription that matches, and of each shared group one member (4.8.2).
//
// A member of a group gets the message if it can take it at once; if none can, one that can keep it.
#include "../base/clock.h"
#include "../log/log.h"
#include "../stats/stats.hpp"
#include "forward.h"

namespace tarn::standard {
namespace {

void note_full(Session &session)
{
    stats::count(stats::Counter::drop_queue_full);
    if (std::exchange(session.told_full, true))
        return;
    LOG_WARN("[standard] the queue of client %.*s is full: messages for it are refused",
             static_cast<int>(std::min<size_t>(session.text.size(), CLIENT_ID_CHARS)), session.text.data());
}

bool is_lost(Offered offered, uint8_t qos)
{
    return offered != Offered::Queued && (qos > 0 || offered != Offered::NotConnected);
}

bool is_small_enough(const Connection &connection, const MessageParts &message)
{
    const size_t size = kHeadMost + message.topic.size() + message.payload.size() +
                        (connection.speaks_v5() ? message.properties.size() : 0);
    return size <= connection.maximum_packet_size;
}

bool takes_at_once(const Session &session, const MessageParts &message)
{
    return session.connection && !session.connection->is_blocked && !session.told_full &&
           session.deliveries.stored().count < std::min(session.connection->receive_maximum, kInFlightMost) &&
           is_small_enough(*session.connection, message);
}

bool can_keep(const Session &session, const MessageParts &message, uint8_t qos, const DeliveryBounds &bounds)
{
    if (session.connection && !is_small_enough(*session.connection, message))
        return false;
    const Amount &held  = qos > 0 ? session.deliveries.stored() : session.deliveries.waiting_qos0();
    const Amount &bound = qos > 0 ? bounds.stored : bounds.qos0;
    return (qos > 0 || session.connection) && held.count < bound.count &&
           held.bytes + size_of_message(message) <= bound.bytes;
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
        const Subscriber *chosen = group.next([this](uint64_t number, const SubscriptionOptions & /*options*/) {
            const Session *const session = engine_.state.sessions.find(number);
            return session && takes_at_once(*session, message_);
        });
        if (!chosen)
            chosen = group.next([this](uint64_t number, const SubscriptionOptions &options) {
                const Session *const session = engine_.state.sessions.find(number);
                return session &&
                       can_keep(*session, message_, std::min(options.qos, message_.qos), engine_.state.bounds());
            });
        if (chosen)
            give(*engine_.state.sessions.find(chosen->session), chosen->options);
        else if (message_.qos > 0)
            refuse();
    }

    const Routed &routed() const { return routed_; }

private:
    void refuse()
    {
        ++routed_.receivers;
        ++routed_.refused;
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
