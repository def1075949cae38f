// Who has to wait after wrong passwords, and how long; and the turnstile before the hashing.
#include "broker/access/login_waits.h"
#include "broker/access/turnstile.h"
#include "support/timing.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>
#include <vector>

using namespace tarn::broker;
using namespace tarn::test;

namespace {

struct login_waits : testing::Test {
    bool may_try(const char *name = "alice", const char *address = "10.0.0.1")
    {
        return waits.may_try(address, name, now_ms);
    }
    void wrong(uint32_t times = 1, const char *name = "alice", const char *address = "10.0.0.1")
    {
        for (uint32_t i = 0; i < times; ++i)
            waits.was_wrong(address, name, now_ms);
    }

    LoginWaits waits{60};
    int64_t    now_ms = 5000;
};

} // namespace

TEST_F(login_waits, begin_with_the_third_wrong_one)
{
    wrong(2);
    EXPECT_TRUE(may_try());
    wrong();
    EXPECT_FALSE(may_try());
    now_ms += 999;
    EXPECT_FALSE(may_try());
    now_ms += 1;
    EXPECT_TRUE(may_try());
}

TEST_F(login_waits, double_up_to_the_limit)
{
    wrong(2);
    for (const int64_t wait_s : {1, 2, 4, 8, 16, 32, 60, 60}) {
        wrong();
        now_ms += wait_s * 1000 - 1;
        EXPECT_FALSE(may_try()) << wait_s;
        now_ms += 1;
        EXPECT_TRUE(may_try()) << wait_s;
    }
    wrong(1'000'000);
    EXPECT_FALSE(may_try());
    now_ms += 60'000;
    EXPECT_TRUE(may_try());
}

TEST_F(login_waits, end_with_a_right_one)
{
    wrong(3);
    now_ms += 1000;
    waits.was_right("10.0.0.1", "alice");
    wrong(2);
    EXPECT_TRUE(may_try());
    EXPECT_EQ(waits.size(), 2u);
    waits.was_right("10.0.0.1", "alice");
    EXPECT_EQ(waits.size(), 0u);
}

TEST_F(login_waits, are_of_one_name_and_address)
{
    wrong(3);
    EXPECT_TRUE(may_try("bob"));
    EXPECT_TRUE(may_try("alice", "10.0.0.2"));
}

TEST_F(login_waits, are_of_an_address_that_tries_many_names)
{
    for (uint32_t i = 0; i < LoginWaits::kFreeOfAddress; ++i) {
        EXPECT_TRUE(may_try());
        wrong(1, ("user" + std::to_string(i)).c_str());
    }
    EXPECT_FALSE(may_try());
    EXPECT_TRUE(may_try("alice", "10.0.0.2"));
    now_ms += 1000;
    EXPECT_TRUE(may_try());
    waits.was_right("10.0.0.1", "alice");
    wrong();
    EXPECT_TRUE(may_try());
}

TEST_F(login_waits, of_no_length_are_none)
{
    LoginWaits none{0};
    for (int i = 0; i < 100; ++i)
        none.was_wrong("10.0.0.1", "alice", 1);
    EXPECT_TRUE(none.may_try("10.0.0.1", "alice", 1));
    EXPECT_EQ(none.size(), 0u);
}

TEST_F(login_waits, forget_what_was_not_asked_for_longest)
{
    wrong(3, "first");
    wrong(3, "second");
    EXPECT_FALSE(may_try("first"));
    for (size_t i = 0; i < LoginWaits::kEntriesMax; ++i) {
        EXPECT_FALSE(may_try("first"));
        wrong(1, "x", std::to_string(i).c_str());
    }
    EXPECT_EQ(waits.size(), LoginWaits::kEntriesMax);
    EXPECT_FALSE(may_try("first"));
    EXPECT_TRUE(may_try("second"));
}

TEST(turnstile, lets_so_many_through_at_a_time_and_all_in_the_end)
{
    Turnstile                turnstile(2);
    std::atomic<int>         inside = 0, most = 0, through = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            const Turnstile::Pass pass(turnstile);
            const int             now = ++inside;
            for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {}
            pause_ms(5);
            --inside;
            ++through;
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_LE(most, 2);
    EXPECT_EQ(through, 8);
}

TEST(turnstile, keeps_the_order)
{
    Turnstile                turnstile(1);
    std::mutex               mutex;
    std::vector<int>         order;
    std::vector<std::thread> threads;
    {
        const Turnstile::Pass first(turnstile);
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&, i] {
                const Turnstile::Pass pass(turnstile);
                const std::lock_guard lock(mutex);
                order.push_back(i);
            });
            EXPECT_TRUE(wait_until([&] { return turnstile.came() == static_cast<uint64_t>(i) + 2; }));
        }
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
}
