// Retained messages by topic.
#include "standard/state/retained_store.h"
#include "simple_matcher.h"
#include "support/faults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>
#include <vector>

using namespace tarn::standard;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Set = RetainedStore::Set;

namespace {

constexpr RetainedBounds kPlenty{.messages = 100000, .bytes = 100000000};

MessageRef message(std::string_view topic, uint64_t number = 0, uint64_t expires_ms = 0)
{
    return MessageRef::make({.number = number, .expires_ms = expires_ms, .topic = topic});
}

MessageRef message_of_size(std::string_view topic, size_t payload)
{
    const std::vector<uint8_t> bytes(payload);
    return MessageRef::make({.topic = topic, .payload = bytes});
}

std::vector<std::string> match(const RetainedStore &store, std::string_view filter)
{
    std::vector<std::string> topics;
    store.match(filter, [&](const MessageRef &found) { topics.emplace_back(found->topic()); });
    return topics;
}

std::vector<std::string> all(const RetainedStore &store)
{
    std::vector<std::string> topics;
    for (const MessageRef &each : store)
        topics.emplace_back(each->topic());
    return topics;
}

class retained_store : public testing::Test {
protected:
    void fill(std::initializer_list<std::string_view> topics)
    {
        for (const std::string_view topic : topics)
            EXPECT_EQ(store_.set(message(topic)), Set::Stored) << topic;
    }

    RetainedStore store_{kPlenty};
};

std::string slashes(size_t count)
{
    return std::string(count, '/');
}

} // namespace

// ---- storing and removing

TEST_F(retained_store, has_one_message_for_each_topic)
{
    EXPECT_EQ(store_.set(message("a/b", 1)), Set::Stored);
    EXPECT_EQ(store_.set(message("a", 2)), Set::Stored);
    EXPECT_EQ(store_.set(message("a/b", 3)), Set::Replaced);
    EXPECT_EQ(store_.count(), 2u);
    ASSERT_TRUE(store_.find("a/b"));
    EXPECT_EQ(store_.find("a/b")->number(), 3u);
    EXPECT_EQ(store_.find("a")->number(), 2u);
    EXPECT_FALSE(store_.find("b"));
    EXPECT_EQ(store_.counters().stored, 2u);
    EXPECT_EQ(store_.counters().replaced, 1u);
}

TEST_F(retained_store, removes_one)
{
    fill({"a/b", "a", "a/b/c"});
    EXPECT_FALSE(store_.remove("b"));
    EXPECT_TRUE(store_.remove("a"));
    EXPECT_FALSE(store_.remove("a"));
    EXPECT_FALSE(store_.find("a"));
    EXPECT_THAT(match(store_, "#"), UnorderedElementsAre("a/b", "a/b/c"));
    EXPECT_TRUE(store_.remove("a/b/c"));
    EXPECT_TRUE(store_.remove("a/b"));
    EXPECT_EQ(store_.count(), 0u);
    EXPECT_EQ(store_.bytes(), RetainedStore(kPlenty).bytes());
    EXPECT_EQ(store_.counters().removed, 3u);
}

TEST_F(retained_store, lists_all_in_the_order_in_which_their_topics_came)
{
    EXPECT_THAT(all(store_), IsEmpty());
    fill({"c", "a/b", "x", "b"});
    store_.set(message("a/b"));
    store_.remove("x");
    EXPECT_THAT(all(store_), ElementsAre("c", "a/b", "b"));
    store_.remove("c");
    store_.remove("b");
    EXPECT_THAT(all(store_), ElementsAre("a/b"));
}

// ---- bounds

TEST(retained_store_bounds, hold_for_the_number_of_messages)
{
    RetainedStore store({.messages = 2, .bytes = 100000});
    EXPECT_EQ(store.set(message("a")), Set::Stored);
    EXPECT_EQ(store.set(message("b")), Set::Stored);
    EXPECT_EQ(store.set(message("c")), Set::Full);
    EXPECT_EQ(store.set(message("b")), Set::Replaced);
    EXPECT_EQ(store.counters().refused, 1u);
    store.remove("a");
    EXPECT_EQ(store.set(message("c")), Set::Stored);
    EXPECT_THAT(all(store), ElementsAre("b", "c"));
}

TEST(retained_store_bounds, hold_for_bytes)
{
    RetainedStore store({.messages = 100, .bytes = 10000});
    EXPECT_EQ(store.set(message_of_size("a", 8000)), Set::Stored);
    EXPECT_GT(store.bytes(), 8000u);
    EXPECT_EQ(store.set(message_of_size("b", 2500)), Set::Full);
    EXPECT_EQ(store.set(message_of_size("a", 9000)), Set::Replaced);
    EXPECT_EQ(store.set(message_of_size("a", 10000)), Set::Full);
    EXPECT_EQ(store.find("a")->payload().size(), 9000u);
    EXPECT_EQ(store.set(message_of_size("a", 100)), Set::Replaced);
    EXPECT_EQ(store.set(message_of_size("b", 2500)), Set::Stored);
    EXPECT_LE(store.bytes(), 10000u);
    EXPECT_EQ(store.counters().refused, 2u);
}

TEST(retained_store_bounds, count_the_nodes_that_lead_to_a_message)
{
    RetainedStore unbounded(kPlenty);
    unbounded.set(message("a"));
    const MessageRef deep = message(slashes(100));
    RetainedStore    store(
           {.messages = 100, .bytes = unbounded.bytes() + deep->size() + sizeof(RetainedEntry) + 50 * sizeof(void *)});
    EXPECT_EQ(store.set(message("a")), Set::Stored);
    EXPECT_EQ(store.set(deep), Set::Full);
    EXPECT_EQ(store.bytes(), unbounded.bytes());
    EXPECT_THAT(match(store, "#"), ElementsAre("a"));
}

// ---- expiry

TEST_F(retained_store, discards_expired_messages_in_steps)
{
    for (const auto &[topic, expires_ms] :
         std::map<std::string, uint64_t>{{"never", 0}, {"at 5", 5}, {"at 3", 3}, {"at 4", 4}, {"at 9", 9}, {"at 2", 2}})
        store_.set(message(topic, 0, expires_ms));
    EXPECT_EQ(store_.discard_expired(1, 10), 0u);
    EXPECT_EQ(store_.discard_expired(5, 0), 0u);
    EXPECT_EQ(store_.discard_expired(5, 2), 2u);
    EXPECT_THAT(all(store_), UnorderedElementsAre("never", "at 4", "at 5", "at 9"));
    EXPECT_EQ(store_.discard_expired(5, 10), 2u);
    EXPECT_THAT(all(store_), UnorderedElementsAre("never", "at 9"));
    EXPECT_EQ(store_.discard_expired(100, 10), 1u);
    EXPECT_EQ(store_.discard_expired(100, 10), 0u);
    EXPECT_THAT(all(store_), ElementsAre("never"));
    EXPECT_EQ(store_.counters().expired, 5u);
    EXPECT_EQ(store_.counters().removed, 0u);
}

TEST_F(retained_store, expires_a_topic_as_its_last_message_says)
{
    for (const auto &[topic, first, second] : {std::tuple("sooner", 50, 5), std::tuple("later", 5, 50),
                                               std::tuple("not", 5, 0), std::tuple("at all", 0, 5)}) {
        store_.set(message(topic, 0, static_cast<uint64_t>(first)));
        store_.set(message(topic, 0, static_cast<uint64_t>(second)));
    }
    EXPECT_EQ(store_.discard_expired(5, 10), 2u);
    EXPECT_THAT(all(store_), UnorderedElementsAre("later", "not"));
    EXPECT_EQ(store_.discard_expired(50, 10), 1u);
    store_.remove("not");
}

// ---- matching

TEST_F(retained_store, matches_exact_filters)
{
    fill({"a", "a/b", "/", "$SYS/x"});
    EXPECT_THAT(match(store_, "a"), ElementsAre("a"));
    EXPECT_THAT(match(store_, "/"), ElementsAre("/"));
    EXPECT_THAT(match(store_, "$SYS/x"), ElementsAre("$SYS/x"));
    EXPECT_THAT(match(store_, "b"), IsEmpty());
    EXPECT_THAT(match(store_, "a/"), IsEmpty());
}

TEST_F(retained_store, takes_plus_for_one_level)
{
    fill({"a", "a/b", "a/c", "a/b/d", "x/b", "/b", "a/"});
    EXPECT_THAT(match(store_, "+"), ElementsAre("a"));
    EXPECT_THAT(match(store_, "a/+"), UnorderedElementsAre("a/b", "a/c", "a/"));
    EXPECT_THAT(match(store_, "+/b"), UnorderedElementsAre("a/b", "x/b", "/b"));
    EXPECT_THAT(match(store_, "+/+/d"), ElementsAre("a/b/d"));
    EXPECT_THAT(match(store_, "+/x"), IsEmpty());       // a level that is known
    EXPECT_THAT(match(store_, "+/unknown"), IsEmpty()); // and one that is not
    EXPECT_THAT(match(store_, "a/b/d/+"), IsEmpty());
}

TEST_F(retained_store, takes_the_number_sign_for_any_levels_and_the_one_above)
{
    fill({"a", "a/b", "a/b/c", "ab", "b/a"});
    EXPECT_THAT(match(store_, "#"), UnorderedElementsAre("a", "a/b", "a/b/c", "ab", "b/a"));
    EXPECT_THAT(match(store_, "a/#"), UnorderedElementsAre("a", "a/b", "a/b/c"));
    EXPECT_THAT(match(store_, "a/b/c/#"), ElementsAre("a/b/c"));
    EXPECT_THAT(match(store_, "+/a/#"), ElementsAre("b/a"));
}

TEST_F(retained_store, lets_no_wildcard_stand_for_a_dollar_topic) // [MQTT-4.7.2-1]
{
    fill({"$SYS/x", "$x", "a/$x", "a"});
    EXPECT_THAT(match(store_, "#"), UnorderedElementsAre("a/$x", "a"));
    EXPECT_THAT(match(store_, "+"), ElementsAre("a"));
    EXPECT_THAT(match(store_, "+/x"), IsEmpty());
    EXPECT_THAT(match(store_, "$SYS/#"), ElementsAre("$SYS/x"));
    EXPECT_THAT(match(store_, "$SYS/+"), ElementsAre("$SYS/x"));
    EXPECT_THAT(match(store_, "a/+"), ElementsAre("a/$x"));
}

TEST_F(retained_store, takes_topics_of_any_length)
{
    const std::string deepest = slashes(kMaxLevels - 1), deeper = slashes(kMaxLevels), longest = slashes(65535);
    fill({deepest, deeper, longest, std::string(65535, 'x')});
    EXPECT_EQ(match(store_, "#").size(), 4u);
    EXPECT_EQ(match(store_, "/#").size(), 3u);
    EXPECT_EQ(match(store_, "+").size(), 1u);
    EXPECT_THAT(match(store_, longest), ElementsAre(longest));
    std::string pluses = "+";
    while (pluses.size() < 2 * kMaxLevels - 1)
        pluses += "/+";
    EXPECT_THAT(match(store_, pluses), ElementsAre(deepest)) << "the last level of the others is more than one";
    pluses.back() = '#';
    EXPECT_EQ(match(store_, pluses).size(), 3u);
    EXPECT_THAT(match(store_, pluses + "/#"), IsEmpty()) << "nobody can subscribe to it";
    EXPECT_TRUE(store_.remove(longest));
    EXPECT_EQ(match(store_, "/#").size(), 2u);
}

// ---- without memory

TEST(retained_store_without_memory, is_as_before)
{
    const MessageRef made   = message("a/b/c", 1, 5);
    int              failed = 1, refused = 0;
    for (int nth = 1; failed > 0; ++nth) {
        RetainedStore store(kPlenty);
        store.set(message("a"));
        const size_t before = store.bytes();
        Set          result = Set::NoMemory;
        {
            Fail no_memory(Call::Allocate, nth);
            result = store.set(made);
            failed = no_memory.failed();
        }
        refused += result == Set::NoMemory;
        EXPECT_EQ(store.counters().refused, result == Set::NoMemory ? 1u : 0u);
        EXPECT_EQ(store.remove("a/b/c"), result == Set::Stored);
        EXPECT_EQ(store.bytes(), before);
        EXPECT_THAT(all(store), ElementsAre("a"));
    }
    EXPECT_EQ(refused, 5); // the entry, its node and the names of two levels, the place among the expiring
}

TEST_F(retained_store, keeps_the_earlier_message_without_memory)
{
    store_.set(message("a", 1));
    const MessageRef expiring = message("a", 2, 5);
    {
        Fail no_memory(Call::Allocate);
        EXPECT_EQ(store_.set(expiring), Set::NoMemory);
    }
    EXPECT_EQ(store_.find("a")->number(), 1u);
    EXPECT_EQ(store_.discard_expired(100, 10), 0u);
    EXPECT_EQ(store_.set(expiring), Set::Replaced);
    EXPECT_EQ(store_.discard_expired(100, 10), 1u);
}

TEST_F(retained_store, matches_without_memory)
{
    fill({"a/b", "a/c", "b"});
    int  found = 0;
    Fail no_memory(Call::Allocate, 1, ENOMEM, 1000);
    for (const char *filter : {"a/b", "+/b", "#"})
        store_.match(filter, [&](const MessageRef & /*message*/) { ++found; });
    EXPECT_EQ(found, 5);
    EXPECT_EQ(no_memory.failed(), 0);
}

// ---- random messages against all that is stored

namespace {

std::string random_path(std::mt19937 &random, const std::vector<std::string> &levels)
{
    std::string path = levels[random() % levels.size()];
    for (size_t left = random() % 4; left > 0; --left)
        path += "/" + levels[random() % levels.size()];
    return path.empty() ? "a" : path;
}

} // namespace

TEST_F(retained_store, agrees_with_a_simple_matcher)
{
    std::mt19937                    random(1234);
    std::map<std::string, uint64_t> model; // expiry by topic; 0 = never
    for (uint64_t now = 1; now <= 3000 && !HasFailure(); ++now) {
        const std::string topic = random_path(random, {"", "a", "b", "$c"});
        if (random() % 4 == 0) {
            EXPECT_EQ(store_.remove(topic), model.erase(topic) > 0);
        } else {
            const uint64_t expires_ms = random() % 2 ? now + random() % 200 : 0;
            EXPECT_EQ(store_.set(message(topic, now, expires_ms)), model.contains(topic) ? Set::Replaced : Set::Stored);
            model[topic] = expires_ms;
        }
        EXPECT_EQ(store_.discard_expired(now, 100),
                  std::erase_if(model, [&](const auto &each) { return each.second != 0 && each.second <= now; }));
        std::string filter = random_path(random, {"", "a", "b", "$c", "+", "+"});
        if (random() % 4 == 0)
            filter = random() % 4 == 0 ? "#" : filter + "/#";
        std::vector<std::string> wanted;
        for (const auto &each : model)
            if (matches_simply(filter, each.first))
                wanted.push_back(each.first);
        EXPECT_THAT(match(store_, filter), testing::UnorderedElementsAreArray(wanted)) << filter;
    }
}
