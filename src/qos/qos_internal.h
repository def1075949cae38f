// qos_internal.h - the index beside the list of pending deliveries, and one retransmission.
//
// The list g_pending_queue is the truth. The index finds an entry by client and identifier, counts a client's entries
// and unlinks in constant time. It knows the entries that track() and send_and_track() made. Before it is believed it is
// compared with the list: with every entry of a short one, with the head of a long one. Where they differ, a host
// edited the list by hand: then the index is dropped, and every operation walks the list until that has run empty.
#ifndef TARN_QOS_QOS_INTERNAL_H
#define TARN_QOS_QOS_INTERNAL_H

#include "../base/mutex.h"
#include "qos.hpp"

namespace tarn::qos {

enum Qos2State : uint32_t { QOS2_NONE = 0, QOS2_AWAITS_PUBREC = 1, QOS2_PUBREL_SENT = 2, QOS2_PUBCOMP_SENT = 3 };

// All below: g_queue_mutex held.
qos_packet_t *make_entry() REQUIRES(g_queue_mutex);                          // zeroed, not linked; or null
void          link_entry(qos_packet_t *entry) REQUIRES(g_queue_mutex);       // at the head
void          free_entry(qos_packet_t *entry) REQUIRES(g_queue_mutex);       // not linked, payload included
int           count_of(const mqtt_client_t *client) REQUIRES(g_queue_mutex); // entries of this client
qos_packet_t *find_entry(const mqtt_client_t *client, uint16_t msg_id) REQUIRES(g_queue_mutex); // newest first
void          remove_entry(qos_packet_t *entry) REQUIRES(g_queue_mutex);                        // unlinks and frees
// Unlinks and frees the entry that `link` points to: for walks, which know the place.
void remove_at(qos_packet_t **link) REQUIRES(g_queue_mutex);
int  remove_all_of(const mqtt_client_t *client) REQUIRES(g_queue_mutex);
int  remove_all() REQUIRES(g_queue_mutex);

// One retransmission; 0 when it was queued.
int resend(qos_packet_t *entry, uint64_t now_ms) REQUIRES(g_queue_mutex);

// One walk over the list at this time.
void scan(uint64_t now_ms) EXCLUDES(g_queue_mutex);
// The same, unless nothing can be due: what the scan threads do every 100 ms.
void scan_turn(uint64_t now_ms) EXCLUDES(g_queue_mutex);
// Tells scan_turn that an entry may become due at `due_ms`.
void note_due(uint64_t due_ms) REQUIRES(g_queue_mutex);

// The broker keeps two scan threads over one queue; ends all of them but the caller.
void stop_scan_threads() EXCLUDES(g_queue_mutex);

} // namespace tarn::qos

#endif
