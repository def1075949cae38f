// send_list.cpp - the one list of records whose rings hold packets that no thread has tried to send yet.
//
// A thread that queues a packet lists the record. Whichever thread comes first drains the list: the I/O thread at the end
// of its round, or the send thread, when it is woken or looks. A record that is listed already is left where it is.
#include "client_internal.h"

namespace tarn::client {
namespace {

constinit std::atomic<int32_t> g_newest{0}; // index + 1, 0 = empty

} // namespace

bool list_for_sending(int32_t index) noexcept
{
    Side &side = side_at(index);
    // Most packets find it listed, and are spared the exchange. A thread that takes it off the list does so before it
    // takes send_lock to look at the ring, so what was queued under that lock is sent.
    if (side.listed.load() != 0 || side.listed.exchange(1) != 0)
        return false;
    int32_t newest = g_newest.load(std::memory_order_relaxed);
    do
        side.next_listed.store(newest, std::memory_order_relaxed);
    while (!g_newest.compare_exchange_weak(newest, index + 1));
    return true;
}

int32_t take_send_list() noexcept
{
    int32_t newest_first = g_newest.exchange(0);
    int32_t oldest_first = 0;
    while (newest_first != 0) {
        Side         &side = side_at(newest_first - 1);
        const int32_t next = side.next_listed.load(std::memory_order_relaxed);
        side.next_listed.store(oldest_first, std::memory_order_relaxed);
        oldest_first = newest_first;
        newest_first = next;
    }
    return oldest_first;
}

void hand_over_rest(mqtt_client_t &client, Flushed result) noexcept
{
    const int32_t index = index_of(&client);
    if (index != kOutside && result != Flushed::Drained && result != Flushed::Busy)
        hand_to_send_thread(index);
}

} // namespace tarn::client
