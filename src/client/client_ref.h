// client_ref.h - client records held safely. A record is never freed, only released and used again; a pin keeps the
// texts and the ring of the record one saw from changing owner underneath. Code inside the library finds records
// through these functions; the exported find functions return the bare pointer at the caller's risk.
//
// A record outside the pool (a caller's own) has no guard: pins of it do nothing.
#ifndef TARN_CLIENT_CLIENT_REF_H
#define TARN_CLIENT_CLIENT_REF_H

#include "../base/relaxed.h"
#include "client.h"

#include <span>

namespace tarn {

// ---- pins (pins.cpp)

class client_ref {
public:
    client_ref() = default;
    explicit client_ref(mqtt_client_t *client) noexcept; // pins; the caller knows that the record is alive
    client_ref(client_ref &&other) noexcept : client_(other.client_) { other.client_ = nullptr; }
    client_ref &operator=(client_ref &&other) noexcept;
    client_ref(const client_ref &)            = delete;
    client_ref &operator=(const client_ref &) = delete;
    ~client_ref() { reset(); }

    void           reset() noexcept; // unpins
    explicit       operator bool() const noexcept { return client_ != nullptr; }
    mqtt_client_t *get() const noexcept { return client_; }
    mqtt_client_t *operator->() const noexcept { return client_; }
    mqtt_client_t &operator*() const noexcept { return *client_; }

private:
    mqtt_client_t *client_ = nullptr;
};

// True from the moment a pool record is being released until it is used again: what others added for it would be lost
// or reach its next owner. Never true for a record outside the pool.
[[nodiscard]] bool is_released(const mqtt_client_t *client) noexcept;

// ---- finding (lookup.cpp, pool.cpp)

// As client_find_by_handle and client_find_by_cid, found and pinned in one step under the table's lock.
client_ref find_client_by_handle(uint32_t handle) noexcept;
client_ref find_client_by_cid(const char *client_id) noexcept;

// The next used record in pool order at or after `index` (0 at first), pinned; empty at the end. `index` is moved
// behind it.
client_ref next_client(int32_t &index) noexcept;

// ---- the id (client_id.cpp)

// The id as text of its own, copied under the record's id lock: for threads other than the client's own.
struct client_id_text {
    char text[CODEC_CLIENT_ID_MAX + 1];
};
client_id_text id_of(mqtt_client_t &client) noexcept;

// ---- the embedded session record (session.cpp)

// Lock that guards the embedded session record against a second thread; held for writes of `session` and for saving
// it, never across a callback. For a record outside the pool a lock that all such records share.
Mutex &session_lock(const mqtt_client_t &client) noexcept;

// Zeroes the embedded session record, touching only memory that was written before. session_lock held.
void clear_session(mqtt_client_t &client) noexcept;
// To be told before subs[] or msgs[] is filled up to these counts by other means than clear_session's callers know.
void session_written(mqtt_client_t &client, int32_t sub_count, int32_t msg_count) noexcept;

// ---- its life (life.cpp; close_seen: close.cpp)

[[nodiscard]] inline bool is_online(mqtt_client_t &client) noexcept
{
    const uint32_t state = client.state;
    return state == CLIENT_CONNECTED || state == CLIENT_LOGINED;
}

// Makes the record logged in, unless it was closed meanwhile (false).
[[nodiscard]] bool mark_logged_in(mqtt_client_t &client) noexcept;

// client_close by a caller that holds a pin and saw the client in this state: returns when another thread has closed it
// since, also when that one has parked it.
void close_seen(mqtt_client_t &client, uint32_t seen_state) noexcept;

// Claims a pool record for closing or for settling its will: one winner. Records outside the pool always win.
[[nodiscard]] bool claim_closing(mqtt_client_t &client) noexcept;
void               unclaim_closing(mqtt_client_t &client) noexcept;

// Ends a claimed record that waits for its will: out of both tables, CLOSED, no longer counted as delayed, released.
void release_parked(mqtt_client_t &client) noexcept;

// The same for a pool record whose delay was called off while another thread parked it or looked at it: no scan would
// ever take it. Asked by who calls off and, in unclaim_closing, by who had the claim meanwhile; takes will_lock.
void release_called_off(mqtt_client_t &client) noexcept;

// ---- delayed wills (will_scan.cpp)

// False while no delayed will can be due: what the housekeeping thread asks before it scans the pool.
[[nodiscard]] bool will_delays_running() noexcept;

// False while no closed client waits for its delayed will: what CONNECT asks before it looks for one to cancel.
[[nodiscard]] bool wills_are_parked() noexcept;

// ---- sending (send_ring.cpp). The caller holds a pin.

// A packet that lies in two places: what stands before the payload, or all of it, and the payload.
struct PacketParts {
    std::span<const uint8_t> head;
    std::span<const uint8_t> payload = {};
};

// Queues the packet and sees to its sending; 0, or 0xFFFFFFFF when it was dropped.
uint32_t send_to(mqtt_client_t &client, const PacketParts &packet) noexcept;

// The same in two steps, for who has to do something before the packet may leave: who queued it (result 0) sees to its
// sending soon.
uint32_t queue_packet(mqtt_client_t &client, const PacketParts &packet) noexcept;
void     see_to_sending(mqtt_client_t &client) noexcept;

// The next DISCONNECT that is queued for this client is the last packet sent to it: the caller closes it then, and what
// is queued meanwhile, its own will for one, stays in the ring. A record outside the pool is sent all.
void end_with_disconnect(mqtt_client_t &client) noexcept;

// Sends what is queued for this client now, on the calling thread, as far as the socket takes it.
void flush_client(mqtt_client_t &client) noexcept;

} // namespace tarn

#endif
