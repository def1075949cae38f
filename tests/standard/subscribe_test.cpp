// SUBSCRIBE and UNSUBSCRIBE, and which messages then come (3.8 to 3.11, 4.7).
#include "support/levels.h"

#include <set>

using namespace tarn::conformance;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

struct subscribe : AtEachLevel {
    void expect_refused(const Bytes &bytes, std::initializer_list<unsigned> reasons, Where where = Where::here())
    {
        SCOPED_TRACE(tarn::test::hex(bytes));
        Client client = come("refused", {}, where);
        client.send(bytes);
        client.expect_end(reasons, where);
    }
};
AT_EACH_LEVEL(subscribe);

struct unsubscribe : AtEachLevel {};
AT_EACH_LEVEL(unsubscribe);

struct subscribe_5 : At5 {};
struct no_local : At5 {};
struct subscription_id : At5 {
    static Bytes id(uint32_t number) { return property(SubscriptionId, number); }
};

} // namespace

// [MQTT-3.8.4-1] [MQTT-3.8.4-2] [MQTT-3.8.4-6] [MQTT-3.8.4-7] [MQTT-2.2.1-6] 3.1.1 [MQTT-3.8.4-1] 3.1.1 [MQTT-3.8.4-2]
// 3.1.1 [MQTT-3.8.4-5] 3.1.1 [MQTT-2.3.1-7]
TEST_P(subscribe, is_answered_with_what_is_granted)
{
    Client client = come("c");
    for (unsigned qos = 0; qos < 3; ++qos)
        EXPECT_EQ(client.subscribe("t", qos), qos);
    client.send(subscribe_packet(level(), 65535, {{"t"}}));
    EXPECT_EQ(client.expect(SUBACK).id, 65535u);
}

// [MQTT-3.8.4-5] [MQTT-3.9.3-1] [MQTT-3.9.3-2] 3.1.1 [MQTT-3.8.4-4] 3.1.1 [MQTT-3.9.3-1] 3.1.1 [MQTT-3.9.3-2]
TEST_P(subscribe, with_many_filters_has_a_code_for_each)
{
    Client              client = come("c"), sender = come("sender");
    std::vector<Filter> filters;
    Bytes               granted;
    for (unsigned i = 0; i < 100; ++i) {
        filters.push_back({"t/" + std::to_string(i), i * i % 3});
        granted.push_back(static_cast<uint8_t>(i * i % 3));
    }
    EXPECT_EQ(client.subscribe(filters), granted);
    for (const unsigned i : {0u, 17u, 99u}) {
        sender.publish("t/" + std::to_string(i), "x", {.qos = 2});
        client.take("t/" + std::to_string(i), "x", {.qos = i * i % 3});
    }
}

// The last of the same filter counts, as if they had come one after the other.
// [MQTT-3.8.4-5] 3.1.1 [MQTT-3.8.4-4]
TEST_P(subscribe, with_a_filter_twice_has_the_second)
{
    Client client = come("c");
    EXPECT_THAT(client.subscribe({{"t", 2}, {"t", 1}}), ElementsAre(2, 1));
    client.publish("t", "x", {.qos = 2});
    client.take("t", "x", {.qos = 1});
    client.expect_silence();
}

// [MQTT-3.8.4-3] 3.1.1 [MQTT-3.8.4-3]
TEST_P(subscribe, again_takes_the_place_of_the_one_before)
{
    Client client = come("c");
    for (const char *filter : {"t", "t/#", "+"}) {
        for (const unsigned qos : {0u, 2u, 1u})
            client.subscribe(filter, qos);
        client.publish("t", "x", {.qos = 2});
        client.take("t", "x", {.qos = 1});
        client.expect_silence();
        client.unsubscribe({filter});
    }
}

// [MQTT-3.8.4-4] 3.1.1 [MQTT-3.8.4-3]
TEST_P(subscribe, again_loses_no_message)
{
    Client client = come("c"), sender = come("sender");
    client.subscribe("t", 1);
    for (int i = 0; i < 50; ++i) {
        sender.send(publish_packet(level(), "t", std::to_string(i), {.qos = 1, .id = static_cast<unsigned>(i + 1)}));
        if (i % 5 == 0)
            client.subscribe("t", 1);
    }
    for (int i = 0; i < 50; ++i)
        sender.expect_ack(PUBACK, static_cast<unsigned>(i + 1));
    for (int i = 0; i < 50; ++i)
        client.take("t", std::to_string(i), {.qos = 1});
}

// [MQTT-3.8.3-2] 3.1.1 [MQTT-3.8.3-3] [MQTT-3.10.3-2] 3.1.1 [MQTT-3.10.3-2]
TEST_P(subscribe, has_a_filter_at_least)
{
    expect_refused(subscribe_packet(level(), 1, {}), {0x82, 0x81});
    expect_refused(unsubscribe_packet(level(), 1, {}), {0x82, 0x81});
}

// [MQTT-3.8.3-5] 3.1.1 [MQTT-3-8.3-4]
TEST_P(subscribe, has_options_that_exist)
{
    for (const unsigned options : {0x03u, 0x40u, 0x80u})
        expect_refused(subscribe_packet(level(), 1, {{"t", options}}), {0x81, 0x82});
    expect_refused(subscribe_packet(level(), 1, {{"t", is_5() ? 0x30u : 0x04u}}), {0x81, 0x82});
    if (!is_5())
        expect_refused(subscribe_packet(level(), 1, {{"t", 0x10}}), {});
}

// [MQTT-4.7.1-1] [MQTT-4.7.1-2] 3.1.1 [MQTT-4.7.1-2] 3.1.1 [MQTT-4.7.1-3] [MQTT-4.7.3-1] 3.1.1 [MQTT-4.7.3-1]
TEST_P(subscribe, has_filters_with_wildcards_where_they_belong)
{
    for (const char *filter : {"a#", "a/b#", "#/a", "a/#/b", "##", "+a", "a+", "a/+b/c", "++", "+#", ""}) {
        SCOPED_TRACE(filter);
        Client client = come("c");
        client.send(subscribe_packet(level(), 1, {{filter}}));
        const Received answer = parse(level(), client.peer().read_packet(1000));
        if (answer.type == SUBACK) {
            EXPECT_THAT(answer.reasons, ElementsAre(testing::Ge(0x80)));
        } else {
            EXPECT_TRUE(is_5() ? answer.type == DISCONNECT && (answer.reason == 0x8F || answer.reason == 0x81)
                               : answer.whole.empty())
                << named(answer);
        }
    }
}

// [MQTT-3.3.2-3] 3.1.1 [MQTT-3.3.2-3] [MQTT-4.7.2-1] 3.1.1 [MQTT-4.7.2-1] [MQTT-4.7.3-4] 3.1.1 [MQTT-4.7.3-4]
TEST_P(subscribe, matches_as_the_rules_say)
{
    constexpr struct {
        const char *filter;
        const char *matches; // with blanks between
        const char *others;
    } kRows[] = {
        {"a", "a", "A /a a/ b aa a/a"},
        {"a/b", "a/b", "a a/b/ a//b /a/b a/B a/b/c"},
        {"#", "a a/b / // /a a/", "$SYS $SYS/a $ $a/b"},
        {"a/#", "a a/ a/b a/b/c a//", "ab b/a /a A/b"},
        {"a//#", "a/ a// a//b", "a a/b"},
        {"/#", "/ /a // /a/b", "a a/b"},
        {"+", "a b", "/ a/ /a a/b $a"},
        {"+/+", "a/b / a/ /b", "a a/b/c // $a/b"},
        {"/+", "/ /a", "a // /a/b a/b"},
        {"a/+", "a/ a/b", "a a/b/c a//"},
        {"a/+/c", "a/b/c a//c", "a/c a/b/d a/b/c/d"},
        {"+/b/#", "a/b a/b/ a/b/c/d /b", "b a/c/b $a/b"},
        {"+/#", "a a/b / /a", "$a $a/b"},
        {"$SYS/test/#", "$SYS/test $SYS/test/a", "SYS/test $sys/test"},
        {"$own/+", "$own/a", "own/a $own $own/a/b"},
        {"a/$b", "a/$b", "$b"},
        {"+/$b", "a/$b", "$b"},
        {"a b/ c", "a_b/_c", "ab/c"},                           // '_' is a blank
        {"\xC3\xA4/+", "\xC3\xA4/x", "\xC3\x84/x a\xCC\x88/x"}, // composed differently
    };
    Client client = come("c"), sender = come("sender");
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.filter);
        client.subscribe(row.filter, 1);
        const auto publish_all = [&](std::string topics) {
            std::vector<std::string> sent;
            for (size_t at = 0, end; at < topics.size(); at = end + 1) {
                end = std::min(topics.find(' ', at), topics.size());
                sent.push_back(topics.substr(at, end - at));
                std::ranges::replace(sent.back(), '_', ' ');
                sender.publish(sent.back(), "x", {.qos = 1});
            }
            return sent;
        };
        for (const std::string &topic : publish_all(row.matches))
            client.take(topic, "x", {.qos = 1});
        publish_all(row.others);
        client.expect_silence();
        client.unsubscribe({row.filter});
    }
}

// [MQTT-4.7.3-3] 3.1.1 [MQTT-4.7.3-3]
TEST_P(subscribe, has_filters_of_any_length)
{
    const std::string longest(65535, 'x');
    std::string       deep = "+", topic = "t";
    for (int i = 0; i < 60; ++i) {
        deep += "/+";
        topic += "/t";
    }
    Client client = come("c");
    client.subscribe({{longest, 1}, {deep, 1}});
    for (const std::string &each : {longest, topic}) {
        client.publish(each, "x", {.qos = 1});
        client.take(each, "x", {.qos = 1});
    }
    client.unsubscribe({longest, deep});
    client.publish(longest, "x", {.qos = 1});
    client.expect_silence();
}

// [MQTT-3.3.4-2] 3.1.1 [MQTT-3.3.5-1]
TEST_P(subscribe, several_that_match_give_the_highest_qos)
{
    Client client = come("c"), sender = come("sender");
    client.subscribe({{"t/#", 0}, {"t/a", 2}, {"+/a", 1}});
    sender.publish("t/a", "x", {.qos = 2});
    const auto all = client.take_all();
    ASSERT_GE(all.size(), 1u);
    EXPECT_LE(all.size(), 3u);
    EXPECT_EQ(std::ranges::max(all, {}, &Received::qos).qos, 2u);
    std::multiset<unsigned> levels;
    for (const Received &one : all)
        levels.insert(one.qos);
    if (all.size() == 3) {
        EXPECT_THAT(levels, ElementsAre(0, 1, 2));
    }
}

TEST_P(subscribe, holds_for_each_client)
{
    std::vector<Client> readers;
    for (int i = 0; i < 20; ++i) {
        readers.push_back(come("reader" + std::to_string(i)));
        readers.back().subscribe(i % 2 ? "t/+" : "t/a", i % 3u);
    }
    Client sender = come("sender");
    sender.publish("t/a", "x", {.qos = 2});
    for (unsigned i = 0; i < 20; ++i)
        readers[i].take("t/a", "x", {.qos = i % 3});
}

TEST_P(subscribe, to_a_topic_of_the_brokers_own_is_allowed)
{
    Client client = come("c");
    EXPECT_THAT(client.subscribe({{"$SYS/#", 0}, {"$SYS/broker/uptime", 1}}), ElementsAre(0, 1));
}

// ---- UNSUBSCRIBE

// [MQTT-3.10.4-1] [MQTT-3.10.4-2] [MQTT-3.10.4-4] [MQTT-3.10.4-6] 3.1.1 [MQTT-3.10.4-1] 3.1.1 [MQTT-3.10.4-2]
// 3.1.1 [MQTT-3.10.4-4] 3.1.1 [MQTT-3.10.4-6] [MQTT-2.2.1-6] 3.1.1 [MQTT-2.3.1-7]
TEST_P(unsubscribe, ends_the_subscriptions_it_names)
{
    Client client = come("c"), sender = come("sender");
    client.subscribe({{"a", 1}, {"b/#", 1}, {"+/c", 1}, {"d", 1}});
    client.unsubscribe({"a", "b/#", "+/c"});
    for (const char *topic : {"a", "b", "b/x", "x/c"})
        sender.publish(topic, "x", {.qos = 1});
    sender.publish("d", "x", {.qos = 1});
    client.take("d", "x", {.qos = 1});
    client.expect_silence();
}

// [MQTT-3.10.4-1] 3.1.1 [MQTT-3.10.4-1] [MQTT-3.10.4-5] 3.1.1 [MQTT-3.10.4-5] [MQTT-3.11.3-1] [MQTT-3.11.3-2]
TEST_P(unsubscribe, ends_no_others)
{
    Client client = come("c"), sender = come("sender");
    client.subscribe({{"a/b", 1}});
    const Received answer = client.unsubscribe({"a/+", "#", "a/B", "a", "a/b/", "+/b"});
    EXPECT_THAT(answer.reasons, testing::Each(0x11)); // none at 3.1.1
    sender.publish("a/b", "x", {.qos = 1});
    client.take("a/b", "x", {.qos = 1});
    EXPECT_EQ(client.unsubscribe({"x", "a/b", "a/b"}).reasons, is_5() ? (Bytes{0x11, 0, 0x11}) : Bytes{});
}

// [MQTT-3.10.4-3] 3.1.1 [MQTT-3.10.4-3]
TEST_P(unsubscribe, lets_what_is_on_the_way_be_done)
{
    Client client = come_to_stay("c"), sender = come("sender");
    client.subscribe("t", 2);
    sender.publish("t", "1", {.qos = 1});
    sender.publish("t", "2", {.qos = 2});
    sender.publish("t", "3", {.qos = 2});
    const Received one = client.expect_publish("t", "1", {.qos = 1}), two = client.expect_publish("t", "2", {.qos = 2});
    client.expect_publish("t", "3", {.qos = 2});
    client.unsubscribe({"t"});
    client.acknowledge(one);
    client.acknowledge(two);
    client.drop();
    client = come_to_stay("c");
    client.take("t", "3", {.qos = 2, .dup = true});
    client.expect_silence();
}

TEST_P(unsubscribe, is_for_one_client)
{
    Client one = come("one"), two = come("two");
    one.subscribe("t");
    two.subscribe("t");
    one.unsubscribe({"t"});
    two.publish("t", "x");
    two.take("t", "x");
    one.expect_silence();
}

// ---- options of 5.0

// [MQTT-3.8.3-3]
TEST_F(no_local, leaves_out_the_clients_own)
{
    Client client = come("c"), other = come("other");
    client.subscribe("t", 2 | kNoLocal);
    for (unsigned qos = 0; qos < 3; ++qos) {
        client.publish("t", "mine", {.qos = qos});
        other.publish("t", "theirs", {.qos = qos});
        client.take("t", "theirs", {.qos = qos});
    }
    client.subscribe("t", 2); // without
    client.publish("t", "mine");
    client.take("t", "mine");
}

TEST_F(no_local, is_of_each_subscription)
{
    Client client = come("c");
    client.subscribe({{"t/#", kNoLocal}, {"t/a", 0}});
    client.publish("t/a", "x");
    client.take("t/a", "x");
    client.expect_silence();
}

// The client is who has the id, not the connection.
// [MQTT-3.8.3-3]
TEST_F(no_local, holds_for_a_client_that_came_back)
{
    Client client = come_to_stay("c");
    client.subscribe("t", 1 | kNoLocal);
    client.publish("t", "mine", {.qos = 1});
    client.drop();
    client = come_to_stay("c");
    client.publish("t", "mine", {.qos = 1});
    client.expect_silence();
}

// [MQTT-3.8.3-4]
TEST_F(no_local, is_not_for_shared_subscriptions)
{
    Client client = come("c");
    client.send(subscribe_packet(5, 1, {{"$share/g/t", kNoLocal}}));
    client.expect_end({0x82});
}

// [MQTT-3.3.1-12] [MQTT-3.3.1-13]
TEST_F(subscribe_5, retain_as_published)
{
    Client plain = come("plain"), as_published = come("as_published"), sender = come("sender");
    plain.subscribe("t/#", 1);
    as_published.subscribe("t/#", 1 | kAsPublished);
    for (const bool retain : {true, false}) {
        sender.publish("t/a", "x", {.qos = 1, .retain = retain});
        plain.take("t/a", "x", {.qos = 1});
        as_published.take("t/a", "x", {.qos = 1, .retain = retain});
    }
    sender.publish("t/a", "", {.qos = 1, .retain = true});
    plain.take("t/a", "", {.qos = 1});
    as_published.take("t/a", "", {.qos = 1, .retain = true});
}

TEST_F(subscribe_5, all_options_at_once)
{
    Client client = come("c"), sender = come("sender");
    client.subscribe("t", 2 | kNoLocal | kAsPublished | kHandling2, property(SubscriptionId, 5) + user("a", "b"));
    client.publish("t", "mine");
    sender.publish("t", "theirs", {.qos = 2, .retain = true});
    EXPECT_EQ(client.take("t", "theirs", {.qos = 2, .retain = true}).properties.printed(), "0B=5");
    client.expect_silence();
}

TEST_F(subscribe_5, user_properties_are_taken)
{
    Client client = come("c");
    client.subscribe("t", 0, user("a", "b") + user("a", "c"));
    client.send(unsubscribe_packet(5, 9, {"t"}, user("a", "b") + user("a", "c")));
    EXPECT_THAT(client.expect(UNSUBACK).reasons, ElementsAre(0));
}

// ---- Subscription Identifiers

// [MQTT-3.3.4-3] [MQTT-3.3.4-5]
TEST_F(subscription_id, of_each_subscription_that_matches)
{
    Client client = come("c"), sender = come("sender");
    client.subscribe({{"t/#", 0}, {"t/+", 1}}, id(7));
    client.subscribe("t/a", 2, id(268435455));
    client.subscribe("+/a", 0);
    sender.publish("t/a", "x", {.qos = 2});
    std::vector<uint32_t> ids;
    for (const Received &one : client.take_all())
        for (const uint32_t number : one.properties.numbers(SubscriptionId))
            ids.push_back(number);
    std::ranges::sort(ids);
    EXPECT_THAT(ids, ElementsAre(7, 7, 268435455));
}

TEST_F(subscription_id, is_of_the_client_that_gave_it)
{
    Client one = come("one"), two = come("two"), three = come("three");
    one.subscribe("t", 0, id(1));
    two.subscribe("t", 0, id(2));
    three.subscribe("t", 0);
    three.publish("t", "x");
    EXPECT_EQ(one.take("t", "x").properties.printed(), "0B=1");
    EXPECT_EQ(two.take("t", "x").properties.printed(), "0B=2");
    EXPECT_EQ(three.take("t", "x").properties.printed(), "");
}

// [MQTT-3.8.4-3]
TEST_F(subscription_id, changes_with_its_subscription)
{
    Client     client   = come("c");
    const auto received = [&] {
        client.publish("t", "x");
        return client.take("t", "x").properties.printed();
    };
    client.subscribe("t", 0, id(1));
    EXPECT_EQ(received(), "0B=1");
    client.subscribe("t", 0, id(128));
    EXPECT_EQ(received(), "0B=128");
    client.subscribe("t", 0);
    EXPECT_EQ(received(), "");
    client.subscribe("t", 0, id(2097152));
    EXPECT_EQ(received(), "0B=2097152");
}

TEST_F(subscription_id, comes_with_retained_messages)
{
    Client client = come("c");
    client.publish("t", "kept", {.qos = 1, .retain = true});
    client.subscribe("t", 0, id(3));
    EXPECT_EQ(client.take("t", "kept", {.retain = true}).properties.printed(), "0B=3");
}

TEST_F(subscription_id, is_part_of_the_session)
{
    Client client = come_to_stay("c"), sender = come("sender");
    client.subscribe("t", 1, id(3));
    client.drop();
    sender.publish("t", "missed", {.qos = 1});
    client = come_to_stay("c");
    EXPECT_EQ(client.take("t", "missed", {.qos = 1}).properties.printed(), "0B=3");
    sender.publish("t", "live", {.qos = 1});
    EXPECT_EQ(client.take("t", "live", {.qos = 1}).properties.printed(), "0B=3");
}
