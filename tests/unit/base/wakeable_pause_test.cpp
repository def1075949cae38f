#include "base/wakeable_pause.h"

#include "base/clock.h"
#include "support/faults.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

using namespace tarn;
using namespace std::chrono_literals;

namespace {

// An alarm that nobody has to construct, as the library uses it.
constinit WakeablePause   g_alarm{};
constinit Shared<uint8_t> g_running = 1;

uint64_t time_of(auto what)
{
    const uint64_t start = mono_ms();
    what();
    return mono_ms() - start;
}

} // namespace

TEST(alarm, pauses_for_the_whole_time)
{
    EXPECT_GE(time_of([] { g_alarm.pause_while(g_running, 50); }), 49u);
}

TEST(alarm, does_not_pause_when_the_flag_is_cleared_already)
{
    const uint8_t cleared = 0;
    EXPECT_LT(time_of([&] { g_alarm.pause_while(cleared, 60000); }), 10000u);
}

TEST(alarm, of_no_time_returns_at_once)
{
    EXPECT_LT(time_of([] { g_alarm.pause_while(g_running, 0); }), 10000u);
}

// The nanoseconds of the end are carried into the seconds: without that the wait would fail at once.
TEST(alarm, ends_in_the_next_second_when_it_has_to)
{
    for (int i = 0; i < 5; ++i)
        EXPECT_GE(time_of([] { g_alarm.pause_while(g_running, 230); }), 229u);
}

TEST(alarm, counts_seconds_and_the_rest)
{
    const uint64_t took_ms = time_of([] { g_alarm.pause_while(g_running, 1010); });
    EXPECT_GE(took_ms, 1009u);
    EXPECT_LT(took_ms, 10000u);
}

TEST(alarm, a_ring_after_the_flag_was_cleared_ends_every_pause)
{
    std::atomic<int> paused{0}, done{0};
    const auto       pause = [&] {
        paused.fetch_add(1);
        g_alarm.pause_while(g_running, 60000);
        done.fetch_add(1);
    };
    std::thread one(pause), two(pause);
    while (paused < 2)
        std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(20ms);
    EXPECT_LT(time_of([&] {
                  g_running = 0;
                  g_alarm.wake();
                  one.join();
                  two.join();
              }),
              20000u);
    EXPECT_EQ(done, 2);
    g_running = 1;
}

TEST(alarm, a_ring_alone_does_not_end_a_pause)
{
    std::atomic<bool> done{false};
    std::thread       ringer([&] {
        while (!done) {
            g_alarm.wake();
            std::this_thread::sleep_for(1ms);
        }
    });
    EXPECT_GE(time_of([] { g_alarm.pause_while(g_running, 100); }), 99u);
    done = true;
    ringer.join();
}

// The flag may be cleared between the look at it and the wait: the ring must not be missed then.
TEST(alarm, no_ring_is_missed)
{
    for (int i = 0; i < 200; ++i) {
        g_running = 1;
        std::thread waiter([] { g_alarm.pause_while(g_running, 60000); });
        if (i % 2)
            std::this_thread::yield();
        g_running = 0;
        g_alarm.wake();
        waiter.join();
    }
    g_running = 1;
}
