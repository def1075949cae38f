// pins.cpp - what keeps a record from being used for another client while a thread works with it.
//
// Each record has one word for this: bits 0 to 27 count the pins, the bits above are the marks. Of several threads that
// set a mark at once, one wins.
#include "client_internal.h"

#include <sched.h>

namespace tarn::client {
namespace {

constexpr uint32_t kPins = kClaimed - 1;

constinit Side g_sides[CLIENT_MAX]{};
constinit Side g_outside{};

// A wipe is short and takes send_lock, will_lock and id_mutex of its own record only. No thread pins a record while it
// has one of these locks of the same record, so pin() may wait with any other lock held.
void pin(Side &side) noexcept
{
    uint32_t seen = side.pins_and_marks.load(std::memory_order_relaxed);
    for (;;) {
        if (seen & kWiping) {
            sched_yield();
            seen = side.pins_and_marks.load(std::memory_order_relaxed);
        } else if (side.pins_and_marks.compare_exchange_weak(seen, seen + 1, std::memory_order_acquire)) {
            return;
        }
    }
}

void unpin(mqtt_client_t &client, Side &side) noexcept
{
    const uint32_t before = side.pins_and_marks.fetch_sub(1, std::memory_order_acq_rel);
    if ((before & kPins) != 1 || !(before & kReleased))
        return;
    uint32_t seen = before - 1;
    do {
        if ((seen & (kPins | kReleased | kWiping)) != kReleased)
            return; // pinned again: the new pin wipes when it goes, or has done so
    } while (!side.pins_and_marks.compare_exchange_weak(seen, seen | kWiping, std::memory_order_acq_rel));
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
    return !side || (side->pins_and_marks.fetch_or(mark) & mark) == 0;
}

bool clear_mark(const mqtt_client_t &client, Mark mark) noexcept
{
    Side *const side = side_of(&client);
    return !side || (side->pins_and_marks.fetch_and(~uint32_t{mark}) & mark) != 0;
}

bool has_mark(const Side &side, Mark mark) noexcept
{
    return (side.pins_and_marks.load(std::memory_order_acquire) & mark) != 0;
}

bool has_mark(const mqtt_client_t &client, Mark mark) noexcept
{
    const Side *const side = side_of(&client);
    return side && has_mark(*side, mark);
}

bool is_idle(int32_t index) noexcept
{
    return (g_sides[index].pins_and_marks.load(std::memory_order_acquire) & (kPins | kReleased | kWiping)) == 0;
}

bool try_begin_wipe(int32_t index) noexcept
{
    std::atomic<uint32_t> &pins_and_marks = g_sides[index].pins_and_marks;
    uint32_t               seen           = pins_and_marks.load(std::memory_order_relaxed);
    do {
        if (seen & (kPins | kWiping))
            return false;
    } while (!pins_and_marks.compare_exchange_weak(seen, seen | kWiping, std::memory_order_acq_rel));
    return true;
}

void wipe_done(int32_t index) noexcept
{
    g_sides[index].pins_and_marks.fetch_and(~uint32_t{kWiping | kReleased}, std::memory_order_release);
}

} // namespace tarn::client

namespace tarn {

using client::Side;
using client::side_of;

void client_ref::pin(mqtt_client_t *client) noexcept
{
    client_ = client;
    side_   = client ? side_of(client) : nullptr;
    if (side_)
        client::pin(*side_);
}

void client_ref::reset() noexcept
{
    mqtt_client_t *const client = client_;
    client_                     = nullptr;
    if (client && side_)
        client::unpin(*client, *side_);
}

bool is_released(const mqtt_client_t *client) noexcept
{
    const Side *const side = client ? side_of(client) : nullptr;
    return side && (client::has_mark(*side, client::kReleased) || !client->used);
}

} // namespace tarn
