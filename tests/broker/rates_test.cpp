#include "broker/view/rates.h"

#include <gtest/gtest.h>

using namespace tarn::broker;

namespace {

Counters at(uint64_t packets_in, uint64_t dropped = 0)
{
    Counters counters{};
    counters.packets_in      = packets_in;
    counters.drop_queue_full = dropped;
    return counters;
}

constexpr auto kIn = &Counters::packets_in;

} // namespace

TEST(rates, are_zero_until_there_are_two_samples)
{
    Rates rates;
    EXPECT_EQ(rates.per_second(kIn), 0);
    EXPECT_EQ(rates.known(), 0u);
    EXPECT_EQ(rates.now().packets_in, 0u);
    rates.add(at(1000), 5000);
    EXPECT_EQ(rates.per_second(kIn), 0) << "what was before the first look is no rate";
    EXPECT_EQ(rates.known(), 0u);
    EXPECT_EQ(rates.now().packets_in, 1000u);
}

TEST(rates, are_differences_by_the_time_that_passed)
{
    Rates rates;
    rates.add(at(100), 1000);
    rates.add(at(150), 1500);
    EXPECT_EQ(rates.per_second(kIn), 100);
    rates.add(at(150), 2500);
    EXPECT_EQ(rates.per_second(kIn), 0);
    rates.add(at(160), 6500);
    EXPECT_EQ(rates.per_second(kIn), 2.5);
}

TEST(rates, remember_the_highest_of_each)
{
    Rates rates;
    rates.add(at(0), 0);
    rates.add(at(500, 3), 1000);
    rates.add(at(510, 10), 2000);
    EXPECT_EQ(rates.peak(kIn), 500);
    EXPECT_EQ(rates.peak(&Counters::drop_queue_full), 7);
    EXPECT_EQ(rates.peak(&Counters::bytes_out), 0);
    EXPECT_EQ(rates.peak(&Counters::wills), 0) << "not shown as a rate";
}

TEST(rates, look_back)
{
    Rates   rates;
    int64_t now_ms = 0;
    for (const uint64_t total : {0, 10, 30, 60})
        rates.add(at(total), now_ms += 1000);
    EXPECT_EQ(rates.known(), 3u);
    EXPECT_EQ(rates.rate(kIn, 0), 30);
    EXPECT_EQ(rates.rate(kIn, 1), 20);
    EXPECT_EQ(rates.rate(kIn, 2), 10);
    EXPECT_EQ(rates.rate(kIn, 3), 0);
}

TEST(rates, keep_so_many_and_no_more)
{
    Rates rates;
    for (size_t i = 0; i <= Rates::kHistory + 5; ++i)
        rates.add(at(i * i), static_cast<int64_t>(i) * 1000);
    EXPECT_EQ(rates.known(), Rates::kHistory);
    const size_t oldest = Rates::kHistory + 5 - (Rates::kHistory - 1); // ends the oldest second kept
    EXPECT_EQ(rates.rate(kIn, Rates::kHistory - 1), static_cast<double>(2 * oldest - 1));
    EXPECT_EQ(rates.rate(kIn, Rates::kHistory), 0);
}

TEST(rates, begin_again_when_a_counter_does)
{
    Rates rates;
    rates.add(at(1000), 0);
    rates.add(at(5), 1000);
    EXPECT_EQ(rates.per_second(kIn), 5);
}

TEST(rates, take_no_two_samples_of_one_moment)
{
    Rates rates;
    rates.add(at(0), 1000);
    rates.add(at(7), 1000);
    rates.add(at(8), 900);
    EXPECT_EQ(rates.known(), 0u);
    rates.add(at(10), 2000);
    EXPECT_EQ(rates.per_second(kIn), 10);
}
