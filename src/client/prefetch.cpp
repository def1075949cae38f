// prefetch.cpp - asks the processor for memory some time before it is needed.
//
// The records and rings of many clients are in no cache, and each packet of a ring stands on another page. Who waits for
// each of them in turn waits longer than all else takes that a delivery to one of a thousand clients needs. Of a
// record only the place of its ring is read, which any thread may; what is asked for may be another client's by then.
#include "client_internal.h"

#include <algorithm>

namespace tarn::client {
namespace {

constexpr size_t kLine          = 64;                                           // bytes, of the processor's caches
constexpr size_t kUsedOfASlot   = 2 * kLine;                                    // of most packets
constexpr size_t kUsedOfARecord = offsetof(mqtt_client_t, will_delay_interval); // by a delivery
constexpr int    kSlotsToSend   = 8;                                            // the flush itself asks for the rest

enum class For { Reading, Writing };

template <For use> void prefetch(const void *memory, size_t bytes)
{
    const char *const from = static_cast<const char *>(memory);
    for (size_t at = 0; at < bytes; at += kLine)
        __builtin_prefetch(from + at, use == For::Writing);
}

mqtt_client_t *prefetched_record(const char *client_id)
{
    mqtt_client_t *const client = peek(g_client_mgr.by_cid[hash_of(client_id) % CLIENT_MAX]);
    if (!client)
        return nullptr;
    prefetch<For::Writing>(client, kUsedOfARecord);
    prefetch<For::Writing>(&guards_of(*client), sizeof(Side));
    return client;
}

void prefetch_place_of_next_packet(mqtt_client_t &client)
{
    if (client_send_slot_t *const ring = peek(client.send_queue))
        prefetch_to_write(ring[peek(client.send_tail) % CLIENT_SEND_SLOTS]);
}

} // namespace

void prefetch_to_write(client_send_slot_t &slot) noexcept
{
    prefetch<For::Writing>(slot.data, kUsedOfASlot);
    prefetch<For::Writing>(&slot.length, sizeof slot.length);
}

void prefetch_to_read(const client_send_slot_t &slot) noexcept
{
    prefetch<For::Reading>(slot.data, kUsedOfASlot);
}

void prefetch_to_send(mqtt_client_t &client) noexcept
{
    const client_send_slot_t *const ring = peek(client.send_queue);
    if (!ring)
        return;
    const int head = peek(client.send_head);
    for (int i = 0; i < kSlotsToSend; ++i) {
        const client_send_slot_t &slot = ring[(head + i) % CLIENT_SEND_SLOTS];
        prefetch<For::Reading>(slot.data, kLine);
        prefetch<For::Reading>(&slot.length, sizeof slot.length);
    }
}

} // namespace tarn::client

// A record has to be there before it says where its ring is.
void tarn::ReceiverPrefetch::next(const char *client_id) noexcept
{
    if (mqtt_client_t *const earlier = records_[(at_ + kAhead / 2) % kAhead])
        client::prefetch_place_of_next_packet(*earlier);
    records_[at_] = client::prefetched_record(client_id);
    at_           = (at_ + 1) % kAhead;
}
