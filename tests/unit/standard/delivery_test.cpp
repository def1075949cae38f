// Where deliveries stand and where their memory is from.
#include "standard/state/packet_id_index.h"
#include "support/faults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

using namespace tarn::standard;
using namespace tarn::test;

TEST(delivery_list, gives_its_deliveries_in_their_order)
{
    DeliveryList list;
    Delivery     a;
    Delivery     b;
    Delivery     c;
    for (Delivery *const each : {&a, &b, &c})
        list.append(*each);
    EXPECT_EQ(list.count(), 3u);
    list.remove(b);
    EXPECT_EQ(list.first(), &a);
    EXPECT_EQ(a.next, &c);
    list.remove(c);
    list.append(b);
    EXPECT_EQ(a.next, &b);
    EXPECT_EQ(b.next, nullptr);
    list.remove(a);
    list.remove(b);
    EXPECT_EQ(list.first(), nullptr);
    EXPECT_EQ(list.count(), 0u);
}

TEST(delivery_pool, gives_again_what_it_was_given_back_as_new)
{
    DeliveryPool     pool;
    Delivery *const  taken   = pool.take();
    const MessageRef message = MessageRef::make({.topic = "t"});
    const uint32_t   two[]   = {1, 2};
    ASSERT_TRUE(taken->subscription_identifiers.assign(two));
    taken->message   = message;
    taken->packet_id = 5;
    pool.give_back(*taken);

    const Fail      fail(Call::Allocate);
    Delivery *const again = pool.take();
    EXPECT_EQ(again, taken);
    EXPECT_FALSE(again->message);
    EXPECT_TRUE(again->subscription_identifiers.all().empty());
    EXPECT_EQ(again->packet_id, 0);
    EXPECT_EQ(again->next, nullptr);
    EXPECT_EQ(pool.take(), nullptr) << "without memory";
    pool.give_back(*again);
}

TEST(delivery_pool, keeps_only_so_many)
{
    DeliveryPool            pool;
    std::vector<Delivery *> taken;
    for (size_t i = 0; i < DeliveryPool::kSpareMax + 1; ++i)
        taken.push_back(pool.take());
    for (Delivery *const each : taken)
        pool.give_back(*each);
    for (Delivery *&each : taken) {
        const Fail fail(Call::Allocate);
        each = pool.take();
    }
    EXPECT_EQ(taken.back(), nullptr);
    taken.pop_back();
    for (Delivery *const each : taken) {
        ASSERT_NE(each, nullptr);
        pool.give_back(*each);
    }
}

TEST(subscription_identifiers, are_one_or_many)
{
    SubscriptionIdentifiers identifiers;
    const uint32_t          many[] = {268435455, 2, 3};
    EXPECT_TRUE(identifiers.all().empty());
    ASSERT_TRUE(identifiers.assign(many));
    EXPECT_TRUE(std::ranges::equal(identifiers.all(), many));
    {
        const Fail fail(Call::Allocate);
        EXPECT_FALSE(identifiers.assign(many));
        EXPECT_EQ(identifiers.all().size(), 3u) << "they are as they were";
        ASSERT_TRUE(identifiers.assign({many, 1}));
    }
    EXPECT_TRUE(std::ranges::equal(identifiers.all(), std::span(many, 1)));
    ASSERT_TRUE(identifiers.assign({}));
    EXPECT_TRUE(identifiers.all().empty());
}

namespace {

// Deliveries with the identifiers 1 to `count`, in an index.
struct Filled {
    std::vector<Delivery> deliveries;
    PacketIdIndex         index;

    explicit Filled(size_t count) : deliveries(count)
    {
        for (Delivery &each : deliveries) {
            each.packet_id = index.next_unused();
            index.insert(each);
        }
    }
    void expect_all_found()
    {
        for (Delivery &each : deliveries)
            ASSERT_EQ(index.find(each.packet_id), &each);
    }
};

} // namespace

TEST(packet_id_index, gives_each_identifier_once_and_never_0)
{
    Filled all(65534);
    EXPECT_EQ(all.index.count(), 65534u);
    EXPECT_EQ(all.deliveries.front().packet_id, 1);
    EXPECT_EQ(all.deliveries.back().packet_id, 65534);
    all.expect_all_found();
    EXPECT_EQ(all.index.find(0), nullptr);
    EXPECT_EQ(all.index.find(65535), nullptr);

    EXPECT_EQ(all.index.next_unused(), 65535);
    Delivery last;
    last.packet_id = 65535;
    all.index.insert(last);
    all.index.remove(all.deliveries[99]);
    EXPECT_EQ(all.index.next_unused(), 100) << "behind 65535 comes 1, and 1 to 99 are in use";
    all.index.remove(last);
}

TEST(packet_id_index, finds_others_after_one_was_removed)
{
    Filled all(100);
    for (size_t i = 0; i < 100; ++i) {
        all.index.remove(all.deliveries[i]);
        EXPECT_EQ(all.index.find(all.deliveries[i].packet_id), nullptr);
        for (size_t rest = i + 1; rest < 100; ++rest)
            ASSERT_EQ(all.index.find(all.deliveries[rest].packet_id), &all.deliveries[rest]);
    }
    EXPECT_EQ(all.index.count(), 0u);
    all.index.insert(all.deliveries[50]);
    EXPECT_EQ(all.index.find(51), &all.deliveries[50]);
    EXPECT_EQ(all.index.next_unused(), 52);
}

TEST(packet_id_index, works_on_without_memory_to_grow)
{
    for (int nth = 1; nth <= 3; ++nth) {
        const Fail fail(Call::Allocate, nth, 12, 1000);
        Filled     all(60);
        all.expect_all_found();
        for (size_t i = 0; i < 60; i += 2)
            all.index.remove(all.deliveries[i]);
        EXPECT_EQ(all.index.find(1), nullptr);
        EXPECT_EQ(all.index.find(2), &all.deliveries[1]);
        EXPECT_EQ(all.index.count(), 30u);
    }
}
