// pins.cpp - what keeps a record from changing owner while somebody works with it.
//
// One word a record says who holds it: the pins in bits 0 to 27, the marks above them. A mark has one winner.
#include "client_internal.h"

#include <sched.h>

namespace tarn::client {
namespace {

constexpr uint32_t kPins = kClaimed - 1;

constinit Side g_sides[CLIENT_MAX]{};
constinit Side g_outside{};

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
    wipe(client);
    wipe_done(index_of(&client));
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

Side &guards_of(const mqtt_client_t &client) noexcept
{
    Side *const side = side_of(&client);
    return side ? *side : g_outside;
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

bool has_mark(const mqtt_client_t &client, Mark mark) noexcept
{
    const Side *const side = side_of(&client);
    return side && (side->hold.load(std::memory_order_acquire) & mark) != 0;
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
    return side && (client::has_mark(*client, client::kReleased) || !client->used);
}

} // namespace tarn
