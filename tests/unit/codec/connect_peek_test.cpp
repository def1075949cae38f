#include "codec/codec.hpp"
#include "support/wire.h"

#include <gtest/gtest.h>

using namespace tarn;
using namespace tarn::test;

namespace {

std::string id_in(const Bytes &connect)
{
    return std::string(codec::peek_connect(connect).client_id);
}
std::string id_in(const char *connect)
{
    return id_in(wire(connect));
}

} // namespace

TEST(peek_connect, finds_the_id_that_stands_behind_the_variable_header)
{
    EXPECT_EQ(id_in("10 0F | 00 04 'MQTT' 04 02 00 3C | 00 03 'abc'"), "abc");
    EXPECT_EQ(id_in("10 10 | 00 04 'MQTT' 05 02 00 3C | 00 | 00 03 'abc'"), "abc");
    EXPECT_EQ(id_in("10 15 | 00 04 'MQTT' 05 02 00 3C | 05 11 00 00 00 01 | 00 03 'abc'"), "abc");
    EXPECT_EQ(id_in("10 0C | 00 04 'MQTT' 04 02 00 3C | 00 00"), "");
    EXPECT_EQ(id_in(packet(0x10, wire("00 04 'MQTT' 04 02 00 3C | 00 C8") + repeat('x', 200))), std::string(200, 'x'));
}

TEST(peek_connect, tells_whether_a_session_is_to_be_kept)
{
    EXPECT_TRUE(codec::peek_connect(wire("10 0F | 00 04 'MQTT' 04 02 00 3C | 00 03 'abc'")).is_clean);
    EXPECT_TRUE(codec::peek_connect(wire("10 10 | 00 04 'MQTT' 05 C6 00 3C | 00 | 00 03 'abc'")).is_clean);
    EXPECT_FALSE(codec::peek_connect(wire("10 0F | 00 04 'MQTT' 04 FD 00 3C | 00 03 'abc'")).is_clean);
    EXPECT_FALSE(codec::peek_connect(wire("10 0E | 00 04 'MQTT' 04 02 00 3C | 00 03 'ab'")).is_clean) << "cut short";
}

TEST(peek_connect, finds_no_id_in_a_packet_cut_anywhere)
{
    const Bytes whole = wire("10 15 | 00 04 'MQTT' 05 02 00 3C | 05 11 00 00 00 01 | 00 03 'abc'");
    for (size_t length = 0; length < whole.size(); ++length)
        EXPECT_EQ(id_in(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length))), "") << length;
    EXPECT_EQ(id_in("10 FF FF FF 7F 00"), "");
    EXPECT_EQ(id_in("10 05 | FF FF 'M' 04 02"), "");
    EXPECT_EQ(id_in("10 0D | 00 04 'MQTT' 05 02 00 3C | FF FF 7F"), "");
}
