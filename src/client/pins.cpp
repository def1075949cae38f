// pins.cpp - what keeps a record from changing owner while somebody works with it.
//
// One word a record says who holds it: the pins in bits 0 to 27, the marks above them. A mark has one winner.
#include "client_internal.h"

#include "../base/text.h"

#include <cstring>
#include <sched.h>

namespace tarn::client {
namespace {

constexpr uint32_t kPins = kClaimed - 1;

constinit Side  g_sides[CLIENT_MAX]{};
constinit Mutex g_outside_id_mx{}; // shared by all records outside the pool
constinit Mutex g_outside_data_mx{};

// A wipe is short and takes send_lock, will_lock and id_mx of its own record only. Nobody pins a record while holding
// one of these of the same record, so waiting is safe with any other lock held.
void pin(Side &side) noexcept
{
    uint32_t seen = side.hold.load(std::memory_order_relaxed);
    for (;;) {
        if (seen & kWiping) {
            sched_yield();
            seen = side.hold.load(std::memory_order_relaxed);
        } else if (side.hold.compare_exchange_weak(seen, seen + 1, std::memory_order_acquire)) {
            return;
        }
    }
}

void unpin(mqtt_client_t &client, Side &side) noexcept
{
    const uint32_t before = side.hold.fetch_sub(1, std::memory_order_acq_rel);
    if ((before & kPins) != 1 || !(before & kReleased))
        return;
    uint32_t seen = before - 1;
    do {
        if ((seen & (kPins | kReleased | kWiping)) != kReleased)
            return; // pinned again: that one wipes, or has done it
    } while (!side.hold.compare_exchange_weak(seen, seen | kWiping, std::memory_order_acq_rel));
    wipe_texts(client);
    wipe_done(index_of(&client));
}

bool marked_released(const Side &side) noexcept
{
    return (side.hold.load(std::memory_order_acquire) & kReleased) != 0;
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

bool set_mark(const mqtt_client_t &client, Mark mark) noexcept
{
    Side *const side = side_of(&client);
    return !side || (side->hold.fetch_or(mark) & mark) == 0;
}

bool clear_mark(const mqtt_client_t &client, Mark mark) noexcept
{
    Side *const side = side_of(&client);
    return !side || (side->hold.fetch_and(~uint32_t{mark}) & mark) != 0;
}

bool is_idle(int32_t index) noexcept
{
    return (g_sides[index].hold.load(std::memory_order_acquire) & (kPins | kReleased | kWiping)) == 0;
}

bool try_begin_wipe(int32_t index) noexcept
{
    std::atomic<uint32_t> &hold = g_sides[index].hold;
    uint32_t               seen = hold.load(std::memory_order_relaxed);
    do {
        if (seen & (kPins | kWiping))
            return false;
    } while (!hold.compare_exchange_weak(seen, seen | kWiping, std::memory_order_acq_rel));
    return true;
}

void wipe_done(int32_t index) noexcept
{
    g_sides[index].hold.fetch_and(~uint32_t{kWiping | kReleased}, std::memory_order_release);
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
    return client::set_mark(client, client::kClaimed);
}

void unclaim_closing(mqtt_client_t &client) noexcept
{
    if (!side_of(&client))
        return;
    (void)client::clear_mark(client, client::kClaimed);
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
