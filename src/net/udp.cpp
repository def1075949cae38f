// udp.cpp - each sender of datagrams is a connection of its own, each datagram one packet.
#include "../base/clock.h"
#include "netip_internal.h"

#include <sys/socket.h>

namespace tarn::net {
namespace {

struct Datagram {
    uint8_t     bytes[NETIP_RX_SIZE];
    ssize_t     length;
    PeerAddress from;
    int         fd;
};

// Not through the epoll instance: UDP is looked at once in a round that had events.
// QUIRK(udp-waits-for-tcp): a datagram is read only when something happens on TCP, and then one, so it is not handled
// when it arrives [MQTT-4.2.0-1]. Where no TCP client is busy, UDP clients wait, and a broker with UDP clients alone
// never hears them. Let a TCP client on the same machine send PINGREQ as often as datagrams come.
//   standard profile: lifted (wire): there is no UDP
//   test: udp.a_datagram_waits_for_tcp_traffic, udp.one_datagram_is_taken_a_round
bool receive(Datagram &datagram)
{
    if (g_netip_udp < 0)
        return false;
    const SharedFds open(SharedFds::Use);
    datagram.fd = g_netip_udp;
    if (datagram.fd < 0)
        return false;
    datagram.length = recvfrom(datagram.fd, datagram.bytes, sizeof datagram.bytes, MSG_DONTWAIT,
                               reinterpret_cast<sockaddr *>(&datagram.from.address), &datagram.from.length);
    return datagram.length >= 1;
}

bool same_peer(const sockaddr_in &a, const sockaddr_in &b)
{
    return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

Connection find_peer(const sockaddr_in &address) REQUIRES(g_netip_lock)
{
    for (uint32_t handle = 0; handle < NETIP_CLIENTS_MAX; ++handle) {
        if (!peek_acquire(slot_of(handle).in_use) || slot_of(handle).type != NETIP_UDP)
            continue;
        SlotLock slot(handle);
        if (slot && same_peer(slot->peer, address))
            return {handle, side_of(handle).generation};
    }
    return {};
}

void hand_up(const SlotPin &pin, const Datagram &datagram, const EventSink &sink)
{
    if (!pin.is_current())
        return; // closed by the connected callback
    pin.slot().last_active = wall_ms();
    sink.data(pin.connection(), datagram.bytes, static_cast<uint32_t>(datagram.length));
}

} // namespace

void receive_datagram(const EventSink &sink) noexcept
{
    Datagram datagram;
    if (!receive(datagram))
        return;
    Connection known, added;
    {
        ScopedLock lock(g_netip_lock);
        known = find_peer(datagram.from.address);
        if (known.handle == NETIP_NO_HANDLE)
            added = open_slot(NETIP_UDP, datagram.fd, datagram.from);
    }
    if (known.handle != NETIP_NO_HANDLE) {
        if (const SlotPin pin(known); pin)
            hand_up(pin, datagram, sink);
    } else if (added.handle != NETIP_NO_HANDLE) { // else the table is full: dropped
        const SlotPin pin(added, SlotPin::Counted);
        sink.connected(added.handle, REASON_DATAGRAM);
        hand_up(pin, datagram, sink);
    }
}

} // namespace tarn::net
