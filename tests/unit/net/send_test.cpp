#include "net_fixture.h"
#include "support/log_capture.h"

using namespace tarn;
using namespace tarn::net;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// What arrives at the other end without waiting.
size_t pending(int fd)
{
    std::vector<uint8_t> sink(1 << 20);
    size_t               total = 0;
    for (ssize_t n; (n = recv(fd, sink.data(), sink.size(), MSG_DONTWAIT)) > 0;)
        total += static_cast<size_t>(n);
    return total;
}

// A buffer that no whole number of packets fills.
void limit_buffer(int fd)
{
    const int size = 100001;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

bool wants_writable(uint32_t handle)
{
    SlotLock slot(handle);
    return slot && side_of(handle).wants_writable;
}

std::atomic<int> g_rounds{0}, g_writable{0};

void count_writable(uint32_t handle)
{
    EXPECT_EQ(handle, 0u);
    ++g_writable;
}

} // namespace

TEST(netip_send, refuses_what_is_no_packet_and_sends_nothing)
{
    const HandmadeSlot connection(7);
    const Bytes        bytes = repeat('x', 5000);
    EXPECT_EQ(netip_send(7, bytes.data(), 0), 6u);
    EXPECT_EQ(netip_send(7, bytes.data(), -1), 6u);
    EXPECT_EQ(netip_send(7, bytes.data(), 4097), 6u);
    EXPECT_EQ(netip_send(7, nullptr, 5), 6u);
    EXPECT_EQ(netip_send(8, bytes.data(), 5), 6u);
    EXPECT_EQ(netip_send(11000, bytes.data(), 5), 6u);
    EXPECT_EQ(netip_send(0xFFFFFFFF, bytes.data(), 5), 6u);
    EXPECT_EQ(pending(connection.peer.get()), 0u);
    EXPECT_EQ(netip_send(7, bytes.data(), 4096), 0u);
    EXPECT_EQ(netip_send(7, bytes.data(), 1), 0u);
    EXPECT_EQ(pending(connection.peer.get()), 4097u);
}

TEST(netip_send, refuses_a_slot_of_no_known_type)
{
    const HandmadeSlot connection(7);
    connection.slot().type = 3;
    EXPECT_EQ(send_bytes(7, wire("C0 00")), 6u);
    EXPECT_EQ(pending(connection.peer.get()), 0u);
}

TEST(netip_send, an_error_gives_6_and_raises_no_signal)
{
    LogCapture   log;
    HandmadeSlot connection(7);
    connection.peer.reset();
    EXPECT_EQ(send_bytes(7, wire("C0 00")), 6u); // EPIPE
    connection.slot().fd = -1;
    EXPECT_EQ(send_bytes(7, wire("C0 00")), 6u);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(netip_send, a_handmade_udp_slot_uses_its_own_descriptor)
{
    const Fd receiver(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
        sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(0);
    ASSERT_EQ(bind(receiver.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    netip_conn_t &slot = g_netip_clients[9];
    slot.type          = NETIP_UDP;
    slot.fd            = sender.get();
    slot.peer          = loopback(port_of(receiver.get()));
    slot.peer_len      = sizeof slot.peer;
    slot.in_use        = 1;
    EXPECT_EQ(send_bytes(9, wire("C0 00")), 0u);
    uint8_t bytes[8];
    EXPECT_EQ(recv(receiver.get(), bytes, sizeof bytes, 0), 2);
}

TEST(netip_send, a_full_socket_gives_5)
{
    const HandmadeSlot connection(7);
    const Bytes        bytes  = repeat('x', 4096);
    uint32_t           result = 0;
    int                sent   = 0;
    while ((result = send_bytes(7, bytes)) == 0)
        ++sent;
    EXPECT_EQ(result, 5u);
    EXPECT_GT(sent, 0);
    EXPECT_EQ(send_bytes(7, bytes), 5u); // and again
    EXPECT_EQ(pending(connection.peer.get()), 4096u * static_cast<size_t>(sent));
    EXPECT_EQ(send_bytes(7, bytes), 0u);
}

TEST(netip_send, a_short_write_counts_as_sent_and_drops_the_tail)
{
    Layer layer;
    Peer  peer;
    layer.events.wait_for(1);
    limit_buffer(g_netip_clients[0].fd);
    const Bytes bytes  = repeat('x', 4096);
    uint64_t    sent   = 0;
    uint32_t    result = 0;
    while ((result = send_bytes(0, bytes)) == 0)
        sent += bytes.size();
    EXPECT_EQ(result, 5u);
    size_t arrived = 0;
    while (readable(peer.fd(), kSilence))
        arrived += pending(peer.fd());
    EXPECT_LT(arrived, sent); // some were cut
}

TEST(writable, is_noticed_once_and_does_not_spin)
{
    Layer layer;
    Peer  peer;
    layer.events.wait_for(1);
    limit_buffer(g_netip_clients[0].fd);
    while (send_bytes(0, repeat('x', 4096)) == 0) {}
    // The last bytes may still be on their way to the peer and make room once more.
    std::this_thread::sleep_for(kSilence);
    while (send_bytes(0, repeat('x', 4096)) == 0) {}
    set_writable_hook(count_writable);
    set_round_hooks({[] { ++g_rounds; }, nullptr});
    EXPECT_TRUE(wants_writable(0));
    std::this_thread::sleep_for(kSilence);
    EXPECT_EQ(g_writable, 0);
    while (readable(peer.fd(), kSilence))
        pending(peer.fd());
    EXPECT_TRUE(eventually([] { return g_writable == 1; }));
    const int rounds = g_rounds;
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(g_rounds, rounds); // idle again
    EXPECT_EQ(g_writable, 1);
    peer.send("C0 00"); // and still read
    EXPECT_THAT(layer.events.wait_for(2), ElementsAre(connected(0), data(0, wire("C0 00"))));
    EXPECT_EQ(send_bytes(0, wire("D0 00")), 0u);
    set_writable_hook(nullptr);
    set_round_hooks({});
}

TEST(writable, asked_for_in_the_connected_event_is_noticed_too)
{
    static std::atomic<bool> full{false};
    set_writable_hook(count_writable);
    Layer layer([](const Recorder::Event &event) {
        if (event.event == NETIP_EVENT_CONNECTED) {
            while (send_bytes(event.handle, repeat('x', 4096)) == 0) {}
            full = true;
        }
        return true;
    });
    Peer  peer;
    ASSERT_TRUE(eventually([] { return full.load(); }));
    while (readable(peer.fd(), kSilence))
        pending(peer.fd());
    EXPECT_TRUE(eventually([] { return g_writable == 1; }));
    set_writable_hook(nullptr);
}

TEST(writable, a_new_connection_inherits_no_wish)
{
    side_of(0).wants_writable = 1;
    set_writable_hook(count_writable);
    Layer layer;
    Peer  peer;
    peer.send("C0 00");
    layer.events.wait_for(2);
    EXPECT_FALSE(wants_writable(0));
    netip_deinit();
    EXPECT_EQ(g_writable, 0);
    set_writable_hook(nullptr);
}

TEST(send_packets, writes_many_as_one)
{
    const HandmadeSlot connection(7);
    const Bytes        a = wire("30 01 01"), b = wire("30 02 01 02"), c = wire("C0 00");
    const OutPacket    packets[] = {{a.data(), 3}, {b.data(), 4}, {c.data(), 2}};
    const Sent         sent      = send_packets(7, packets, 3);
    EXPECT_EQ(sent.packets, 3);
    EXPECT_EQ(sent.result, unsigned{NETIP_OK});
    uint8_t bytes[32];
    ASSERT_EQ(recv(connection.peer.get(), bytes, sizeof bytes, 0), 9);
    EXPECT_EQ(hex(bytes, 9), "30 01 01 30 02 01 02 C0 00");
}

TEST(send_packets, takes_up_to_64)
{
    const HandmadeSlot     connection(7);
    const Bytes            bytes = wire("C0 00");
    std::vector<OutPacket> packets(65, OutPacket{bytes.data(), 2});
    EXPECT_EQ(send_packets(7, packets.data(), 65).result, unsigned{NETIP_INVALID});
    EXPECT_EQ(send_packets(7, packets.data(), 0).result, unsigned{NETIP_INVALID});
    EXPECT_EQ(send_packets(7, nullptr, 1).result, unsigned{NETIP_INVALID});
    EXPECT_EQ(pending(connection.peer.get()), 0u);
    EXPECT_EQ(send_packets(7, packets.data(), 64).packets, 64);
    EXPECT_EQ(pending(connection.peer.get()), 128u);
}

TEST(send_packets, a_bad_packet_ends_the_list)
{
    const HandmadeSlot connection(7);
    const Bytes        bytes = repeat('x', 4097);
    for (const OutPacket &bad : {OutPacket{bytes.data(), 0}, OutPacket{bytes.data(), 4097}, OutPacket{nullptr, 2}}) {
        const OutPacket packets[] = {{bytes.data(), 5}, bad, {bytes.data(), 5}};
        const Sent      sent      = send_packets(7, packets, 3);
        EXPECT_EQ(sent.packets, 1);
        EXPECT_EQ(sent.result, unsigned{NETIP_INVALID});
        EXPECT_EQ(pending(connection.peer.get()), 5u);
        EXPECT_EQ(send_packets(7, &bad, 1).packets, 0);
    }
}

TEST(send_packets, a_free_slot_takes_none)
{
    const Bytes     bytes = wire("C0 00");
    const OutPacket packet{bytes.data(), 2};
    for (const uint32_t handle : {7u, 11000u}) {
        const Sent sent = send_packets(handle, &packet, 1);
        EXPECT_EQ(sent.packets, 0);
        EXPECT_EQ(sent.result, unsigned{NETIP_INVALID});
    }
}

TEST(send_packets, with_a_generation_reaches_that_connection_only)
{
    const HandmadeSlot connection(7);
    side_of(7).generation = 5;
    const Bytes     bytes = wire("C0 00");
    const OutPacket packet{bytes.data(), 2};
    EXPECT_EQ(send_packets(7, &packet, 1, 4).result, unsigned{NETIP_INVALID});
    EXPECT_EQ(send_packets(7, &packet, 1, 4).packets, 0);
    EXPECT_EQ(pending(connection.peer.get()), 0u);
    EXPECT_EQ(send_packets(7, &packet, 1, 5).packets, 1);
    EXPECT_EQ(send_packets(7, &packet, 1).packets, 1) << "0: whichever connection it is";
    EXPECT_EQ(pending(connection.peer.get()), 4u);
    side_of(7).generation = 0;
    EXPECT_EQ(send_packets(7, &packet, 1, 5).packets, 0) << "a slot filled by hand is none of ours";
}

TEST(send_packets, goes_on_inside_a_packet_that_was_cut)
{
    // The room left decides where each write ends: inside a packet, or between two of them.
    Layer layer;
    Peer  peer;
    layer.events.wait_for(1);
    limit_buffer(g_netip_clients[0].fd);
    std::vector<Bytes>     bytes;
    std::vector<OutPacket> packets;
    for (int i = 0; i < 2000; ++i) {
        bytes.push_back(repeat(static_cast<uint8_t>(i), 1000));
        packets.push_back({bytes.back().data(), 1000});
    }
    Bytes     arrived;
    const int take = 3333;
    int       cuts = 0, wanted = 0;
    for (int next = 0; next < 2000;) {
        const Sent sent = send_packets(0, packets.data() + next, std::min(64, 2000 - next));
        ASSERT_NE(sent.result, unsigned{NETIP_INVALID});
        next += sent.packets;
        if (sent.result == NETIP_OK)
            continue;
        wanted += wants_writable(0); // not when the I/O thread heard by now that there is room
        cuts += side_of(0).half_sent.packet != nullptr;
        ASSERT_TRUE(readable(peer.fd(), kPatience));
        Bytes         some(take);
        const ssize_t got = recv(peer.fd(), some.data(), some.size(), 0);
        arrived.insert(arrived.end(), some.begin(), some.begin() + got);
    }
    while (arrived.size() < 2000 * 1000 && readable(peer.fd(), kPatience)) {
        Bytes         some(1 << 20);
        const ssize_t got = recv(peer.fd(), some.data(), some.size(), 0);
        arrived.insert(arrived.end(), some.begin(), some.begin() + got);
    }
    ASSERT_EQ(arrived.size(), 2000u * 1000);
    for (size_t i = 0; i < arrived.size(); ++i)
        ASSERT_EQ(arrived[i], static_cast<uint8_t>(i / 1000)) << i;
    EXPECT_GT(wanted, 0);
    EXPECT_GT(cuts, 0);
}

namespace {

// A slot whose socket has taken a part of this packet.
struct HalfSentSlot : HandmadeSlot {
    explicit HalfSentSlot(const OutPacket &packet) : HandmadeSlot(7)
    {
        limit_buffer(slot().fd);
        const std::vector<OutPacket> packets(64, packet);
        while (side_of(7).half_sent.packet == nullptr)
            if (send_packets(7, packets.data(), 64).result == NETIP_AGAIN && side_of(7).half_sent.packet == nullptr)
                pending(peer.get()); // it ended between two
        pending(peer.get());
    }
};

} // namespace

TEST(send_packets, another_packet_in_front_is_sent_whole)
{
    const Bytes        bytes = repeat('x', 1001), other = repeat('y', 100);
    const HalfSentSlot connection({bytes.data(), 1001});
    const int32_t      before = side_of(7).half_sent.sent;
    EXPECT_GT(before, 0);
    EXPECT_LT(before, 1001);
    const OutPacket next{other.data(), 100}, shorter{bytes.data(), before};
    EXPECT_EQ(send_packets(7, &next, 1).packets, 1);
    EXPECT_EQ(pending(connection.peer.get()), 100u);
    EXPECT_EQ(send_packets(7, &shorter, 1).packets, 1);
    EXPECT_EQ(pending(connection.peer.get()), static_cast<size_t>(before)) << "nothing is owed any more";
}

TEST(send_packets, another_socket_in_the_slot_gets_the_packet_whole)
{
    const Bytes     bytes = repeat('x', 1001);
    const OutPacket packet{bytes.data(), 1001};
    {
        const HalfSentSlot connection(packet);
        close(connection.slot().fd);
    }
    const HandmadeSlot connection(7); // very likely with the same descriptor
    EXPECT_EQ(send_packets(7, &packet, 1).packets, 1);
    EXPECT_EQ(pending(connection.peer.get()), 1001u);
}

TEST(send_packets, a_new_connection_is_owed_nothing)
{
    const Bytes     bytes = wire("D0 00");
    const OutPacket packet{bytes.data(), 2};
    side_of(0).half_sent = {bytes.data(), 1, 0};
    Layer layer;
    Peer  peer;
    layer.events.wait_for(1);
    EXPECT_EQ(send_packets(0, &packet, 1).packets, 1);
    ASSERT_TRUE(readable(peer.fd(), kPatience));
    EXPECT_EQ(pending(peer.fd()), 2u);
}

TEST(netip_send, sends_whole_what_the_queue_has_sent_in_part)
{
    const Bytes        bytes = repeat('x', 1001);
    const HalfSentSlot connection({bytes.data(), 1001});
    const int32_t      before = side_of(7).half_sent.sent;
    EXPECT_EQ(send_bytes(7, bytes), 0u);
    EXPECT_EQ(pending(connection.peer.get()), 1001u);
    EXPECT_EQ(side_of(7).half_sent.sent, before) << "which is still owed";
}
