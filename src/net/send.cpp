// send.cpp - writing to a connection, without ever waiting. The slot's lock keeps the descriptor alive, the bytes of
// one call together, and what is remembered of a packet that was sent in part.
#include "netip_internal.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>

using namespace tarn;
using namespace tarn::net;

namespace {

constexpr int kFlags = MSG_DONTWAIT | MSG_NOSIGNAL;

bool can_be_sent(const OutPacket &packet)
{
    return packet.bytes && packet.length >= 1 && packet.length <= NETIP_SEND_MAX;
}

bool has_known_type(const netip_conn_t &slot)
{
    return slot.type == NETIP_TCP || slot.type == NETIP_UDP;
}

// Tells sockets apart where no generation does: a slot filled by hand may have got another one under the same number.
uint64_t identity_of(uint32_t handle)
{
    struct stat status;
    if (side_of(handle).generation != 0 || fstat(slot_of(handle).fd, &status) != 0)
        return 0;
    return status.st_ino;
}

// Bytes of this packet that the socket has taken before.
int32_t sent_before(uint32_t handle, const OutPacket &packet)
{
    const HalfSent &half = side_of(handle).half_sent;
    const bool      same = half.packet == packet.bytes && half.sent < packet.length;
    return same && half.socket == identity_of(handle) ? half.sent : 0;
}

// The packets behind the first `skipped` bytes, for one write.
struct Gathered {
    iovec  pieces[kGatherMax];
    msghdr message{};

    Gathered(const OutPacket *packets, int count, int32_t skipped)
    {
        for (int i = 0; i < count; ++i)
            pieces[i] = {const_cast<uint8_t *>(packets[i].bytes), static_cast<size_t>(packets[i].length)};
        pieces[0]          = {const_cast<uint8_t *>(packets[0].bytes) + skipped,
                              static_cast<size_t>(packets[0].length - skipped)};
        message.msg_iov    = pieces;
        message.msg_iovlen = static_cast<size_t>(count);
    }
};

// The result of a write that took nothing.
uint32_t refusal(uint32_t handle)
{
    if (errno != EAGAIN)
        return NETIP_INVALID;
    want_writable(handle);
    return NETIP_AGAIN;
}

Sent send_stream(uint32_t handle, const OutPacket *packets, int count)
{
    const int32_t  skipped = sent_before(handle, packets[0]);
    const Gathered gathered(packets, count, skipped);
    const ssize_t  taken = sendmsg(slot_of(handle).fd, &gathered.message, kFlags);
    if (taken < 1)
        return {0, refusal(handle)};

    int     whole = 0;
    ssize_t rest  = taken + skipped;
    for (; whole < count && rest >= packets[whole].length; ++whole)
        rest -= packets[whole].length;
    HalfSent &half = side_of(handle).half_sent;
    half           = {};
    if (whole == count)
        return {count, NETIP_OK};
    if (rest > 0)
        half = {packets[whole].bytes, static_cast<int32_t>(rest), identity_of(handle)};
    want_writable(handle);
    return {whole, NETIP_AGAIN};
}

// QUIRK(dropped-tail): a packet that a host hands to netip_send and that the socket takes only in part counts as sent,
// and its tail is dropped, which breaks the stream. Against "an ordered, lossless, stream of bytes" [MQTT-4.2.0-1]; it
// stays because that call keeps nothing. Packets that the broker queues for its clients do not get there.
//   standard profile: stays: this exported call keeps nothing; what the broker itself sends goes another way
//   test: netip_send.a_short_write_counts_as_sent_and_drops_the_tail
uint32_t send_once(uint32_t handle, const OutPacket &packet)
{
    const Gathered gathered(&packet, 1, 0);
    return sendmsg(slot_of(handle).fd, &gathered.message, kFlags) < 1 ? refusal(handle) : uint32_t{NETIP_OK};
}

// QUIRK(udp-transport): packets also travel as single datagrams. Against "an ordered, lossless, stream of bytes"
// [MQTT-4.2.0-1]; it stays because small devices use it where a lost packet is no loss.
//   standard profile: lifted (wire): there is no UDP
//   test: udp.a_new_sender_connects_with_reason_3_and_its_datagram_is_one_packet
Sent send_datagrams(uint32_t handle, const OutPacket *packets, int count)
{
    const netip_conn_t &slot = slot_of(handle);
    const SharedFds     open(SharedFds::Use);
    const int           fd = side_of(handle).generation ? g_netip_udp : slot.fd;
    const auto         *to = reinterpret_cast<const sockaddr *>(&slot.peer);
    for (int i = 0; i < count; ++i)
        if (sendto(fd, packets[i].bytes, static_cast<size_t>(packets[i].length), kFlags, to, sizeof slot.peer) < 1)
            return {i, NETIP_INVALID};
    return {count, NETIP_OK};
}

} // namespace

namespace tarn::net {

Sent send_packets(uint32_t handle, const OutPacket *packets, int count, uint32_t generation) noexcept
{
    if (!packets || count < 1 || count > kGatherMax)
        return {0, NETIP_INVALID};
    int fit = 0;
    while (fit < count && can_be_sent(packets[fit]))
        ++fit;
    SlotLock slot(handle);
    if (fit == 0 || !slot || !has_known_type(*slot))
        return {0, NETIP_INVALID};
    if (generation != 0 && !is_current({handle, generation}))
        return {0, NETIP_INVALID};
    const Sent sent =
        slot->type == NETIP_TCP ? send_stream(handle, packets, fit) : send_datagrams(handle, packets, fit);
    return sent.result == NETIP_OK && fit < count ? Sent{sent.packets, NETIP_INVALID} : sent;
}

uint32_t send_packet(uint32_t handle, const OutPacket &packet) noexcept
{
    SlotLock slot(handle);
    if (!can_be_sent(packet) || !slot || !has_known_type(*slot))
        return NETIP_INVALID;
    return slot->type == NETIP_TCP ? send_once(handle, packet) : send_datagrams(handle, &packet, 1).result;
}

} // namespace tarn::net
