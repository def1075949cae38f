// The packet identifiers that a client's publications at QoS 2 hold.
#include "standard/state/incoming.h"
#include "support/faults.h"

#include <gmock/gmock.h>

#include <random>
#include <set>
#include <vector>

using namespace tarn::standard;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<uint16_t> all_of(const IncomingIdentifiers &incoming)
{
    std::vector<uint16_t> all;
    incoming.for_each([&](uint16_t packet_id) { all.push_back(packet_id); });
    return all;
}

} // namespace

TEST(incoming, is_new_until_it_is_released)
{
    IncomingIdentifiers incoming;
    EXPECT_EQ(incoming.begin(5), Begun::New);
    EXPECT_EQ(incoming.begin(5), Begun::Duplicate);
    EXPECT_TRUE(incoming.holds(5));
    EXPECT_FALSE(incoming.holds(6));
    EXPECT_FALSE(incoming.release(6));
    EXPECT_TRUE(incoming.release(5));
    EXPECT_FALSE(incoming.release(5));
    EXPECT_EQ(incoming.begin(5), Begun::New);
    EXPECT_EQ(incoming.count(), 1u);
}

TEST(incoming, holds_every_identifier)
{
    IncomingIdentifiers incoming;
    for (uint32_t id = 1; id <= 65535; ++id)
        ASSERT_EQ(incoming.begin(static_cast<uint16_t>(id)), Begun::New);
    EXPECT_EQ(incoming.count(), 65535u);
    EXPECT_EQ(all_of(incoming).size(), 65535u);
    for (uint32_t id = 1; id <= 65535; ++id)
        ASSERT_TRUE(incoming.release(static_cast<uint16_t>(id)));
    EXPECT_THAT(all_of(incoming), IsEmpty());
}

TEST(incoming, gives_them_ascending)
{
    IncomingIdentifiers incoming;
    for (const uint16_t id : std::initializer_list<uint16_t>{65535, 64, 1, 63, 1023, 1024, 65})
        EXPECT_EQ(incoming.begin(id), Begun::New);
    EXPECT_THAT(all_of(incoming), ElementsAre(1, 63, 64, 65, 1023, 1024, 65535));
}

TEST(incoming, is_limited_by_the_receive_maximum)
{
    IncomingIdentifiers incoming;
    incoming.connected(2);
    EXPECT_EQ(incoming.begin(1), Begun::New);
    EXPECT_EQ(incoming.begin(2), Begun::New);
    EXPECT_EQ(incoming.begin(3), Begun::TooMany);
    EXPECT_EQ(incoming.begin(2), Begun::Duplicate);
    EXPECT_TRUE(incoming.release(1));
    EXPECT_EQ(incoming.begin(3), Begun::New);
    EXPECT_EQ(incoming.begin(4), Begun::TooMany);
}

TEST(incoming, is_limited_for_each_connection_apart)
{
    IncomingIdentifiers incoming;
    EXPECT_TRUE(incoming.restore(1));
    EXPECT_TRUE(incoming.restore(1));
    EXPECT_TRUE(incoming.restore(2));
    EXPECT_EQ(incoming.count(), 2u);
    incoming.connected(1);
    EXPECT_EQ(incoming.begin(1), Begun::Duplicate);
    EXPECT_EQ(incoming.begin(3), Begun::New);
    EXPECT_EQ(incoming.begin(4), Begun::TooMany);
    incoming.connected(1);
    EXPECT_EQ(incoming.begin(4), Begun::New);
    EXPECT_TRUE(incoming.release(1));
    EXPECT_EQ(incoming.begin(5), Begun::New) << "PUBCOMP gives the client room, whatever it is for";
    EXPECT_THAT(all_of(incoming), ElementsAre(2, 3, 4, 5));
    incoming.connected(1);
    EXPECT_TRUE(incoming.release(2));
    EXPECT_EQ(incoming.begin(6), Begun::New);
    EXPECT_EQ(incoming.begin(7), Begun::TooMany) << "but never more than its Receive Maximum";
}

TEST(incoming, without_memory_is_as_it_was)
{
    for (int nth = 1; nth <= 2; ++nth) {
        IncomingIdentifiers incoming;
        {
            const Fail fail(Call::Allocate, nth);
            EXPECT_EQ(incoming.begin(5), Begun::NoMemory);
            EXPECT_FALSE(incoming.holds(5));
            EXPECT_THAT(all_of(incoming), IsEmpty());
        }
        EXPECT_EQ(incoming.begin(5), Begun::New);
    }
}

TEST(incoming, does_what_a_set_does)
{
    IncomingIdentifiers incoming;
    std::set<uint16_t>  model;
    std::mt19937        random(1);
    for (int i = 0; i < 100000; ++i) {
        const auto id = static_cast<uint16_t>(random() % 5000 * 13 + 1);
        if (random() % 2 == 0)
            ASSERT_EQ(incoming.begin(id), model.insert(id).second ? Begun::New : Begun::Duplicate);
        else
            ASSERT_EQ(incoming.release(id), model.erase(id) == 1);
        ASSERT_EQ(incoming.count(), model.size());
    }
    EXPECT_EQ(all_of(incoming), std::vector(model.begin(), model.end()));
}
