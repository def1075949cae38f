#include "broker/access/acl.h"

#include <gtest/gtest.h>

using namespace tarn::broker;

namespace {

struct acl : testing::Test {
    std::string parse(const std::string &text, bool users_known = true) { return file.parse("acl", text, users_known); }
    bool        reads(const Asker &asker, const char *filter) { return file.may_subscribe(asker, filter); }
    bool        writes(const Asker &asker, const char *topic) { return file.may_publish(asker, topic); }

    Acl   file;
    Asker alice{"a1", "alice"};
    Asker bob{"b1", "bob"};
};

} // namespace

TEST_F(acl, what_no_rule_allows_is_refused)
{
    ASSERT_EQ(parse(""), "");
    EXPECT_FALSE(reads(alice, "a"));
    EXPECT_FALSE(writes(alice, "a"));
}

TEST_F(acl, the_three_kinds_of_rules)
{
    ASSERT_EQ(parse("read r/#\nwrite w/#\nreadwrite b/#\n"), "");
    EXPECT_TRUE(reads(alice, "r/1"));
    EXPECT_FALSE(writes(alice, "r/1"));
    EXPECT_FALSE(reads(alice, "w/1"));
    EXPECT_TRUE(writes(alice, "w/1"));
    EXPECT_TRUE(reads(alice, "b/+"));
    EXPECT_TRUE(writes(alice, "b/1"));
}

TEST_F(acl, sections_speak_of_users_and_of_client_ids)
{
    ASSERT_EQ(parse("read all\n"
                    "user alice\nread of_alice\n"
                    "client b*\nread of_b\n"
                    "user bob\nread of_bob\n"
                    "client *\nread of_any\n"
                    "user alice\nread more\n"),
              "");
    for (const char *filter : {"all", "of_alice", "of_any", "more"})
        EXPECT_TRUE(reads(alice, filter)) << filter;
    for (const char *filter : {"of_b", "of_bob"})
        EXPECT_FALSE(reads(alice, filter)) << filter;
    for (const char *filter : {"all", "of_b", "of_bob", "of_any"})
        EXPECT_TRUE(reads(bob, filter)) << filter;
    for (const char *filter : {"of_alice", "more"})
        EXPECT_FALSE(reads(bob, filter)) << filter;
    EXPECT_FALSE(reads({"alice", "bob"}, "of_alice")); // an id is no name
}

TEST_F(acl, names_and_filters_may_contain_spaces)
{
    ASSERT_EQ(parse("\tuser  Alice  B \n\t read \t living room/# \n"), "");
    EXPECT_TRUE(reads({"c", "Alice  B"}, "living room/lamp"));
}

TEST_F(acl, placeholders_are_the_clients_own)
{
    ASSERT_EQ(parse("readwrite c/%c/#\nread u/%u\nread both/%u-%c\nread 100%/%%c/%x\n"), "");
    EXPECT_TRUE(reads(alice, "c/a1/#"));
    EXPECT_TRUE(writes(alice, "c/a1/x"));
    EXPECT_FALSE(writes(alice, "c/b1/x"));
    EXPECT_FALSE(reads(alice, "c/+/#"));
    EXPECT_TRUE(reads(alice, "u/alice"));
    EXPECT_FALSE(reads(alice, "u/bob"));
    EXPECT_TRUE(reads(alice, "both/alice-a1"));
    EXPECT_TRUE(reads(alice, "100%/%a1/%x")); // any other % is one
    EXPECT_FALSE(reads(alice, "c/%c/#"));
}

TEST_F(acl, ids_that_would_be_wildcards_or_levels_stand_for_nothing)
{
    ASSERT_EQ(parse("readwrite c/%c/#\nreadwrite u/%u/#\nread plain\n"), "");
    for (const char *id : {"+", "#", "a/b", "/", "a+", ""}) {
        EXPECT_FALSE(reads({id, "alice"}, (std::string("c/") + id + "/#").c_str())) << id;
        EXPECT_FALSE(reads({id, "alice"}, "c/other/#")) << id;
        EXPECT_FALSE(writes({id, "alice"}, "c/other/x")) << id;
        EXPECT_FALSE(reads({"id", id}, "u/other/#")) << id;
        EXPECT_TRUE(reads({id, "alice"}, "plain")) << id;
    }
}

TEST_F(acl, of_a_shared_subscription_the_filter_counts)
{
    ASSERT_EQ(parse("read a/#\n"), "");
    EXPECT_TRUE(reads(alice, "$share/g/a/b"));
    EXPECT_FALSE(reads(alice, "$share/g/b"));
    EXPECT_FALSE(reads(alice, "$share/a/#"));    // group "a", filter "#"
    EXPECT_FALSE(reads(alice, "$share/a"));      // no group
    EXPECT_FALSE(writes(alice, "$share/g/a/b")); // as a topic it is no shared one
}

// The saved session keeps 63 characters, and comes back with them.
TEST_F(acl, a_long_filter_must_be_allowed_cut_too)
{
    const std::string level(56, 'x');
    ASSERT_EQ(parse("read +/" + level + "/y/zz\nread free/#\n"), "");
    const std::string filter = "+/" + level + "/y/zz";
    ASSERT_EQ(filter.size(), 63u);
    EXPECT_TRUE(reads(alice, filter.c_str()));

    Acl longer;
    ASSERT_EQ(longer.parse("acl", "read +/" + level + "/y/zzz\nread free/#\n", true), "");
    EXPECT_FALSE(longer.may_subscribe(alice, filter + "z")); // cut it is a filter that no rule allows
    EXPECT_TRUE(longer.may_subscribe(alice, "free/" + std::string(100, 'x')));
}

TEST_F(acl, patterns)
{
    struct Row {
        const char *pattern, *text;
        bool        matches;
    };
    for (const Row &row : {
             Row{"abc", "abc", true}, {"abc", "ab", false},     {"abc", "abcd", false},  {"*", "", true},
             {"*", "abc", true},      {"a*", "a", true},        {"a*", "ab", true},      {"a*", "ba", false},
             {"*a", "ba", true},      {"*a", "ab", false},      {"a*c", "abc", true},    {"a*c", "ac", true},
             {"a*c", "abcb", false},  {"a*c", "abcbc", true},   {"a**c", "abc", true},   {"*b*", "abc", true},
             {"*b*", "ac", false},    {"*ab*ab", "abab", true}, {"*ab*ab", "ab", false}, {"a?c", "abc", false},
             {"", "", true},          {"", "a", false},
         })
        EXPECT_EQ(matches_pattern(row.pattern, row.text), row.matches) << row.pattern << " and " << row.text;
}

TEST_F(acl, a_user_may_be_bound_to_ids)
{
    ASSERT_EQ(parse("user alice\nclientid a*\nread x\nclientid phone\n"
                    "user bob\nread y\n"
                    "user alice\nclientid *-of-alice\n"),
              "");
    for (const char *id : {"a", "a1", "phone", "tv-of-alice"})
        EXPECT_TRUE(file.may_have_id({id, "alice"})) << id;
    for (const char *id : {"", "b1", "phones", "tv-of-bob"})
        EXPECT_FALSE(file.may_have_id({id, "alice"})) << id;
    for (const char *user : {"bob", "carol", ""})
        EXPECT_TRUE(file.may_have_id({"phone", user})) << user;
    EXPECT_TRUE(reads({"a1", "alice"}, "x"));
}

TEST_F(acl, mistakes_are_told_with_their_line)
{
    struct Row {
        std::string line, mistake;
    };
    for (const Row &row : std::vector<Row>{
             {"allow a/#", "a line begins with read, write, readwrite, user, clientid or client, not with 'allow'"},
             {"Read a", "a line begins with read, write, readwrite, user, clientid or client, not with 'Read'"},
             {"clientid x", "clientid stands in a section of a user: it says which ids that one may have"},
             {"read", "the filter is missing"},
             {"write  ", "the filter is missing"},
             {"read a#", "'#' can only be the last level of a filter, as in a/#"},
             {"readwrite a+/b", "'+' can only be a whole level of a filter, as in a/+/b"},
             {"read \xFF", "the filter is not UTF-8"},
             {"read $share/g/a", "a rule is about what stands behind the group of a shared subscription: 'a'"},
             {"user", "the user's name is empty"},
             {"user a:b", "a user's name may not begin with '#' or contain ':'"},
             {"client", "the pattern of client ids is missing"},
         }) {
        Acl other;
        EXPECT_EQ(other.parse("FILE", "# comment\nread a\n\n" + row.line + "\n", true), "FILE:4: " + row.mistake);
    }
}

TEST_F(acl, mistakes_of_sections_are_told)
{
    EXPECT_EQ(parse("user alice\nclientid\n"), "acl:2: the pattern of client ids is missing");
    EXPECT_EQ(parse("user alice\nclient y\nclientid x\n"),
              "acl:3: clientid stands in a section of a user: it says which ids that one may have");
}

TEST_F(acl, without_users_no_rule_may_speak_of_them)
{
    EXPECT_EQ(parse("read a\nuser alice\n", false),
              "acl:2: rules for users need --user-file: without it anybody can claim a name");
    EXPECT_EQ(parse("read %u/a\n", false), "acl:1: %u needs --user-file: without it anybody can claim a name");
    EXPECT_EQ(parse("read %c/a\nclient *\nread b\n", false), "");
}
