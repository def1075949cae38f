// close.cpp - how connections end.
//
// Three ways lead here: a caller (netip_close), the peer or an error (hang_up) and the end of the layer (retire). The
// callback is told first or meanwhile, with no lock held, and may itself close the connection; whoever turns in_use
// from 1 to 0 closes the descriptor, so that happens once.
#include "netip_internal.h"

#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

using namespace tarn;
using namespace tarn::net;

namespace tarn::net {
namespace {

constexpr int kDrainBytes = 4096;
constexpr int kDrainTurns = 16; // 64 KiB

// Descriptors whose slot is free but which the callback wanted left open.
struct Parked {
    int   *fds;
    size_t count;
    size_t room;
};
constinit Parked g_parked GUARDED_BY(g_netip_lock){};

void park(int fd)
{
    ScopedLock lock(g_netip_lock);
    if (g_parked.count == g_parked.room) {
        const size_t room  = g_parked.room ? 2 * g_parked.room : 16;
        auto        *grown = static_cast<int *>(realloc(g_parked.fds, room * sizeof(int)));
        if (!grown)
            return; // stays open until the process ends
        g_parked.fds  = grown;
        g_parked.room = room;
    }
    g_parked.fds[g_parked.count++] = fd;
}

// Unread input would turn the close into a reset, which can overtake what was sent last: the peer would never see it.
void close_gently(int fd)
{
    shutdown(fd, SHUT_WR);
    uint8_t sink[kDrainBytes];
    for (int turn = 0; turn < kDrainTurns && recv(fd, sink, sizeof sink, MSG_DONTWAIT) > 0; ++turn) {}
    close(fd);
}

// A UDP peer of this layer: its descriptor is everybody's and lives in g_netip_udp. The number in the slot may have
// gone to somebody else by now. A slot filled by hand owns what it names, unless that is the same socket.
bool shares_descriptor(const SlotHold &hold)
{
    const netip_conn_t &slot = hold.slot();
    return slot.type == NETIP_UDP && (hold.connection().generation != 0 || slot.fd == g_netip_udp);
}

// The receive buffer is wiped by the last holder, who may be delivering a packet from it right now.
void wipe_peer(netip_conn_t &slot)
{
    memset(&slot.peer, 0, sizeof slot.peer);
    memset(slot.ip, 0, sizeof slot.ip);
    slot.peer_len = 0;
    slot.port     = 0;
}

// Frees the slot for the holder that comes first. Unread input would be reported for ever while the callback is told.
bool take_slot(const SlotHold &hold)
{
    SlotLock lock(hold.handle(), SlotLock::Always);
    if (!hold.is_current())
        return false;
    if (!shares_descriptor(hold))
        unwatch(hold.handle());
    mark_closed(hold.handle());
    return true;
}

} // namespace

// QUIRK(udp-ends-for-all): the socket of a UDP client is that of all of them, so the end of one ends UDP until the
// broker is started anew, although a connection is one client's [MQTT-4.2.0-1]. DISCONNECT ends one, and so do silence
// beyond the keep-alive, a kick, and a refused CONNECT; whoever sends one datagram and no CONNECT is ended after the
// default keep-alive of 300 s. The others' places stay taken. Let nobody but known devices reach the UDP port, with a
// keep-alive of 65535 s (27 hours of silence) and no DISCONNECT, or block it.
//   test: udp.a_disconnect_over_udp_ends_udp_for_all,
//   slow_udp.a_sender_that_falls_silent_without_a_connect_ends_udp_for_all,
//   udp.closing_one_peer_ends_udp_until_the_next_start
void close_connection(uint32_t handle, uint32_t generation) noexcept
{
    const SlotHold hold({handle, generation ? generation : generation_of(handle)});
    if (!hold || !take_slot(hold))
        return;
    const bool agreed = event_sink().disconnected(handle, REASON_LOCAL);
    const bool shared = shares_descriptor(hold);
    {
        SlotLock slot(handle, SlotLock::Always);
        if (agreed)
            wipe_peer(*slot);
        if (agreed && shared)
            close_shared_udp(); // and with it UDP, until the next start
        else if (agreed)
            close_gently(slot->fd);
    }
    if (!agreed && !shared)
        park(hold.slot().fd);
}

void hang_up(const SlotHold &hold, const EventSink &sink) noexcept
{
    const bool agreed = sink.disconnected(hold.handle(), REASON_TCP);
    SlotLock   slot(hold.handle(), SlotLock::Always);
    if (!hold.is_current())
        return; // closed by the callback
    if (!agreed) {
        rest(hold.handle()); // asked again later, as the cause will not go away
        return;
    }
    unwatch(hold.handle());
    mark_closed(hold.handle());
    close_gently(slot->fd);
}

void retire(uint32_t handle, const EventSink &sink) noexcept
{
    if (!peek_acquire(slot_of(handle).in_use))
        return;
    const SlotHold hold({handle, generation_of(handle)});
    if (!hold)
        return;
    (void)sink.disconnected(handle, REASON_LOCAL);
    if (!take_slot(hold))
        return;
    SlotLock slot(handle, SlotLock::Always);
    if (slot->type == NETIP_TCP) // the UDP socket follows by itself
        close_gently(slot->fd);
    wipe_peer(*slot);
}

void close_parked() noexcept
{
    for (size_t i = 0; i < g_parked.count; ++i)
        close(g_parked.fds[i]);
    free(g_parked.fds);
    g_parked = {};
}

} // namespace tarn::net
