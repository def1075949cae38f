// One filter against one topic: the same answers as the tree gives.
#include "standard/state/filter_match.h"
#include "standard/state/subscription_tree.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

using namespace tarn::standard;

namespace {

struct Counter {
    int  count = 0;
    void plain(uint64_t /*session*/, const SubscriptionOptions & /*options*/) { ++count; }
    void shared(SharedGroup & /*group*/) {}
};

bool tree_matches(const std::string &filter, const std::string &topic)
{
    SubscriptionTree tree;
    EXPECT_EQ(tree.add(1, filter, {}), SubscriptionTree::Added::New);
    Counter counter;
    tree.match(topic, counter);
    return counter.count == 1;
}

std::string text_of(std::mt19937 &random, bool is_filter)
{
    static constexpr const char *kLevels[] = {"a", "b", "", "$x", "+", "#"};
    std::string                  text;
    for (unsigned i = 0, levels = 1 + random() % 4; i < levels; ++i) {
        const char *const level = kLevels[random() % (is_filter ? 6 : 4)];
        text += (i ? "/" : "") + std::string(level);
        if (*level == '#')
            break;
    }
    return text.empty() ? "a" : text;
}

} // namespace

TEST(filter_match, agrees_with_the_tree)
{
    std::mt19937 random(7);
    int          matched = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::string filter = text_of(random, true), topic = text_of(random, false);
        const bool        expected = tree_matches(filter, topic);
        ASSERT_EQ(matches(filter, topic), expected) << filter << " " << topic;
        matched += expected;
    }
    EXPECT_GT(matched, 2000);
}

TEST(filter_match, knows_the_examples_of_the_standard)
{
    EXPECT_TRUE(matches("sport/#", "sport"));
    EXPECT_TRUE(matches("sport/tennis/#", "sport/tennis/player1/ranking"));
    EXPECT_TRUE(matches("+/+", "/finance"));
    EXPECT_FALSE(matches("+", "/finance"));
    EXPECT_FALSE(matches("sport/+", "sport"));
    EXPECT_TRUE(matches("sport/+", "sport/"));
    EXPECT_FALSE(matches("#", "$SYS/uptime"));
    EXPECT_TRUE(matches("$SYS/#", "$SYS/uptime"));
}
