// end.cpp - the end of a connection and of a session, and what is due by the clock.
#include "../api/api.hpp"
#include "../base/clock.h"
#include "../log/log.h"
#include "../stats/stats.hpp"
#include "engine.h"

namespace tarn::standard {
namespace {

constexpr uint64_t kNever       = UINT64_MAX;
constexpr uint32_t kSlowest     = 64;   // bytes a ms: a long packet may take so long
constexpr int      kEndsMost    = 1000; // sessions that one turn ends
constexpr size_t   kExpiredMost = 100;  // retained messages that one turn discards

// Without memory the next turn tries again.
void close_soon(Engine &engine, Connection &connection) REQUIRES(engine_mutex)
{
    if (engine.ending.push(connection.id))
        return;
    connection.due_ms = 0;
    (void)engine.silent.add(connection); // which has room for it: it was there
}

bool is_ended(const Connection &connection)
{
    const Stage stage = connection.stage.load();
    return stage == Stage::Closed || stage == Stage::Ending;
}

uint64_t end_of(const Session &session)
{
    return session.expiry_s == kForever_s ? kNever : session.away_ms + uint64_t{session.expiry_s} * 1000;
}

uint64_t will_due(const Session &session)
{
    return session.will.message ? session.away_ms + uint64_t{session.will.delay_s} * 1000 : kNever;
}

// The session of a connection that ends.
void go_away(Engine &engine, Session &session, WithWill will) REQUIRES(engine_mutex)
{
    session.connection = nullptr;
    session.deliveries.absent();
    count_drops(session);
    session.away_ms = wall_ms();
    if (will == WithWill::No)
        session.will = {};
    if (!session.is_kept())
        return end_session(engine, session);
    (void)engine.recorder.session(session);
    if (will_due(session) <= session.away_ms)
        publish_will(engine, session);
    set_due(engine, session);
}

} // namespace

// ---- connections

void end_connection(Engine &engine, Connection &connection, Reason reason, WithWill will) noexcept
{
    const Stage stage = connection.stage.load();
    connection.outbox.drop_waiting(engine.synced); // the word would stand behind it, and is more to the client
    if (stage == Stage::Connected && connection.speaks_v5())
        send(engine, connection, codec::standard::Disconnect{reason, {}});
    drop_connection(engine, connection, will);
}

void drop_connection(Engine &engine, Connection &connection, WithWill will) noexcept
{
    if (!is_ended(connection)) {
        send_what_may_leave(engine, connection);
        leave(engine, connection, will);
        close_soon(engine, connection);
    }
}

void leave(Engine &engine, Connection &connection, WithWill will) noexcept
{
    if (is_ended(connection))
        return;
    connection.stage.store(Stage::Ending);
    engine.silent.remove(connection);
    if (Session *const session = std::exchange(connection.session, nullptr))
        go_away(engine, *session, will);
}

// ---- sessions

void end_session(Engine &engine, Session &session) noexcept
{
    publish_will(engine, session);
    if (session.is_known_to_files)
        (void)engine.recorder.session_is_gone(session);
    engine.state.subscriptions.remove_all_of(session.number);
    engine.state.sessions.destroy(session);
}

void set_due(Engine &engine, Session &session) noexcept
{
    const uint64_t due_ms = std::min(will_due(session), end_of(session));
    if (due_ms == kNever)
        engine.state.sessions.set_nothing_due(session);
    else
        engine.state.sessions.set_due(session, due_ms);
}

// ---- by the clock

namespace {

void end_silent(Engine &engine, uint64_t now_ms) REQUIRES(engine_mutex)
{
    while (Connection *const connection = engine.silent.first()) {
        if (connection->due_ms > now_ms)
            return;
        engine.silent.remove(*connection);
        if (connection->stage.load() == Stage::Ending) {
            close_soon(engine, *connection);
            return;
        }
        connection->due_ms = connection->last_packet_ms + connection->silence_ms + connection->arriving / kSlowest;
        if (connection->due_ms > now_ms) {
            (void)engine.silent.add(*connection);
            continue;
        }
        stats::count(stats::Counter::timeout);
        LOG_INFO("[standard] connection %u ends: it was silent for %u ms", connection->id.handle,
                 connection->silence_ms);
        end_connection(engine, *connection, Reason::KeepAliveTimeout);
    }
}

void end_due_sessions(Engine &engine, uint64_t now_ms) REQUIRES(engine_mutex)
{
    for (int i = 0; i < kEndsMost; ++i) {
        Session *const session = engine.state.sessions.first_due(now_ms);
        if (!session)
            return;
        if (end_of(*session) <= now_ms) {
            end_session(engine, *session);
            continue;
        }
        publish_will(engine, *session);
        set_due(engine, *session);
    }
}

} // namespace

void turn() noexcept
{
    Turn turn;
    if (!turn)
        return;
    const uint64_t now_ms = wall_ms();
    end_silent(*turn, mono_ms());
    end_due_sessions(*turn, now_ms);
    (void)turn->state.retained.discard_expired(now_ms, kExpiredMost);
    (void)turn->recorder.catch_up();
    turn->checkpointer.step();
    turn->retained_us = std::min(turn->retained_us + Engine::kRetained_us, Engine::kRetained_us);
    list_those_for_later(*turn);
    if (turn->waiting)
        watch_journal(*turn);
}

// ---- what happens at the end of each entry

Turn::Turn() noexcept : engine_(nullptr)
{
    engine_mutex.lock();
    engine_ = running_engine();
}

namespace {

void report_wills(ToldWill *wills, broker_t *broker)
{
    while (ToldWill *const told = wills) {
        wills = told->next;
        if (broker) {
            const std::string_view topic = told->message->topic();
            const owned<char>      text  = allocate<char>(topic.size() + 1);
            if (text) {
                text[topic.copy(text.get(), topic.size())] = '\0';
                api::tell(*broker, told->client.text, BROKER_EVENT_WILL, text.get(), told->message->qos());
            }
        }
        destroy_object(told);
    }
}

} // namespace

Turn::~Turn()
{
    if (!engine_) {
        engine_mutex.unlock();
        return;
    }
    flush_now_or_with_round(*engine_);
    if (engine_->ending.empty() && !engine_->told_wills) { // as for nearly each packet
        engine_mutex.unlock();
        return;
    }
    const bool                 is_one = engine_->ending.size() == 1; // as a rule; then the array's memory stays
    const net::Connection      one    = is_one ? engine_->ending[0] : net::Connection{};
    GrowArray<net::Connection> many;
    if (is_one)
        engine_->ending.clear();
    else
        many.swap(engine_->ending);
    ToldWill *const wills  = std::exchange(engine_->told_wills, nullptr);
    broker_t *const broker = engine_->broker;
    engine_mutex.unlock();
    if (is_one)
        net::close_connection(one.handle, one.generation);
    for (const net::Connection &connection : many)
        net::close_connection(connection.handle, connection.generation);
    report_wills(wills, broker);
}

} // namespace tarn::standard
