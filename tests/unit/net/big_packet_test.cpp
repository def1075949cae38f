// Packets above 4096 bytes, where a hook measures them.
#include "net_fixture.h"
#include "support/faults.h"

using namespace tarn;
using namespace tarn::net;
using namespace tarn::test;
using testing::ElementsAre;

namespace {

constexpr size_t kLimit = 300000;

// The length bytes as the standard has them; a first byte of FF and packets above kLimit are refused.
Measured measured(Connection /*connection*/, std::span<const uint8_t> received) noexcept
{
    if (received[0] == 0xFF)
        return {.is_refused = true};
    size_t rest = 0;
    for (size_t i = 0; i < 4 && i + 1 < received.size(); ++i) {
        rest |= size_t{received[i + 1] & 0x7FU} << (7 * i);
        if (received[i + 1] < 0x80) {
            const size_t length = i + 2 + rest;
            return {.length = length <= kLimit ? length : 0, .is_refused = length > kLimit};
        }
    }
    return {};
}

struct Measures {
    Measures() { set_measure_hook(measured); }
    ~Measures() { set_measure_hook(nullptr); }
};

const std::string kPing = data(0, wire("C0 00"));

} // namespace

TEST(big_packet, is_handed_up_whole_and_the_next_one_behind_it)
{
    const Measures measures;
    Layer          layer;
    Peer           peer;
    const Bytes    big = packet(0x30, repeat('x', 200000));
    peer.send(wire("C0 00") + big + wire("C0 00"));
    peer.send(wire("C0 00") + big);
    EXPECT_THAT(layer.events.wait_for(6), ElementsAre(connected(0), kPing, data(0, big), kPing, kPing, data(0, big)));
}

TEST(big_packet, of_any_size_around_the_buffers)
{
    const Measures measures;
    Layer          layer;
    Peer           peer;
    size_t         events = 1;
    for (const int size : {4092, 4093, 4094, 4095, 8192, 16384, 70000}) {
        const Bytes big = packet(0x30, repeat('x', static_cast<size_t>(size)));
        peer.send(big);
        EXPECT_EQ(layer.events.wait_for(++events).back(), data(0, big)) << size;
    }
}

TEST(big_packet, that_is_refused_ends_the_connection_with_its_first_bytes)
{
    const Measures measures;
    Layer          layer;
    Peer           peer;
    peer.send(wire("C0 00 | 30") + wire("FF FF 7F")); // 2 MB are announced
    EXPECT_THAT(layer.events.wait_for(3), ElementsAre(connected(0), kPing, disconnected(0, 0)));
}

TEST(big_packet, a_refused_byte_ends_the_connection_behind_what_came_before)
{
    const Measures measures;
    Layer          layer;
    Peer           peer;
    peer.send("C0 00 | FF");
    EXPECT_THAT(layer.events.wait_for(3), ElementsAre(connected(0), kPing, disconnected(0, 0)));
}

TEST(big_packet, half_of_one_goes_with_its_connection)
{
    const Measures measures;
    Layer          layer;
    {
        Peer peer;
        peer.send(wire("30 A0 8D 06") + repeat('x', 50000)); // of 100000
    }
    EXPECT_THAT(layer.events.wait_for(2), ElementsAre(connected(0), disconnected(0, 0)));
    Peer next;
    next.send("C0 00");
    EXPECT_EQ(layer.events.wait_for(4).size(), 4u);
}

TEST(big_packet, without_memory_the_connection_ends)
{
    static std::unique_ptr<Fail> no_memory;
    const Measures               measures;
    set_measure_hook([](Connection connection, std::span<const uint8_t> received) noexcept {
        if (!no_memory) // the next allocation of this thread's
            no_memory = std::make_unique<Fail>(Call::Allocate);
        return measured(connection, received);
    });
    Layer layer;
    Peer  peer;
    peer.send(wire("30 A0 8D 06") + repeat('x', 10));
    EXPECT_THAT(layer.events.wait_for(2), ElementsAre(connected(0), disconnected(0, 0)));
    no_memory.reset();
}

// Packets are handed up from where they lie; what is left of the last one is moved once the others are gone.
TEST(big_packet, many_short_ones_in_one_read_and_a_half_one_at_the_end)
{
    const Measures           measures;
    Layer                    layer;
    Peer                     peer;
    Bytes                    stream;
    std::vector<std::string> expected{connected(0)};
    for (int i = 0; i < 3000; ++i) { // of 3 to 82 bytes, so that each place in the buffer comes to be the last one
        const Bytes next = packet(0x30, repeat(static_cast<char>('a' + i % 26), static_cast<size_t>(1 + i % 80)));
        stream           = stream + next;
        expected.push_back(data(0, next));
    }
    const Bytes big = packet(0x30, repeat('x', 9000));
    stream          = stream + big;
    expected.push_back(data(0, big));
    peer.send(stream);
    EXPECT_EQ(layer.events.wait_for(expected.size()), expected);
}
