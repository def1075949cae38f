// pins.cpp - what keeps a record from changing owner while somebody works with it.
//
// One word a record says who holds it:
//   bits 0..31   pins
//   bit  32      RELEASED   its life is over; the last unpin wipes the texts and frees the slot
//   bit  33      WIPING     nobody may pin
//   bits 34..63  life number, one more at each release
#include "client_internal.h"

#include "../base/text.h"

#include <cstring>
#include <sched.h>

namespace tarn::client {
namespace {

constexpr uint64_t kPins     = 0xFFFFFFFF;
constexpr uint64_t kReleased = uint64_t{1} << 32;
constexpr uint64_t kWiping   = uint64_t{1} << 33;
constexpr int      kLifeBit  = 34;

constinit Side  g_sides[CLIENT_MAX]{};
constinit Mutex g_outside_id_mx{}; // shared by all records outside the pool
constinit Mutex g_outside_data_mx{};

// A wipe is short and takes send_lock, will_lock and id_mx of its own record only. Nobody pins a record while holding
// one of these of the same record, so waiting is safe with any other lock held.
void pin(Side &side) noexcept
{
    uint64_t seen = side.ctl.load(std::memory_order_relaxed);
    for (;;) {
        if (seen & kWiping) {
            sched_yield();
            seen = side.ctl.load(std::memory_order_relaxed);
        } else if (side.ctl.compare_exchange_weak(seen, seen + 1, std::memory_order_acquire)) {
            return;
        }
    }
}

void unpin(mqtt_client_t &client, Side &side) noexcept
{
    const uint64_t before = side.ctl.fetch_sub(1, std::memory_order_acq_rel);
    if ((before & kPins) != 1 || !(before & kReleased))
        return;
    uint64_t seen = before - 1;
    do {
        if ((seen & (kPins | kReleased | kWiping)) != kReleased)
            return; // pinned again: that one wipes, or has done it
    } while (!side.ctl.compare_exchange_weak(seen, seen | kWiping, std::memory_order_acq_rel));
    wipe_texts(client);
    wipe_done(index_of(&client));
}

bool marked_released(const Side &side) noexcept
{
    return (side.ctl.load(std::memory_order_acquire) & kReleased) != 0;
}

} // namespace

Side &side_at(int32_t index) noexcept
{
    return g_sides[index];
}

Side *side_of(const mqtt_client_t *client) noexcept
{
    const int32_t index = index_of(client);
    return index == kOutside ? nullptr : &g_sides[index];
}

Mutex &id_lock(const mqtt_client_t &client) noexcept
{
    Side *const side = side_of(&client);
    return side ? side->id_mx : g_outside_id_mx;
}

client_id_text stored_id(const mqtt_client_t &client) noexcept
{
    client_id_text id;
    ScopedLock     lock(id_lock(client));
    copy_text(id.text, client.client_id, sizeof id.text - 1);
    return id; // cppcheck-suppress uninitvar ; copy_text wrote it
}

bool mark_released(mqtt_client_t &client) noexcept
{
    Side *const side = side_of(&client);
    if (!side)
        return true;
    uint64_t seen = side->ctl.load(std::memory_order_relaxed);
    do {
        if (seen & kReleased)
            return false;
    } while (!side->ctl.compare_exchange_weak(seen, (seen | kReleased) + (uint64_t{1} << kLifeBit),
                                              std::memory_order_acq_rel));
    return true;
}

bool is_idle(int32_t index) noexcept
{
    return (g_sides[index].ctl.load(std::memory_order_acquire) & (kPins | kReleased | kWiping)) == 0;
}

bool try_begin_wipe(int32_t index) noexcept
{
    std::atomic<uint64_t> &ctl  = g_sides[index].ctl;
    uint64_t               seen = ctl.load(std::memory_order_relaxed);
    do {
        if (seen & (kPins | kWiping))
            return false;
    } while (!ctl.compare_exchange_weak(seen, seen | kWiping, std::memory_order_acq_rel));
    return true;
}

void wipe_done(int32_t index) noexcept
{
    g_sides[index].ctl.fetch_and(~(kWiping | kReleased), std::memory_order_release);
}

// Also what a thread with a pin may have stored after the release.
void wipe_texts(mqtt_client_t &client) noexcept
{
    drop_ring(client);
    {
        ScopedLock lock(client.will_lock);
        free_will_texts(client);
    }
    ScopedLock lock(id_lock(client));
    memset(client.client_id, 0, sizeof client.client_id);
    memset(client.ip, 0, sizeof client.ip);
}

} // namespace tarn::client

namespace tarn {

using client::Side;
using client::side_of;

client_ref::client_ref(mqtt_client_t *client) noexcept : client_(client)
{
    if (Side *const side = client ? side_of(client) : nullptr)
        client::pin(*side);
}

client_ref &client_ref::operator=(client_ref &&other) noexcept
{
    if (this != &other) {
        reset();
        client_       = other.client_;
        other.client_ = nullptr;
    }
    return *this;
}

void client_ref::reset() noexcept
{
    mqtt_client_t *const client = client_;
    client_                     = nullptr;
    if (Side *const side = client ? side_of(client) : nullptr)
        client::unpin(*client, *side);
}

uint32_t incarnation_of(const mqtt_client_t *client) noexcept
{
    const Side *const side = side_of(client);
    return side ? static_cast<uint32_t>(side->ctl.load(std::memory_order_acquire) >> client::kLifeBit) : 0;
}

bool is_released(const mqtt_client_t *client) noexcept
{
    const Side *const side = client ? side_of(client) : nullptr;
    return side && (client::marked_released(*side) || !peek(client->used));
}

// A released record shows no id, although its text stays until the last pin is gone.
client_id_text id_of(mqtt_client_t &client) noexcept
{
    const Side *const side = side_of(&client);
    if (side && !peek(client.used) && client::marked_released(*side))
        return {};
    return client::stored_id(client);
}

Mutex &session_lock(const mqtt_client_t &client) noexcept
{
    Side *const side = side_of(&client);
    return side ? side->data_mx : client::g_outside_data_mx;
}

bool claim_closing(mqtt_client_t &client) noexcept
{
    Side *const side = side_of(&client);
    return !side || side->closing.exchange(1, std::memory_order_acq_rel) == 0;
}

void unclaim_closing(mqtt_client_t &client) noexcept
{
    Side *const side = side_of(&client);
    if (!side)
        return;
    side->closing.store(0, std::memory_order_release);
    release_called_off(client);
}

bool mark_logged_in(mqtt_client_t &client) noexcept
{
    for (const uint32_t from : {CLIENT_CONNECTED, CLIENT_LOGINED, CLIENT_UNUSED})
        if (swap_if(client.state, from, CLIENT_LOGINED))
            return true;
    return false;
}

} // namespace tarn
