// The table of objects with links of their own.
#include "standard/state/hash_table.h"
#include "support/faults.h"

#include <gtest/gtest.h>
#include <set>
#include <vector>

using namespace tarn::standard;
using namespace tarn::test;

namespace {

struct Number : InTable<Number> {
    int value = 0;
};

std::vector<Number> numbers(int count)
{
    std::vector<Number> made(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i)
        made[static_cast<size_t>(i)].value = i;
    return made;
}

// So few hashes that many items have the same.
uint64_t hash_of(int value)
{
    return static_cast<uint64_t>(value % 100);
}

const Number *find(const HashTable<Number> &table, int value)
{
    return table.find(hash_of(value), [&](const Number &number) { return number.value == value; });
}

} // namespace

TEST(standard_hash_table, finds_what_is_in_it)
{
    auto              items = numbers(1000);
    HashTable<Number> table;
    EXPECT_EQ(find(table, 1), nullptr);
    for (Number &item : items)
        table.insert(item, hash_of(item.value));
    EXPECT_EQ(table.size(), 1000u);
    for (const Number &item : items)
        EXPECT_EQ(find(table, item.value), &item);
    EXPECT_EQ(find(table, 1000), nullptr);
}

TEST(standard_hash_table, finds_no_longer_what_was_removed)
{
    auto              items = numbers(300);
    HashTable<Number> table;
    for (Number &item : items)
        table.insert(item, hash_of(item.value));
    for (Number &item : items)
        if (item.value % 3 != 0)
            table.remove(item);
    EXPECT_EQ(table.size(), 100u);
    for (const Number &item : items)
        EXPECT_EQ(find(table, item.value), item.value % 3 != 0 ? nullptr : &item);
}

TEST(standard_hash_table, visits_each_once_even_if_it_is_removed_then)
{
    auto              items = numbers(50);
    HashTable<Number> table;
    std::set<int>     visited;
    table.for_each([&](const Number &item) { visited.insert(item.value); });
    EXPECT_TRUE(visited.empty());
    for (Number &item : items)
        table.insert(item, hash_of(item.value));
    table.for_each([&](Number &item) {
        EXPECT_TRUE(visited.insert(item.value).second);
        table.remove(item);
    });
    EXPECT_EQ(visited.size(), 50u);
    EXPECT_EQ(table.size(), 0u);
}

TEST(standard_hash_table, needs_no_memory)
{
    auto              items = numbers(40);
    HashTable<Number> table;
    for (const int end : {10, 30, 40}) { // with its first bucket, with many, with more
        Fail no_memory(Call::Allocate, 1, ENOMEM, end == 30 ? 0 : 1000);
        while (table.size() < static_cast<size_t>(end)) {
            Number &item = items[table.size()];
            table.insert(item, hash_of(item.value));
        }
    }
    for (const Number &item : items)
        EXPECT_EQ(find(table, item.value), &item);
}
