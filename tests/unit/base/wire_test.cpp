#include "codec/wire.h"
#include "support/wire.h"

#include <gtest/gtest.h>

using namespace tarn::test;
using tarn::codec::Reader;
using tarn::codec::Writer;

TEST(reader, never_leaves_its_packet)
{
    const Bytes packet = wire("01 02 03");
    Reader      in(packet.data(), 3);
    uint16_t    two  = 0;
    uint32_t    four = 7;
    EXPECT_TRUE(in.u16(two));
    EXPECT_EQ(two, 0x0102);
    EXPECT_FALSE(in.u32(four));
    EXPECT_EQ(four, 7u);
    EXPECT_EQ(in.pos(), 2);
    EXPECT_EQ(in.left(), 1);
}

TEST(writer, remembers_the_first_write_that_did_not_fit)
{
    uint8_t area[4] = {};
    Writer  out(area);
    out.u16(0x0102).u32(9).u8(7);
    EXPECT_FALSE(out.fits());
    EXPECT_EQ(out.need(), 7u);
    EXPECT_EQ(hex(area, 4), "01 02 00 00");
}
