// qos_internal.h - the index beside the list of pending deliveries, their memory, and one retransmission.
//
// The list g_pending_queue is the truth. The index finds an entry by client and identifier, counts and chains a client's
// entries and unlinks in constant time. It knows the entries that track() and send_and_track() made. Before it is believed it is
// compared with the list: with every entry of a short one, with the head of a long one. Where they differ, a host
// edited the list by hand: then the index is dropped, and every operation walks the list until that has run empty.
#ifndef TARN_QOS_QOS_INTERNAL_H
#define TARN_QOS_QOS_INTERNAL_H

#include "../base/mutex.h"
#include "qos.hpp"

namespace tarn {
class SendBatch;
}

namespace tarn::qos {

enum Qos2State : uint32_t { QOS2_NONE = 0, QOS2_AWAITS_PUBREC = 1, QOS2_PUBREL_SENT = 2, QOS2_PUBCOMP_SENT = 3 };

// ---- the list and its index (pending_index.cpp)

// Holds g_queue_mutex, during which nobody edits the list: it is compared with the index once, when the index is asked
// first. Without one it is compared each time.
class SCOPED_CAPABILITY QueueLock {
public:
    QueueLock() noexcept ACQUIRE(g_queue_mutex);
    ~QueueLock() noexcept RELEASE();
    QueueLock(const QueueLock &)            = delete;
    QueueLock &operator=(const QueueLock &) = delete;
};

// All below: g_queue_mutex held.

// Zeroed, not linked; null when there is no memory. `held`: the entries that its client has.
qos_packet_t *make_entry(int held) REQUIRES(g_queue_mutex);
void          link_entry(qos_packet_t *entry) REQUIRES(g_queue_mutex);       // at the head
void          free_entry(qos_packet_t *entry) REQUIRES(g_queue_mutex);       // not linked, payload included
void          free_spare_entries() REQUIRES(g_queue_mutex);                  // that are kept for the next ones
int           count_of(const mqtt_client_t *client) REQUIRES(g_queue_mutex); // entries of this client
qos_packet_t *find_entry(const mqtt_client_t *client, uint16_t msg_id) REQUIRES(g_queue_mutex); // newest first
void          remove_entry(qos_packet_t *entry) REQUIRES(g_queue_mutex);                        // unlinks and frees
// Unlinks and frees the entry that `link` points to: for walks, which know the place.
void remove_at(qos_packet_t **link) REQUIRES(g_queue_mutex);
int  remove_all_of(const mqtt_client_t *client) REQUIRES(g_queue_mutex);
int  remove_all() REQUIRES(g_queue_mutex);
// Where the walk of a scan thread goes on that has dropped the lock in between, or null. Removals keep it right.
extern qos_packet_t **g_walk GUARDED_BY(g_queue_mutex);

// ---- their memory (pending_memory.cpp); g_queue_mutex held
//
// All pending deliveries together have kPendingBytes, entries and payloads. What would go beyond is refused as if the
// system had no memory. A client with fewer than kFewEntries may take from kReservedBytes as well, so that those that
// never acknowledge, 1000 deliveries each, leave the others something.
constexpr size_t kPendingBytes  = 64u << 20;
constexpr size_t kReservedBytes = 32u << 20;
constexpr int    kFewEntries    = 16;

// False when they are not to be had by a client with so many entries.
[[nodiscard]] bool take_bytes(size_t bytes, int held) REQUIRES(g_queue_mutex);
void               give_bytes_back(size_t bytes) REQUIRES(g_queue_mutex);
// The list is empty. Entries that a host made, edited or took out by hand may have left the count wrong.
void   forget_bytes() REQUIRES(g_queue_mutex);
size_t bytes_taken() REQUIRES(g_queue_mutex);

// Gives a new entry its payload, with `copy` the message's own, else a copy for itself. False without memory.
[[nodiscard]] bool put_payload(qos_packet_t &entry, std::span<const uint8_t> payload, PayloadCopy *copy, int held)
    REQUIRES(g_queue_mutex);
void free_payload(const qos_packet_t &entry) REQUIRES(g_queue_mutex);

// ---- the scan (scan.cpp)

// One retransmission; 0 when it was queued. With `batch` it is sent with that.
int resend(qos_packet_t *entry, uint64_t now_ms, SendBatch *batch) REQUIRES(g_queue_mutex);

// One walk over the list at this time, without letting go of the lock.
void scan(uint64_t now_ms) EXCLUDES(g_queue_mutex);
// The same in steps, with the lock free in between, unless nothing can be due: what the scan threads do every 100 ms.
void scan_turn(uint64_t now_ms) EXCLUDES(g_queue_mutex);
// Tells scan_turn that an entry may become due at `due_ms`.
void note_due(uint64_t due_ms) REQUIRES(g_queue_mutex);

// The broker keeps two scan threads over one queue; ends all of them but the caller.
void stop_scan_threads() EXCLUDES(g_queue_mutex);

} // namespace tarn::qos

#endif
