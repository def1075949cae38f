// Which of many is due first.
#include "standard/state/due_heap.h"
#include "support/faults.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <vector>

using namespace tarn::standard;
using namespace tarn::test;

namespace {

struct Event : InDueHeap {};

std::vector<Event> events(std::mt19937 &random, size_t count)
{
    std::vector<Event> made(count);
    for (Event &event : made)
        event.due_ms = 1 + random() % 50;
    return made;
}

std::vector<uint64_t> take_all(DueHeap<Event> &heap)
{
    std::vector<uint64_t> order;
    while (Event *const first = heap.first()) {
        order.push_back(first->due_ms);
        heap.remove(*first);
        EXPECT_EQ(first->due_place, 0u);
    }
    return order;
}

} // namespace

TEST(standard_due_heap, gives_the_earliest_first)
{
    std::mt19937 random(1);
    for (size_t count = 0; count < 70; ++count) {
        auto           all = events(random, count);
        DueHeap<Event> heap;
        for (Event &event : all)
            ASSERT_TRUE(heap.add(event));
        const auto order = take_all(heap);
        EXPECT_EQ(order.size(), count);
        EXPECT_TRUE(std::ranges::is_sorted(order));
    }
}

TEST(standard_due_heap, keeps_its_order_when_any_is_removed)
{
    std::mt19937 random(2);
    for (size_t removed = 0; removed < 64; ++removed) {
        auto           all = events(random, 64);
        DueHeap<Event> heap;
        for (Event &event : all)
            ASSERT_TRUE(heap.add(event));
        heap.remove(all[removed]);
        heap.remove(all[removed]); // is not in it: nothing happens
        heap.remove(all[(removed + 7) % 64]);
        EXPECT_EQ(heap.size(), 62u);
        EXPECT_TRUE(std::ranges::is_sorted(take_all(heap)));
    }
}

TEST(standard_due_heap, without_memory_does_not_take_it)
{
    Event          event;
    DueHeap<Event> heap;
    Fail           no_memory(Call::Allocate);
    EXPECT_FALSE(heap.add(event));
    EXPECT_EQ(event.due_place, 0u);
    EXPECT_EQ(heap.first(), nullptr);
}
