// round_flush.cpp - packets that an I/O thread queues while it handles a round of events are sent by that thread when
// the round ends: many packets in one write, and no other thread has to wake up for them.
//
// A callback of the host can hold a round up. The send thread therefore looks at the round's list every 10 ms while
// rounds queue packets, and sends in its place.
#include "client_internal.h"

namespace tarn::client {
namespace {

// Places in the pool of records that the running round queued for. Only the thread inside the round adds and removes.
// The network layer lets one thread in at a time, but a round whose callback restarts the layer meets rounds of the new
// start; the second one then queues like any other thread.
constinit std::atomic<uint8_t> g_round_taken{0};
constinit int32_t              g_round[CLIENT_MAX]{};
constinit std::atomic<int32_t> g_round_count{0};
constinit std::atomic<uint8_t> g_watched{0}; // the send thread looks every 10 ms
constinit std::atomic<uint8_t> g_queued_since{0};

constinit thread_local bool t_in_round = false;

// What a flush left is the send thread's.
void hand_over_rest(int32_t index, Flushed result)
{
    if (result != Flushed::Drained && result != Flushed::Busy)
        hand_to_send_thread(index);
}

} // namespace

void begin_io_round() noexcept
{
    t_in_round = g_round_taken.exchange(1, std::memory_order_acquire) == 0;
}

void end_io_round() noexcept
{
    if (!t_in_round)
        return;
    t_in_round          = false;
    const int32_t count = g_round_count.load(std::memory_order_relaxed);
    for (int32_t i = 0; i < count; ++i) {
        const int32_t index = peek(g_round[i]);
        Side         &side  = side_at(index);
        side.in_round.store(0, std::memory_order_relaxed);
        side.round_blocked.store(0, std::memory_order_relaxed);
        const client_ref client(record_at(index)); // whoever has the record now
        hand_over_rest(index, flush_ring(*client, true));
    }
    g_round_count.store(0, std::memory_order_relaxed);
    g_round_taken.store(0, std::memory_order_release);
}

bool in_io_round() noexcept
{
    return t_in_round;
}

void add_to_round(int32_t index) noexcept
{
    if (side_at(index).in_round.exchange(1, std::memory_order_relaxed))
        return;
    const int32_t count = g_round_count.load(std::memory_order_relaxed);
    poke(g_round[count], index);
    g_round_count.store(count + 1, std::memory_order_release);
    if (g_queued_since.load(std::memory_order_relaxed) == 0)
        g_queued_since.store(1);
    if (g_watched.load() == 0) {
        g_watched.store(1);
        wake_send_thread();
    }
}

bool flush_long_round(int &quiet_turns) noexcept
{
    constexpr int kQuietTurns = 20; // turns without a packet until nobody looks any more

    const int32_t count = g_round_count.load(std::memory_order_acquire);
    for (int32_t i = 0; i < count; ++i) {
        const int32_t    index = peek(g_round[i]);
        const client_ref client(record_at(index));
        hand_over_rest(index, flush_ring(*client, true));
    }
    quiet_turns = g_queued_since.exchange(0) || count > 0 ? 0 : quiet_turns + 1;
    if (quiet_turns < kQuietTurns)
        return true;
    quiet_turns = kQuietTurns;
    g_watched.store(0);
    if (g_queued_since.load() == 0)
        return false;
    g_watched.store(1); // one was queued just now, by a thread that still saw us watching
    return true;
}

void use_network_hooks() noexcept
{
    net::set_round_hooks({begin_io_round, end_io_round});
    net::set_writable_hook(wake_send_thread);
}

} // namespace tarn::client
