// send_ring.cpp - a client's outbound ring: producers copy a packet in and return, one thread at a time sends.
//
// The ring is empty at head == tail and full with one slot left, so it holds 99 packets. Packets are sent without
// send_lock: slots from head on belong to the thread that set the `flushing` mark until it moves head, so producers
// never wait for the socket. For a record outside the pool there is no mark, and the lock is kept.
//
// A packet leaves the ring with its last byte. Of one that the socket took in part the network layer knows how much, and
// goes on there when the same packet is sent again. A client that reads nothing for a while may lose whole packets to a
// full ring, but never gets a part of one; behind a part it would take payload for packets.
#include "../base/text.h"
#include "../codec/packet_type.h"
#include "../stats/stats.hpp"
#include "client_internal.h"

#include <algorithm>
#include <cstring>
#include <sched.h>

namespace tarn::client {
namespace {

constexpr int kFlushMax = 100; // packets a flush

int next_of(int slot)
{
    return (slot + 1) % CLIENT_SEND_SLOTS;
}

bool may_flush(mqtt_client_t &client, bool online_only)
{
    if (online_only && !is_online(client))
        return false;
    return client.state != CLIENT_CLOSED && client.used && peek(client.send_queue);
}

struct Batch {
    client_send_slot_t *ring = nullptr;
    uint32_t            handle;
    uint32_t            generation; // the handle may be another client's by now, even while this one is online
    int                 count = 0;
    net::OutPacket      packets[net::kGatherMax];
};

// The packets from head on, up to the first slot that is not ready or the last packet of the connection.
void gather(mqtt_client_t &client, int limit, Batch &batch) REQUIRES(client.send_lock)
{
    const Side *const side = side_of(&client);
    batch.ring             = client.send_queue;
    batch.handle           = client.handle;
    batch.generation       = side ? uint32_t{side->generation} : 0;
    batch.count            = 0;
    const int end = side && side->last_packet == LastPacket::Queued ? side->sent_until : uint8_t{client.send_tail};
    for (int at = client.send_head; at != end && batch.count < limit; at = next_of(at)) {
        const client_send_slot_t &slot = batch.ring[at % CLIENT_SEND_SLOTS];
        if (!slot.ready)
            return;
        prefetch_to_read(slot);
        batch.packets[batch.count++] = {slot.data, slot.length};
    }
}

void advance(mqtt_client_t &client, int packets) REQUIRES(client.send_lock)
{
    for (; packets > 0; --packets) {
        const int head                = client.send_head % CLIENT_SEND_SLOTS;
        client.send_queue[head].ready = 0;
        client.send_head              = static_cast<uint8_t>(next_of(head));
    }
}

Flushed result_of(const net::Sent &sent, int asked)
{
    if (sent.packets >= asked)
        return Flushed::Drained;
    return sent.result == NETIP_AGAIN ? Flushed::Full : Flushed::Refused;
}

void note_disconnect_queued(mqtt_client_t &client) REQUIRES(client.send_lock)
{
    Side *const side = side_of(&client);
    if (side && side->last_packet == LastPacket::Announced) {
        side->last_packet = LastPacket::Queued;
        side->sent_until  = client.send_tail;
    }
}

enum class Queued { Ok, Invalid, Offline, TooBig, Full };

stats::Counter counter_of(Queued dropped)
{
    switch (dropped) {
    case Queued::Offline:
        return stats::Counter::drop_offline;
    case Queued::TooBig:
        return stats::Counter::drop_too_big;
    case Queued::Full:
        return stats::Counter::drop_queue_full;
    default:
        return stats::Counter::drop_invalid_param;
    }
}

Queued enqueue(mqtt_client_t &client, const PacketParts &packet) EXCLUDES(client.send_lock)
{
    const auto [head, payload] = packet;
    const size_t length        = head.size() + payload.size();
    if (head.empty() || !head.data() || length > CLIENT_SEND_SLOT_BYTES)
        return Queued::Invalid;
    if (!is_online(client))
        return Queued::Offline;
    if (length > client.max_packet_size)
        return Queued::TooBig;

    ScopedLock lock(client.send_lock);
    if (!is_online(client)) // once more: release has emptied the ring for good
        return Queued::Offline;
    if (!client.send_queue) {
        client_send_slot_t *const ring = make_ring(client);
        if (!ring)
            return Queued::Invalid;
        client.send_queue = ring;
    }
    if (client.send_head == client.send_tail)
        lend_ring(client);
    const int tail = client.send_tail % CLIENT_SEND_SLOTS;
    const int next = next_of(tail);
    if (next == client.send_head)
        return Queued::Full;
    client_send_slot_t &slot = client.send_queue[tail];
    memcpy(slot.data, head.data(), head.size());
    if (!payload.empty())
        memcpy(slot.data + head.size(), payload.data(), payload.size());
    slot.length      = static_cast<int32_t>(length);
    slot.ready       = 1;
    client.send_tail = static_cast<uint8_t>(next);
    prefetch_to_write(client.send_queue[next]);
    if (head[0] >> 4 == DISCONNECT)
        note_disconnect_queued(client);
    return Queued::Ok;
}

// A burst of one round fills a ring before the round ends, so the ring is emptied between; once a round when the socket
// takes nothing, and not at all while it is known to be full. False when nothing was tried.
bool make_room(mqtt_client_t &client)
{
    Side *const side = side_of(&client);
    if (!side || io_round() == 0 || side->blocked_round == io_round() || side->awaits_retry.load() != 0)
        return false;
    const Flushed result = flush_when_free(client, true);
    if (result == Flushed::Full || result == Flushed::Refused)
        side->blocked_round = io_round();
    return true;
}

} // namespace

bool has_packets(mqtt_client_t &client) noexcept
{
    return peek(client.send_head) != peek(client.send_tail);
}

bool is_full(mqtt_client_t &client) noexcept
{
    return next_of(peek(client.send_tail) % CLIENT_SEND_SLOTS) == peek(client.send_head);
}

// send_lock is held, but for a pool record not while the socket is written to.
Flushed flush_ring(mqtt_client_t &client, bool online_only) noexcept NO_LOCK_ANALYSIS
{
    if (!may_flush(client, online_only))
        return Flushed::Drained;
    Side *const side = side_of(&client);
    client.send_lock.lock();
    if (side && side->flushing) {
        client.send_lock.unlock();
        return Flushed::Busy;
    }
    if (side)
        side->flushing = 1;
    Flushed result = Flushed::Drained;
    int     sent   = 0;
    while (result == Flushed::Drained && sent < kFlushMax && may_flush(client, online_only)) {
        Batch batch;
        gather(client, std::min(kFlushMax - sent, net::kGatherMax), batch);
        if (batch.count == 0)
            break;
        if (side)
            client.send_lock.unlock();
        const net::Sent taken = net::send_packets(batch.handle, batch.packets, batch.count, batch.generation);
        if (side)
            client.send_lock.lock();
        if (client.send_queue != batch.ring) { // released meanwhile, and the ring left to us
            free_ring(client, batch.ring);
            break;
        }
        advance(client, taken.packets);
        sent += taken.packets;
        result = result_of(taken, batch.count);
    }
    if (result == Flushed::Drained && sent >= kFlushMax && has_packets(client))
        result = Flushed::Partly;
    if (side)
        side->flushing = 0;
    if (client.send_head == client.send_tail)
        ring_is_empty(client);
    client.send_lock.unlock();
    return result;
}

Flushed flush_when_free(mqtt_client_t &client, bool online_only) noexcept
{
    Flushed result;
    while ((result = flush_ring(client, online_only)) == Flushed::Busy)
        sched_yield();
    return result;
}

void wait_for_flusher(mqtt_client_t &client) noexcept
{
    const Side *const side = side_of(&client);
    for (bool busy = side != nullptr; busy;) {
        {
            ScopedLock lock(client.send_lock);
            busy = side->flushing != 0;
        }
        if (busy)
            sched_yield();
    }
}

void drop_ring(mqtt_client_t &client) noexcept
{
    Side *const               side = side_of(&client);
    ScopedLock                lock(client.send_lock);
    client_send_slot_t *const ring     = client.send_queue;
    const bool                is_empty = client.send_head == client.send_tail;
    client.send_queue                  = nullptr;
    client.send_head                   = 0;
    client.send_tail                   = 0;
    if (ring && !(side && side->flushing) && !(is_empty && free_lent_ring(ring, true)))
        free_ring(client, ring);
}

} // namespace tarn::client

using namespace tarn;
using namespace tarn::client;

uint32_t tarn::queue_packet(mqtt_client_t &client, const PacketParts &packet) noexcept
{
    Queued queued = enqueue(client, packet);
    if (queued == Queued::Full && make_room(client))
        queued = enqueue(client, packet);
    if (queued != Queued::Ok) {
        stats::count(counter_of(queued));
        return kFailed;
    }
    stats::count(stats::Counter::tx_pkt);
    note_active(client);
    return 0;
}

// The running I/O round sends at its end, or else the send thread, now.
void tarn::see_to_sending(mqtt_client_t &client) noexcept
{
    const int32_t index = index_of(&client);
    if (index == kOutside)
        return;
    if (io_round() == 0)
        hand_to_send_thread(index);
    else if (is_own_answer(client))
        keep_answer(index);
    else
        list_in_round(index);
}

uint32_t tarn::send_to(mqtt_client_t &client, const PacketParts &packet) noexcept
{
    if (const uint32_t failed = queue_packet(client, packet))
        return failed;
    see_to_sending(client);
    return 0;
}

void tarn::flush_client(mqtt_client_t &client) noexcept
{
    const Flushed result = flush_when_free(client, false);
    const int32_t index  = index_of(&client);
    if (index != kOutside && result != Flushed::Drained && is_online(client))
        hand_to_send_thread(index);
}

void tarn::end_with_disconnect(mqtt_client_t &client) noexcept
{
    Side *const side = side_of(&client);
    ScopedLock  lock(client.send_lock);
    if (side && side->last_packet == LastPacket::None)
        side->last_packet = LastPacket::Announced;
}
