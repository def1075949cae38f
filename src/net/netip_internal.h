// netip_internal.h - what the files of this folder share: the hidden state beside each slot, the two guards that make a
// slot safe to touch, and the small seams between the files.
//
// The exported table is the truth and may be edited by a host; what the layer must know beyond it stands in g_side, by
// handle. A slot that somebody else filled has generation 0 there and is served like any other.
//
// Locks, outermost first: g_netip_lock, a slot's own lock, g_shared_fd_lock. The last two are leaves for everybody
// else: only calls that cannot block are made under them, and nothing is logged.
#ifndef TARN_NET_NETIP_INTERNAL_H
#define TARN_NET_NETIP_INTERNAL_H

#include "../base/mutex.h"
#include "../base/relaxed.h"
#include "net.hpp"

#include <atomic>

namespace tarn::net {

// ---- slots (slot.cpp)

// A packet of which the socket has taken a part only; see send_packets().
struct HalfSent {
    const uint8_t *packet; // null = none
    int32_t        sent;   // bytes
    uint64_t       socket; // see identity_of() in send.cpp
};

struct SlotSide {
    Shared<uint32_t>      generation;     // names the connection in the slot; 0: free, or not put there by this layer
    std::atomic<uint32_t> visitors;       // threads at or behind the slot's lock
    std::atomic<uint16_t> users;          // holds (SlotHold) on the connection; the slot is not reused before they end
    uint8_t               wants_writable; // registered for writable events. Slot lock
    Shared<uint8_t>       resting;        // taken out of epoll for a while; changes under the slot lock
    HalfSent              half_sent;      // Slot lock
};
extern SlotSide g_side[NETIP_CLIENTS_MAX];

inline netip_conn_t &slot_of(uint32_t handle) noexcept
{
    return g_netip_clients[handle];
}
inline SlotSide &side_of(uint32_t handle) noexcept
{
    return g_side[handle];
}

// Locks one slot for the extent of a block. Whoever neither holds the slot nor g_netip_lock gets in only while the slot
// is in use; that, and the count of visitors, is what lets a start clear the table with every lock in it.
class SlotLock {
public:
    enum Entry { Always, IfInUse };
    explicit SlotLock(uint32_t handle, Entry entry = IfInUse) noexcept;
    ~SlotLock();
    SlotLock(const SlotLock &)            = delete;
    SlotLock &operator=(const SlotLock &) = delete;

    explicit      operator bool() const noexcept { return inside_; }
    netip_conn_t *operator->() const noexcept { return &slot_of(handle_); }
    netip_conn_t &operator*() const noexcept { return slot_of(handle_); }

private:
    uint32_t handle_;
    bool     inside_;
};

// True while the slot is in use by exactly this connection; unlike is_open(), generation 0 stands for itself.
bool is_current(Connection connection) noexcept;

// Keeps a slot from being handed out again while an event of its connection is delivered or the connection is torn
// down. The receive buffer belongs to the holder; the last one wipes it if the connection was closed meanwhile.
class SlotHold {
public:
    enum Adopt { Counted };
    explicit SlotHold(Connection connection) noexcept;                           // empty unless current
    SlotHold(Connection connection, Adopt) noexcept : connection_(connection) {} // the one that open_slot() counted
    ~SlotHold();
    SlotHold(const SlotHold &)            = delete;
    SlotHold &operator=(const SlotHold &) = delete;

    explicit      operator bool() const noexcept { return connection_.handle != NETIP_NO_HANDLE; }
    Connection    connection() const noexcept { return connection_; }
    uint32_t      handle() const noexcept { return connection_.handle; }
    netip_conn_t &slot() const noexcept { return slot_of(connection_.handle); }
    bool          is_current() const noexcept { return net::is_current(connection_); }

private:
    Connection connection_;
};

// A peer as accept and recvfrom report it.
struct PeerAddress {
    sockaddr_in address{};
    socklen_t   length = sizeof(sockaddr_in);
};

// Takes a free slot for a new connection and marks it in use, with one hold on it that the caller adopts. Handle
// NETIP_NO_HANDLE when the table is full.
Connection open_slot(uint32_t type, int fd, const PeerAddress &peer) noexcept REQUIRES(g_netip_lock);
// The free slot that is next in turn; see netip_get_free_handle.
uint32_t take_free_handle() noexcept REQUIRES(g_netip_lock);
// Frees the slot, once its holders are gone. Slot lock held, by a holder.
void mark_closed(uint32_t handle) noexcept;

// Zeroes the table but for slots that somebody still holds. The pages go back to the system.
void clear_table() noexcept REQUIRES(g_netip_lock);

// ---- what only hosts ask for

// One packet at once; nothing is kept of it. NETIP_OK, NETIP_AGAIN or NETIP_INVALID.
uint32_t send_packet(uint32_t handle, const Packet &packet) noexcept;
uint64_t last_active_of(uint32_t handle) noexcept; // wall clock, ms; 0 for no such connection
bool     set_keepalive(uint32_t handle, int32_t idle_s, int32_t interval_s, int32_t count) noexcept;

// ---- the event callback

struct EventSink {
    netip_event_cb_t call = nullptr;
    void            *arg  = nullptr;

    void connected(uint32_t handle, uint32_t reason) const noexcept;
    bool disconnected(uint32_t handle, uint32_t reason) const noexcept; // false: leave the socket open
    void data(Connection connection, const uint8_t *bytes, uint32_t length) const noexcept;
};
enum { REASON_TCP = 0, REASON_LOCAL = 2, REASON_DATAGRAM = 3, REASON_DATA = 3 };

// The callback registered now, read under g_netip_lock. Events are delivered with no lock held.
EventSink event_sink() noexcept;

void call_round_begin() noexcept;
void call_round_end() noexcept;
void call_writable_hook(uint32_t handle) noexcept;

// ---- epoll registrations and shared descriptors (watch.cpp)

// The descriptors that all slots share die under this lock: netip_epoll_fd, g_netip_udp and the bell.
extern Mutex           g_shared_fd_lock;
extern Shared<int32_t> g_bell; // an eventfd watched by epoll, -1 = none

// Slot lock held for these.
bool watch(uint32_t handle) noexcept; // readable events from now on
void unwatch(uint32_t handle) noexcept;
void want_writable(uint32_t handle) noexcept;   // writable events too
bool settle_writable(uint32_t handle) noexcept; // no longer; false when nobody had asked for them
void rest(uint32_t handle) noexcept;            // no events for about 100 ms

// No lock held. Watches the resting slots again, if any and if it is time; an idle round is always time.
void wake_resting(bool idle) noexcept;
bool watch_shared(int epoll, int descriptor) noexcept; // the listener, the bell
void ring_bell() noexcept;                             // makes an I/O thread do a round
void close_shared_udp() noexcept;
void close_epoll() noexcept; // and the bell

// ---- closing (close.cpp)

// The end that the peer or an error brought: tells the callback (reason 0), then closes unless it objects.
void hang_up(const SlotHold &hold, const EventSink &sink) noexcept;
// The end of the layer: tells the callback (reason 2), closes in any case and wipes. Ignores free slots.
void retire(uint32_t handle, const EventSink &sink) noexcept;
// Closes the descriptors of connections whose callback objected to netip_close.
void close_parked() noexcept REQUIRES(g_netip_lock);

// ---- the moving parts

// Every start of the layer has a number of its own; a thread of one start ends when another begins.
bool layer_runs(uint32_t start) noexcept;

void *io_thread(void *start) noexcept; // the number of the start, as a pointer
// Waits for events and handles them: one turn of an I/O thread. Returns epoll_wait's result.
int  run_round(uint32_t start, int timeout_ms) noexcept;
void give_up_round() noexcept; // of the calling thread, if it is inside one: it is about to wait for the others

void receive_datagram(const EventSink &sink) noexcept; // at most one

// Sees to exactly one accept thread. False when none runs and none could be started.
bool start_accepting() noexcept EXCLUDES(g_netip_lock);
// Returns when the accept thread is outside the callback and will not enter it while the layer is down.
void await_accept_thread() noexcept;

} // namespace tarn::net

#endif
