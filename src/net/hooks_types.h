// hooks_types.h - what the network layer asks the modules above it, a part of net.hpp: the hooks, and how they name a
// connection. netip_link.h sets them. No lock is held in any of these calls.
#ifndef TARN_NET_HOOKS_TYPES_H
#define TARN_NET_HOOKS_TYPES_H

#include "netip_types.h"

#include <span>

namespace tarn::net {

// A handle is reused; handle and generation together name one connection. 0 is no generation.
struct Connection {
    uint32_t handle     = NETIP_NO_HANDLE;
    uint32_t generation = 0;
};

// Called by every I/O thread before it looks at the events of a round and after it has handled the last one, UDP
// included; not for a round without events. Between two packets `send` may be called, to send what is queued so far if
// that is for few; false: it is for nobody or many, and waits for the end.
struct RoundHooks {
    void (*begin)() = nullptr;
    void (*end)()   = nullptr;
    bool (*send)()  = nullptr;
};

enum class Way : uint8_t {
    Now,   // this thread, at once
    Aside, // a lane thread (lane.h): for packets that wait for a disk, a password or the like
    Later, // nobody, until resume()
};
struct Choice {
    Way      way   = Way::Now;
    uint32_t group = 0; // of what goes aside in one group, one is served at a time, in the order it came; 0 = no group
};
// Asked by I/O threads before a packet is handed up, and with an empty packet before the end of a connection is told;
// `types` has a bit for each packet type, the high four bits of the first byte, that is asked about. While a connection
// is aside or waits to be resumed, its next packets and its end wait behind. Once resumed it is asked about again.
// A lane serves each inside a round of its own, with the hooks above around it. The connection is given back before the
// round ends, and if it was closed its socket closes behind the round: a peer that has its answer, or sees the close,
// finds all done. UDP is never asked about: each datagram is served at once.
struct WayHook {
    uint16_t types                                                                    = 0;
    Choice (*choose)(Connection connection, std::span<const uint8_t> packet) noexcept = nullptr;
};

// Tells the length of the packet that what was received begins with, 0 while more bytes are needed to tell. What it
// refuses ends the connection. Without the hook packets have up to NETIP_RX_SIZE bytes, with it what it lets pass.
struct Measured {
    size_t length     = 0; // up to INT32_MAX
    bool   is_refused = false;
};
using MeasureHook = Measured (*)(Connection connection, std::span<const uint8_t> received) noexcept;

} // namespace tarn::net

#endif
