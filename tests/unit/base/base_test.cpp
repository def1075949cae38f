// The small pieces that everything else is made of.
#include "base/clock.h"
#include "base/fd.h"
#include "base/memory.h"
#include "base/mutex.h"
#include "base/relaxed.h"
#include "base/text.h"
#include "support/faults.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <numeric>
#include <thread>

using namespace tarn;
using namespace tarn::test;

TEST(clock, shows_the_same_times_to_everybody)
{
    ManualClock clock;
    EXPECT_EQ(mono_ms(), 1000000u);
    EXPECT_EQ(wall_s(), 1800000000);
    EXPECT_EQ(wall_ms(), 1800000000000u);
    clock.advance_ms(1999);
    EXPECT_EQ(mono_ms(), 1001999u);
    EXPECT_EQ(wall_s(), 1800000001);
    EXPECT_EQ(wall_ms(), 1800000001999u);
}

TEST(clock, is_read_once_a_packet)
{
    ManualClock clock;
    EXPECT_EQ(packet_ms(), 1000000u);
    {
        PacketTime time;
        clock.advance_ms(1);
        EXPECT_EQ(packet_ms(), 1000001u); // none has begun
        EXPECT_EQ(time.read(), 1000001000u);
        clock.advance_ms(5);
        EXPECT_EQ(packet_ms(), 1000001u);
        {
            const PacketTime inner; // a host's callback may serve packets of its own
            EXPECT_EQ(packet_ms(), 1000006u);
        }
        EXPECT_EQ(packet_ms(), 1000001u);
    }
    EXPECT_EQ(packet_ms(), 1000006u);
}

TEST(clock, is_read_for_some_packets_together_while_they_are_quick)
{
    ManualClock clock;
    PacketTime  time;
    (void)time.read();
    EXPECT_EQ(time.next(), 1000000000u); // so soon that it was quick
    clock.advance_ms(1);
    for (int i = 1; i < 8; ++i)
        EXPECT_EQ(time.next(), 1000000000u) << i;
    for (unsigned i = 1; i < 20; ++i) { // slow ones have each a reading of its own
        EXPECT_EQ(time.next(), 1000000000u + 1000u * i);
        clock.advance_ms(1);
    }
}

TEST(clock, shares_no_reading_that_is_more_than_a_tick_old)
{
    ManualClock clock;
    PacketTime  time;
    (void)time.read();
    (void)time.next();
    EXPECT_EQ(time.next(), 1000000000u);
    clock.advance_ms(ManualClock::kTick_ms);
    EXPECT_EQ(time.next(), 1000000000u + 1000u * ManualClock::kTick_ms);
}

TEST(clock, shares_no_reading_from_before_a_callback_that_took_long)
{
    ManualClock clock;
    PacketTime  time;
    (void)time.read();
    (void)time.next();
    clock.advance_ms(2000);
    renew_packet_time();
    EXPECT_EQ(time.next(), 1002000000u);
}

TEST(clock, is_read_again_behind_a_callback_that_took_long)
{
    ManualClock clock;
    renew_packet_time();
    EXPECT_EQ(packet_ms(), 1000000u);
    PacketTime time;
    renew_packet_time();
    clock.advance_ms(1);
    EXPECT_EQ(packet_ms(), 1000001u) << "none has begun";
    (void)time.read();
    clock.advance_ms(2000);
    EXPECT_EQ(packet_ms(), 1000001u);
    renew_packet_time();
    EXPECT_EQ(packet_ms(), 1002001u);
}

TEST(clock, pauses_for_milliseconds)
{
    const uint64_t start = mono_ms();
    pause_ms(30);
    EXPECT_GE(mono_ms() - start, 29u);
}

TEST(elapsed, is_never_below_zero)
{
    EXPECT_EQ(elapsed(7, 5), 2u);
    EXPECT_EQ(elapsed(5, 5), 0u);
    EXPECT_EQ(elapsed(5, 7), 0u);
    EXPECT_EQ(elapsed(UINT64_MAX, 0), UINT64_MAX);
}

TEST(copy_text, cuts_and_terminates)
{
    char to[8] = "~~~~~~~";
    copy_text(to, "abcdef", 3);
    EXPECT_EQ(std::string(to, 8), std::string("abc\0~~~\0", 8));
    copy_text(to, "ab", 3);
    EXPECT_STREQ(to, "ab");
    copy_text(to, "abc", 3);
    EXPECT_STREQ(to, "abc");
    copy_text(to, "", 3);
    EXPECT_STREQ(to, "");
    const char unterminated[3] = {'x', 'y', 'z'};
    copy_text(to, unterminated, 3);
    EXPECT_STREQ(to, "xyz");
}

TEST(text_of, ends_with_the_array)
{
    const char full[3] = {'a', 'b', 'c'};
    EXPECT_EQ(text_of(full), "abc");
    const char with_end[5] = {'a', 'b', 0, 'd', 'e'};
    EXPECT_EQ(text_of(with_end), "ab");
    EXPECT_STREQ(or_null(nullptr), "(null)");
    EXPECT_STREQ(or_null("a"), "a");
}

TEST(fd, closes_once_and_hands_on)
{
    const int number = open("/dev/null", O_RDONLY | O_CLOEXEC);
    {
        Fd fd(number);
        EXPECT_TRUE(fd);
        Fd other(std::move(fd));
        EXPECT_FALSE(fd); // NOLINT: what a move leaves is part of the type
        EXPECT_EQ(other.get(), number);
        EXPECT_EQ(other.release(), number);
        EXPECT_FALSE(other);
        EXPECT_NE(fcntl(number, F_GETFD), -1);
        other = Fd(number);
    }
    EXPECT_EQ(fcntl(number, F_GETFD), -1);
    EXPECT_FALSE(Fd());
    EXPECT_TRUE(Fd(dup(0)));
}

TEST(allocate, is_empty_without_memory_and_never_for_nothing)
{
    EXPECT_TRUE(allocate<int>(0));
    EXPECT_TRUE(allocate_zeroed<int>(0));
    const owned<int> zeros = allocate_zeroed<int>(100);
    EXPECT_EQ(std::accumulate(zeros.get(), zeros.get() + 100, 0), 0);
    const Fail fail(Call::Allocate, 1, ENOMEM, 2);
    EXPECT_FALSE(allocate<int>(1));
    EXPECT_FALSE(allocate_zeroed<int>(1));
}

TEST(grow_array, grows_and_fails_whole)
{
    GrowArray<int> array;
    EXPECT_TRUE(array.empty());
    for (int i = 0; i < 1000; ++i)
        ASSERT_TRUE(array.push(i));
    EXPECT_EQ(array.size(), 1000u);
    EXPECT_EQ(std::accumulate(array.begin(), array.end(), 0), 499500);
    while (array.size() < 1024)
        ASSERT_TRUE(array.push(0));
    {
        const Fail fail(Call::Allocate);
        EXPECT_FALSE(array.push(1));
        EXPECT_EQ(array.size(), 1024u);
        EXPECT_EQ(array[999], 999);
    }
    array.resize_down(2000);
    EXPECT_EQ(array.size(), 1024u);
    array.resize_down(10);
    EXPECT_EQ(array.size(), 10u);
    array.clear();
    EXPECT_TRUE(array.empty());
}

TEST(relaxed, a_shared_field_is_read_and_written_like_a_plain_one)
{
    struct Record {
        Shared<uint32_t> state;
        Shared<Record *> next;
    };
    static_assert(std::is_trivially_copyable_v<Record> && sizeof(Record) == 16);
    static_assert(!std::is_copy_assignable_v<Shared<uint32_t>>, "or a copy would be read without an atomic");
    Record record{};
    record.state = 7;
    record.next  = &record;
    EXPECT_EQ(record.next->state, 7u);
    EXPECT_EQ(peek(record.state), 7u);
    EXPECT_EQ(bump(record.state), 7u);
    EXPECT_EQ(swap_in(record.state, 3), 8u);
    const auto copy = record.state;
    record.state    = 4;
    EXPECT_EQ(copy, 3u);
}

TEST(relaxed, a_plain_field_is_shared_where_it_is_named_so)
{
    uint8_t           flag = 0;
    volatile uint32_t word = 5;
    const int32_t     seen = 6;
    shared(flag)           = 1;
    shared(word)           = 9;
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(uint32_t{shared(word)}, 9u);
    EXPECT_EQ(int32_t{shared(seen)}, 6);
}

TEST(relaxed, swaps_and_counts)
{
    uint32_t value = 5;
    EXPECT_EQ(bump(value), 5u);
    EXPECT_EQ(bump(value, 10), 6u);
    EXPECT_EQ(peek(value), 16u);
    EXPECT_EQ(swap_in(value, 1), 16u);
    EXPECT_FALSE(swap_if(value, 2, 3));
    EXPECT_EQ(value, 1u);
    EXPECT_TRUE(swap_if(value, 1, 3));
    EXPECT_EQ(peek_acquire(value), 3u);
    poke_release(value, 5);
    EXPECT_EQ(value, 5u);
    int32_t count = 1;
    EXPECT_EQ(bump(count, -1), 1);
    EXPECT_EQ(count, 0);
}

TEST(mutex, of_zero_bytes_is_a_free_one)
{
    static Mutex mutex; // NOLINT: zeroed by the loader
    const auto   is_free = [] {
        if (!mutex.try_lock())
            return false;
        mutex.unlock();
        return true;
    };
    bool free_elsewhere = true;
    {
        ScopedLock lock(mutex);
        std::thread([&] { free_elsewhere = is_free(); }).join();
    }
    EXPECT_FALSE(free_elsewhere);
    EXPECT_TRUE(is_free());
    int        sum = 0;
    const auto add = [&] {
        for (int i = 0; i < 10000; ++i) {
            ScopedLock lock(mutex);
            ++sum;
        }
    };
    std::thread one(add), two(add);
    one.join();
    two.join();
    EXPECT_EQ(sum, 20000);
}
