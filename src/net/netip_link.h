// netip_link.h - connections as the library names and serves them, a part of net.hpp: naming one connection exactly,
// sending many packets at once, and a word around each I/O round and for a socket that takes bytes again. Upward calls
// go through the event callback and these hooks only; no lock is held in any.
#ifndef TARN_NET_NETIP_LINK_H
#define TARN_NET_NETIP_LINK_H

#include "netip.h"

namespace tarn::net {

// A handle is reused; handle and generation together name one connection. 0 is no generation.
uint32_t generation_of(uint32_t handle) noexcept; // 0 when the slot is free or the handle is out of range

// netip_close, but only while the handle still belongs to that connection. Generation 0: a plain netip_close.
void close_connection(uint32_t handle, uint32_t generation) noexcept;

// The connection whose data event the calling thread is delivering right now; generation 0 outside one.
struct Connection {
    uint32_t handle     = NETIP_NO_HANDLE;
    uint32_t generation = 0;
};
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

// Called by every I/O thread before it looks at the events of a round and after it has handled the last one, UDP
// included; not for a round without events.
struct RoundHooks {
    void (*begin)() = nullptr;
    void (*end)()   = nullptr;
};
void set_round_hooks(RoundHooks hooks) noexcept;

// Called by an I/O thread, inside its round, for a connection that takes bytes again after a send that would have blocked.
void set_writable_hook(void (*writable)(uint32_t handle)) noexcept;

// True while the layer runs (between a netip_init that returned 0 and netip_deinit).
bool is_up() noexcept;

} // namespace tarn::net

#endif
