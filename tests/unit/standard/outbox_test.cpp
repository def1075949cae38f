// What waits to be sent: order, pieces, the journal, sockets that take little, no memory.
#include "standard/outbox.h"

#include "support/faults.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <random>
#include <string>

using namespace tarn;
using namespace tarn::standard;
using namespace tarn::test;
using Left = Outbox::Left;

namespace {

std::span<const uint8_t> bytes_of(const std::string &text)
{
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

MessageRef message_of(const std::string &payload)
{
    return MessageRef::make({.topic = "t", .payload = bytes_of(payload)});
}

Outbox::Tail tail_of(const MessageRef &message)
{
    return {message, message->payload()};
}

// A socket that takes so many bytes, then blocks; of a packet that it took in part it remembers how much.
struct Socket {
    size_t      takes = SIZE_MAX;
    uint32_t    ends  = NETIP_AGAIN;
    std::string got;
    int         writes = 0;

    const uint8_t *half      = nullptr;
    int            half_sent = 0;

    static net::Sent send(void *self, const net::OutPacket *pieces, int count) noexcept
    {
        auto &socket = *static_cast<Socket *>(self);
        ++socket.writes;
        for (int i = 0; i < count; ++i) {
            EXPECT_GE(pieces[i].length, 1);
            EXPECT_LE(pieces[i].length, NETIP_SEND_MAX);
            const int  skipped = socket.half == pieces[i].bytes ? socket.half_sent : 0;
            const auto rest    = static_cast<size_t>(pieces[i].length - skipped);
            const auto part    = std::min(rest, socket.takes);
            socket.got.append(reinterpret_cast<const char *>(pieces[i].bytes) + skipped, part);
            socket.takes -= part;
            if (part < rest) {
                socket.half      = pieces[i].bytes;
                socket.half_sent = skipped + static_cast<int>(part);
                return {i, socket.ends};
            }
            socket.half = nullptr;
        }
        return {count, NETIP_OK};
    }
};

Left flush(Outbox &outbox, Socket &socket, uint64_t journaled = UINT64_MAX)
{
    return outbox.flush(Socket::send, &socket, journaled);
}

} // namespace

TEST(outbox, sends_many_small_packets_at_once)
{
    Outbox outbox;
    Socket socket;
    for (const char *packet : {"one ", "two ", "three "})
        ASSERT_TRUE(outbox.add(bytes_of(packet), 0, tail_of(message_of("x"))));
    EXPECT_EQ(outbox.bytes(), 17u);
    EXPECT_EQ(flush(outbox, socket), Left::Nothing);
    EXPECT_EQ(socket.got, "one xtwo xthree x");
    EXPECT_EQ(socket.writes, 1);
    EXPECT_TRUE(outbox.empty());
    EXPECT_EQ(outbox.bytes(), 0u);
    EXPECT_EQ(flush(outbox, socket), Left::Nothing);
    EXPECT_EQ(socket.writes, 1);
}

TEST(outbox, a_long_payload_is_sent_from_where_it_lies)
{
    const std::string payload(1000000, 'p');
    MessageRef        message = message_of(payload);
    Outbox            outbox;
    Socket            socket;
    ASSERT_TRUE(outbox.add(bytes_of("head"), 0, tail_of(message)));
    ASSERT_TRUE(outbox.add(bytes_of("next"), 0));
    message = {};
    EXPECT_EQ(flush(outbox, socket), Left::Nothing);
    EXPECT_EQ(socket.got, "head" + payload + "next");
}

TEST(outbox, what_waits_for_the_journal_holds_what_is_behind_it)
{
    Outbox outbox;
    Socket socket;
    ASSERT_TRUE(outbox.add(bytes_of("a"), 0));
    ASSERT_TRUE(outbox.add(bytes_of("b"), 7));
    ASSERT_TRUE(outbox.add(bytes_of("c"), 0));
    ASSERT_TRUE(outbox.add(bytes_of("d"), 9));
    EXPECT_EQ(flush(outbox, socket, 6), Left::Waits);
    EXPECT_EQ(socket.got, "a");
    EXPECT_EQ(flush(outbox, socket, 8), Left::Waits) << "what waits itself waits a little longer for d";
    EXPECT_EQ(socket.got, "a");
    EXPECT_EQ(flush(outbox, socket, 9), Left::Nothing);
    EXPECT_EQ(socket.got, "abcd");
}

TEST(outbox, a_thousand_acknowledgements_that_wait_take_few_chunks)
{
    Outbox outbox;
    Socket socket;
    for (uint64_t i = 1; i <= 1000; ++i)
        ASSERT_TRUE(outbox.add(bytes_of("ackn"), i));
    EXPECT_EQ(flush(outbox, socket, 0), Left::Waits);
    EXPECT_EQ(flush(outbox, socket, 1000), Left::Nothing);
    EXPECT_EQ(socket.got.size(), 4000u);
    EXPECT_EQ(socket.writes, 1);
}

TEST(outbox, the_first_that_waits_is_never_put_off)
{
    Outbox outbox;
    Socket socket;
    ASSERT_TRUE(outbox.add(bytes_of("a"), 100));
    ASSERT_TRUE(outbox.add(bytes_of("b"), 200));
    ASSERT_TRUE(outbox.add(bytes_of("c"), 300));
    EXPECT_EQ(flush(outbox, socket, 100), Left::Waits);
    EXPECT_EQ(socket.got, "a");
    ASSERT_TRUE(outbox.add(bytes_of("d"), 400));
    EXPECT_EQ(flush(outbox, socket, 300), Left::Waits);
    EXPECT_EQ(socket.got, "abc");
}

TEST(outbox, a_packet_that_began_to_leave_is_not_made_to_wait)
{
    Outbox      outbox;
    Socket      socket;
    std::string packet(5000, 'x'); // of two chunks
    ASSERT_TRUE(outbox.add(bytes_of(packet), 1));
    socket.takes = 4500;
    EXPECT_EQ(flush(outbox, socket, 1), Left::Blocked);
    ASSERT_TRUE(outbox.add(bytes_of("next"), 2));
    socket.takes = SIZE_MAX;
    EXPECT_EQ(flush(outbox, socket, 1), Left::Waits);
    EXPECT_EQ(socket.got, packet);
}

TEST(outbox, what_waits_can_be_dropped)
{
    Outbox outbox;
    Socket socket;
    ASSERT_TRUE(outbox.add(bytes_of("a"), 0));
    ASSERT_TRUE(outbox.add(bytes_of("bb"), 7, tail_of(message_of(std::string(2000, 'p')))));
    EXPECT_EQ(outbox.bytes(), 2003u);
    EXPECT_EQ(outbox.copied_bytes(), 3u);
    outbox.drop_waiting(6);
    EXPECT_EQ(outbox.bytes(), 1u);
    EXPECT_EQ(outbox.copied_bytes(), 1u);
    ASSERT_TRUE(outbox.add(bytes_of("c"), 0));
    EXPECT_EQ(flush(outbox, socket, 6), Left::Nothing);
    EXPECT_EQ(socket.got, "ac");
    outbox.drop_waiting(6);
    EXPECT_TRUE(outbox.empty());
}

TEST(outbox, goes_on_where_the_socket_stopped)
{
    std::mt19937 random(3);
    for (int round = 0; round < 200; ++round) {
        Outbox      outbox;
        Socket      socket;
        std::string expected;
        socket.takes = 0;
        for (int step = 0; step < 60; ++step) {
            const std::string head(1 + random() % 40, static_cast<char>('a' + step % 26));
            const std::string payload(random() % (random() % 8 ? 100 : 20000), static_cast<char>('A' + step % 26));
            ASSERT_TRUE(outbox.add(bytes_of(head), 0, tail_of(message_of(payload))));
            expected += head + payload;
            socket.takes = random() % 3000;
            (void)flush(outbox, socket);
            ASSERT_EQ(outbox.bytes() + socket.got.size() - (socket.half ? static_cast<size_t>(socket.half_sent) : 0),
                      expected.size());
        }
        socket.takes = SIZE_MAX;
        EXPECT_EQ(flush(outbox, socket), Left::Nothing);
        ASSERT_EQ(socket.got, expected);
    }
}

TEST(outbox, a_broken_connection_is_told)
{
    Outbox outbox;
    Socket socket;
    socket.takes = 1;
    socket.ends  = NETIP_INVALID;
    ASSERT_TRUE(outbox.add(bytes_of("ab"), 0));
    EXPECT_EQ(flush(outbox, socket), Left::Broken);
    outbox.clear();
    EXPECT_TRUE(outbox.empty());
    EXPECT_EQ(outbox.bytes(), 0u);
}

TEST(outbox, uses_memory_again_until_it_is_given_back)
{
    Outbox outbox;
    ASSERT_TRUE(outbox.add(bytes_of("one"), 0));
    outbox.clear();
    {
        const Fail fail(Call::Allocate, 1, ENOMEM, 100);
        EXPECT_TRUE(outbox.add(bytes_of("two"), 0));
    }
    outbox.clear();
    Outbox::free_spares();
    const Fail fail(Call::Allocate, 1, ENOMEM, 100);
    EXPECT_FALSE(outbox.add(bytes_of("three"), 0));
}
