// net.hpp - the network layer, for the other modules of the library: up and down, the addresses of peers, and what
// netip_link.h has. Hosts have the same as netip.h: net_c.cpp turns away null pointers and calls this.
#ifndef TARN_NET_NET_HPP
#define TARN_NET_NET_HPP

#include "hooks_types.h"
#include "netip_link.h"

#include <span>

namespace tarn::net {

enum class Start : uint32_t {
    Up       = NETIP_OK,
    NoMemory = NETIP_NOMEM, // perhaps all runs but the accept thread
    NoSocket = NETIP_SOCKET,
    Taken    = NETIP_BIND, // the port; or the layer is up already
    NoListen = NETIP_LISTEN,
    NoEpoll  = NETIP_EPOLL,
};
enum class Udp : uint8_t { Open, Closed };
Start start(netip_event_cb_t cb, void *arg, int32_t io_threads, Udp udp = Udp::Open) noexcept;
void  stop() noexcept; // harmless when the layer is down

// The address of a peer into INET_ADDRSTRLEN bytes or more, terminated; false, and zeros, for no such connection.
bool     copy_ip(uint32_t handle, std::span<char> ip) noexcept;
uint16_t port_of(uint32_t handle) noexcept; // host order; 0 for no such connection

} // namespace tarn::net

#endif
