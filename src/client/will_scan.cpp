// will_scan.cpp - publishes delayed wills when they are due and releases the records that waited for it.
//
// life.cpp lists who may end the wait of such a record. Each claims it first and then looks again, so a will is published
// or called off, never both. The scan claims only what is due; a CONNECT that finds the record claimed may thus believe
// that its will was published.
#include "../base/clock.h"
#include "../base/thread.h"
#include "../handler/handler.hpp"
#include "client_internal.h"

constinit tarn::Shared<int32_t> g_will_delay_client_count = 0;

namespace tarn::client {
namespace {

constexpr uint64_t kNever   = UINT64_MAX;
constexpr uint64_t kWalk_ms = 500; // wills that were set going by hand are found by a full walk

// These spare CONNECT and the housekeeping thread the walk: how many closed records wait for their will, in all and by
// the bucket of their id, and when the first is due.
constinit std::atomic<int32_t>  g_delayed_wills{0};
constinit std::atomic<int32_t>  g_delayed_in_bucket[CLIENT_MAX]{};
constinit std::atomic<uint64_t> g_next_due_ms{kNever};
constinit std::atomic<uint64_t> g_next_walk_ms{0};

void due_no_later_than(uint64_t at_ms)
{
    uint64_t seen = g_next_due_ms.load(std::memory_order_relaxed);
    while (at_ms < seen && !g_next_due_ms.compare_exchange_weak(seen, at_ms))
        ;
}

int32_t bucket_of(const char *client_id)
{
    return static_cast<int32_t>(hash_of(client_id) % CLIENT_MAX);
}

bool is_waiting(mqtt_client_t &client)
{
    return peek_acquire(client.used) && client.state == CLIENT_WILL_PENDING && peek(client.will_delay_pending);
}

// QUIRK(overdue-will): a will that is late by more than 30 s, because the broker was stopped meanwhile, is dropped
// [MQTT-3.1.2-8].
//   standard profile: lifted (wills): of a session that is kept it is published after the start, however late
//   test: WillScan.a_will_overdue_by_more_than_30_s_is_dropped
bool is_overdue(mqtt_client_t &client, uint64_t now_ms)
{
    return peek(client.will_delay_deadline) + CLIENT_WILL_OVERDUE_MS < now_ms;
}

bool is_due(mqtt_client_t &client, uint64_t now_ms)
{
    ScopedLock lock(client.will_lock);
    return client.will_delay_pending && !client.will_sent && client.will_delay_deadline <= now_ms;
}

void end_delay(mqtt_client_t &client)
{
    ScopedLock lock(client.will_lock);
    client.will_sent          = 1;
    client.will_delay_pending = 0;
}

void drop(const Claim &claim)
{
    LOG_WARN("[WILL] 超时30s强制清理 client=%s", stored_id(claim.client()).text);
    end_delay(claim.client());
    end_wait(claim);
}

void publish(const Claim &claim)
{
    mqtt_client_t &client = claim.client();
    LOG_WARN("[WILL] 延迟结束，发送并清理 client=%s", stored_id(client).text);
    (void)handler::publish_will(client);
    end_delay(client);
    close_connection_of(client);
    end_wait(claim);
}

void end_wait_if_due(mqtt_client_t &client, uint64_t now_ms)
{
    const auto wait_is_over = [&] {
        return is_waiting(client) && (is_overdue(client, now_ms) || is_due(client, now_ms));
    };
    if (!wait_is_over())
        return;
    const Claim claim(client);
    if (!claim || !wait_is_over()) // checked again: another thread may have ended the wait before our claim
        return;
    if (is_overdue(client, now_ms))
        drop(claim);
    else
        publish(claim);
}

// When this record has to be looked at again, if it still waits.
uint64_t next_look_ms(mqtt_client_t &client, uint64_t now_ms)
{
    if (!is_waiting(client))
        return kNever;
    const uint64_t due_ms = peek(client.will_delay_deadline);
    if (peek(client.will_sent)) // nothing to publish, but the record is freed some day
        return due_ms + CLIENT_WILL_OVERDUE_MS + 1;
    return due_ms > now_ms ? due_ms : now_ms; // claimed by another thread: look again next time
}

} // namespace

void count_delayed_will(mqtt_client_t &client, uint64_t due_at_ms) noexcept
{
    Side *const side = side_of(&client);
    if (side && !has_mark(client, kWillDelayed)) {
        side->will_bucket = bucket_of(stored_id(client).text); // before the mark, which another thread may take away
        if (set_mark(client, kWillDelayed)) {
            g_delayed_wills.fetch_add(1);
            g_delayed_in_bucket[side->will_bucket].fetch_add(1);
        }
    }
    due_no_later_than(due_at_ms);
}

void uncount_delayed_will(mqtt_client_t &client) noexcept
{
    Side *const side = side_of(&client);
    if (!side)
        return;
    const int32_t bucket = side->will_bucket;
    if (clear_mark(client, kWillDelayed)) {
        g_delayed_wills.fetch_sub(1);
        g_delayed_in_bucket[bucket].fetch_sub(1);
    }
}

void publish_due_wills(uint64_t now_ms) noexcept
{
    g_next_walk_ms.store(now_ms + kWalk_ms, std::memory_order_relaxed);
    g_next_due_ms.store(kNever); // a record that starts to wait from here on lowers it again
    int32_t place = 0;
    while (mqtt_client_t *const record = next_flagged(place)) {
        if (!is_waiting(*record))
            continue;
        const client_ref client(record);
        end_wait_if_due(*client, now_ms);
        due_no_later_than(next_look_ms(*client, now_ms));
    }
}

} // namespace tarn::client

using namespace tarn;
using namespace tarn::client;

bool tarn::will_delays_running() noexcept
{
    const uint64_t now_ms = mono_ms();
    return now_ms >= g_next_due_ms.load(std::memory_order_relaxed) ||
           now_ms >= g_next_walk_ms.load(std::memory_order_relaxed);
}

bool tarn::wills_are_delayed(const char *client_id) noexcept
{
    return on_library_thread() ? g_delayed_in_bucket[bucket_of(client_id)].load() > 0 : g_delayed_wills.load() > 0;
}
