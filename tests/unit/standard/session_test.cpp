// The table of sessions, and the form in which records have client identifiers.
#include "standard/state/session.h"
#include "standard/stored_id.h"
#include "support/faults.h"

#include <cerrno>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

using namespace tarn::standard;
using namespace tarn::test;

namespace {

constexpr DeliveryBounds kBounds{{10, 10'000}, {10, 10'000}};

} // namespace

TEST(sessions, are_found_by_id_and_by_number)
{
    Sessions       sessions;
    Session *const one = sessions.make("one", kBounds);
    Session *const two = sessions.make(std::string(65535, 'x'), kBounds);
    ASSERT_TRUE(one && two);
    EXPECT_EQ(sessions.find("one"), one);
    EXPECT_EQ(sessions.find(std::string(65535, 'x')), two);
    EXPECT_EQ(sessions.find(one->number), one);
    EXPECT_EQ(sessions.find("on"), nullptr);
    EXPECT_EQ(sessions.find(uint64_t{99}), nullptr);
    EXPECT_EQ(sessions.count(), 2u);
}

TEST(sessions, never_get_a_number_again)
{
    Sessions       sessions;
    Session *const first  = sessions.make("a", kBounds);
    const uint64_t number = first->number;
    sessions.destroy(*first);
    EXPECT_EQ(sessions.find("a"), nullptr);
    EXPECT_GT(sessions.make("a", kBounds)->number, number);
    Session *const restored = sessions.make("b", kBounds, 1000);
    EXPECT_EQ(restored->number, 1000u);
    EXPECT_EQ(sessions.make("c", kBounds)->number, 1001u);
}

TEST(sessions, take_up_the_memory_of_those_with_ids_as_short)
{
    Sessions       sessions;
    Session *const gone = sessions.make("gone", kBounds);
    gone->expiry_s      = 7;
    sessions.destroy(*gone);
    const Fail fail(Call::Allocate, 1, ENOMEM, 1000);
    EXPECT_EQ(sessions.make(std::string(33, 'x'), kBounds), nullptr) << "it is too long for that block";
    Session *const next = sessions.make(std::string(32, 'y'), kBounds);
    ASSERT_EQ(next, gone);
    EXPECT_EQ(next->text, std::string(32, 'y'));
    EXPECT_EQ(next->expiry_s, 0u);
    EXPECT_EQ(sessions.find(std::string(32, 'y')), next);
    EXPECT_EQ(sessions.make("another", kBounds), nullptr) << "there was one block";
}

TEST(sessions, keep_the_memory_of_few)
{
    Sessions               sessions;
    std::vector<Session *> many;
    for (int i = 0; i < 300; ++i)
        many.push_back(sessions.make(std::to_string(i), kBounds));
    for (Session *const session : many)
        sessions.destroy(*session);
    const Fail fail(Call::Allocate, 1, ENOMEM, 1000);
    size_t     made = 0;
    while (sessions.make(std::to_string(made), kBounds))
        ++made;
    EXPECT_EQ(made, 256u);
}

TEST(sessions, are_due_in_the_order_of_their_times)
{
    Sessions       sessions;
    Session *const late  = sessions.make("late", kBounds);
    Session *const early = sessions.make("early", kBounds);
    sessions.set_due(*late, 200);
    sessions.set_due(*early, 100);
    EXPECT_EQ(sessions.first_due(99), nullptr);
    EXPECT_EQ(sessions.first_due(100), early);
    sessions.set_due(*early, 300);
    EXPECT_EQ(sessions.first_due(300), late);
    sessions.set_nothing_due(*late);
    EXPECT_EQ(sessions.first_due(300), early);
    sessions.destroy(*early);
    EXPECT_EQ(sessions.first_due(1000), nullptr);
}

TEST(sessions, a_walk_goes_on_behind_one_that_is_destroyed)
{
    Sessions       sessions;
    Session *const a  = sessions.make("a", kBounds);
    Session *const b  = sessions.make("b", kBounds);
    Session *const c  = sessions.make("c", kBounds);
    sessions.cursor() = sessions.first();
    EXPECT_EQ(sessions.cursor(), a);
    sessions.destroy(*a);
    EXPECT_EQ(sessions.cursor(), b);
    sessions.destroy(*c);
    EXPECT_EQ(sessions.cursor(), b);
    sessions.destroy(*b);
    EXPECT_EQ(sessions.cursor(), nullptr);
}

TEST(stored_id, is_the_identifier_where_it_fits)
{
    const IdKey key{{1, 2, 3, 4}};
    EXPECT_STREQ(stored_id("sensor-1", key).text, "sensor-1");
    EXPECT_EQ(stored_id(std::string(63, 'x'), key).text, std::string(63, 'x'));
}

TEST(stored_id, of_a_long_one_is_a_hash_under_the_directorys_key)
{
    const IdKey       key{{1, 2, 3, 4}}, other{{1, 2, 3, 5}};
    const std::string id(64, 'x');
    const std::string stored = stored_id(id, key).text;
    EXPECT_EQ(stored.size(), 33u);
    EXPECT_EQ(stored[0], '~');
    EXPECT_EQ(stored, stored_id(id, key).text);
    EXPECT_NE(stored, stored_id(id, other).text);
    EXPECT_NE(stored, stored_id(id + "x", key).text);
}

TEST(stored_id, of_one_that_looks_like_a_hash_is_a_hash_too)
{
    const IdKey       key{{1, 2, 3, 4}};
    const std::string stored = stored_id(std::string(64, 'x'), key).text;
    EXPECT_NE(stored, stored_id(stored, key).text);
}

TEST(made_up_id, is_another_one_each_time)
{
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        const std::string id = made_up_id().text;
        EXPECT_EQ(id.substr(0, 5), "auto_");
        EXPECT_EQ(id.find_first_not_of("0123456789", 5), id.npos);
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 100u);
}
