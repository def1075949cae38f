// Shared subscriptions (5.0 4.8.2). Clients of 3.1.1 may have them, too: that standard leaves such filters free.
#include "support/levels.h"

using namespace tarn::conformance;
using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

namespace {

struct shared : AtEachLevel {};
AT_EACH_LEVEL(shared);

struct shared_5 : At5 {};

} // namespace

TEST_P(shared, subscription_gives_each_message_to_one)
{
    Client one = come("one"), two = come("two"), sender = come("sender");
    one.subscribe("$share/group/t/+", 1);
    two.subscribe("$share/group/t/+", 1);
    for (int i = 0; i < 20; ++i)
        sender.publish("t/a", std::to_string(i), {.qos = 1});
    const auto of_one = one.take_all(), of_two = two.take_all();
    EXPECT_EQ(of_one.size() + of_two.size(), 20u);
    EXPECT_THAT(of_one, SizeIs(10)) << "members take turns";
}

TEST_P(shared, subscription_stands_beside_others)
{
    Client one = come("one"), two = come("two"), reader = come("reader");
    one.subscribe({{"$share/a/t", 1}, {"$share/b/t", 1}, {"t", 1}});
    two.subscribe({{"$share/a/t", 1}, {"$share/c/t", 1}, {"$share/a/#", 1}});
    reader.subscribe("t", 1);
    for (int i = 0; i < 10; ++i)
        reader.publish("t", "x", {.qos = 1});
    EXPECT_THAT(reader.take_all(), SizeIs(10));
    // t, b and half of a; c, a/# and the other half
    EXPECT_EQ(one.take_all().size() + two.take_all().size(), 50u);
}

// [MQTT-4.8.2-3]
TEST_P(shared, subscription_has_the_qos_of_each_member)
{
    Client one = come("one"), two = come("two"), sender = come("sender");
    one.subscribe("$share/group/t", 0);
    two.subscribe("$share/group/t", 2);
    for (int i = 0; i < 10; ++i)
        sender.publish("t", "x", {.qos = 2});
    for (const Received &got : one.take_all())
        EXPECT_EQ(got.qos, 0u);
    for (const Received &got : two.take_all())
        EXPECT_EQ(got.qos, 2u);
}

TEST_P(shared, subscription_ends_with_unsubscribe_and_with_its_member)
{
    Client one = come("one"), two = come("two"), three = come("three"), sender = come("sender");
    for (Client *client : {&one, &two, &three})
        client->subscribe("$share/group/t", 1);
    two.unsubscribe({"$share/group/t"});
    three.disconnect();
    for (int i = 0; i < 10; ++i)
        sender.publish("t", "x", {.qos = 1});
    EXPECT_THAT(one.take_all(), SizeIs(10));
    two.expect_silence();
    EXPECT_EQ(one.unsubscribe({"t", "$share/group/t"}).reasons, is_5() ? (Bytes{0x11, 0}) : Bytes{});
    sender.publish("t", "x", {.qos = 1});
    one.expect_silence();
}

TEST_P(shared, subscription_gives_its_own_messages_to_a_member)
{
    Client client = come("c");
    client.subscribe("$share/group/t", 1);
    client.publish("t", "mine", {.qos = 1});
    client.take("t", "mine", {.qos = 1});
}

TEST_P(shared, subscription_gets_no_retained_messages)
{
    Client client = come("c");
    client.publish("t", "kept", {.qos = 1, .retain = true});
    client.subscribe("$share/group/t", 1);
    client.expect_silence();
}

TEST_P(shared, subscription_with_wildcards_leaves_out_dollar_topics)
{
    Client client = come("c");
    client.subscribe("$share/group/#", 1);
    client.publish("$own/t", "x", {.qos = 1});
    client.publish("t", "x", {.qos = 1});
    client.take("t", "x", {.qos = 1});
    client.expect_silence();
}

// Names begin at "$share/" and end at the next "/".
TEST_P(shared, subscription_has_any_name)
{
    Client client = come("c");
    for (const char *name : {"a", "$share", "with blanks", "\xC3\xA4", "UPPER"}) {
        client.subscribe("$share/" + std::string(name) + "//t", 1);
        client.publish("/t", name, {.qos = 1});
        client.take("/t", name, {.qos = 1});
        client.unsubscribe({"$share/" + std::string(name) + "//t"});
    }
    client.expect_silence();
}

// [MQTT-4.8.2-1] [MQTT-4.8.2-2]
TEST_P(shared, subscription_has_a_name_and_a_filter)
{
    for (const char *filter : {"$share/", "$share//t", "$share/group", "$share/group/", "$share/gr+up/t", "$share/#/t",
                               "$share/+/t", "$share/group/a#", "$share/group/#/a"}) {
        SCOPED_TRACE(filter);
        Client client = come("c");
        client.send(subscribe_packet(level(), 1, {{filter}}));
        const Received answer = parse(level(), client.peer().read_packet(1000));
        if (answer.type == SUBACK) {
            EXPECT_THAT(answer.reasons, ElementsAre(testing::Ge(0x80)));
        } else {
            EXPECT_TRUE(is_5() ? answer.type == DISCONNECT && answer.reason >= 0x80 : answer.whole.empty())
                << named(answer);
        }
    }
}

// An absent member takes nothing while another one can.
TEST_P(shared, subscription_goes_on_without_a_member_that_is_away)
{
    Client one = come_to_stay("one"), two = come("two"), sender = come("sender");
    one.subscribe("$share/group/t", 1);
    two.subscribe("$share/group/t", 1);
    one.disconnect();
    for (int i = 0; i < 10; ++i)
        sender.publish("t", std::to_string(i), {.qos = 1});
    EXPECT_THAT(two.take_all(), SizeIs(10));
    one = come_to_stay("one");
    one.expect_silence();
}

// [MQTT-4.5.0-1]
TEST_P(shared, subscription_waits_for_members_that_are_all_away)
{
    Client one = come_to_stay("one"), sender = come("sender");
    one.subscribe("$share/group/t", 1);
    one.disconnect();
    for (int i = 0; i < 5; ++i)
        sender.publish("t", std::to_string(i), {.qos = 1});
    one = come_to_stay("one");
    for (int i = 0; i < 5; ++i)
        one.take("t", std::to_string(i), {.qos = 1});
}

// [MQTT-4.8.2-4] [MQTT-4.8.2-5]
TEST_P(shared, message_at_qos_2_that_was_begun_is_of_its_member)
{
    Client one = come_to_stay("one"), sender = come("sender");
    one.subscribe("$share/group/t", 2);
    sender.publish("t", "x", {.qos = 2});
    const Received got = one.expect_publish("t", "x", {.qos = 2});
    one.send(ack_packet(PUBREC, got.id));
    one.expect_ack(PUBREL, got.id);
    Client two = come("two");
    two.subscribe("$share/group/t", 2);
    one.drop();
    two.expect_silence();
    one = come_to_stay("one");
    EXPECT_EQ(one.expect(PUBREL).id, got.id);
    one.send(ack_packet(PUBCOMP, got.id));
    one.expect_silence();
    two.expect_silence();
}

// [MQTT-4.8.2-5]
TEST_P(shared, message_at_qos_2_ends_with_the_session_of_its_member)
{
    Client one = come("one"), sender = come("sender");
    one.subscribe("$share/group/t", 2);
    sender.publish("t", "x", {.qos = 2});
    const Received got = one.expect_publish("t", "x", {.qos = 2});
    one.send(ack_packet(PUBREC, got.id));
    one.expect_ack(PUBREL, got.id);
    Client two = come("two");
    two.subscribe("$share/group/t", 2);
    one.drop();
    tarn::test::pause_ms(200);
    two.expect_silence();
}

// [MQTT-4.8.2-6]
TEST_F(shared_5, message_that_a_member_refuses_is_gone)
{
    Client one = come("one"), sender = come("sender");
    one.subscribe("$share/group/t", 2);
    for (const unsigned qos : {1u, 2u}) {
        sender.publish("t", "x", {.qos = qos});
        const Received got = one.expect_publish("t", "x", {.qos = qos});
        Client         two = come("two");
        two.subscribe("$share/group/t", 2);
        one.send(ack_packet(qos == 1 ? PUBACK : PUBREC, got.id, 0x80));
        one.expect_silence();
        two.expect_silence();
    }
}

TEST_F(shared_5, subscription_has_identifiers)
{
    Client client = come("c");
    client.subscribe("$share/group/t", 1, property(SubscriptionId, 9));
    client.publish("t", "x", {.qos = 1});
    EXPECT_EQ(client.take("t", "x", {.qos = 1}).properties.printed(), "0B=9");
}

TEST_F(shared_5, subscription_may_keep_the_retain_flag)
{
    Client client = come("c");
    client.subscribe("$share/group/t", 1 | kAsPublished);
    client.publish("t", "x", {.qos = 1, .retain = true});
    client.take("t", "x", {.qos = 1, .retain = true});
}

// A member with a small window leaves the rest to others.
TEST_F(shared_5, subscription_prefers_members_that_can_take_a_message)
{
    Client full = come("full", {.properties = property(ReceiveMaximum, 1)}), other = come("other"),
           sender = come("sender");
    full.subscribe("$share/group/t", 1);
    other.subscribe("$share/group/t", 1);
    for (int i = 0; i < 20; ++i)
        sender.publish("t", std::to_string(i), {.qos = 1});
    full.expect(PUBLISH); // and does not acknowledge
    EXPECT_THAT(other.take_all(), SizeIs(19));
}

// Nor is a message lost to one whose packets are too small.
TEST_F(shared_5, subscription_prefers_members_with_room_for_a_message)
{
    Client small = come("small", {.properties = property(MaximumPacketSize, 50)}), other = come("other"),
           sender = come("sender");
    small.subscribe("$share/group/t", 1);
    other.subscribe("$share/group/t", 1);
    for (int i = 0; i < 10; ++i)
        sender.publish("t", std::string(100, 'x'), {.qos = 1});
    EXPECT_THAT(other.take_all(), SizeIs(10));
    small.expect_silence();
}

// One that takes small packets alone gets those that are as small.
TEST_F(shared_5, subscription_gives_a_member_what_fits_its_packets)
{
    Client small = come("small", {.properties = property(MaximumPacketSize, 40)}), sender = come("sender");
    small.subscribe("$share/group/t", 2);
    for (unsigned qos = 0; qos < 3; ++qos) {
        EXPECT_EQ(sender.publish("t", "x", {.qos = qos}), 0u);
        small.take("t", "x", {.qos = qos});
        EXPECT_EQ(sender.publish("t", std::string(100, 'x'), {.qos = qos}), 0u); // is dropped, as for all others
    }
    small.expect_silence();
}

// At QoS 0 nothing is kept for a member that is away, and nothing refused.
TEST_F(shared_5, subscription_at_qos_0_refuses_nothing_while_its_member_is_away)
{
    come_to_stay("away").subscribe("$share/group/t", 0);
    Client sender = come("sender");
    for (unsigned qos = 1; qos < 3; ++qos)
        EXPECT_EQ(sender.publish("t", "x", {.qos = qos}), 0u);
}
