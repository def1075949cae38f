#include "log/agent_log.h"

#include "support/faults.h"

#include <cstring>
#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

void use_utc()
{
    setenv("TZ", "UTC", 1);
    tzset();
}

} // namespace

TEST(platform_get_localtime_str, writes_date_time_and_milliseconds)
{
    use_utc();
    ManualClock clock;
    clock.advance_wall_ms(1007);
    char text[64];
    platform_get_localtime_str(text, sizeof text);
    EXPECT_STREQ(text, "2027-01-15 08:00:01.007");
}

TEST(platform_get_localtime_str, is_local)
{
    setenv("TZ", "XXX-8", 1);
    tzset();
    ManualClock clock;
    char        text[64];
    platform_get_localtime_str(text, sizeof text);
    EXPECT_STREQ(text, "2027-01-15 16:00:00.000");
}

TEST(platform_get_localtime_str, follows_each_second_and_a_change_of_the_zone)
{
    use_utc();
    ManualClock clock;
    char        text[64];
    clock.advance_wall_ms(59'999);
    platform_get_localtime_str(text, sizeof text);
    EXPECT_STREQ(text, "2027-01-15 08:00:59.999");
    clock.advance_wall_ms(1);
    platform_get_localtime_str(text, sizeof text);
    EXPECT_STREQ(text, "2027-01-15 08:01:00.000");
    setenv("TZ", "XXX-8", 1);
    tzset();
    platform_get_localtime_str(text, sizeof text);
    EXPECT_STREQ(text, "2027-01-15 16:01:00.000");
    clock.advance_wall_ms(-60'000);
    platform_get_localtime_str(text, sizeof text);
    EXPECT_STREQ(text, "2027-01-15 16:00:00.000");
}

TEST(platform_get_localtime_str, leaves_the_last_byte_of_the_buffer_unused)
{
    use_utc();
    ManualClock clock;
    char        text[26];
    memset(text, '#', sizeof text);
    platform_get_localtime_str(text, 24);
    EXPECT_STREQ(text, "2027-01-15 08:00:00.00");
    EXPECT_EQ(text[23], '#');
    platform_get_localtime_str(text, 25);
    EXPECT_STREQ(text, "2027-01-15 08:00:00.000");
}

TEST(platform_get_localtime_str, writes_nothing_where_there_is_no_room)
{
    char text[4] = "##";
    platform_get_localtime_str(text, 0);
    platform_get_localtime_str(text, 1);
    EXPECT_STREQ(text, "##");
    platform_get_localtime_str(text, 2);
    EXPECT_STREQ(text, "");
    platform_get_localtime_str(nullptr, 64);
}

TEST(platform_get_tick_ms, is_the_wall_clock_cut_to_32_bits)
{
    ManualClock clock;
    EXPECT_EQ(platform_get_tick_ms(), static_cast<uint32_t>(uint64_t{1800000000} * 1000));
    clock.advance_wall_ms(0xFFFFFFFF);
    EXPECT_EQ(platform_get_tick_ms(), static_cast<uint32_t>(uint64_t{1800000000} * 1000) - 1);
}
