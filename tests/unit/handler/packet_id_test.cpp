#include "handler_fixture.h"

using namespace tarn;
using namespace tarn::test;

TEST(packet_id, a_single_draw_is_rand_r_in_1_to_65533)
{
    msgid_seed      = 42;
    unsigned  seed  = 42;
    const int drawn = rand_r(&seed);
    EXPECT_EQ(handler::draw_packet_id(), drawn % 65533 + 1);
    EXPECT_EQ(msgid_seed, seed);
}

TEST(packet_id, a_delivery_mixes_the_bytes_of_two_draws)
{
    msgid_seed            = 7;
    unsigned       seed   = 7;
    const unsigned first  = static_cast<unsigned>(rand_r(&seed)) % 65533 + 1;
    const unsigned second = static_cast<unsigned>(rand_r(&seed)) % 65533 + 1;
    EXPECT_EQ(handler::draw_delivery_id(), ((second >> 8) & 0xFF) * 256 + (first & 0xFF));
    EXPECT_EQ(msgid_seed, seed);
}

TEST(packet_id, a_seed_of_0_takes_the_wall_clock)
{
    ManualClock clock;
    msgid_seed    = 0;
    unsigned seed = static_cast<unsigned>(clock.wall_s());
    (void)rand_r(&seed);
    (void)handler::draw_packet_id();
    EXPECT_EQ(msgid_seed, seed);
}
