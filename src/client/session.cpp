// session.cpp - the session record embedded in a client's: its lock, and how much of its lists was written. It is 149
// KB, nearly all of it lists that few clients fill.
#include "../base/clear.h"
#include "client_internal.h"

#include <cstring>

namespace tarn::client {
namespace {

void raise(std::atomic<int32_t> &high, int32_t count, int32_t limit)
{
    if (count > limit)
        count = limit;
    int32_t seen = high.load(std::memory_order_relaxed);
    while (count > seen && !high.compare_exchange_weak(seen, count, std::memory_order_relaxed))
        ;
}

// Counts are looked at without the lock.
void reset_count(int32_t &count)
{
    if (SharedRef field = shared(count); field != 0) // or a page of its own would be spent on it
        field = 0;
}

} // namespace

void empty_session(mqtt_client_t &client) noexcept
{
    persist_session_t &session = client.session;
    ScopedLock         lock(session_mutex(client));
    session_written(client, session.sub_count, session.msg_count);
    clear_written(session.client_id, sizeof session.client_id);
    clear_written(&session.will_flag, sizeof session.will_flag);
    empty_session_lists(client);
}

void forget_written(Side &side) noexcept
{
    side.subs_high.store(0, std::memory_order_relaxed);
    side.msgs_high.store(0, std::memory_order_relaxed);
}

} // namespace tarn::client

using namespace tarn::client;

tarn::Mutex &tarn::session_mutex(const mqtt_client_t &client) noexcept
{
    return guards_of(client).session_mutex;
}

void tarn::session_written(mqtt_client_t &client, int32_t sub_count, int32_t msg_count) noexcept
{
    Side *const side = side_of(&client);
    if (!side)
        return;
    raise(side->subs_high, sub_count, PERSIST_SUBS_MAX);
    raise(side->msgs_high, msg_count, PERSIST_MSGS_MAX);
}

void tarn::empty_session_lists(mqtt_client_t &client) noexcept
{
    reset_count(client.session.sub_count);
    reset_count(client.session.msg_count);
}

void tarn::clear_session(mqtt_client_t &client) noexcept
{
    persist_session_t &session = client.session;
    Side *const        side    = side_of(&client);
    if (!side) {
        memset(&session, 0, sizeof session);
        return;
    }
    session_written(client, session.sub_count, session.msg_count);
    const auto subs = static_cast<size_t>(side->subs_high.exchange(0, std::memory_order_relaxed));
    const auto msgs = static_cast<size_t>(side->msgs_high.exchange(0, std::memory_order_relaxed));
    clear_written(&session, offsetof(persist_session_t, subs)); // mostly a will, which few clients have
    memset(session.subs, 0, subs * sizeof session.subs[0]);
    reset_count(session.sub_count);
    memset(session.msgs, 0, msgs * sizeof session.msgs[0]);
    reset_count(session.msg_count);
}
