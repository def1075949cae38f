// Memory for short messages. Each test runs in a process of its own.
#include "standard/state/spare_blocks.h"
#include "support/faults.h"
#include "support/library_thread.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <vector>

using namespace tarn::standard;
using namespace tarn::test;

namespace {

std::vector<void *> take(size_t count, size_t size)
{
    std::vector<void *> blocks(count);
    for (void *&block : blocks)
        if ((block = take_block(size)))
            memset(block, 0xA5, size);
    return blocks;
}

void give_back(const std::vector<void *> &blocks, size_t size)
{
    for (void *const block : blocks)
        give_back_block(block, size);
}

size_t taken_without_memory(size_t count, size_t size)
{
    const Fail          fail(Call::Allocate, 1, ENOMEM, 10'000);
    std::vector<void *> blocks = take(count, size);
    std::erase(blocks, nullptr);
    give_back(blocks, size);
    return blocks.size();
}

} // namespace

TEST(spare_blocks, serve_again_for_messages_of_about_their_size)
{
    on_a_library_thread([] {
        for (const size_t size : {8u, 100u, 512u}) {
            give_back(take(64, size), size);
            EXPECT_EQ(taken_without_memory(64, size), 64u) << size;
            EXPECT_EQ(taken_without_memory(65, size), 64u) << size;
        }
        EXPECT_EQ(taken_without_memory(1, 112), 1u); // sixteen bytes are one unit
        EXPECT_EQ(taken_without_memory(1, 113), 0u);
    });
}

TEST(spare_blocks, are_bounded)
{
    on_a_library_thread([] {
        give_back(take(1000, 100), 100);
        EXPECT_EQ(taken_without_memory(1000, 100), 256u);
        give_back(take(10, 200), 200);
        EXPECT_EQ(taken_without_memory(10, 200), 0u);
    });
}

TEST(spare_blocks, are_none_of_long_messages)
{
    on_a_library_thread([] {
        give_back(take(10, 513), 513);
        EXPECT_EQ(taken_without_memory(1, 513), 0u);
    });
}

TEST(spare_blocks, are_not_kept_by_a_hosts_thread)
{
    give_back(take(10, 100), 100);
    EXPECT_EQ(taken_without_memory(1, 100), 0u);
}

// A leak is told of where tests look for leaks.
TEST(spare_blocks, belong_to_the_thread_that_gave_them_back_until_it_ends)
{
    std::vector<void *> blocks;
    on_a_library_thread([&] { blocks = take(10, 100); });
    on_a_library_thread([&] {
        give_back(blocks, 100);
        EXPECT_EQ(taken_without_memory(10, 100), 10u);
    });
    on_a_library_thread([] { EXPECT_EQ(taken_without_memory(10, 100), 0u); });
}
