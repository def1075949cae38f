// What a host allows its clients, as they are told of it.
#include "support/levels.h"

using namespace tarn::conformance;
using testing::ElementsAre;
using testing::Optional;

namespace {

constexpr int kPacket = 1 << 20;

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
    const double begin_s = tarn::test::now_s(); // before they come, as a loaded machine may stop for long behind it
    Client       silent  = Client::open(5), other(5, "c");
    silent.expect_closed();
    EXPECT_GT(tarn::test::now_s() - begin_s, 0.2);
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
