// send.cpp - writing to a connection, without ever waiting. The slot's lock keeps the descriptor alive and the bytes of
// one call together.
#include "netip_internal.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/uio.h>

using namespace tarn;
using namespace tarn::net;

namespace {

constexpr int kFlags = MSG_DONTWAIT | MSG_NOSIGNAL;

bool can_be_sent(const Packet &packet)
{
    return packet.bytes && packet.length >= 1 && packet.length <= NETIP_SEND_MAX;
}

// Of the packets of one write that took `bytes`: those begun.
int packets_begun(const Packet *packets, int count, ssize_t bytes)
{
    int begun = 0;
    for (; begun < count && bytes > 0; ++begun)
        bytes -= packets[begun].length;
    return begun;
}

// QUIRK(dropped-tail): a packet that the socket takes only in part counts as sent and its tail is dropped, which breaks
// the stream. Against "an ordered, lossless, stream of bytes" [MQTT-4.2.0-1]; it stays because nothing above keeps
// bytes of a packet, and only a client that does not read gets there.
//   test: netip_send.a_short_write_counts_as_sent_and_drops_the_tail
Sent send_stream(uint32_t handle, const Packet *packets, int count)
{
    iovec pieces[kGatherMax];
    for (int i = 0; i < count; ++i)
        pieces[i] = {const_cast<uint8_t *>(packets[i].bytes), static_cast<size_t>(packets[i].length)};
    msghdr message{};
    message.msg_iov    = pieces;
    message.msg_iovlen = static_cast<size_t>(count);

    const ssize_t taken = sendmsg(slot_of(handle).fd, &message, kFlags);
    if (taken < 1 && errno != EAGAIN)
        return {0, NETIP_INVALID};
    const int begun = packets_begun(packets, count, taken);
    if (begun == count)
        return {begun, NETIP_OK};
    want_writable(handle);
    return {begun, NETIP_AGAIN};
}

// QUIRK(udp-transport): packets also travel as single datagrams. Against "an ordered, lossless, stream of bytes"
// [MQTT-4.2.0-1]; it stays because small devices use it where a lost packet is no loss.
//   test: udp.a_new_sender_connects_with_reason_3_and_its_datagram_is_one_packet
Sent send_datagrams(uint32_t handle, const Packet *packets, int count)
{
    const netip_conn_t &slot = slot_of(handle);
    ScopedLock          lock(g_shared_fd_lock);
    const int           fd = peek(side_of(handle).generation) ? peek(g_netip_udp) : slot.fd;
    const auto         *to = reinterpret_cast<const sockaddr *>(&slot.peer);
    for (int i = 0; i < count; ++i)
        if (sendto(fd, packets[i].bytes, static_cast<size_t>(packets[i].length), kFlags, to, sizeof slot.peer) < 1)
            return {i, NETIP_INVALID};
    return {count, NETIP_OK};
}

} // namespace

namespace tarn::net {

Sent send_packets(uint32_t handle, const Packet *packets, int count, uint32_t generation) noexcept
{
    if (!packets || count < 1 || count > kGatherMax)
        return {0, NETIP_INVALID};
    int fit = 0;
    while (fit < count && can_be_sent(packets[fit]))
        ++fit;
    SlotLock slot(handle);
    if (fit == 0 || !slot || (slot->type != NETIP_TCP && slot->type != NETIP_UDP))
        return {0, NETIP_INVALID};
    if (generation != 0 && !is_current({handle, generation}))
        return {0, NETIP_INVALID};
    const Sent sent =
        slot->type == NETIP_TCP ? send_stream(handle, packets, fit) : send_datagrams(handle, packets, fit);
    return sent.result == NETIP_OK && fit < count ? Sent{sent.packets, NETIP_INVALID} : sent;
}

} // namespace tarn::net

uint32_t netip_send(uint32_t handle, const uint8_t *bytes, int32_t length)
{
    const Packet packet{bytes, length};
    return send_packets(handle, &packet, 1).result;
}
