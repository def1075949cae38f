// Sessions: what is kept, for how long, and how it goes on (3.1.2.4, 4.1, 4.4).
#include "support/levels.h"

using namespace tarn::conformance;
using tarn::test::now_s;
using tarn::test::pause_ms;

namespace {

struct session : AtEachLevel {};
AT_EACH_LEVEL(session);

struct session_5 : At5 {};

struct slow_session : At5 {
    static Client come_for(uint32_t seconds, bool clean = false)
    {
        return come("c", {.clean = clean, .properties = property(SessionExpiry, seconds)});
    }
    static bool is_there()
    {
        Client client = come("c", {.clean = false});
        return client.connack().session_present;
    }
};

struct take_over : AtEachLevel {};
AT_EACH_LEVEL(take_over);

enum class Leaves { Disconnects, Drops };

} // namespace

// 3.1.1 [MQTT-3.1.2-4] 3.1.1 [MQTT-3.1.2-5] [MQTT-3.1.2-5] [MQTT-3.1.2-23] [MQTT-4.5.0-1] 3.1.1 [MQTT-4.5.0-1]
// [MQTT-4.1.0-1] 3.1.1 [MQTT-4.1.0-1] 3.1.1 [MQTT-4.1.0-2]
TEST_P(session, keeps_subscriptions_and_messages)
{
    Client sender = come("sender");
    int    round  = 0;
    for (const Leaves how : {Leaves::Disconnects, Leaves::Drops}) {
        Client client = come_to_stay("c");
        EXPECT_EQ(client.connack().session_present, round++ > 0);
        client.subscribe({{"one", 1}, {"two/#", 2}});
        how == Leaves::Disconnects ? client.disconnect() : client.drop();
        pause_ms(50);
        for (unsigned qos = 1; qos < 3; ++qos) {
            sender.publish("one", "missed", {.qos = qos});
            sender.publish("two/a", "missed", {.qos = qos});
        }
        client = come_to_stay("c");
        EXPECT_TRUE(client.connack().session_present);
        client.take("one", "missed", {.qos = 1});
        client.take("two/a", "missed", {.qos = 1});
        client.take("one", "missed", {.qos = 1});
        client.take("two/a", "missed", {.qos = 2});
        sender.publish("two", "live", {.qos = 2});
        client.take("two", "live", {.qos = 2});
        client.expect_silence();
        client.disconnect();
    }
}

// 3.1.1 [MQTT-3.1.2-6] [MQTT-3.1.2-4]
TEST_P(session, ends_with_a_clean_start)
{
    Client sender = come("sender");
    Client client = come_to_stay("c");
    client.subscribe("t", 2);
    sender.publish("t", "1", {.qos = 2});
    client.expect_publish("t", "1", {.qos = 2});
    client.drop();
    pause_ms(50);
    sender.publish("t", "missed", {.qos = 1});
    client = come("c");
    EXPECT_FALSE(client.connack().session_present);
    sender.publish("t", "live", {.qos = 1});
    client.expect_silence();
    client.disconnect();
    client = come_to_stay("c");
    EXPECT_FALSE(client.connack().session_present);
    client.expect_silence();
}

// 3.1.1 [MQTT-3.1.2-6] [MQTT-4.1.0-2]
TEST_P(session, that_is_not_to_stay_ends_with_its_connection)
{
    Client sender = come("sender");
    for (const Leaves how : {Leaves::Disconnects, Leaves::Drops}) {
        Client client = come("c");
        client.subscribe("t", 1);
        how == Leaves::Disconnects ? client.disconnect() : client.drop();
        pause_ms(50);
        sender.publish("t", "missed", {.qos = 1});
        client = come_to_stay("c");
        EXPECT_FALSE(client.connack().session_present);
        client.expect_silence();
        client = come("c"); // so that the next round finds none
        client.disconnect();
    }
}

TEST_P(session, keeps_no_subscription_that_was_ended)
{
    Client client = come_to_stay("c"), sender = come("sender");
    client.subscribe({{"a", 1}, {"b", 1}});
    client.unsubscribe({"a"});
    client.drop();
    pause_ms(50);
    sender.publish("a", "x", {.qos = 1});
    sender.publish("b", "x", {.qos = 1});
    client = come_to_stay("c");
    client.take("b", "x", {.qos = 1});
    client.expect_silence();
}

TEST_P(session, keeps_many_messages_in_order)
{
    constexpr int kMessages = 1000;
    Client        client = come_to_stay("c"), sender = come("sender");
    client.subscribe("t", 2);
    client.disconnect();
    for (int i = 0; i < 20; ++i)
        sender.publish("t", std::to_string(i), {.qos = 1 + i % 2u});
    sender.publish_numbers("t", 20, kMessages);
    client = come_to_stay("c");
    for (int i = 0; i < kMessages; ++i)
        client.take("t", std::to_string(i), {.qos = i < 20 ? 1 + i % 2u : 1});
    client.expect_silence();
}

// [MQTT-4.6.0-1] 3.1.1 [MQTT-4.6.0-1] [MQTT-4.4.0-1] 3.1.1 [MQTT-4.4.0-1] [MQTT-3.3.1-1] 3.1.1 [MQTT-3.3.1-1] 3.1.1 [MQTT-2.3.1-4] 3.1.1 [MQTT-4.3.2-1]
// [MQTT-4.3.2-3] [MQTT-4.3.3-3]
TEST_P(session, repeats_what_was_not_acknowledged)
{
    Client client = come_to_stay("c"), sender = come("sender");
    client.subscribe("t", 2);
    std::vector<Received> sent;
    for (int i = 0; i < 10; ++i) {
        sender.publish("t", std::to_string(i), {.qos = 1 + i % 2u});
        sent.push_back(client.expect_publish("t", std::to_string(i), {.qos = 1 + i % 2u}));
    }
    client.acknowledge(sent[2]);
    client.acknowledge(sent[5]);
    client.ping();
    client.drop();
    pause_ms(50);
    sender.publish("t", "missed", {.qos = 1});
    for (int round = 0; round < 3; ++round) { // whenever it comes back
        client = come_to_stay("c");
        EXPECT_TRUE(client.connack().session_present);
        for (size_t i = 0; i < 10; ++i) {
            if (i == 2 || i == 5)
                continue;
            const Received again = client.expect_publish("t", std::to_string(i), {.qos = sent[i].qos, .dup = true});
            EXPECT_EQ(again.id, sent[i].id);
        }
        client.expect_publish("t", "missed", {.qos = 1, .dup = round > 0});
        client.expect_silence();
        client.drop();
    }
    client = come_to_stay("c");
    EXPECT_EQ(client.take_all().size(), 9u);
    client.ping();
    client.drop();
    come_to_stay("c").expect_silence();
}

// [MQTT-4.4.0-1] 3.1.1 [MQTT-4.4.0-1] [MQTT-4.3.3-5] [MQTT-4.3.3-6]
TEST_P(session, repeats_pubrel)
{
    Client client = come_to_stay("c"), sender = come("sender");
    client.subscribe("t", 2);
    sender.publish("t", "x", {.qos = 2});
    sender.publish("t", "y", {.qos = 2});
    const Received x = client.expect_publish("t", "x", {.qos = 2}), y = client.expect_publish("t", "y", {.qos = 2});
    client.send(ack_packet(PUBREC, x.id));
    client.expect_ack(PUBREL, x.id);
    client.drop();
    for (int round = 0; round < 2; ++round) {
        client              = come_to_stay("c");
        const Received  one = client.next(), two = client.next();
        const Received &release = one.type == PUBREL ? one : two, &publish = one.type == PUBREL ? two : one;
        EXPECT_EQ(release.type, PUBREL);
        EXPECT_EQ(release.id, x.id);
        EXPECT_EQ(publish.id, y.id);
        EXPECT_TRUE(publish.dup);
        client.expect_silence();
        client.drop();
    }
    client = come_to_stay("c");
    client.expect(PUBREL);
    client.send(ack_packet(PUBCOMP, x.id));
    client.take("t", "y", {.qos = 2, .dup = true});
    client.ping();
    client.drop();
    come_to_stay("c").expect_silence();
}

// What the broker knows of the client's own publications.
// [MQTT-4.3.3-10] 3.1.1 [MQTT-4.3.3-2] [MQTT-4.1.0-1]
TEST_P(session, knows_what_the_client_published_at_qos_2)
{
    Client reader = come("reader");
    reader.subscribe("t", 2);
    Client client = come_to_stay("c");
    client.send(publish_packet(level(), "t", "x", {.qos = 2, .id = 9}));
    client.expect_ack(PUBREC, 9);
    client.drop();
    reader.take("t", "x", {.qos = 2});
    client = come_to_stay("c");
    client.send(publish_packet(level(), "t", "x", {.qos = 2, .dup = true, .id = 9}));
    client.expect_ack(PUBREC, 9);
    client.drop();
    client = come_to_stay("c");
    client.send(ack_packet(PUBREL, 9));
    client.expect_ack(PUBCOMP, 9, 0);
    reader.expect_silence();
    client.publish("t", "y", {.qos = 2, .id = 9});
    reader.take("t", "y", {.qos = 2});
}

// [MQTT-4.3.3-10]: another session has nothing to do with it.
TEST_P(session, that_is_new_knows_nothing_of_the_one_before)
{
    Client reader = come("reader");
    reader.subscribe("t", 2);
    Client client = come_to_stay("c");
    client.send(publish_packet(level(), "t", "x", {.qos = 2, .id = 9}));
    client.expect_ack(PUBREC, 9);
    client.drop();
    client = come("c");
    client.publish("t", "y", {.qos = 2, .id = 9});
    reader.take("t", "x", {.qos = 2});
    reader.take("t", "y", {.qos = 2});
}

TEST_P(session, gets_nothing_twice_while_its_client_comes_and_goes)
{
    constexpr int kMessages = 30;
    Client        client = come_to_stay("c"), sender = come("sender");
    client.subscribe("t", 2);
    for (int i = 0; i < kMessages; ++i) {
        sender.publish("t", std::to_string(i), {.qos = 2});
        client.take("t", std::to_string(i), {.qos = 2});
        if (i % 10 == 0) {
            client.ping();
            client.drop();
            client = come_to_stay("c");
        }
    }
    client.expect_silence();
}

// ---- at 5.0, for how long

// [MQTT-3.1.2-23]
TEST_F(session_5, may_be_asked_to_stay_at_its_end)
{
    Client client = come("c", {.properties = property(SessionExpiry, 1)});
    client.subscribe("t", 1);
    client.disconnect(0, property(SessionExpiry, 3600));
    pause_ms(2000);
    EXPECT_TRUE(come_to_stay("c").connack().session_present);
    // and to end at once
    client = come_to_stay("c");
    client.disconnect(0, property(SessionExpiry, 0u));
    EXPECT_FALSE(come_to_stay("c").connack().session_present);
}

// A session that was to end with its connection cannot be prolonged: 3.14.2.2.2.
TEST_F(session_5, cannot_be_prolonged_that_was_to_end)
{
    for (const uint32_t seconds : {1u, 3600u}) {
        Client client = come("c");
        client.send(packet(0xE0, Bytes{0} + block(5, property(SessionExpiry, seconds))));
        client.expect_end({0x82});
        EXPECT_FALSE(come("c", {.clean = false}).connack().session_present);
    }
    Client client = come("c");
    client.disconnect(0, property(SessionExpiry, 0u)); // it may say the same again
    EXPECT_FALSE(come("c", {.clean = false}).connack().session_present);
}

TEST_F(session_5, with_a_clean_start_may_stay)
{
    Client client = come("c", {.properties = property(SessionExpiry, 3600)});
    client.subscribe("t", 1);
    client.drop();
    pause_ms(50);
    come("sender").publish("t", "x", {.qos = 1});
    client = come_to_stay("c");
    EXPECT_TRUE(client.connack().session_present);
    client.take("t", "x", {.qos = 1});
}

TEST_F(session_5, of_3_1_1_may_go_on_at_5_0_and_back)
{
    Client client(4, "c", {.clean = false});
    client.subscribe("t", 1);
    client.disconnect();
    client = come_to_stay("c");
    EXPECT_TRUE(client.connack().session_present);
    client.publish("t", "x", {.qos = 1});
    client.take("t", "x", {.qos = 1});
    client.disconnect();
    client = Client(4, "c", {.clean = false});
    EXPECT_TRUE(client.connack().session_present);
    client.publish("t", "x", {.qos = 1});
    client.take("t", "x", {.qos = 1});
}

// ---- by the clock

// [MQTT-4.1.0-2]
TEST_F(slow_session, ends_when_its_time_is_over)
{
    for (const Leaves how : {Leaves::Disconnects, Leaves::Drops}) {
        Client client = come_for(1);
        how == Leaves::Disconnects ? client.disconnect() : client.drop();
        pause_ms(2200);
        EXPECT_FALSE(is_there());
    }
}

// [MQTT-3.1.2-23]
TEST_F(slow_session, stays_until_its_time_is_over)
{
    come_for(4).drop();
    pause_ms(2500);
    EXPECT_TRUE(is_there());
}

// [MQTT-4.1.0-1]
TEST_F(slow_session, does_not_end_while_its_client_is_there)
{
    Client client = come_for(1);
    client.subscribe("t", 1);
    pause_ms(2500);
    client.publish("t", "x", {.qos = 1});
    client.take("t", "x", {.qos = 1});
    client.drop();
    EXPECT_TRUE(is_there());
}

TEST_F(slow_session, has_its_time_anew_whenever_its_client_was_there)
{
    come_for(2).drop();
    pause_ms(1300);
    Client client = come_for(2);
    EXPECT_TRUE(client.connack().session_present);
    client.drop();
    pause_ms(1300);
    EXPECT_TRUE(is_there());
}

TEST_F(slow_session, that_ended_gets_no_messages)
{
    Client client = come_for(1);
    client.subscribe("t", 1);
    client.drop();
    pause_ms(2200);
    come("sender").publish("t", "x", {.qos = 1});
    client = come_for(1);
    EXPECT_FALSE(client.connack().session_present);
    client.expect_silence();
    client.publish("t", "x", {.qos = 1});
    client.expect_silence(); // nor has it subscriptions
}

// ---- two connections of one client

// [MQTT-3.1.4-3] 3.1.1 [MQTT-3.1.4-2]
TEST_P(take_over, ends_the_connection_before)
{
    Client first = come("c"), second = come("c");
    first.expect_end({0x8E});
    second.ping();
    Client third = come_to_stay("c");
    second.expect_end({0x8E});
    third.ping();
    EXPECT_FALSE(third.connack().session_present); // the others were not to stay
}

TEST_P(take_over, takes_the_session)
{
    Client first = come_to_stay("c"), sender = come("sender");
    first.subscribe("t", 2);
    sender.publish("t", "1", {.qos = 2});
    const Received one    = first.expect_publish("t", "1", {.qos = 2});
    Client         second = come_to_stay("c");
    EXPECT_TRUE(second.connack().session_present);
    first.expect_end({0x8E});
    const Received again = second.take("t", "1", {.qos = 2, .dup = true});
    EXPECT_EQ(again.id, one.id);
    sender.publish("t", "2", {.qos = 1});
    second.take("t", "2", {.qos = 1});
    second.expect_silence();
}

TEST_P(take_over, with_a_clean_start_ends_the_session)
{
    Client first = come_to_stay("c"), sender = come("sender");
    first.subscribe("t", 1);
    Client second = come("c");
    EXPECT_FALSE(second.connack().session_present);
    first.expect_end({0x8E});
    sender.publish("t", "x", {.qos = 1});
    second.expect_silence();
}

TEST_P(take_over, by_a_client_of_the_other_version)
{
    Client first = come("c"), second(is_5() ? 4 : 5, "c");
    first.expect_end({0x8E});
    second.ping();
}

TEST_P(take_over, again_and_again)
{
    Client sender = come("sender"), client = come_to_stay("c");
    client.subscribe("t", 1);
    for (int i = 0; i < 30; ++i) {
        Client next = come_to_stay("c");
        EXPECT_TRUE(next.connack().session_present);
        client = std::move(next);
        sender.publish("t", std::to_string(i), {.qos = 1});
        client.take("t", std::to_string(i), {.qos = 1});
    }
}

TEST_P(take_over, needs_the_same_id)
{
    Client one = come("client"), two = come("Client"), three = come("client ");
    for (Client *client : {&one, &two, &three})
        client->ping();
}
