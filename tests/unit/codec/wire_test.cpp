#include "codec/wire.h"

#include "support/wire.h"

#include <gtest/gtest.h>

using namespace tarn::test;
using tarn::codec::Reader;
using tarn::codec::Writer;

TEST(wire_reader, a_read_that_does_not_fit_moves_nothing)
{
    const Bytes packet = wire("01 02 03");
    Reader      in(packet.data(), 3, 1);
    uint32_t    four     = 77;
    char        text[4]  = "...";
    uint8_t     bytes[3] = {};
    EXPECT_FALSE(in.u32(four));
    EXPECT_FALSE(in.number(4, four));
    EXPECT_FALSE(in.bytes(bytes, 3));
    EXPECT_FALSE(in.text(text, 3));
    EXPECT_EQ(in.pos(), 1);
    EXPECT_EQ(four, 77u);
    EXPECT_STREQ(text, "...");

    uint16_t two = 0;
    EXPECT_TRUE(in.u16(two));
    EXPECT_EQ(two, 0x0203);
    EXPECT_TRUE(in.at_end());
    EXPECT_FALSE(in.u16(two));
}

TEST(wire_reader, a_negative_count_never_fits)
{
    const Bytes packet = wire("01 02 03");
    Reader      in(packet.data(), 3);
    uint8_t     byte = 0;
    EXPECT_FALSE(in.has(-1));
    EXPECT_FALSE(in.bytes(&byte, -1));
    EXPECT_TRUE(in.has(0));
    EXPECT_EQ(in.pos(), 0);
}

TEST(wire_reader, nothing_is_left_behind_the_end)
{
    const Bytes packet = wire("01 02 03");
    Reader      in(packet.data(), 3);
    uint8_t     byte = 0;
    in.skip(5);
    EXPECT_EQ(in.left(), 0);
    EXPECT_TRUE(in.at_end());
    EXPECT_FALSE(in.u8(byte));
    EXPECT_EQ(in.block(9).end(), 3) << "a block stays inside its reader";
    EXPECT_EQ(in.block(2).end(), 2);
}

TEST(wire_writer, counts_on_after_the_first_write_that_did_not_fit)
{
    uint8_t area[3] = {};
    Writer  out(area);
    out.u8(1).u16(0x0203);
    EXPECT_TRUE(out.fits());
    out.u8(4);
    EXPECT_FALSE(out.fits());
    out.bytes(nullptr, 0).u16(5);
    EXPECT_EQ(out.need(), 6u);
    EXPECT_EQ(out.size(), 3u);
    EXPECT_EQ(hex(area, 3), "01 02 03");
}

TEST(wire_writer, writes_nothing_of_what_does_not_fit)
{
    uint8_t area[3] = {0xEE, 0xEE, 0xEE};
    Writer  out(area);
    out.u8(1).u32(2).u8(3); // the last one would fit, but not where it belongs
    EXPECT_EQ(hex(area, 3), "01 EE EE");
    EXPECT_EQ(out.need(), 6u);
}
