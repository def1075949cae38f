// netip_link.h - connections as the library names and serves them, a part of net.hpp: naming one connection exactly,
// sending many packets at once, and a word around each I/O round and for a socket that takes bytes again. Upward calls
// go through the event callback and these hooks only; no lock is held in any.
#ifndef TARN_NET_NETIP_LINK_H
#define TARN_NET_NETIP_LINK_H

#include "hooks_types.h"
#include "netip.h"

#include <span>
#include <utility>

namespace tarn::net {

// A handle is reused; handle and generation together name one connection. 0 is no generation.
uint32_t generation_of(uint32_t handle) noexcept; // 0 when the slot is free or the handle is out of range

// netip_close, but only while the handle still belongs to that connection. Generation 0: a plain netip_close.
void close_connection(uint32_t handle, uint32_t generation) noexcept;

// The connection whose data event the calling thread is delivering right now; generation 0 outside one.
Connection current_connection() noexcept;
// True while that connection's slot has not been closed since the event began. Always true for generation 0.
bool is_open(Connection connection) noexcept;

// Sends 1..kGatherMax packets in order without blocking: on TCP as one write, on UDP one datagram each. A packet that
// netip_send would refuse ends the list with NETIP_INVALID. With a generation nothing is sent to another connection
// that has the handle by now.
//
// Of a packet that the socket takes only in part the rest is owed: it is not counted, and the next list is to begin
// with the same packet at the same place, which then goes on where it stopped. Another one in front is sent whole.
struct OutPacket {
    const uint8_t *bytes;
    int32_t        length;
};
struct Sent {
    int      packets; // accepted to their last byte, counted from the front
    uint32_t result;  // NETIP_OK when all were accepted, else NETIP_AGAIN or NETIP_INVALID
};
constexpr int kGatherMax = 64;
Sent          send_packets(uint32_t handle, const OutPacket *packets, int count, uint32_t generation = 0) noexcept;

// ---- hooks: see hooks_types.h

void set_round_hooks(RoundHooks hooks) noexcept;
void set_way_hook(WayHook hook) noexcept;
void set_measure_hook(MeasureHook hook) noexcept;

// Called by an I/O thread, inside its round, for a connection that takes bytes again after a send that would have blocked.
void set_writable_hook(void (*writable)(uint32_t handle)) noexcept;

// ---- which thread serves a packet, and when (serve.cpp)

bool on_lane() noexcept;                // the calling thread is one of them
bool is_aside(uint32_t group) noexcept; // a lane serves one of the group, or is about to

// The calling I/O thread's round has lasted 2 ms: what may go aside or not is to go, as others wait for their turn.
[[nodiscard]] bool round_is_long() noexcept;

// From now on the hook is asked about each packet of this connection, or about those of `types` again. Any thread.
void ask_about_all(Connection connection, bool all) noexcept;

// Ends Way::Later. Any thread. One that comes while the hook is still deciding is not lost: the hook is asked again.
void resume(Connection connection) noexcept;

// ---- an end that waits

// How long what was sent last has to leave before the connection is closed.
constexpr uint32_t kClosePause_ms = 10;

// Called while a packet of a TCP connection is handed up: after the packet and kClosePause_ms, a lane thread calls
// `finish` with the connection and `word`, unless the connection was closed meanwhile or the layer goes down. Until
// then nothing more of the connection is served. False: nothing will be called, as the calling thread hands up no packet
// of this handle.
bool finish_later(uint32_t handle, void (*finish)(Connection connection, uint32_t word) noexcept,
                  uint32_t word) noexcept;

// For the extent of a block the calling thread, when it closes this connection, keeps the socket open; the end of the
// block closes it, unless the socket was taken over. Inside another such block it does nothing.
class LateClose {
public:
    explicit LateClose(Connection connection) noexcept;
    ~LateClose();
    LateClose(const LateClose &)            = delete;
    LateClose &operator=(const LateClose &) = delete;

    int take_over() noexcept { return std::exchange(fd_, -1); } // -1: the connection was not closed

    static bool keeps(Connection connection, int fd) noexcept;

private:
    Connection connection_;
    int        fd_ = -1;
};
void close_socket(int fd) noexcept; // what was sent last still arrives

// For the extent of a block the calling thread counts as handing up nothing: what a host calls inside a callback is
// done when it returns.
class OutsideEvent {
public:
    OutsideEvent() noexcept;
    ~OutsideEvent();
    OutsideEvent(const OutsideEvent &)            = delete;
    OutsideEvent &operator=(const OutsideEvent &) = delete;

private:
    Connection outer_;
};

// True while the layer runs (between a netip_init that returned 0 and netip_deinit).
bool is_up() noexcept;

} // namespace tarn::net

#endif
