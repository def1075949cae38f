// subscribe.cpp - SUBSCRIBE and UNSUBSCRIBE (3.8 to 3.11), and the retained messages that a subscription begins with.
//
// The host is asked about all filters first. Then they are subscribed to, a few at a time, so that a long list keeps
// nobody waiting; with the last of them the answer is queued, and behind it the retained messages.
#include "../api/api.hpp"
#include "c_text.h"
#include "engine.h"
#include "state/filter_match.h"

namespace tarn::standard {

using codec::standard::Subscribe;
using codec::standard::SubscriptionAck;
using codec::standard::Unsubscribe;
using codec::standard::Verdict;

namespace {

using Entry = codec::standard::Subscription;

constexpr size_t kAtOnce   = 64;     // filters under one hold of the mutex
constexpr size_t kLookedAt = 10'000; // filters of one packet that the host is asked about, or more if it allows more

struct Wanted {
    Reason   reason;
    bool     gets_retained;
    uint64_t after; // the latest message when it was subscribed to: later ones come live
};

// A bridge at 3.1.1 has no options, and what it sends must not come back to it.
SubscriptionOptions options_of(const Connection &connection, const Subscribe &subscribe, const Entry &entry)
{
    return {.identifier          = subscribe.properties.subscription_identifier.value_or(0),
            .qos                 = entry.qos,
            .retain_handling     = entry.retain_handling,
            .no_local            = entry.no_local || connection.is_bridge,
            .retain_as_published = entry.retain_as_published || connection.is_bridge};
}

bool is_allowed(Connection &connection, std::string_view filter)
{
    const CText text(filter);
    return text && api::allows(*connection.record, text.get(), BROKER_ACL_SUBSCRIBE);
}

// So many in one packet that no session may have them are not looked at.
Reason judge(Connection &connection, std::string_view filter, size_t position)
{
    if (position >= std::max(connection.most_subscriptions, kLookedAt))
        return Reason::QuotaExceeded;
    return is_allowed(connection, filter) ? Reason::Success : Reason::NotAuthorized;
}

bool exceeds(const Engine &engine, const Session &session, std::string_view filter) REQUIRES(engine_mutex)
{
    const Limits &limits = engine.state.limits;
    return engine.state.subscriptions.count_of(session.number) >= limits.subscriptions ||
           (has_wildcard(filter) && session.wildcard_subscriptions >= limits.wildcard_subscriptions);
}

Reason add(Engine &engine, Session &session, std::string_view filter, const SubscriptionOptions &options, bool &is_new)
    REQUIRES(engine_mutex)
{
    SubscriptionTree                   &tree  = engine.state.subscriptions;
    const standard::Subscription *const there = tree.find(session.number, filter);
    is_new                                    = !there;
    if (there && there->options() == options)
        return static_cast<Reason>(options.qos); // there is nothing to record
    if (is_new && exceeds(engine, session, filter))
        return Reason::QuotaExceeded;
    const SubscriptionTree::Added added = tree.add(session.number, filter, options);
    if (added == SubscriptionTree::Added::TooDeep || added == SubscriptionTree::Added::NoMemory)
        return Reason::QuotaExceeded;
    if (session.is_kept() && !engine.recorder.subscribed(session, filter, options)) {
        if (is_new)
            (void)tree.remove(session.number, filter);
        return Reason::ImplementationSpecificError;
    }
    session.wildcard_subscriptions += is_new && has_wildcard(filter);
    return static_cast<Reason>(options.qos);
}

// Shared subscriptions begin with none (5.0 4.8.2).
bool wants_retained(const Entry &entry, bool is_new)
{
    return !entry.filter.is_shared() && (entry.retain_handling == 0 || (entry.retain_handling == 1 && is_new));
}

void subscribe_one(Engine &engine, Connection &connection, const Subscribe &subscribe, const Entry &entry,
                   Wanted &wanted) REQUIRES(engine_mutex)
{
    if (is_failure(wanted.reason))
        return;
    bool is_new   = false;
    wanted.reason = add(engine, *connection.session, entry.text, options_of(connection, subscribe, entry), is_new);
    wanted.gets_retained = !is_failure(wanted.reason) && wants_retained(entry, is_new);
    wanted.after         = engine.state.last_message;
}

void answer(Engine &engine, Connection &connection, PacketType type, uint16_t packet_id,
            std::span<const Reason> reasons) REQUIRES(engine_mutex)
{
    const uint64_t journaled = connection.session->is_kept() ? engine.recorder.position() : 0;
    send(engine, connection, SubscriptionAck{type, packet_id, reasons, {}}, journaled);
}

// As many as go at once are queued here, before any later message; the others go as the client takes them.
void want_retained(Engine &engine, Connection &connection, const Subscribe &subscribe, const Wanted *wanted)
    REQUIRES(engine_mutex)
{
    Session &session = *connection.session;
    for (const Entry &entry : subscribe.subscriptions) {
        const Wanted &one = *wanted++;
        if (one.gets_retained &&
            !session.retained.add(entry.filter.filter, options_of(connection, subscribe, entry), one.after))
            return fail(engine, connection);
    }
    give_retained(engine, session);
}

// Also answers. False: the session is not this connection's any more.
bool subscribe_all(Connection &connection, const Subscribe &subscribe, Wanted *wanted, Reason *reasons)
{
    const size_t count = subscribe.subscriptions.size();
    auto         entry = subscribe.subscriptions.begin();
    for (size_t i = 0; i < count;) {
        Turn turn;
        if (!turn || !connection.session)
            return false;
        for (const size_t end = std::min(i + kAtOnce, count); i < end; ++i, ++entry) {
            subscribe_one(*turn, connection, subscribe, *entry, wanted[i]);
            reasons[i] = wanted[i].reason;
        }
        if (i == count) { // without letting the mutex go, so that no message comes in between
            answer(*turn, connection, SUBACK, subscribe.packet_id, {reasons, count});
            want_retained(*turn, connection, subscribe, wanted);
        }
    }
    return true;
}

void tell(Connection &connection, uint32_t kind, std::string_view filter, int32_t qos)
{
    if (const CText text(filter); text)
        api::tell(*connection.record, kind, text.get(), qos);
}

void refuse_for_memory(Connection &connection)
{
    refuse_packet(connection, {Reason::QuotaExceeded, "there was no memory for its filters"});
}

} // namespace

void handle_subscribe(const Incoming &incoming) noexcept
{
    Connection &connection = incoming.connection;
    Subscribe   subscribe;
    if (const Verdict verdict = decode_subscribe(incoming.packet, connection.level, subscribe); !verdict.ok())
        return refuse_packet(connection, verdict);
    const size_t  count   = subscribe.subscriptions.size();
    owned<Wanted> wanted  = allocate<Wanted>(count);
    owned<Reason> reasons = allocate<Reason>(count);
    if (!wanted || !reasons)
        return refuse_for_memory(connection);
    size_t i = 0;
    for (const Entry &entry : subscribe.subscriptions)
        wanted[i++] = {judge(connection, entry.text, i), false, 0};
    if (!subscribe_all(connection, subscribe, wanted.get(), reasons.get()))
        return;
    i = 0;
    for (const Entry &entry : subscribe.subscriptions)
        if (!is_failure(reasons[i++]))
            tell(connection, BROKER_EVENT_SUBSCRIBE, entry.text, entry.qos);
}

namespace {

Reason remove(Engine &engine, Session &session, const codec::standard::UnsubscribedFilter &entry) REQUIRES(engine_mutex)
{
    const std::string_view filter = entry.text;
    if (!engine.state.subscriptions.remove(session.number, filter))
        return Reason::NoSubscriptionExisted;
    session.wildcard_subscriptions -= has_wildcard(filter);
    if (!entry.filter.is_shared())
        session.retained.remove(filter); // [MQTT-3.10.4-2]
    if (session.is_kept() && !engine.recorder.unsubscribed(session, filter))
        return Reason::ImplementationSpecificError;
    return Reason::Success;
}

// Also answers. False: the session is not this connection's any more.
bool unsubscribe_all(Connection &connection, const Unsubscribe &unsubscribe, Reason *reasons)
{
    const size_t count = unsubscribe.filters.size();
    auto         entry = unsubscribe.filters.begin();
    for (size_t i = 0; i < count;) {
        Turn turn;
        if (!turn || !connection.session)
            return false;
        for (const size_t end = std::min(i + kAtOnce, count); i < end; ++i, ++entry)
            reasons[i] = remove(*turn, *connection.session, *entry);
        if (i == count)
            answer(*turn, connection, UNSUBACK, unsubscribe.packet_id, {reasons, count});
    }
    return true;
}

} // namespace

void handle_unsubscribe(const Incoming &incoming) noexcept
{
    Connection &connection = incoming.connection;
    Unsubscribe unsubscribe;
    if (const Verdict verdict = decode_unsubscribe(incoming.packet, connection.level, unsubscribe); !verdict.ok())
        return refuse_packet(connection, verdict);
    const size_t  count   = unsubscribe.filters.size();
    owned<Reason> reasons = allocate<Reason>(count);
    if (!reasons)
        return refuse_for_memory(connection);
    if (!unsubscribe_all(connection, unsubscribe, reasons.get()))
        return;
    size_t i = 0;
    for (const codec::standard::UnsubscribedFilter &entry : unsubscribe.filters)
        if (reasons[i++] == Reason::Success)
            tell(connection, BROKER_EVENT_UNSUBSCRIBE, entry.text, 0);
}

} // namespace tarn::standard
