// send.cpp - packets into outboxes, and outboxes into sockets.
//
// What a round of the network layer makes is flushed at its end: many packets to a client in one write. A session's
// deliveries are written into the outbox only as far as that stays small, so a client that reads slowly holds up its own
// session and nobody else.
#include "../log/log.h"
#include "../stats/stats.hpp"
#include "../base/clock.h"
#include "engine.h"
#include "state/session.h"

namespace tarn::standard {

using codec::standard::Bytes;
using codec::standard::Publish;

namespace {

constexpr size_t kAnswersMost = size_t{1} << 20; // bytes that wait for a client that sends and does not read
constexpr int    kFlushes     = 4;               // of a full outbox, before others have their turn

constinit thread_local bool t_in_round = false;
constinit thread_local bool t_flushes  = false; // the end of this round: something was listed in it

// ---- counters, which all threads share: many at once cost as much as one

// Of packets that came in this round.
struct Received {
    uint32_t packets   = 0;
    uint32_t by_qos[3] = {}; // of these, PUBLISH
};
constinit thread_local Received t_received;

void add(Shared<uint64_t> &counter, uint32_t packets)
{
    if (packets > 0)
        bump(counter, packets);
}

void count_all_received()
{
    const Received received = std::exchange(t_received, {});
    add(g_mqtt_stats.pkt_rx, received.packets);
    add(g_mqtt_stats.period_rx, received.packets);
    add(g_mqtt_stats.qos0, received.by_qos[0]);
    add(g_mqtt_stats.qos1, received.by_qos[1]);
    add(g_mqtt_stats.qos2, received.by_qos[2]);
}

void count_sent(Engine &engine) REQUIRES(engine_mutex)
{
    if (engine.sent == 0)
        return;
    bump(g_mqtt_stats.pkt_tx, engine.sent);
    bump(g_mqtt_stats.period_tx, engine.sent);
    engine.sent = 0;
}

// ---- deliveries as packets

// Whatever subscription it is for. The properties that the message came with go as they were stored.
Publish publish_of(const Connection &connection, const MessageParts &message, OutgoingAliases::Found &alias)
{
    Publish publish;
    publish.topic   = message.topic;
    publish.payload = message.payload;
    if (!connection.speaks_v5())
        return publish;
    publish.stored_properties = message.properties;
    alias                     = connection.outgoing_aliases.find(publish.topic);
    if (alias.alias != 0)
        publish.properties.topic_alias = alias.alias;
    if (alias.alias != 0 && !alias.is_new)
        publish.topic = {};
    return publish;
}

Publish publish_of(const Connection &connection, const Outgoing &outgoing, OutgoingAliases::Found &alias)
{
    Publish publish   = publish_of(connection, outgoing.message->parts(), alias);
    publish.dup       = outgoing.dup;
    publish.retain    = outgoing.retain;
    publish.qos       = outgoing.qos;
    publish.packet_id = outgoing.packet_id;
    if (connection.speaks_v5()) {
        publish.properties.message_expiry           = outgoing.expiry_s;
        publish.properties.subscription_identifiers = outgoing.subscription_identifiers;
    }
    return publish;
}

class ClientLimits final : public ReceiverLimits {
public:
    explicit ClientLimits(const Connection &connection) noexcept : connection_(connection) {}

    uint16_t receive_maximum() const override { return std::min(connection_.receive_maximum, kInFlightMost); }
    bool     takes(const Outgoing &outgoing) const override
    {
        if (connection_.maximum_packet_size == codec::standard::kPacketMax)
            return true;
        OutgoingAliases::Found alias;
        Publish                publish = publish_of(connection_, outgoing, alias);
        if (publish.qos > 0 && publish.packet_id == 0)
            publish.packet_id = 1;
        return codec::standard::size_of_head(publish, connection_.receiver()) != 0;
    }

private:
    const Connection &connection_;
};

void write_publish(Engine &engine, Connection &connection, const Outgoing &outgoing, uint64_t journaled)
    REQUIRES(engine_mutex)
{
    OutgoingAliases::Found alias;
    const Publish          publish = publish_of(connection, outgoing, alias);
    const size_t           size    = codec::standard::size_of_head(publish, connection.receiver());
    if (size == 0 || !engine.scratch.reserve(size))
        return fail(engine, connection); // it counts as sent, and goes again
    const std::span<uint8_t> room(engine.scratch.data(), size);
    (void)codec::standard::encode_head(publish, connection.receiver(), room);
    if (alias.is_new)
        connection.outgoing_aliases.remember(outgoing.message->topic());
    const Message &message = *outgoing.message;
    send_bytes(engine, connection, room, journaled,
               {outgoing.message, connection.speaks_v5() ? message.properties_and_payload() : message.payload()});
}

void write_delivery(Engine &engine, Connection &connection, const Outgoing &outgoing) REQUIRES(engine_mutex)
{
    // At QoS 2 the client may hold an identifier only if a file knows that it does (deliveries.h).
    const bool     waits     = outgoing.kind == Outgoing::Kind::Pubrel || outgoing.qos == 2;
    const uint64_t journaled = waits && connection.session->is_kept() ? engine.recorder.position() : 0;
    if (outgoing.kind == Outgoing::Kind::Publish)
        write_publish(engine, connection, outgoing, journaled);
    else
        send_ack(engine, connection, PUBREL, outgoing.packet_id, Reason::Success, journaled);
}

// A line tells of a full queue again when it was half empty meanwhile.
void note_room(const Engine &engine, Session &session)
{
    const DeliveryBounds bounds = engine.state.bounds();
    if (session.deliveries.stored().count <= bounds.stored.count / 2 &&
        session.deliveries.stored().bytes <= bounds.stored.bytes / 2 &&
        session.deliveries.waiting_qos0().count <= bounds.qos0.count / 2)
        session.told_full = false;
}

// As many of its session's deliveries as the outbox is to hold.
void fill(Engine &engine, Connection &connection) REQUIRES(engine_mutex)
{
    const ClientLimits limits(connection);
    const uint64_t     now_ms  = wall_ms();
    Session           &session = *connection.session;
    for (bool has_given = false; !connection.is_broken && connection.outbox.bytes() < kOutboxMost;) {
        const Outgoing outgoing = session.deliveries.next(now_ms, limits);
        if (outgoing.kind != Outgoing::Kind::Nothing) {
            write_delivery(engine, connection, outgoing);
            continue;
        }
        note_room(engine, session);
        if (has_given || !session.retained.first())
            break;
        give_retained(engine, session);
        has_given = true;
    }
    if (session.retained.first())
        list_for_later(engine, connection);
    count_drops(session);
}

// ---- outboxes into sockets

net::Sent send_pieces(void *to, const net::OutPacket *pieces, int count) noexcept
{
    const net::Connection id = static_cast<Connection *>(to)->id;
    return net::send_packets(id.handle, pieces, count, id.generation);
}

void wait_for_journal(Engine &engine, Connection &connection) REQUIRES(engine_mutex)
{
    if (!connection.waits_for_journal) {
        connection.waits_for_journal = true;
        connection.next_waiting      = std::exchange(engine.waiting, &connection);
    }
    watch_journal(engine);
}

// True when the outbox was emptied, so that there may be more to put into it.
bool send_outbox(Engine &engine, Connection &connection) REQUIRES(engine_mutex)
{
    const bool was_full = connection.outbox.bytes() >= kOutboxMost;
    switch (connection.outbox.flush(send_pieces, &connection, engine.synced)) {
    case Outbox::Left::Nothing:
        return was_full;
    case Outbox::Left::Waits:
        wait_for_journal(engine, connection);
        return !connection.waits_for_journal;
    case Outbox::Left::Blocked:
        connection.is_blocked = true;
        return false;
    case Outbox::Left::Broken:
        fail(engine, connection);
        return false;
    }
    return false;
}

// Most messages come the short way, and then their session has nothing to fill in.
bool needs_filling(const Connection &connection)
{
    return connection.session && connection.stage.load() == Stage::Connected && connection.session->wants_filling();
}

void flush(Engine &engine, Connection &connection) REQUIRES(engine_mutex)
{
    for (int i = 0; i < kFlushes; ++i) {
        if (needs_filling(connection))
            fill(engine, connection);
        count_sent(engine);
        if (connection.is_blocked || !send_outbox(engine, connection))
            return;
    }
    list_for_later(engine, connection);
}

void fail_for_answers(Engine &engine, Connection &connection) REQUIRES(engine_mutex)
{
    stats::count(stats::Counter::drop_send_failed);
    LOG_INFO("[standard] connection %u ends: it does not read its answers, or there is no memory for them",
             connection.id.handle);
    fail(engine, connection);
}

} // namespace

bool fits(const Connection &connection, const MessageParts &message, const SubscriptionOptions &options) noexcept
{
    OutgoingAliases::Found alias;
    Publish                publish = publish_of(connection, message, alias);
    publish.qos                    = std::min(options.qos, message.qos);
    publish.packet_id              = publish.qos > 0 ? 1 : 0; // any has two bytes
    if (connection.speaks_v5() && message.expires_ms != 0)
        publish.properties.message_expiry = 1; // any has four
    if (connection.speaks_v5() && options.identifier != 0)
        publish.properties.subscription_identifiers = {&options.identifier, 1};
    return codec::standard::size_of_head(publish, connection.receiver()) != 0;
}

// What waits for a client that sends and does not read has a bound; its deliveries have another one.
void send_bytes(Engine &engine, Connection &connection, Bytes packet, uint64_t journaled,
                const Outbox::Tail &tail) noexcept
{
    const Stage stage = connection.stage.load();
    if ((stage != Stage::Connected && stage != Stage::Opened) || connection.is_broken)
        return;
    ++engine.sent;
    if (connection.outbox.copied_bytes() < kAnswersMost && connection.outbox.add(packet, journaled, tail))
        list_for_flush(engine, connection);
    else
        fail_for_answers(engine, connection);
}

void send_ack(Engine &engine, Connection &connection, PacketType type, uint16_t packet_id, Reason reason,
              uint64_t journaled) noexcept
{
    const codec::standard::ShortAck packet(type, packet_id); // the common case: four bytes
    if (reason == Reason::Success && connection.maximum_packet_size >= sizeof packet.bytes)
        send_bytes(engine, connection, packet.bytes, journaled);
    else
        send(engine, connection, codec::standard::Ack{type, packet_id, reason, {}}, journaled);
}

void count_drops(Session &session) noexcept
{
    const Drops drops = session.deliveries.take_drops();
    for (uint64_t i = 0; i < drops.too_large; ++i)
        stats::count(stats::Counter::drop_too_big);
    for (uint64_t i = 0; i < drops.disconnected; ++i)
        stats::count(stats::Counter::drop_offline);
}

void send_what_may_leave(Engine &engine, Connection &connection) noexcept
{
    count_sent(engine);
    if (!connection.is_blocked)
        (void)connection.outbox.flush(send_pieces, &connection, engine.synced);
}

void fail(Engine &engine, Connection &connection) noexcept
{
    connection.is_broken = true;
    list_for_flush(engine, connection);
}

void list_for_flush(Engine &engine, Connection &connection) noexcept
{
    if (connection.is_listed)
        return;
    connection.is_listed   = true;
    connection.next_listed = nullptr;
    if (engine.listed)
        engine.last_listed->next_listed = &connection;
    else
        engine.listed = &connection;
    engine.last_listed = &connection;
}

void list_for_later(Engine &engine, Connection &connection) noexcept
{
    if (connection.is_for_later)
        return;
    connection.is_for_later = true;
    connection.next_later   = std::exchange(engine.later, &connection);
}

void list_those_for_later(Engine &engine) noexcept
{
    while (Connection *const connection = engine.later) {
        engine.later             = connection->next_later;
        connection->is_for_later = false;
        list_for_flush(engine, *connection);
    }
}

// In the order of listing: a message leaves before it is acknowledged to its publisher, so it arrives one write earlier.
// While one is flushed it counts as listed: what it is given meanwhile leaves with the rest.
void flush_listed(Engine &engine) noexcept
{
    while (Connection *const connection = engine.listed) {
        engine.listed = connection->next_listed;
        if (!connection->is_broken)
            flush(engine, *connection);
        connection->is_listed = false;
        if (connection->is_broken)
            drop_connection(engine, *connection, WithWill::Yes);
    }
    engine.forwarded_bytes = 0;
}

// ---- the journal is on the disk

namespace {

void list_waiting(Engine &engine) REQUIRES(engine_mutex)
{
    while (Connection *const connection = engine.waiting) {
        engine.waiting                = connection->next_waiting;
        connection->waits_for_journal = false;
        list_for_flush(engine, *connection);
    }
}

void on_journal_saved(persist::SaveWaiter &waiter) noexcept
{
    Turn turn;
    if (!turn)
        return;
    turn->is_waiting = false;
    turn->synced     = std::max(turn->synced, static_cast<Engine::JournalWaiter &>(waiter).position);
    list_waiting(*turn);
}

} // namespace

void watch_journal(Engine &engine) noexcept
{
    if (engine.is_waiting || !engine.recorder.catch_up()) // what waits is not in the journal yet: turn() tries again
        return;
    Engine::JournalWaiter &waiter = engine.journal_waiter;
    waiter.position               = engine.recorder.position();
    waiter.saved                  = on_journal_saved;
    waiter.unsaved.store(1, std::memory_order_relaxed);
    engine.is_waiting = engine.journal.wait(waiter.position, waiter);
    if (!engine.is_waiting)
        return; // without memory: the next turn tries again
    if (waiter.unsaved.fetch_sub(1, std::memory_order_acq_rel) > 1)
        return;
    engine.is_waiting = false; // it is there already
    engine.synced     = std::max(engine.synced, waiter.position);
    list_waiting(engine);
}

// ---- rounds of the network layer

void begin_round() noexcept
{
    t_in_round = true;
    t_flushes  = false; // of a round whose end never came, as the host ended the engine in it
    t_received = {};
}

void end_round() noexcept
{
    t_in_round = false;
    if (t_received.packets > 0)
        count_all_received();
    if (t_flushes)
        const Turn turn;
}

void flush_now_or_with_round(Engine &engine) noexcept
{
    if (t_in_round)
        t_flushes = t_flushes || engine.listed;
    else
        flush_listed(engine);
}

namespace {

// For one, or two: a publisher, for its acknowledgements, and one receiver.
bool is_for_few(const Engine &engine) REQUIRES(engine_mutex)
{
    const Connection *const first = engine.listed;
    return first && (!first->next_listed || !first->next_listed->next_listed);
}

// A connection that turns out to be broken stays listed: what it sent before comes first, and it is dropped at the end.
void flush_but_drop_none(Engine &engine) REQUIRES(engine_mutex)
{
    Connection *next = std::exchange(engine.listed, nullptr);
    while (Connection *const connection = next) {
        next = connection->next_listed;
        if (!connection->is_broken)
            flush(engine, *connection);
        connection->is_listed = false;
        if (connection->is_broken)
            list_for_flush(engine, *connection);
    }
    engine.forwarded_bytes = 0;
}

} // namespace

bool send_in_round() noexcept
{
    Turn turn;
    if (!turn || !is_for_few(*turn))
        return false;
    count_all_received();
    flush_but_drop_none(*turn);
    return true;
}

void count_received() noexcept
{
    ++t_received.packets;
    if (!t_in_round)
        count_all_received();
}

void count_received_publish(uint8_t qos) noexcept
{
    if (t_in_round)
        ++t_received.by_qos[qos];
    else
        stats::count_qos(qos);
}

} // namespace tarn::standard
