#include "broker/access/filter.h"

#include <gtest/gtest.h>
#include <string_view>
#include <vector>

// How the library itself matches.
extern "C" int topic_match_wildcard(const char *filter, const char *topic);

using namespace tarn::broker;

// Each row: what a rule says, what a client asks for, whether the one takes in all of the other.
TEST(covers, table)
{
    struct Row {
        std::string_view rule, filter;
        bool             covered;
    };
    constexpr bool yes = true, no = false;
    for (const Row &row : {
             // topics
             Row{"a", "a", yes},
             {"a", "b", no},
             {"a", "A", no},
             {"a", "a/b", no},
             {"a/b", "a", no},
             {"a/b", "a/b", yes},
             {"a/b", "a/b/c", no},
             {"a", "a/", no},
             {"a/", "a", no},
             {"a/", "a/", yes},
             {"/a", "a", no},
             {"/a", "/a", yes},
             {"a//b", "a//b", yes},
             {"a//b", "a/b", no},
             {"ab", "a", no},
             {"a", "ab", no},
             // '+' is exactly one level
             {"+", "a", yes},
             {"+", "", yes},
             {"+", "$SYS", yes},
             {"+", "a/b", no},
             {"+", "/", no},
             {"+/+", "/", yes},
             {"+/+", "a/b", yes},
             {"a/+", "a/b", yes},
             {"a/+", "a/", yes},
             {"a/+", "a", no},
             {"a/+", "a/b/c", no},
             {"a/+", "b/a", no},
             {"+/b", "a/b", yes},
             {"+/b", "a/c", no},
             {"a/+/c", "a/b/c", yes},
             {"a/+/c", "a/b/d", no},
             {"a/+/c", "a/b", no},
             {"a/+/c", "a//c", yes},
             // '#' is the level above and all below
             {"#", "a", yes},
             {"#", "a/b/c", yes},
             {"#", "", yes},
             {"#", "/", yes},
             {"#", "$SYS/x", yes},
             {"a/#", "a", yes},
             {"a/#", "a/", yes},
             {"a/#", "a/b", yes},
             {"a/#", "a/b/c", yes},
             {"a/#", "ab", no},
             {"a/#", "b", no},
             {"a/b/#", "a", no},
             {"a/b/#", "a/b", yes},
             {"a/+/#", "a/b", yes},
             {"a/+/#", "a/b/c/d", yes},
             {"a/+/#", "a", no},
             {"+/#", "a", yes},
             // filters of a client
             {"a", "+", no},
             {"a", "#", no},
             {"a/b", "a/+", no},
             {"a/b", "a/#", no},
             {"+", "+", yes},
             {"+", "#", no},
             {"+", "+/+", no},
             {"+/+", "+", no},
             {"+/+", "+/a", yes},
             {"+/+", "a/+", yes},
             {"+/a", "+/+", no},
             {"a/+", "a/#", no},
             {"a/+", "a/+", yes},
             {"a/+", "+/+", no},
             {"a/+/c", "a/+/c", yes},
             {"a/+/c", "a/+/+", no},
             {"a/+/c", "a/#", no},
             {"#", "#", yes},
             {"#", "+", yes},
             {"#", "a/#", yes},
             {"#", "+/+/#", yes},
             {"a/#", "#", no},
             {"a/#", "+/b", no},
             {"a/#", "a/+", yes},
             {"a/#", "a/#", yes},
             {"a/#", "a/b/#", yes},
             {"a/#", "a/+/c", yes},
             {"a/b/#", "a/#", no},
             {"a/b/#", "a/+", no},
             {"a/+/#", "a/#", no}, // "a" itself
             {"a/+/#", "a/b/#", yes},
             {"a/+/#", "a/+/#", yes},
             {"a/+/#", "a/+", yes},
             {"+/#", "#", no}, // the same, but level by level it does not show
             {"+/#", "a/#", yes},
             // "$share" means nothing here
             {"a", "$share/g/a", no},
             {"$share/g/a", "$share/g/a", yes},
         })
        EXPECT_EQ(covers(row.rule, row.filter), row.covered) << row.rule << " and " << row.filter;
}

// All texts of one to three of these levels.
std::vector<std::string> texts_of(const std::vector<std::string> &levels)
{
    std::vector<std::string> texts, last{""};
    for (int depth = 0; depth < 3; ++depth) {
        std::vector<std::string> longer;
        for (const std::string &text : last)
            for (const std::string &level : levels)
                longer.push_back(depth == 0 ? level : text + '/' + level);
        texts.insert(texts.end(), longer.begin(), longer.end());
        last = longer;
    }
    return texts;
}

// What the library delivers for a filter that a rule covers is matched by the rule, in the sense of MQTT or, where the
// library departs from it ("a/+" gets "a/b/"), in its own.
TEST(covers, no_more_than_what_the_rule_matches)
{
    const std::vector<std::string> topics     = texts_of({"a", "b", "", "$x"});
    int                            deliveries = 0;
    for (const std::string &rule : texts_of({"a", "b", "", "+", "#"})) {
        for (const std::string &filter : texts_of({"a", "b", "", "+", "#"})) {
            if (!filter_mistake(rule).empty() || !filter_mistake(filter).empty() || !covers(rule, filter))
                continue;
            for (const std::string &topic : topics) {
                if (!topic_match_wildcard(filter.c_str(), topic.c_str()))
                    continue;
                ++deliveries;
                EXPECT_TRUE(covers(rule, topic) || topic_match_wildcard(rule.c_str(), topic.c_str()))
                    << rule << " covers " << filter << ", which gets " << topic;
            }
        }
    }
    EXPECT_GT(deliveries, 3000);
}

TEST(without_group, leaves_what_is_subscribed_to)
{
    EXPECT_EQ(without_group("a/b"), "a/b");
    EXPECT_EQ(without_group("$share/g/a/b"), "a/b");
    EXPECT_EQ(without_group("$share//a"), "a");
    EXPECT_EQ(without_group("$share/g/"), "");
    EXPECT_EQ(without_group("$share/g//a"), "/a");
    EXPECT_EQ(without_group("$share/g/$share/h/a"), "$share/h/a"); // as in the library: once
    // No groups: the library takes them as they are.
    EXPECT_EQ(without_group("$share/g"), "$share/g");
    EXPECT_EQ(without_group("$share/"), "$share/");
    EXPECT_EQ(without_group("$Share/g/a"), "$Share/g/a");
    EXPECT_EQ(without_group("/$share/g/a"), "/$share/g/a");
}

TEST(filter_mistake, names_what_is_wrong)
{
    const std::string hash = "'#' can only be the last level of a filter, as in a/#";
    const std::string plus = "'+' can only be a whole level of a filter, as in a/+/b";
    for (const char *good : {"a", "/", "+", "#", "a/#", "a/+", "+/+/#", "a//b", "$SYS/#", "%c/%u", "ä/ö"})
        EXPECT_EQ(filter_mistake(good), "") << good;
    EXPECT_EQ(filter_mistake(""), "the filter is missing");
    EXPECT_EQ(filter_mistake("a\xFF"), "the filter is not UTF-8");
    for (const char *bad : {"a#", "#a", "#/a", "a/#/", "a/b#", "##"})
        EXPECT_EQ(filter_mistake(bad), hash) << bad;
    for (const char *bad : {"a+", "+a", "a/b+/c", "++"})
        EXPECT_EQ(filter_mistake(bad), plus) << bad;
}

TEST(is_topic, is_what_may_be_published_to)
{
    for (const char *good : {"a", "/", "a/b", "$SYS/x", "ä"})
        EXPECT_TRUE(is_topic(good)) << good;
    for (const char *bad : {"", "+", "#", "a/+/b", "a#", "a+b", "\xFF"})
        EXPECT_FALSE(is_topic(bad)) << bad;
}
