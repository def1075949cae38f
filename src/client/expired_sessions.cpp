// expired_sessions.cpp - deletes the saved sessions of records that still wait for their will although the session has
// expired.
#include "../base/clock.h"
#include "../persist/persist.hpp"
#include "client_internal.h"

namespace tarn::client {
namespace {

struct Expired {
    client_id_text id;
    uint64_t       deadline_s;
};

constexpr int kAtATime = 64; // files are removed without the lock, in portions

bool is_expired(mqtt_client_t &client, uint64_t now_s)
{
    const uint64_t deadline_s = client.session_expiry_deadline;
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
            found[count++] = {stored_id(*client), client->session_expiry_deadline};
    }
    return count;
}

} // namespace

void delete_expired_sessions() noexcept
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

} // namespace tarn::client
