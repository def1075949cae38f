// Receivers that stall and then read slowly: whole messages may be lost to them, but what they read is packets, never a
// part of one. Behind a torn one a payload would be read as packets, on topics that its sender may not write.
#include "base/relaxed.h"
#include "net/netip.h"
#include "support/host.h"
#include "support/peer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

using namespace tarn::test;

namespace {

constexpr char kTopic[] = "public/t";

// Numbered, and full of what would be packets of their own.
Bytes payload_of(unsigned number, size_t size)
{
    Bytes payload = wire("FF FF FF FF") + u16(number); // begins with what is no property length
    while (payload.size() < size)
        payload = std::move(payload) + wire("30 0D 00 0A 'cmd/unlock' 'x'");
    payload.resize(size);
    return payload;
}

// Few bytes fit on the way to this peer, so that many writes end inside a packet.
void narrow(const Peer &peer)
{
    const int receive_bytes = 32768, send_bytes = 4608;
    setsockopt(peer.fd(), SOL_SOCKET, SO_RCVBUF, &receive_bytes, sizeof receive_bytes);
    for (netip_conn_t &slot : g_netip_clients)
        if (tarn::peek_acquire(slot.in_use) && slot.port == peer.local_port())
            setsockopt(slot.fd, SOL_SOCKET, SO_SNDBUF, &send_bytes, sizeof send_bytes);
}

struct Stalled {
    const unsigned qos;
    const size_t   size;
    Host           host{};
    Peer           reader = Peer::tcp(), writer = Peer::tcp();
    unsigned       written = 0, read = 0;

    Stalled(unsigned at, size_t bytes) : qos(at), size(bytes)
    {
        reader.connect_v4("reader", {.keep_alive_s = 600}).subscribe("public/#", qos);
        writer.connect_v4("writer");
        narrow(reader);
    }

    void write(unsigned messages)
    {
        Bytes all;
        for (; messages > 0; --messages, ++written)
            all =
                std::move(all) + publish_packet(4, kTopic, payload_of(written, size), {.qos = qos, .id = written + 1});
        writer.send(all);
        EXPECT_TRUE(writer.drain()); // acknowledgements, if any
    }

    // Fails unless this is one of the messages, to its last byte.
    void check(const Bytes &packet)
    {
        const size_t topic_at = packet.size() > 129 ? 3 : 2, number_at = topic_at + 2 + 8 + (qos ? 2 : 0) + 4;
        ASSERT_GT(packet.size(), number_at + 1) << hex(packet);
        const unsigned number = unsigned{packet[number_at]} << 8 | packet[number_at + 1];
        const unsigned id     = unsigned{packet[number_at - 6]} << 8 | packet[number_at - 5];
        const bool     dup    = packet[0] & 8;
        ASSERT_LT(number, written) << hex(packet);
        ASSERT_EQ(packet, publish_packet(4, kTopic, payload_of(number, size), {.qos = qos, .dup = dup, .id = id}));
        if (qos)
            reader.acknowledge(0x40, id);
        ++read;
    }

    // Up to so many messages of those that come within a moment.
    void read_some(int messages)
    {
        for (Bytes packet; messages > 0 && !(packet = reader.read_packet(20)).empty(); --messages)
            check(packet);
    }

    // Reads until the broker answers behind everything that was queued.
    void read_the_rest()
    {
        ASSERT_TRUE(wait_until([&] {
            reader.send("C0 00"); // the answer is lost, too, while the ring is full
            for (Bytes packet; !(packet = reader.read_packet(100)).empty();) {
                if (packet == wire("D0 00"))
                    return true;
                check(packet);
                if (testing::Test::HasFatalFailure())
                    return true;
            }
            return false;
        }));
    }
};

void stall_then_read_slowly(unsigned qos, size_t size)
{
    Stalled test(qos, size);
    for (int turn = 0; turn < 40 && !testing::Test::HasFatalFailure(); ++turn) {
        test.write(size < 1000 ? 200 : 50);
        if (turn >= 10)
            test.read_some(3);
    }
    test.read_the_rest();
    EXPECT_GT(test.read, 100u);
    if (qos == 0) {
        EXPECT_LT(test.read, test.written) << "nobody had to wait";
    }
}

} // namespace

TEST(stalled, a_reader_gets_whole_packets)
{
    stall_then_read_slowly(0, 300);
}

TEST(stalled, a_reader_gets_whole_large_packets)
{
    stall_then_read_slowly(0, 2000);
}

TEST(stalled, a_reader_gets_whole_packets_at_qos_1)
{
    stall_then_read_slowly(1, 300);
}

TEST(stalled, a_reader_gets_whole_large_packets_at_qos_1)
{
    stall_then_read_slowly(1, 2000);
}

// The packet that is under way when a client is kicked may end with the connection, but nothing comes inside it.
TEST(stalled, a_reader_that_is_kicked_gets_whole_packets)
{
    Stalled test(0, 2000);
    test.write(500);
    test.writer.ping(); // all are handled
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(test.host.broker(), "reader"), 0);
    for (Bytes packet; !(packet = test.reader.read_packet()).empty() && !HasFatalFailure();)
        if (packet == wire("E0 00"))
            test.reader.expect_closed();
        else
            test.check(packet);
    EXPECT_GT(test.read, 0u);
    EXPECT_LT(test.read, test.written);
}
