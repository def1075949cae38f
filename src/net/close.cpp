// close.cpp - how connections end.
//
// There are three reasons: a caller (netip_close), the peer or an error (hang_up), and the end of the layer
// (close_at_deinit). The callback is told before the descriptor is closed, with no lock held, and may close the
// connection itself. The thread that turns in_use from 1 to 0 closes the descriptor, so that happens once.
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

// Descriptors that the callback wanted left open; their slots are free.
struct LeftOpen {
    int   *fds;
    size_t count;
    size_t room;
};
constinit LeftOpen g_left_open GUARDED_BY(g_netip_lock){};

void leave_open(int fd)
{
    ScopedLock lock(g_netip_lock);
    if (g_left_open.count == g_left_open.room) {
        const size_t room  = g_left_open.room ? 2 * g_left_open.room : 16;
        auto        *grown = static_cast<int *>(realloc(g_left_open.fds, room * sizeof(int)));
        if (!grown)
            return; // stays open until the process ends
        g_left_open.fds  = grown;
        g_left_open.room = room;
    }
    g_left_open.fds[g_left_open.count++] = fd;
}

// True for a UDP peer of this layer: all of them share the descriptor in g_netip_udp, and the number in the slot may
// mean another file by now. A slot filled by hand owns its descriptor, unless it is the same socket.
bool shares_descriptor(const SlotPin &pin)
{
    const netip_conn_t &slot = pin.slot();
    return slot.type == NETIP_UDP && (pin.connection().generation != 0 || slot.fd == g_netip_udp);
}

// The receive buffer is wiped by the last pin: a packet from it may be with the callback right now.
void wipe_peer(netip_conn_t &slot)
{
    memset(&slot.peer, 0, sizeof slot.peer);
    memset(slot.ip, 0, sizeof slot.ip);
    slot.peer_len = 0;
    slot.port     = 0;
}

// Frees the slot; true for the first caller. The slot leaves epoll here, because unread input would be reported again
// and again while the callback runs.
bool free_slot(const SlotPin &pin)
{
    SlotLock lock(pin.handle(), SlotLock::Always);
    if (!pin.is_current())
        return false;
    if (!shares_descriptor(pin))
        unwatch(pin.handle());
    mark_closed(pin.handle());
    return true;
}

constinit thread_local LateClose *t_late_close = nullptr;

} // namespace

// Unread input would turn the close into a reset, which can overtake what was sent last: the peer would never see it.
void close_socket(int fd) noexcept
{
    shutdown(fd, SHUT_WR);
    uint8_t unread[kDrainBytes];
    for (int turn = 0; turn < kDrainTurns && recv(fd, unread, sizeof unread, MSG_DONTWAIT) > 0; ++turn) {}
    close(fd);
}

LateClose::LateClose(Connection connection) noexcept : connection_(connection)
{
    if (!t_late_close)
        t_late_close = this;
}

LateClose::~LateClose()
{
    if (t_late_close == this)
        t_late_close = nullptr;
    if (fd_ >= 0)
        close_socket(fd_);
}

bool LateClose::keeps(Connection connection, int fd) noexcept
{
    LateClose *const late = t_late_close;
    if (!late || late->connection_.handle != connection.handle || late->connection_.generation != connection.generation)
        return false;
    late->fd_ = fd;
    return true;
}

// QUIRK(udp-ends-for-all): the socket of a UDP client is that of all of them, so the end of one ends UDP until the
// broker is started anew, although a connection is one client's [MQTT-4.2.0-1]. DISCONNECT ends one, and so do silence
// beyond the keep-alive, a kick, and a refused CONNECT; a sender of one datagram and no CONNECT is ended after the
// default keep-alive of 300 s. The others' places stay taken. Let nobody but known devices reach the UDP port, with a
// keep-alive of 65535 s (27 hours of silence) and no DISCONNECT, or block it.
//   standard profile: lifted (wire): there is no UDP
//   test: udp.a_disconnect_over_udp_ends_udp_for_all,
//   slow_udp.a_sender_that_falls_silent_without_a_connect_ends_udp_for_all,
//   udp.closing_one_peer_ends_udp_until_the_next_start
void close_connection(uint32_t handle, uint32_t generation) noexcept
{
    const SlotPin pin({handle, generation ? generation : generation_of(handle)});
    if (!pin || !free_slot(pin))
        return;
    const bool agreed = event_sink().disconnected(handle, REASON_LOCAL);
    const bool shared = shares_descriptor(pin);
    {
        SlotLock slot(handle, SlotLock::Always);
        if (agreed)
            wipe_peer(*slot);
        if (agreed && shared)
            close_shared_udp(); // and with it UDP, until the next start
        else if (agreed && !LateClose::keeps(pin.connection(), slot->fd))
            close_socket(slot->fd);
    }
    if (!agreed && !shared)
        leave_open(pin.slot().fd);
}

void hang_up(const SlotPin &pin, const EventSink &sink) noexcept
{
    const bool agreed = sink.disconnected(pin.handle(), REASON_TCP);
    SlotLock   slot(pin.handle(), SlotLock::Always);
    if (!pin.is_current())
        return; // closed by the callback
    if (!agreed) {
        pause_watching(pin.handle()); // asked again later, as the cause will not go away
        return;
    }
    unwatch(pin.handle());
    mark_closed(pin.handle());
    close_socket(slot->fd);
}

void close_at_deinit(uint32_t handle, const EventSink &sink) noexcept
{
    if (!peek_acquire(slot_of(handle).in_use))
        return;
    const SlotPin pin({handle, generation_of(handle)});
    if (!pin)
        return;
    (void)sink.disconnected(handle, REASON_LOCAL);
    if (!free_slot(pin))
        return;
    SlotLock slot(handle, SlotLock::Always);
    if (slot->type == NETIP_TCP) // the UDP socket follows by itself
        close_socket(slot->fd);
    wipe_peer(*slot);
}

void close_left_open() noexcept
{
    for (size_t i = 0; i < g_left_open.count; ++i)
        close(g_left_open.fds[i]);
    free(g_left_open.fds);
    g_left_open = {};
}

} // namespace tarn::net
