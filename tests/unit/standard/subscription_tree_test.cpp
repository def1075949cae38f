// Subscriptions by topic.
#include "standard/state/subscription_tree.h"
#include "simple_matcher.h"
#include "support/faults.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

using namespace tarn::standard;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Added = SubscriptionTree::Added;

namespace {

struct Matched {
    std::vector<uint64_t>      plain;   // sessions
    std::vector<uint32_t>      options; // their identifiers
    std::vector<SharedGroup *> groups;
};

struct Collect {
    Matched &matched;
    void     plain(uint64_t session, const SubscriptionOptions &options) const
    {
        matched.plain.push_back(session);
        matched.options.push_back(options.identifier);
    }
    void shared(SharedGroup &group) const { matched.groups.push_back(&group); }
};

Matched match(const SubscriptionTree &tree, std::string_view topic)
{
    Matched matched;
    tree.match(topic, Collect{matched});
    return matched;
}

bool matches(std::string_view filter, std::string_view topic)
{
    SubscriptionTree tree;
    EXPECT_EQ(tree.add(1, filter, {}), Added::New);
    return match(tree, topic).plain.size() == 1;
}

uint64_t take_turn(SharedGroup &group)
{
    const Subscriber *const member = group.next([](uint64_t, const SubscriptionOptions &) { return true; });
    return member ? member->session : 0;
}

std::vector<std::string> filters_of(const SubscriptionTree &tree, uint64_t session)
{
    std::vector<std::string> filters;
    for (const Subscription &each : tree.of(session)) {
        EXPECT_EQ(each.session(), session);
        filters.push_back((each.group().empty() ? "" : std::string(each.group()) + ":") + std::string(each.filter()));
    }
    return filters;
}

std::string repeat(std::string_view text, size_t times)
{
    std::string whole;
    while (times-- > 0)
        whole += text;
    return whole;
}

} // namespace

// ---- which filters match

TEST(subscription_tree, matches_exact_topics)
{
    EXPECT_TRUE(matches("a", "a"));
    EXPECT_TRUE(matches("a/b", "a/b"));
    EXPECT_FALSE(matches("a/b", "a"));
    EXPECT_FALSE(matches("a/b", "a/B"));
    EXPECT_FALSE(matches("a", "/a")); // [MQTT-4.7.3-4]
    EXPECT_FALSE(matches("a", "a/"));
    EXPECT_TRUE(matches("/", "/"));
    EXPECT_TRUE(matches("$SYS/x", "$SYS/x"));
}

TEST(subscription_tree, takes_plus_for_one_level)
{
    EXPECT_TRUE(matches("+", "finance"));
    EXPECT_FALSE(matches("+", "/finance"));
    EXPECT_TRUE(matches("/+", "/finance"));
    EXPECT_TRUE(matches("+/+", "/finance"));
    EXPECT_TRUE(matches("a/+/c", "a/b/c"));
    EXPECT_TRUE(matches("a/+/c", "a//c"));
    EXPECT_FALSE(matches("a/+/c", "a/b/d"));
    EXPECT_FALSE(matches("a/+/c", "a/b"));
    EXPECT_FALSE(matches("a/+/c", "a/b/c/d"));
    EXPECT_FALSE(matches("a/+", "a"));
    EXPECT_TRUE(matches("a/+", "a/"));
    EXPECT_TRUE(matches("+/b", "a/b"));
}

TEST(subscription_tree, takes_the_number_sign_for_any_levels_and_the_one_above)
{
    EXPECT_TRUE(matches("#", "a"));
    EXPECT_TRUE(matches("#", "a/b"));
    EXPECT_TRUE(matches("#", "/"));
    EXPECT_TRUE(matches("a/#", "a"));
    EXPECT_TRUE(matches("a/#", "a/"));
    EXPECT_TRUE(matches("a/#", "a/b/c"));
    EXPECT_FALSE(matches("a/#", "ab"));
    EXPECT_FALSE(matches("a/#", "b/a"));
    EXPECT_TRUE(matches("+/#", "a"));
    EXPECT_TRUE(matches("a/+/#", "a/b"));
    EXPECT_FALSE(matches("a/+/#", "a"));
}

TEST(subscription_tree, lets_no_wildcard_stand_for_a_dollar_topic) // [MQTT-4.7.2-1]
{
    EXPECT_FALSE(matches("#", "$SYS/uptime"));
    EXPECT_FALSE(matches("+/uptime", "$SYS/uptime"));
    EXPECT_FALSE(matches("+", "$"));
    EXPECT_FALSE(matches("$SYS/+", "$other/uptime"));
    EXPECT_TRUE(matches("$SYS/#", "$SYS/uptime"));
    EXPECT_TRUE(matches("$SYS/#", "$SYS"));
    EXPECT_TRUE(matches("$SYS/+", "$SYS/uptime"));
    EXPECT_TRUE(matches("a/+", "a/$b")); // "$" counts at the beginning only
    EXPECT_TRUE(matches("#", "a/$b"));
}

TEST(subscription_tree, takes_texts_of_any_length)
{
    const std::string level(65535, 'x');
    EXPECT_TRUE(matches(level, level));
    EXPECT_TRUE(matches("+", level));
    EXPECT_FALSE(matches(level, level.substr(1)));

    const std::string slashes(65535, '/');
    EXPECT_TRUE(matches(slashes, slashes));
    EXPECT_TRUE(matches("#", slashes));
    EXPECT_TRUE(matches("/#", slashes));
    EXPECT_TRUE(matches("+/+/#", slashes));
    EXPECT_FALSE(matches("+/+", slashes));
}

TEST(subscription_tree, bounds_the_levels_of_filters_with_wildcards)
{
    const std::string deepest = repeat("+/", kMaxLevels - 1);
    EXPECT_TRUE(matches(deepest + "+", repeat("/", kMaxLevels - 1)));
    EXPECT_TRUE(matches(deepest + "#", repeat("/", kMaxLevels - 2)));
    EXPECT_TRUE(matches(deepest + "#", repeat("/", 65535)));
    EXPECT_TRUE(matches(deepest + "x", repeat("/", kMaxLevels - 1) + "x"));

    // One level more in the topic is one too many for the last "+" and for a name.
    EXPECT_FALSE(matches(deepest + "+", repeat("/", kMaxLevels)));
    EXPECT_FALSE(matches(deepest + "x", repeat("/", kMaxLevels - 1) + "x/"));

    SubscriptionTree tree;
    EXPECT_EQ(tree.add(1, deepest + "+/+", {}), Added::TooDeep);
    EXPECT_EQ(tree.add(1, "$share/g/" + deepest + "+/+", {}), Added::TooDeep);
    EXPECT_EQ(tree.add(1, repeat("/", 65535), {}), Added::New);
    EXPECT_EQ(tree.count(), 1u);
}

TEST(subscription_tree, gives_each_matching_subscription_once)
{
    SubscriptionTree tree;
    uint32_t         identifier = 0;
    for (const char *filter : {"a/b", "a/+", "+/b", "+/+", "a/#", "#", "a/b/#", "+/b/#", "a/c", "b/+", "a/+/c", "a"})
        EXPECT_EQ(tree.add(7, filter, {.identifier = ++identifier}), Added::New);
    tree.add(8, "a/+", {.identifier = 20});
    EXPECT_THAT(match(tree, "a/b").options, UnorderedElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 20));
    EXPECT_THAT(match(tree, "a").options, UnorderedElementsAre(5, 6, 12));
    EXPECT_THAT(match(tree, "a/x/c").options, UnorderedElementsAre(5, 6, 11));
    EXPECT_THAT(match(tree, "x").options, UnorderedElementsAre(6));
    EXPECT_THAT(match(tree, "$x").options, IsEmpty());
}

// ---- adding and removing

TEST(subscription_tree, replaces_the_options_of_a_subscription) // [MQTT-3.8.4-3]
{
    SubscriptionTree          tree;
    const SubscriptionOptions options{
        .identifier = 268435455, .qos = 2, .retain_handling = 1, .no_local = true, .retain_as_published = true};
    EXPECT_EQ(tree.add(1, "a/+", {}), Added::New);
    EXPECT_EQ(tree.add(2, "a/+", {.identifier = 2}), Added::New);
    EXPECT_EQ(tree.add(1, "a/+", options), Added::Replaced);
    EXPECT_EQ(tree.count(), 2u);
    const Subscription *const found = tree.find(1, "a/+");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->options().identifier, options.identifier);
    EXPECT_EQ(found->options().qos, 2);
    EXPECT_EQ(found->options().retain_handling, 1);
    EXPECT_TRUE(found->options().no_local);
    EXPECT_TRUE(found->options().retain_as_published);
    EXPECT_THAT(match(tree, "a/b").options, ElementsAre(options.identifier, 2));
}

TEST(subscription_tree, removes_what_was_added)
{
    SubscriptionTree tree;
    for (const char *filter : {"a/b", "a/+", "a/#", "$share/g/a/b"}) {
        EXPECT_FALSE(tree.remove(1, filter)) << filter;
        for (const uint64_t session : {1, 2, 3})
            tree.add(session, filter, {});
        EXPECT_TRUE(tree.remove(2, filter)) << filter; // the last takes its place
        EXPECT_FALSE(tree.remove(2, filter)) << filter;
        EXPECT_EQ(tree.find(2, filter), nullptr);
        ASSERT_NE(tree.find(3, filter), nullptr);
        EXPECT_EQ(tree.find(3, filter)->session(), 3u);
        EXPECT_TRUE(tree.remove(3, filter));
        EXPECT_TRUE(tree.remove(1, filter));
        EXPECT_EQ(tree.count(), 0u);
        const Matched matched = match(tree, "a/b");
        EXPECT_THAT(matched.plain, IsEmpty()) << filter;
        EXPECT_THAT(matched.groups, IsEmpty()) << filter;
    }
}

// The one that was found last is at hand.
TEST(subscription_tree, forgets_a_filter_that_goes)
{
    SubscriptionTree tree;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(tree.add(1, "a/b", {}), Added::New);
        ASSERT_EQ(tree.add(2, "$share/group/a/b", {}), Added::New);
        ASSERT_EQ(tree.add(3, "a/c", {}), Added::New);
        for (int j = 0; j < 2; ++j) {
            EXPECT_THAT(match(tree, "a/b").plain, ElementsAre(1));
            EXPECT_THAT(match(tree, "a/c").plain, ElementsAre(3));
            EXPECT_THAT(match(tree, "a/d").plain, IsEmpty());
            EXPECT_THAT(match(tree, "a").plain, IsEmpty());
        }
        EXPECT_THAT(match(tree, "a/b").plain, ElementsAre(1));
        EXPECT_TRUE(tree.remove(1, "a/b"));
        EXPECT_THAT(match(tree, "a/b").plain, IsEmpty());
        EXPECT_EQ(match(tree, "a/b").groups.size(), 1u);
        EXPECT_TRUE(tree.remove(2, "$share/group/a/b"));
        EXPECT_EQ(match(tree, "a/b").groups.size(), 0u);
        tree.remove_all_of(3);
        EXPECT_THAT(match(tree, "a/c").plain, IsEmpty());
    }
}

TEST(subscription_tree, lists_what_a_session_has_in_the_order_of_subscribing)
{
    SubscriptionTree tree;
    EXPECT_THAT(filters_of(tree, 1), IsEmpty());
    for (const char *filter : {"a", "b/+", "$share/g/a", "c", "$share"})
        tree.add(1, filter, {});
    tree.add(2, "a", {});
    tree.add(1, "b/+", {.qos = 1});
    EXPECT_THAT(filters_of(tree, 1), ElementsAre("a", "b/+", "g:a", "c", "$share"));
    EXPECT_THAT(filters_of(tree, 2), ElementsAre("a"));
    EXPECT_EQ(tree.of(1).begin()->filter(), "a");
    EXPECT_EQ(tree.count_of(1), 5u);
    EXPECT_EQ(tree.count_of(2), 1u);
    EXPECT_EQ(tree.count_of(3), 0u);
    tree.remove(1, "b/+");
    tree.remove(1, "a");
    tree.remove(1, "$share");
    EXPECT_THAT(filters_of(tree, 1), ElementsAre("g:a", "c"));
    tree.add(1, "a", {});
    EXPECT_THAT(filters_of(tree, 1), ElementsAre("g:a", "c", "a"));
}

TEST(subscription_tree, removes_all_of_a_session_and_nothing_else)
{
    SubscriptionTree tree;
    for (const char *filter : {"a", "a/+", "$share/g/a", "#"})
        for (const uint64_t session : {1, 2})
            tree.add(session, filter, {.identifier = static_cast<uint32_t>(session)});
    tree.remove_all_of(3);
    tree.remove_all_of(1);
    EXPECT_EQ(tree.count(), 4u);
    EXPECT_EQ(tree.count_of(1), 0u);
    EXPECT_EQ(tree.count_of(2), 4u);
    EXPECT_THAT(match(tree, "a").options, ElementsAre(2, 2));
    EXPECT_THAT(match(tree, "a/b").options, UnorderedElementsAre(2, 2));
    tree.remove_all_of(2);
    EXPECT_EQ(tree.count(), 0u);
    EXPECT_THAT(match(tree, "a").plain, IsEmpty());
}

// ---- shared subscriptions

TEST(subscription_tree, has_a_group_for_each_name_and_filter)
{
    SubscriptionTree tree;
    tree.add(1, "$share/g/a/+", {});
    tree.add(2, "$share/g/a/+", {});
    tree.add(3, "$share/h/a/+", {});
    tree.add(4, "$share/g/a/b", {});
    tree.add(5, "$share/g/a/c", {});
    tree.add(6, "a/b", {});
    const Matched matched = match(tree, "a/b");
    EXPECT_THAT(matched.plain, ElementsAre(6));
    std::multiset<std::pair<std::string_view, size_t>> groups;
    for (const SharedGroup *group : matched.groups)
        groups.emplace(group->text, group->members().size());
    EXPECT_THAT(groups, ElementsAre(std::pair("g", 1), std::pair("g", 2), std::pair("h", 1)));
    tree.remove(3, "$share/h/a/+");
    tree.remove(1, "$share/g/a/+");
    EXPECT_EQ(match(tree, "a/b").groups.size(), 2u);
    EXPECT_EQ(match(tree, "a/x").groups.size(), 1u);
}

TEST(subscription_tree, keeps_a_filter_while_any_group_has_it)
{
    SubscriptionTree tree;
    tree.add(1, "$share/g/a/+", {});
    tree.add(1, "$share/h/a/+", {});
    tree.add(1, "$share/i/a/+", {});
    tree.add(1, "a/+", {});
    EXPECT_EQ(tree.count_of(1), 4u);
    tree.remove(1, "a/+");
    tree.remove(1, "$share/h/a/+"); // in the middle of the list
    EXPECT_EQ(tree.find(1, "$share/h/a/+"), nullptr);
    EXPECT_EQ(match(tree, "a/b").groups.size(), 2u);
    tree.remove(1, "$share/g/a/+");
    tree.remove(1, "$share/i/a/+");
    EXPECT_EQ(match(tree, "a/b").groups.size(), 0u);
}

TEST(subscription_tree, applies_the_rule_of_dollar_topics_to_groups)
{
    SubscriptionTree tree;
    tree.add(1, "$share/g/#", {});
    tree.add(1, "$share/g/$SYS/#", {});
    EXPECT_EQ(match(tree, "$SYS/x").groups.size(), 1u);
    EXPECT_EQ(match(tree, "x").groups.size(), 1u);
    EXPECT_EQ(match(tree, "$share/g/x").groups.size(), 0u);
}

TEST(shared_group, gives_everyone_a_turn)
{
    SubscriptionTree tree;
    for (const uint64_t session : {1, 2, 3})
        tree.add(session, "$share/g/a", {.identifier = static_cast<uint32_t>(session * 10)});
    SharedGroup          &group = *match(tree, "a").groups.at(0);
    std::vector<uint64_t> turns;
    for (int i = 0; i < 7; ++i)
        turns.push_back(take_turn(group));
    EXPECT_THAT(turns, ElementsAre(1, 2, 3, 1, 2, 3, 1));
}

TEST(shared_group, passes_over_members_that_cannot_take_it)
{
    SubscriptionTree tree;
    for (const uint64_t session : {1, 2, 3, 4})
        tree.add(session, "$share/g/a", {.qos = 1});
    SharedGroup &group   = *match(tree, "a").groups.at(0);
    const auto   is_even = [](uint64_t session, const SubscriptionOptions &options) {
        EXPECT_EQ(options.qos, 1);
        return session % 2 == 0;
    };
    EXPECT_EQ(group.next(is_even)->session, 2u);
    EXPECT_EQ(group.next(is_even)->session, 4u);
    EXPECT_EQ(group.next(is_even)->session, 2u);
    int asked = 0;
    EXPECT_EQ(group.next([&](uint64_t, const SubscriptionOptions &) { return ++asked > 9; }), nullptr);
    EXPECT_EQ(asked, 4);
    EXPECT_EQ(take_turn(group), 3u); // whose turn it was before
}

TEST(shared_group, goes_on_when_members_come_and_go)
{
    SubscriptionTree tree;
    for (const uint64_t session : {1, 2, 3})
        tree.add(session, "$share/g/a", {});
    SharedGroup &group = *match(tree, "a").groups.at(0);
    EXPECT_EQ(take_turn(group), 1u);
    EXPECT_EQ(take_turn(group), 2u);
    tree.remove_all_of(3);
    tree.remove(2, "$share/g/a");
    EXPECT_EQ(take_turn(group), 1u);
    tree.add(4, "$share/g/a", {});
    EXPECT_EQ(take_turn(group), 4u);
    EXPECT_EQ(take_turn(group), 1u);
}

// ---- many, and none to spare

TEST(subscription_tree, holds_thousands_of_one_topic)
{
    SubscriptionTree tree;
    for (uint64_t session = 1; session <= 5000; ++session)
        ASSERT_EQ(tree.add(session, "a/b", {}), Added::New);
    for (uint64_t session = 1; session <= 5000; session += 2)
        tree.remove_all_of(session);
    Matched matched = match(tree, "a/b");
    std::ranges::sort(matched.plain);
    ASSERT_EQ(matched.plain.size(), 2500u);
    for (size_t i = 0; i < 2500; ++i)
        EXPECT_EQ(matched.plain[i], 2 * (i + 1));
}

TEST(subscription_tree, without_memory_changes_nothing)
{
    for (const auto &[filter, needed] : {std::pair("a/b", 3),          // session, subscription, its place
                                         std::pair("a/c", 4),          // and the filter
                                         std::pair("a/+/c", 7),        // and two nodes, the name of a level
                                         std::pair("$share/g/a/b", 4), // and the group
                                         std::pair("$share/g/a/#", 4)}) {
        int failed = 1, refused = 0;
        for (int nth = 1; failed > 0; ++nth) {
            SubscriptionTree tree;
            tree.add(1, "a/#", {});
            tree.add(1, "$share/h/a/b", {});
            Added added = Added::NoMemory;
            {
                Fail no_memory(Call::Allocate, nth);
                added  = tree.add(2, filter, {});
                failed = no_memory.failed();
            }
            refused += added == Added::NoMemory;
            EXPECT_EQ(tree.remove(2, filter), added == Added::New);
            EXPECT_EQ(tree.count(), 2u);
            EXPECT_EQ(tree.count_of(2), 0u);
            EXPECT_THAT(filters_of(tree, 1), ElementsAre("a/#", "h:a/b"));
            EXPECT_THAT(match(tree, "a/b").plain, ElementsAre(1));
            EXPECT_EQ(match(tree, "a/b").groups.size(), 1u);
        }
        EXPECT_EQ(refused, needed) << filter;
    }
}

TEST(subscription_tree, matches_without_memory)
{
    SubscriptionTree tree;
    for (const char *filter : {"a/b", "a/+", "#", "$share/g/a/b"})
        tree.add(1, filter, {});
    struct {
        int  count = 0;
        void plain(uint64_t /*session*/, const SubscriptionOptions & /*options*/) { ++count; }
        void shared(SharedGroup &group) { count += take_turn(group) == 1; }
    } sink;
    Fail no_memory(Call::Allocate, 1, ENOMEM, 1000);
    tree.match("a/b", sink);
    EXPECT_EQ(sink.count, 4);
    EXPECT_EQ(no_memory.failed(), 0);
}

// ---- random subscriptions against a simple matcher

namespace {

class Texts {
public:
    explicit Texts(unsigned seed) : random_(seed) {}

    unsigned    number(unsigned end) { return static_cast<unsigned>(random_() % end); }
    std::string topic() { return path({"", "a", "b", "$s", "a"}); }
    std::string filter()
    {
        std::string text = path({"", "a", "b", "+", "$s", "+"});
        if (number(4) == 0)
            text = number(5) == 0 ? "#" : text + "/#";
        return number(5) == 0 ? "$share/" + std::string(1, static_cast<char>('g' + number(2))) + "/" + text : text;
    }

private:
    std::string path(const std::vector<std::string> &levels)
    {
        std::string text;
        for (unsigned left = 1 + number(4); left > 0; --left)
            text += levels[number(static_cast<unsigned>(levels.size()))] + (left > 1 ? "/" : "");
        return text.empty() ? "a" : text;
    }

    std::mt19937 random_;
};

using Model = std::map<std::pair<uint64_t, std::string>, uint32_t>; // identifier by session and filter

void change_both(SubscriptionTree &tree, Model &model, Texts &texts, uint32_t step)
{
    const uint64_t    session = 1 + texts.number(5);
    const std::string filter  = texts.filter();
    const std::pair   key(session, filter);
    switch (texts.number(20)) {
    case 0:
        tree.remove_all_of(session);
        std::erase_if(model, [&](const auto &each) { return each.first.first == session; });
        break;
    case 1:
    case 2:
    case 3:
    case 4:
    case 5:
        EXPECT_EQ(tree.remove(session, filter), model.erase(key) > 0);
        break;
    default:
        EXPECT_EQ(tree.add(session, filter, {.identifier = step}), model.contains(key) ? Added::Replaced : Added::New);
        model[key] = step;
    }
}

void expect_same(const SubscriptionTree &tree, const Model &model, std::string_view topic)
{
    std::multiset<uint32_t>                      plain;
    std::map<std::string, std::vector<uint64_t>> groups; // members by "group/filter"
    for (const auto &[key, identifier] : model) {
        const bool        shared = key.second.starts_with("$share/");
        const std::string behind = shared ? key.second.substr(7) : "";
        const std::string filter = shared ? behind.substr(behind.find('/') + 1) : key.second;
        if (!matches_simply(filter, topic))
            continue;
        if (shared)
            groups[behind].push_back(key.first);
        else
            plain.insert(identifier);
    }
    const Matched matched = match(tree, topic);
    EXPECT_EQ(std::multiset<uint32_t>(matched.options.begin(), matched.options.end()), plain) << topic;
    std::multiset<std::vector<uint64_t>> wanted, got;
    for (const auto &[name, members] : groups)
        wanted.insert(members);
    for (const SharedGroup *group : matched.groups) {
        std::vector<uint64_t> members;
        for (const Subscriber &member : group->members())
            members.push_back(member.session);
        std::ranges::sort(members);
        got.insert(members);
    }
    EXPECT_EQ(got, wanted) << topic;
}

} // namespace

TEST(subscription_tree, agrees_with_a_simple_matcher)
{
    Texts            texts(4711);
    SubscriptionTree tree;
    Model            model;
    for (uint32_t step = 1; step <= 4000 && !testing::Test::HasFailure(); ++step) {
        change_both(tree, model, texts, step);
        expect_same(tree, model, texts.topic());
        EXPECT_EQ(tree.count(), model.size());
    }
}
