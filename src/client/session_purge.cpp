// session_purge.cpp - deletes the saved sessions of records that still wait for their will although the session has
// expired, and keeps count of what of an embedded session record was written.
#include "../base/clock.h"
#include "../persist/persist.hpp"
#include "client_internal.h"

#include <cstring>

namespace tarn::client {
namespace {

struct Expired {
    client_id_text id;
    uint64_t       deadline_s;
};

constexpr int kAtATime = 64; // files are removed without the lock, in portions

bool is_expired(mqtt_client_t &client, uint64_t now_s)
{
    const uint64_t deadline_s = peek(client.session_expiry_deadline);
    return peek_acquire(client.used) && deadline_s != 0 && deadline_s < now_s;
}

int collect(uint64_t now_s, int32_t &place, Expired (&found)[kAtATime])
{
    ScopedLock lock(g_client_mgr.locks[0]);
    int        count = 0;
    while (count < kAtATime) {
        mqtt_client_t *const record = next_flagged(place);
        if (!record)
            break;
        if (!is_expired(*record, now_s))
            continue;
        const client_ref client(record); // deadline and id are one client's
        if (is_expired(*client, now_s))
            found[count++] = {stored_id(*client), peek(client->session_expiry_deadline)};
    }
    return count;
}

void raise(std::atomic<int32_t> &high, int32_t count, int32_t limit)
{
    if (count > limit)
        count = limit;
    int32_t seen = high.load(std::memory_order_relaxed);
    while (count > seen && !high.compare_exchange_weak(seen, count, std::memory_order_relaxed))
        ;
}

void reset_count(int32_t &count)
{
    if (peek(count) != 0) // or a page of its own would be spent on it
        poke(count, 0);
}

} // namespace
} // namespace tarn::client

using namespace tarn;
using namespace tarn::client;

void client_clean_expired_sessions(void)
{
    const auto now_s = static_cast<uint64_t>(wall_s());
    LOG_INFO("[MQTT5] 开始清理过期会话...");
    Expired found[kAtATime];
    int32_t place = 0;
    for (int count = kAtATime; count == kAtATime;) {
        count = collect(now_s, place, found);
        for (int i = 0; i < count; ++i) {
            LOG_INFO("[MQTT5] 清理过期会话: %s (deadline=%llu)", found[i].id.text,
                     static_cast<unsigned long long>(found[i].deadline_s));
            persist::remove_session(found[i].id.text);
        }
    }
    LOG_INFO("[MQTT5] 过期会话清理完成");
}

void tarn::session_written(mqtt_client_t &client, int32_t sub_count, int32_t msg_count) noexcept
{
    Side *const side = side_of(&client);
    if (!side)
        return;
    raise(side->subs_high, sub_count, PERSIST_SUBS_MAX);
    raise(side->msgs_high, msg_count, PERSIST_MSGS_MAX);
}

void tarn::client::empty_session(mqtt_client_t &client) noexcept
{
    persist_session_t &session = client.session;
    ScopedLock         lock(session_lock(client));
    session_written(client, session.sub_count, session.msg_count);
    memset(session.client_id, 0, sizeof session.client_id);
    session.will_flag = 0;
    reset_count(session.sub_count);
    reset_count(session.msg_count);
}

// A session record is 149 KB, nearly all of it lists that few clients fill.
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
    memset(&session, 0, offsetof(persist_session_t, subs));
    memset(session.subs, 0, subs * sizeof session.subs[0]);
    reset_count(session.sub_count);
    memset(session.msgs, 0, msgs * sizeof session.msgs[0]);
    reset_count(session.msg_count);
}
