#include "codec/codec.hpp"
#include "support/wire.h"

#include <gtest/gtest.h>

using namespace tarn;
using namespace tarn::test;

namespace {

std::string id_in(const Bytes &connect)
{
    return std::string(codec::client_id_of(connect));
}
std::string id_in(const char *connect)
{
    return id_in(wire(connect));
}

} // namespace

TEST(client_id_of, stands_behind_the_variable_header)
{
    EXPECT_EQ(id_in("10 0F | 00 04 'MQTT' 04 02 00 3C | 00 03 'abc'"), "abc");
    EXPECT_EQ(id_in("10 10 | 00 04 'MQTT' 05 02 00 3C | 00 | 00 03 'abc'"), "abc");
    EXPECT_EQ(id_in("10 15 | 00 04 'MQTT' 05 02 00 3C | 05 11 00 00 00 01 | 00 03 'abc'"), "abc");
    EXPECT_EQ(id_in("10 0C | 00 04 'MQTT' 04 02 00 3C | 00 00"), "");
    EXPECT_EQ(id_in(packet(0x10, wire("00 04 'MQTT' 04 02 00 3C | 00 C8") + repeat('x', 200))), std::string(200, 'x'));
}

TEST(client_id_of, a_packet_cut_anywhere_has_none)
{
    const Bytes whole = wire("10 15 | 00 04 'MQTT' 05 02 00 3C | 05 11 00 00 00 01 | 00 03 'abc'");
    for (size_t length = 0; length < whole.size(); ++length)
        EXPECT_EQ(id_in(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length))), "") << length;
    EXPECT_EQ(id_in("10 FF FF FF 7F 00"), "");
    EXPECT_EQ(id_in("10 05 | FF FF 'M' 04 02"), "");
    EXPECT_EQ(id_in("10 0D | 00 04 'MQTT' 05 02 00 3C | FF FF 7F"), "");
}
