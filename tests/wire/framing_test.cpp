// Cutting the byte stream into packets: whatever the segments, the packets are the same.
#include "support/broker_process.h"
#include "support/peer.h"

#include <gtest/gtest.h>
#include <vector>

using namespace tarn::test;

namespace {

// Four packets of different kinds, and what a broker answers to each.
const std::vector<Bytes> kPackets = {
    wire("C0 00"),
    wire("82 06 | 00 01 | 00 01 'x' 01"),
    wire("32 08 | 00 01 'y' | 00 02 | 'wow'"),
    wire("A2 05 | 00 03 | 00 01 'x'"),
};
const Bytes kAnswers = wire("D0 00 | 90 03 00 01 01 | 40 02 00 02 | B0 02 00 03");

Bytes joined(const std::vector<Bytes> &parts)
{
    Bytes all;
    for (const Bytes &part : parts)
        all = all + part;
    return all;
}

// Long enough for the broker to take what was sent as a segment of its own.
void send_apart(Peer &peer, const Bytes &bytes)
{
    peer.send(bytes);
    pause_ms(3);
}

// A PUBLISH at QoS 1 with so many bytes in all. Its payload cannot be read as a property length.
Bytes publish_of_size(size_t size)
{
    const Bytes head  = wire("00 01 't' | 00 01 | FF FF FF FF");
    Bytes       whole = packet(0x32, head + repeat('z', size - 3 - head.size()));
    EXPECT_EQ(whole.size(), size);
    return whole;
}

} // namespace

TEST(framing, cut_at_every_byte)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    const Bytes stream = joined(kPackets);
    for (long cut = 1; cut < static_cast<long>(stream.size()) && client.ok(); ++cut) {
        SCOPED_TRACE(cut);
        send_apart(client, Bytes(stream.begin(), stream.begin() + cut));
        client.send(Bytes(stream.begin() + cut, stream.end()));
        client.expect(kAnswers);
    }
}

TEST(framing, connect_cut_at_every_byte)
{
    BrokerProcess broker = BrokerProcess::start();
    const Bytes   stream = connect_packet(4, "a") + wire("C0 00");
    for (long cut = 1; cut < static_cast<long>(stream.size()); ++cut) {
        SCOPED_TRACE(cut);
        Peer client = Peer::tcp();
        send_apart(client, Bytes(stream.begin(), stream.begin() + cut));
        client.send(Bytes(stream.begin() + cut, stream.end()));
        client.expect("20 02 00 00 | D0 00");
    }
}

TEST(framing, one_byte_at_a_time)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    for (const uint8_t byte : joined(kPackets))
        send_apart(client, Bytes{byte});
    client.expect(kAnswers);
}

TEST(framing, joined_in_every_grouping)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    for (unsigned cuts = 0; cuts < 1u << (kPackets.size() - 1) && client.ok(); ++cuts) {
        SCOPED_TRACE(cuts); // bit i: a segment ends behind packet i
        Bytes segment;
        for (size_t i = 0; i < kPackets.size(); ++i) {
            segment = segment + kPackets[i];
            if (cuts >> i & 1) {
                send_apart(client, segment);
                segment.clear();
            }
        }
        client.send(segment);
        client.expect(kAnswers);
    }
}

TEST(framing, connect_and_more_in_one_segment)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.send(connect_packet(4, "a") + joined(kPackets));
    client.expect(wire("20 02 00 00") + kAnswers);
}

// What is still queued for a client that leaves is not promised to it; what it published is on its way.
TEST(framing, a_whole_session_in_one_segment)
{
    BrokerProcess broker     = BrokerProcess::start();
    Peer          subscriber = Peer::tcp();
    subscriber.connect_v4("s").subscribe("y");
    for (int i = 0; i < 10; ++i) {
        Peer client = Peer::tcp();
        client.send(connect_packet(4, "a") + joined(kPackets) + wire("E0 00 C0 00"));
        subscriber.expect_publish("y", "wow");
        EXPECT_TRUE(wait_until([&] { return !client.drain(); }));
    }
}

TEST(framing, hundreds_of_packets_in_one_segment)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    Bytes many, answers;
    for (int i = 0; i < 90; ++i) { // 99 answers fit the queue of one client
        many    = many + wire("C0 00");
        answers = answers + wire("D0 00");
    }
    client.send(many);
    client.expect(answers);
}

TEST(framing, a_packet_of_4096_bytes_passes)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    client.send(publish_of_size(4095));
    client.expect("40 02 00 01");
    client.send(publish_of_size(4096));
    client.expect("40 02 00 01");
    client.send(publish_of_size(4096) + publish_of_size(4096) + wire("C0 00"));
    client.expect("40 02 00 01 | 40 02 00 01 | D0 00");
}

TEST(framing, a_packet_of_4097_bytes_ends_the_connection)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    client.send(publish_of_size(4097));
    client.expect_closed();
    Peer::tcp().connect_v4("b");
}

TEST(framing, what_cannot_become_whole_ends_the_connection_with_byte_4096)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    const Bytes whole = publish_of_size(4097);
    client.send(Bytes(whole.begin(), whole.end() - 2));
    client.expect_nothing();
    client.send(Bytes(whole.end() - 2, whole.end() - 1));
    client.expect_closed();
}

TEST(framing, a_length_that_never_ends)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    client.send(wire("30 FF FF FF FF 01") + repeat(0, 4089));
    client.expect_nothing();
    client.send("00");
    client.expect_closed();
}

TEST(framing, the_largest_length_is_never_filled)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    client.send(wire("30 FF FF FF 7F") + repeat(0, 4090));
    client.expect_nothing();
    client.send("00");
    client.expect_closed();
}

TEST(framing, lengths_with_more_bytes_than_needed)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.send("C0 80 00 | C0 80 80 00 | C0 80 80 80 00");
    client.expect("D0 00 | D0 00 | D0 00");
    client.send("32 88 80 00 | 00 01 'y' | 00 02 | 'wow'"); // three bytes: the packet is read
    client.expect("40 02 00 02");
    client.send("32 88 80 80 00 | 00 01 'y' | 00 03 | 'wow'"); // four: framed, but not decoded
    client.expect_ignored();
}

TEST(framing, half_a_packet_and_the_end)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          other  = Peer::tcp();
    other.connect_v4("b").subscribe("t");
    for (const char *half : {"30", "30 05", "30 05 00 01 't'"}) {
        Peer client = Peer::tcp();
        client.connect_v4("a");
        client.send(half);
        client.hang_up();
    }
    other.ping();
}

TEST(framing, publish_before_connect_is_processed)
{
    BrokerProcess broker     = BrokerProcess::start();
    Peer          subscriber = Peer::tcp();
    subscriber.connect_v4("b").subscribe("t", 1);
    Peer stranger = Peer::tcp();
    stranger.send("32 0A | 00 01 't' | 00 07 | 'hello'");
    stranger.expect("40 02 00 07");
    subscriber.expect("32 0A | 00 01 't' | .. .. | 'hello'");
    stranger.connect_v4("a");
}

TEST(framing, other_packets_before_connect)
{
    BrokerProcess broker   = BrokerProcess::start();
    Peer          stranger = Peer::tcp();
    stranger.send("C0 00");
    stranger.expect("D0 00");
    stranger.send("82 06 | 00 01 | 00 01 't' 00"); // no id, no subscription
    stranger.expect("90 03 00 01 80");
    stranger.send("A2 05 | 00 02 | 00 01 't'");
    stranger.expect("B0 02 00 02");
    stranger.send("62 02 00 03");
    stranger.expect("70 02 00 03");
    stranger.send("E0 00");
    stranger.expect_closed();
}

TEST(framing, packets_that_no_client_sends_are_ignored)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          client = Peer::tcp();
    client.connect_v5("a");
    for (const char *odd : {"00 00", "20 02 00 00", "90 03 00 01 00", "B0 02 00 01", "D0 00", "F0 00", "F0 02 00 00"}) {
        SCOPED_TRACE(odd);
        client.send(odd);
        client.expect_ignored();
    }
}

TEST(framing, noise_ends_nobody_elses_connection)
{
    BrokerProcess broker = BrokerProcess::start();
    Peer          other  = Peer::tcp();
    other.connect_v4("b");
    unsigned seed = 1;
    for (int i = 0; i < 200; ++i) {
        Peer  noisy = Peer::tcp();
        Bytes noise;
        for (int k = 0; k < 300; ++k)
            noise.push_back(static_cast<uint8_t>((seed = seed * 1103515245 + 12345) >> 16));
        noisy.send(noise);
    }
    other.ping();
}
