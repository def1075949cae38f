#include "net/framing.h"

#include "support/wire.h"

#include <algorithm>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

using namespace tarn::net;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Stream {
    std::unique_ptr<netip_conn_t> slot = std::make_unique<netip_conn_t>();
    std::vector<Bytes>            packets;

    void arrive(const uint8_t *bytes, size_t count)
    {
        ASSERT_LE(count, static_cast<size_t>(room_left(*slot)));
        memcpy(slot->rx_buf + slot->rx_len, bytes, count);
        slot->rx_len += static_cast<int32_t>(count);
        (void)find_packet_length(*slot);
        while (packet_is_whole(*slot)) {
            packets.emplace_back(slot->rx_buf, slot->rx_buf + slot->pkt_len);
            next_packet(*slot);
        }
    }
    void arrive(const Bytes &bytes) { arrive(bytes.data(), bytes.size()); }
    void arrive(std::string_view text) { arrive(wire(text)); }
};

} // namespace

TEST(framing, a_packet_cut_at_every_byte_is_delivered_once_and_whole)
{
    const Bytes long_packet = packet(0x30, repeat('x', 300)); // two length bytes
    for (size_t cut = 0; cut <= long_packet.size(); ++cut) {
        Stream in;
        in.arrive(long_packet.data(), cut);
        EXPECT_EQ(in.packets.size(), cut == long_packet.size() ? 1u : 0u) << cut;
        in.arrive(long_packet.data() + cut, long_packet.size() - cut);
        EXPECT_THAT(in.packets, ElementsAre(long_packet)) << cut;
        EXPECT_EQ(in.slot->rx_len, 0);
        EXPECT_EQ(in.slot->pkt_len_known, 0);
    }
}

TEST(framing, packets_joined_and_cut_in_every_grouping_come_out_the_same)
{
    const Bytes stream = wire("C0 00 | 30 03 00 01 't' | E0 00 | 40 02 00 07 | C0 00"); // 15 bytes
    for (unsigned cuts = 0; cuts < 1u << (stream.size() - 1); ++cuts) {
        Stream in;
        size_t from = 0;
        for (size_t at = 1; at <= stream.size(); ++at)
            if (at == stream.size() || (cuts >> (at - 1) & 1)) {
                in.arrive(stream.data() + from, at - from);
                from = at;
            }
        ASSERT_THAT(in.packets, ElementsAre(wire("C0 00"), wire("30 03 00 01 't'"), wire("E0 00"), wire("40 02 00 07"),
                                            wire("C0 00")))
            << cuts;
        ASSERT_EQ(in.slot->rx_len, 0);
    }
}

TEST(framing, a_header_byte_then_a_length_byte_then_the_body)
{
    Stream in;
    in.arrive("30");
    EXPECT_EQ(in.slot->pkt_len_known, 0);
    in.arrive("02");
    EXPECT_EQ(in.slot->pkt_len_known, 1);
    EXPECT_EQ(in.slot->pkt_len, 4);
    EXPECT_THAT(in.packets, IsEmpty());
    in.arrive("AA BB");
    EXPECT_THAT(in.packets, ElementsAre(wire("30 02 AA BB")));
}

TEST(framing, what_stays_behind_a_packet_moves_to_the_front)
{
    Stream in;
    in.arrive("C0 00 30 05 01 02");
    EXPECT_THAT(in.packets, ElementsAre(wire("C0 00")));
    EXPECT_EQ(in.slot->rx_len, 4);
    EXPECT_EQ(in.slot->pkt_len_known, 1);
    EXPECT_EQ(in.slot->pkt_len, 7);
    EXPECT_EQ(hex(in.slot->rx_buf, 4), "30 05 01 02");
}

TEST(framing, one_byte_behind_a_packet_waits_for_its_length)
{
    Stream in;
    in.arrive("C0 00 30");
    EXPECT_EQ(in.slot->rx_len, 1);
    EXPECT_EQ(in.slot->pkt_len_known, 0);
}

TEST(framing, lengths_at_every_boundary)
{
    const struct {
        const char *header;
        int         length;
    } rows[] = {
        {"30 00", 2},
        {"30 7F", 2 + 127},
        {"30 80 01", 3 + 128},
        {"30 FF 7F", 3 + 16383},
        {"30 80 80 01", 4 + 16384},
        {"30 FF FF 7F", 4 + 2097151},
        {"30 80 80 80 01", 5 + 2097152},
        {"30 FF FF FF 7F", 5 + 268435455},
        {"30 80 00", 3}, // longer than needed
        {"30 80 80 80 00", 5},
    };
    for (const auto &row : rows) {
        Stream in;
        in.arrive(row.header);
        if (in.packets.empty()) {
            EXPECT_EQ(in.slot->pkt_len_known, 1) << row.header;
            EXPECT_EQ(in.slot->pkt_len, row.length) << row.header;
        } else {
            EXPECT_THAT(in.packets, ElementsAre(wire(row.header)));
        }
    }
}

TEST(framing, an_unfinished_length_is_kept_as_it_is)
{
    for (const char *header : {"30", "30 80", "30 80 80", "30 80 80 80"}) {
        Stream in;
        in.arrive(header);
        EXPECT_EQ(in.slot->pkt_len_known, 0) << header;
        EXPECT_EQ(in.slot->pkt_len, 0) << header;
        EXPECT_EQ(in.slot->rx_len, static_cast<int32_t>(wire(header).size())) << header;
    }
}

TEST(framing, five_length_bytes_are_never_decoded)
{
    Stream in;
    in.arrive("30 80 80 80 80 01");
    in.arrive(repeat(0, 4090));
    EXPECT_EQ(in.slot->pkt_len_known, 0);
    EXPECT_THAT(in.packets, IsEmpty());
    EXPECT_EQ(room_left(*in.slot), 0);
}

TEST(framing, a_packet_of_4096_bytes_fits_and_one_of_4097_never_does)
{
    Stream      in;
    const Bytes largest = packet(0x30, repeat('x', 4093));
    ASSERT_EQ(largest.size(), 4096u);
    in.arrive(largest);
    EXPECT_THAT(in.packets, ElementsAre(largest));
    EXPECT_EQ(room_left(*in.slot), 4096);

    const Bytes too_large = packet(0x30, repeat('x', 4094));
    in.arrive(too_large.data(), 4096);
    EXPECT_EQ(in.slot->pkt_len, 4097);
    EXPECT_EQ(in.packets.size(), 1u);
    EXPECT_EQ(room_left(*in.slot), 0);
}

TEST(framing, a_buffer_full_of_the_smallest_packets)
{
    Stream in;
    Bytes  many;
    for (int i = 0; i < 2048; ++i)
        many = std::move(many) + wire("C0 00");
    in.arrive(many);
    EXPECT_EQ(in.packets.size(), 2048u);
    EXPECT_EQ(in.slot->rx_len, 0);
}
