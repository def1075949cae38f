// netip_internal.h - what the files of this folder share: the hidden state beside each slot, the two guards that make a
// slot safe to touch, and the small seams between the files.
//
// The exported table decides, and a host may edit it. What the layer must know beyond it is in g_sides, by handle. A
// slot that a host filled has generation 0 there and is served like any other.
//
// Locks, outermost first: g_netip_lock, a slot's own lock, that of SharedFds. The last two are leaves for everybody
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

// Who serves a connection.
enum class Server : uint8_t {
    Rounds, // I/O threads, when epoll tells of it
    List,   // the next round, whatever epoll tells: whole packets are left in its buffer
    Lane,   // a lane thread, once its turn comes
    Nobody, // it waits for resume()
};

// What is asked of finish_later().
struct Finish {
    void (*call)(Connection connection, uint32_t word) noexcept = nullptr;
    uint32_t word                                               = 0;
};

// What a lane has to do for a connection.
enum class Work : uint8_t {
    Packet, // hand up the one in front
    End,    // tell that the peer or an error ended it
    Finish,
};

// A connection's place in a queue of lane.cpp, under the queue's lock. The queue has a pin of the slot.
struct Errand {
    uint32_t generation;
    uint32_t next; // behind it in the queue: handle + 1, 0 = end
    uint32_t group;
    Work     work;
    uint8_t  line;
    uint64_t due_us; // of Work::Finish
    Finish   finish;
};

struct SlotSide {
    Shared<uint32_t>      generation;     // names the connection in the slot; 0: free, or not put there by this layer
    std::atomic<uint32_t> visitors;       // threads at or behind the slot's lock
    std::atomic<uint16_t> pins;           // SlotPins of the connection; the slot is not used again before they end
    uint8_t               wants_writable; // registered for writable events. Slot lock
    Shared<uint8_t>       paused;         // taken out of epoll for a while; changes under the slot lock
    HalfSent              half_sent;      // Slot lock
    Shared<Server>        server;         // changes under the slot lock
    Shared<uint8_t>       unwatched;      // out of epoll: it sent while aside or waiting; changes under the slot lock
    uint8_t               resumed;        // resume() was called since the hook was asked. Slot lock
    Shared<uint8_t>       asks_about_all; // see ask_about_all()
    Shared<uint8_t>       was_aside;      // a packet of it went to a lane before
    Errand                errand;         // g_lane_mutex, or g_listed_mutex while it is listed
    uint32_t              front;      // of slot.rx_buf: where the packet in front begins (big_packet.cpp); its reader's
    uint8_t              *big_packet; // in front, if it is above NETIP_RX_SIZE (big_packet.cpp); its reader's
};
extern SlotSide g_sides[NETIP_CLIENTS_MAX];

inline netip_conn_t &slot_of(uint32_t handle) noexcept
{
    return g_netip_clients[handle];
}
inline SlotSide &side_of(uint32_t handle) noexcept
{
    return g_sides[handle];
}

// Locks one slot for the extent of a block. IfInUse locks only a slot that is in use, and is for callers without a pin
// of the slot and without g_netip_lock. Because of that, and of the count of visitors, a start can clear the table
// around the locks.
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

// A pin of a slot: it is not used again while an event of its connection is handed up or the connection is closed. A
// thread with a pin may use the receive buffer; the last pin wipes it if the connection was closed meanwhile.
class SlotPin {
public:
    enum Adopt { Counted };
    explicit SlotPin(Connection connection) noexcept;                           // empty unless current
    SlotPin(Connection connection, Adopt) noexcept : connection_(connection) {} // the one that open_slot() counted
    ~SlotPin();
    SlotPin(const SlotPin &)            = delete;
    SlotPin &operator=(const SlotPin &) = delete;

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

// Takes a free slot for a new connection and marks it in use, with one pin that the caller adopts. Handle
// NETIP_NO_HANDLE when the table is full.
Connection open_slot(uint32_t type, int fd, const PeerAddress &peer) noexcept REQUIRES(g_netip_lock);
// The free slot that is next in turn; see netip_get_free_handle.
uint32_t take_free_handle() noexcept REQUIRES(g_netip_lock);
// Frees the slot, once its pins are gone. The caller has a pin and the slot's lock.
void mark_closed(uint32_t handle) noexcept;

// Zeroes the table but for slots that are still pinned. The pages go back to the system.
void clear_table() noexcept REQUIRES(g_netip_lock);

// ---- what only hosts ask for

// One packet at once; nothing is kept of it. NETIP_OK, NETIP_AGAIN or NETIP_INVALID.
uint32_t send_packet(uint32_t handle, const OutPacket &packet) noexcept;
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

// The callback registered now. Events are delivered with no lock held.
EventSink event_sink() noexcept;

void call_round_begin() noexcept;
void call_round_end() noexcept;
bool call_round_send() noexcept;
void call_writable_hook(uint32_t handle) noexcept;

// ---- epoll registrations and shared descriptors (watch.cpp)

// The descriptors that all slots share: netip_epoll_fd, g_netip_udp and g_wake_fd. Who uses one keeps it open, and does
// not wait for others who use them; who replaces or closes one waits for those.
class SharedFds {
public:
    enum For { Use, Change };
    explicit SharedFds(For what) noexcept;
    ~SharedFds();
    SharedFds(const SharedFds &)            = delete;
    SharedFds &operator=(const SharedFds &) = delete;
};
extern Shared<int32_t> g_wake_fd; // an eventfd watched by epoll, -1 = none

// Slot lock held for these.
bool watch(uint32_t handle) noexcept; // readable events from now on
void unwatch(uint32_t handle) noexcept;
void want_writable(uint32_t handle) noexcept;   // writable events too
bool forget_writable(uint32_t handle) noexcept; // no longer; false when nobody had asked for them
void pause_watching(uint32_t handle) noexcept;  // no events for about 100 ms

// No lock held. Watches the paused slots again, if it is time; after a round without events it always is.
void resume_watching(bool idle) noexcept;
bool watch_shared(int epoll, int descriptor) noexcept; // the listener, g_wake_fd
void wake_io_thread() noexcept;                        // makes an I/O thread do a round
void close_shared_udp() noexcept;
void close_epoll() noexcept; // and g_wake_fd

// ---- closing (close.cpp)

// The end that the peer or an error brought: tells the callback (reason 0), then closes unless it objects.
void hang_up(const SlotPin &pin, const EventSink &sink) noexcept;
// The end of the layer: tells the callback (reason 2), closes in any case and wipes. Ignores free slots.
void close_at_deinit(uint32_t handle, const EventSink &sink) noexcept;
// Closes the descriptors of connections whose callback objected to netip_close.
void close_left_open() noexcept REQUIRES(g_netip_lock);

// ---- what was received (big_packet.cpp). The reader's.

uint8_t             *received_bytes(const SlotPin &pin) noexcept; // slot.rx_len of them, the packet in front first
[[nodiscard]] size_t room_for_more(const SlotPin &pin) noexcept;  // 0: the packet in front will never be whole
// Looks for the length of the packet in front. 0 is that of what is refused: it is whole at once.
void measure(const SlotPin &pin) noexcept;
// Drops the packet in front and measures the next.
void drop_packet(const SlotPin &pin) noexcept;
// What is left stands at the beginning of the slot's buffer; before more is received.
void move_to_front(const SlotPin &pin) noexcept;
void drop_big_packet(uint32_t handle) noexcept;

// ---- serving a connection (serve.cpp). Its receive buffer is the calling thread's.

// False: the packet in front (empty: the end of the connection) is not this thread's to serve, as it went to a lane,
// waits to be resumed, or the connection was closed.
bool serves_here(const SlotPin &pin, std::span<const uint8_t> packet, uint32_t start) noexcept;

// Hands up the packet in front and drops it from the buffer. False when nothing more of the connection is to be served
// by this thread.
bool hand_up_first(const SlotPin &pin, const EventSink &sink, uint32_t start) noexcept;

// Keeps rounds away from the connection, in favour of this one. False when it was closed.
bool step_aside(const SlotPin &pin, Server server) noexcept;

// Takes the connection out of epoll, which told of it, until it is through with the lane or resumed.
void hear_nothing_aside(const SlotPin &pin) noexcept;

// After a turn: whole packets that are left, or an end that is put off, make the connection the next round's, else
// epoll's.
void end_turn(const SlotPin &pin, const EventSink &sink, bool is_put_off = false) noexcept;

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
