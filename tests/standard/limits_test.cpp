// What a host allows its clients, as they are told of it.
#include "support/levels.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/time.h>

using namespace tarn::conformance;
using testing::ElementsAre;
using testing::Optional;

namespace {

constexpr int kPacket = 1 << 20;
constexpr int kPlaces = 200; // for clients, which Broker asks for

struct limits : testing::Test {
    void SetUp() override
    {
        if (is_other_broker())
            GTEST_SKIP();
    }
};

} // namespace

TEST_F(limits, a_session_stays_no_longer_than_the_host_allows)
{
    Broker broker(kPacket, {{TARN_LIMIT_SESSION_EXPIRY, 100}});
    for (const uint32_t asked : {101u, 0xFFFFFFFFu})
        EXPECT_THAT(
            Client(5, "c", {.properties = property(SessionExpiry, asked)}).connack().properties.number(SessionExpiry),
            Optional(100u));
    EXPECT_EQ(Client(5, "c", {.properties = property(SessionExpiry, 99)})
                  .connack()
                  .properties.number(SessionExpiry)
                  .value_or(99),
              99u);
    Client(4, "c", {.clean = false}).ping();
}

// [MQTT-3.3.4-7]
TEST_F(limits, a_client_is_told_its_window)
{
    Broker broker(kPacket, {{TARN_LIMIT_RECEIVE_MAXIMUM, 3}});
    Client client(5, "c");
    EXPECT_THAT(client.connack().properties.number(ReceiveMaximum), Optional(3u));
    for (unsigned id = 1; id <= 3; ++id) {
        client.send(publish_packet(5, "t", "x", {.qos = 2, .id = id}));
        client.expect_ack(PUBREC, id);
    }
    client.send(publish_packet(5, "t", "x", {.qos = 2, .dup = true, .id = 3})); // one of them
    client.expect_ack(PUBREC, 3);
    client.send(publish_packet(5, "t", "x", {.qos = 2, .id = 4}));
    client.expect_end({0x93});
}

TEST_F(limits, subscriptions_above_their_number_are_refused)
{
    Broker broker(kPacket, {{TARN_LIMIT_SUBSCRIPTIONS, 3}, {TARN_LIMIT_WILDCARD_SUBSCRIPTIONS, 1}});
    Client client(5, "c"), old_client(4, "old");
    EXPECT_THAT(client.subscribe({{"a", 0}, {"+", 1}, {"#", 1}, {"b", 2}, {"c", 0}}), ElementsAre(0, 1, 0x97, 2, 0x97));
    EXPECT_THAT(old_client.subscribe({{"a", 0}, {"+", 1}, {"#", 1}, {"b", 2}, {"c", 0}}),
                ElementsAre(0, 1, 0x80, 2, 0x80));
    EXPECT_THAT(client.subscribe({{"a", 2}, {"+", 2}}), ElementsAre(2, 2)); // those that are there
    client.unsubscribe({"b"});
    EXPECT_THAT(client.subscribe({{"c", 1}}), ElementsAre(1));
}

TEST_F(limits, a_connection_has_to_say_connect_in_time)
{
    Broker       broker(kPacket, {{TARN_LIMIT_CONNECT_TIMEOUT, 300}});
    const double begin_s  = tarn::test::now_s(); // before they come, as a loaded machine may stop for long behind it
    Client       silent[] = {Client::open(5), Client::open(4), Client::open(5)}; // due at once, or nearly
    Client       other(5, "c");
    for (Client &client : silent)
        client.expect_closed();
    EXPECT_GT(tarn::test::now_s() - begin_s, 0.2);
    other.ping();
}

TEST_F(limits, a_full_queue_refuses_messages_and_keeps_those_it_has)
{
    Broker broker(kPacket, {{TARN_LIMIT_QUEUED_MESSAGES, 3}});
    Client(4, "reader", {.clean = false}).subscribe("t", 1);
    Client sender(5, "sender"), old_sender(4, "old");
    for (const char *payload : {"1", "2", "3"})
        EXPECT_EQ(sender.publish("t", payload, {.qos = 1}), 0u);
    EXPECT_EQ(sender.publish("t", "4", {.qos = 1}), 0x97u);
    EXPECT_EQ(sender.publish("t", "5", {.qos = 2}), 0x97u);
    EXPECT_EQ(broker.publish("t", "6"), 0);   // at QoS 0 it may be lost
    old_sender.publish("t", "7", {.qos = 1}); // 3.1.1 has no code for it and is told of success

    Client reader(4, "reader", {.clean = false});
    for (const char *payload : {"1", "2", "3"})
        reader.take("t", payload, {.qos = 1});
    EXPECT_EQ(sender.publish("t", "8", {.qos = 1}), 0u);
    reader.take("t", "8", {.qos = 1});
    reader.expect_silence();
}

TEST_F(limits, a_full_queue_makes_room_of_messages_that_expired)
{
    Broker broker(kPacket, {{TARN_LIMIT_QUEUED_MESSAGES, 2}});
    Client(4, "reader", {.clean = false}).subscribe("t", 1);
    Client sender(5, "sender");
    for (const char *payload : {"1", "2"})
        sender.publish("t", payload, {.qos = 1, .properties = property(MessageExpiry, 1)});
    tarn::test::pause_ms(1500);
    EXPECT_EQ(sender.publish("t", "3", {.qos = 1}), 0u);
    Client reader(4, "reader", {.clean = false});
    reader.take("t", "3", {.qos = 1});
    reader.expect_silence();
}

TEST_F(limits, a_shared_subscription_refuses_when_all_its_queues_are_full)
{
    Broker broker(kPacket, {{TARN_LIMIT_QUEUED_MESSAGES, 1}});
    for (const char *id : {"one", "two"})
        Client(4, id, {.clean = false}).subscribe("$share/group/t", 1);
    Client sender(5, "sender");
    for (const char *payload : {"1", "2"})
        EXPECT_EQ(sender.publish("t", payload, {.qos = 1}), 0u);
    EXPECT_EQ(sender.publish("t", "3", {.qos = 1}), 0x97u);
    for (const char *id : {"one", "two"}) {
        Client member(4, id, {.clean = false});
        EXPECT_EQ(member.expect(PUBLISH).topic, "t");
    }
}

TEST_F(limits, a_shared_subscription_makes_room_of_messages_that_expired)
{
    Broker broker(kPacket, {{TARN_LIMIT_QUEUED_MESSAGES, 1}});
    Client(4, "reader", {.clean = false}).subscribe("$share/group/t", 1);
    Client sender(5, "sender");
    EXPECT_EQ(sender.publish("t", "1", {.qos = 1, .properties = property(MessageExpiry, 1)}), 0u);
    tarn::test::pause_ms(1500);
    EXPECT_EQ(sender.publish("t", "2", {.qos = 1}), 0u);
    Client reader(4, "reader", {.clean = false});
    reader.take("t", "2", {.qos = 1});
    reader.expect_silence();
}

TEST_F(limits, above_the_number_of_retained_messages_only_5_0_can_be_told)
{
    Broker broker(kPacket, {{TARN_LIMIT_RETAINED_MESSAGES, 1}});
    Client sender(5, "sender"), old_sender(4, "old"), reader(5, "reader");
    reader.subscribe("#", 1);
    EXPECT_EQ(sender.publish("a", "1", {.qos = 1, .retain = true}), 0u);
    reader.take("a", "1", {.qos = 1});
    EXPECT_EQ(sender.publish("b", "2", {.qos = 1, .retain = true}), 0x97u);
    old_sender.publish("b", "3", {.qos = 1, .retain = true}); // is delivered and not retained
    reader.take("b", "3", {.qos = 1});
    Client late(5, "late");
    late.subscribe("#", 1);
    late.take("a", "1", {.qos = 1, .retain = true});
    late.expect_silence();
}

// Its earlier connection gives its place up.
TEST_F(limits, a_client_comes_again_when_all_places_are_taken)
{
    Broker              broker(kPacket);
    std::vector<Client> clients;
    for (int i = 0; i < kPlaces; ++i)
        clients.emplace_back(5, "c" + std::to_string(i));
    Client stranger = Client::open(5);
    stranger.send(connect_packet(5, "stranger", {}));
    stranger.refused(0x88);
    Client again(5, "c0");
    clients[0].expect_end({0x8E});
    again.ping();
    clients[1].ping();
}

// It sends more than both sockets and the broker keep of answers.
TEST_F(limits, a_client_that_does_not_read_its_answers_is_closed)
{
    Broker        broker(kPacket);
    Client        deaf(4, "deaf"), other(4, "other");
    const timeval patience{.tv_sec = 20, .tv_usec = 0};
    Bytes         pings;
    bool          is_closed = false;
    constexpr int kPings    = 1 << 15;
    constexpr int kMost     = 400;
    setsockopt(deaf.peer().fd(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    for (int i = 0; i < kPings; ++i)
        pings.insert(pings.end(), {0xC0, 0x00});
    for (int i = 0; i < kMost && !is_closed; ++i)
        is_closed = send(deaf.peer().fd(), pings.data(), pings.size(), MSG_NOSIGNAL) < 0 && errno != EAGAIN;
    EXPECT_TRUE(is_closed);
    other.ping();
}

// [MQTT-3.3.1-9]: a small queue holds retained messages up and loses none.
TEST_F(limits, retained_messages_come_all_through_a_small_queue)
{
    Broker broker(kPacket, {{TARN_LIMIT_QUEUED_MESSAGES, 100}, {TARN_LIMIT_QOS0_MESSAGES, 100}});
    Client sender(5, "sender");
    for (int i = 0; i < 500; ++i) {
        sender.publish("at1/" + std::to_string(i), "x", {.qos = 1, .retain = true});
        sender.publish("at0/" + std::to_string(i), "x", {.retain = true});
    }
    Client reader(5, "reader");
    reader.subscribe({{"at0/#", 0}, {"at1/+", 1}});
    for (int i = 0; i < 1000; ++i) {
        const Received next = reader.next();
        ASSERT_EQ(next.type, PUBLISH);
        reader.acknowledge(next);
    }
    reader.expect_silence();
}

// [MQTT-3.10.4-2]: what was not sent yet is not begun.
TEST_F(limits, retained_messages_end_with_the_subscription)
{
    Broker broker(kPacket, {{TARN_LIMIT_QUEUED_MESSAGES, 100}});
    Client sender(5, "sender"), reader(5, "reader");
    for (int i = 0; i < 500; ++i)
        sender.publish("t/" + std::to_string(i), "x", {.qos = 1, .retain = true});
    reader.subscribe("t/#", 1);
    reader.unsubscribe({"t/#"});
    int count = 0;
    for (const Received &next : reader.take_all()) {
        reader.acknowledge(next);
        ++count;
    }
    EXPECT_LE(count, 200);
    reader.expect_silence();
}

TEST_F(limits, a_host_sees_how_long_a_client_said_nothing)
{
    Broker broker(kPacket, {});
    Client client(5, "c");
    tarn::test::pause_ms(2100);
    tarn_sdk_mqtt_client_info_t info{};
    ASSERT_EQ(tarn_sdk_mqtt_broker_get_client_info(broker.handle(), "c", &info), 0);
    EXPECT_GE(info.idle_seconds, 2u);
    client.ping();
    ASSERT_EQ(tarn_sdk_mqtt_broker_get_client_info(broker.handle(), "c", &info), 0);
    EXPECT_LT(info.idle_seconds, 2u);
}
