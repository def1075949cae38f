#include "sub/sub.h"
#include "sub/sub.hpp"

#include "log/agent_log.h"
#include "support/log_capture.h"
#include "support/log_lines/sub.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const LogLine kPassed = debug("[TRACE] topic_match_wildcard：匹配+通配符，跳过当前层级");
const LogLine kParent = debug("[TRACE] topic_match_wildcard：filter剩余/#且topic结束，判定匹配");

LogLine rest(const std::string &filter, const std::string &topic)
{
    return debug("[DEBUG] topic_match_wildcard：未完全匹配（filter剩余=" + filter + ", topic剩余=" + topic + "）");
}
LogLine result(const std::string &filter, const std::string &topic, int match)
{
    return logged::topic_match_result(filter, topic, match);
}

struct Pair {
    const char *filter, *topic;
};
void expect_all(int match, std::initializer_list<Pair> pairs)
{
    for (const Pair &pair : pairs)
        EXPECT_EQ(topic_match_wildcard(pair.filter, pair.topic), match) << pair.filter << " and " << pair.topic;
}

struct topic_match : testing::Test {
    LogCapture log{AGENT_LOG_INFO};
    ~topic_match() override { EXPECT_THAT(log.take(), IsEmpty()); }
};

} // namespace

TEST_F(topic_match, compares_byte_by_byte)
{
    expect_all(1, {{"a", "a"}, {"a/b", "a/b"}, {"/", "/"}, {"a//b", "a//b"}, {"温度", "温度"}});
    expect_all(0,
               {{"A/b", "a/b"}, {"a/b", "a/b/c"}, {"a/b/c", "a/b"}, {"a", "a/"}, {"a/", "a"}, {"a", ""}, {"a", "b"}});
}

TEST_F(topic_match, hash_takes_the_rest_and_the_level_above)
{
    expect_all(1, {{"sport/#", "sport"},
                   {"sport/#", "sport/"},
                   {"sport/#", "sport/tennis/x"},
                   {"#", "a"},
                   {"#", "/"},
                   {"#", ""},
                   {"/#", "/"},
                   {"/#", "/a/b"},
                   {"/#", ""},
                   {"a//#", "a/"}});
    expect_all(0, {{"sport/#", "sports"}, {"sport/#", "spor"}, {"/#", "a"}, {"a/b/#", "a"}, {"a/#", ""}});
}

TEST_F(topic_match, plus_takes_one_level)
{
    expect_all(1, {{"a/+", "a/b"},
                   {"+/b", "/b"},
                   {"+/b", "a/b"},
                   {"+", "a"},
                   {"+/+", "/a"},
                   {"a/+/c", "a//c"},
                   {"+/+/+", "a/b/c"},
                   {"+/", "a/"}});
    expect_all(0, {{"a/+", "a/b/c"}, {"+", "a/b"}, {"+/b", "a/c"}, {"+/b", "a"}, {"a/+/c", "a/b"}, {"a/+", "a"}});
}

TEST_F(topic_match, plus_needs_a_topic_that_goes_on)
{
    expect_all(0, {{"a/+", "a/"}, {"+", ""}, {"+/+", "a/"}});
}

TEST_F(topic_match, final_plus_takes_a_final_slash)
{
    expect_all(1, {{"a/+", "a/b/"}, {"+", "/"}, {"+", "a/"}, {"a/+", "a//"}});
    expect_all(0, {{"a/+", "a/b//"}, {"+", "//"}, {"+/b", "a/b/"}});
}

TEST_F(topic_match, wildcards_match_dollar_topics)
{
    expect_all(1, {{"#", "$SYS/x"}, {"+/x", "$SYS/x"}});
}

TEST_F(topic_match, ignores_the_group_of_a_shared_filter)
{
    expect_all(1, {{"$share/g1/a/+", "a/x"}, {"$share//a", "a"}, {"$share/g/$share/h/a", "$share/h/a"}});
    expect_all(0, {{"$share/g1/a", "$share/g1/a"}, {"$share/g/a", "g/a"}});
}

TEST_F(topic_match, takes_a_shared_filter_without_a_topic_part_literally)
{
    expect_all(1, {{"$share/g", "$share/g"}, {"$share/", "$share/"}, {"$share", "$share"}});
    expect_all(0, {{"$share/g", "g"}});
}

TEST_F(topic_match, wildcards_in_a_topic_are_characters)
{
    expect_all(1, {{"a/+", "a/+"}, {"a/+", "a/#"}, {"+", "+"}});
    expect_all(0, {{"a/b", "a/+"}, {"a/b", "a/#"}});
}

TEST_F(topic_match, without_filter_or_topic_is_none)
{
    EXPECT_EQ(topic_match_wildcard(nullptr, "a"), 0);
    EXPECT_EQ(topic_match_wildcard("a", nullptr), 0);
    EXPECT_EQ(topic_match_wildcard(nullptr, nullptr), 0);
}

TEST_F(topic_match, complains_about_an_invalid_filter)
{
    EXPECT_EQ(topic_match_wildcard("$share/g1/", "a"), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::filter_empty()));
    EXPECT_EQ(topic_match_wildcard("", ""), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::filter_empty()));
    EXPECT_EQ(topic_match_wildcard("$share/g/b#", "b"), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::filter_hash_without_slash("b#", 1)));
}

TEST(topic_match_trace, tells_the_result_of_an_equal_topic)
{
    LogCapture log;
    topic_match_wildcard("$share/g/a/b", "a/b");
    EXPECT_THAT(log.take(), ElementsAre(result("a/b", "a/b", 1)));
}

TEST(topic_match_trace, tells_only_the_result_where_a_character_differs)
{
    LogCapture log;
    topic_match_wildcard("a/b", "a/c");
    EXPECT_THAT(log.take(), ElementsAre(result("a/b", "a/c", 0)));
}

TEST(topic_match_trace, tells_nothing_where_a_hash_takes_the_rest)
{
    LogCapture log;
    topic_match_wildcard("a/#", "a/b");
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(topic_match_trace, tells_of_the_level_above_a_hash)
{
    LogCapture log;
    topic_match_wildcard("a/#", "a");
    EXPECT_THAT(log.take(), ElementsAre(kParent, result("a/#", "a", 1)));
    topic_match_wildcard("a/#", "a/");
    EXPECT_THAT(log.take(), ElementsAre(result("a/#", "a/", 1)));
}

TEST(topic_match_trace, tells_of_every_plus)
{
    LogCapture log;
    topic_match_wildcard("+/+", "a/b");
    EXPECT_THAT(log.take(), ElementsAre(kPassed, kPassed, result("+/+", "a/b", 1)));
    topic_match_wildcard("+/x/+", "a/b/c");
    EXPECT_THAT(log.take(), ElementsAre(kPassed, result("+/x/+", "a/b/c", 0)));
}

TEST(topic_match_trace, tells_what_is_left)
{
    LogCapture log;
    topic_match_wildcard("a/b", "a/b/c");
    EXPECT_THAT(log.take(), ElementsAre(rest("", "/c"), result("a/b", "a/b/c", 0)));
    topic_match_wildcard("a/b/c", "a/b");
    EXPECT_THAT(log.take(), ElementsAre(rest("/c", ""), result("a/b/c", "a/b", 0)));
    topic_match_wildcard("a/+", "a/");
    EXPECT_THAT(log.take(), ElementsAre(rest("+", ""), result("a/+", "a/", 0)));
    topic_match_wildcard("+/b", "a");
    EXPECT_THAT(log.take(), ElementsAre(kPassed, rest("/b", ""), result("+/b", "a", 0)));
    topic_match_wildcard("+", "a/b");
    EXPECT_THAT(log.take(), ElementsAre(kPassed, rest("", "b"), result("+", "a/b", 0)));
}

TEST(topic_filter, one_filter_for_many_topics_matches_the_same)
{
    for (const uint32_t level : {AGENT_LOG_INFO, AGENT_LOG_DEBUG})
        for (const char *filter : {"a", "a/b", "a/+", "+/b", "#", "a/#", "$share/g/a/b", "$share/g/+", "$share/g/",
                                   "a/#/b", "a+", "", "$share/g", "/", "+"})
            for (const char *topic : {"a", "a/b", "a/", "a/b/", "/", "b", "$share/g", "a/b/c", "", "a/bb"}) {
                LogCapture                   log(level);
                const bool                   whole = tarn::sub::matches(filter, topic);
                const auto                   lines = log.take();
                const tarn::sub::TopicFilter many(filter);
                EXPECT_EQ(many.matches(topic), whole) << filter << " " << topic;
                EXPECT_EQ(log.take(), lines) << filter << " " << topic;
            }
}
