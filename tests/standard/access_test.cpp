// What the host's rules refuse, and how clients are told (5.0 3.4.2.1, 3.9.3; 3.1.1 3.3.5).
#include "support/host.h"
#include "support/levels.h"

using namespace tarn::conformance;
using tarn::test::Hooks;
using testing::ElementsAre;

namespace {

struct access : AtEachLevel {
    void SetUp() override
    {
        if (is_other_broker())
            GTEST_SKIP();
        Hooks::listen(broker.handle());
        Hooks::refuse_topic("secret");
    }
};
AT_EACH_LEVEL(access);

} // namespace

// 3.1.1 [MQTT-3.3.5-2] [MQTT-3.4.2-1] [MQTT-3.5.2-1]
TEST_P(access, refused_publications_are_answered)
{
    Client reader = come("reader"), client = come("c");
    reader.subscribe("#", 2);
    client.publish("secret", "x");
    for (const unsigned qos : {1u, 2u})
        EXPECT_EQ(client.publish("secret", "x", {.qos = qos, .retain = true}), is_5() ? 0x87u : 0u);
    client.publish("open", "x", {.qos = 1});
    reader.take("open", "x", {.qos = 1});
    reader.expect_silence();
    come("late").subscribe("#"); // nothing was retained
}

// [MQTT-4.3.3-9]
TEST_P(access, refused_publications_leave_their_identifier_free)
{
    Client reader = come("reader"), client = come("c");
    reader.subscribe("#", 2);
    client.publish("secret", "x", {.qos = 2, .id = 9});
    client.publish("open", "y", {.qos = 2, .id = 9});
    reader.take("open", "y", {.qos = 2});
}

// [MQTT-3.9.3-2] 3.1.1 [MQTT-3.9.3-2]
TEST_P(access, refused_subscriptions_have_their_code)
{
    Client client = come("c");
    EXPECT_THAT(client.subscribe({{"a", 1}, {"secret", 1}, {"b", 2}}), ElementsAre(1, is_5() ? 0x87 : 0x80, 2));
    client.publish("a", "x", {.qos = 1});
    client.take("a", "x", {.qos = 1});
}

// [MQTT-3.1.4-2] [MQTT-3.2.2-7] 3.1.1 [MQTT-3.2.2-5]
TEST_P(access, refused_users_have_their_code)
{
    Hooks::refuse_user("eve");
    Client client = open();
    client.send(connect_packet(level(), "c", {.user_name = "eve", .password = "p"}));
    client.refused(is_5() ? 0x86 : 4);
    come("c", {.user_name = "adam", .password = "p"}).ping();
}

// [MQTT-3.4.2-2] [MQTT-3.4.2-3] [MQTT-3.5.2-2] [MQTT-3.5.2-3] [MQTT-3.9.2-1] [MQTT-3.9.2-2]
TEST_P(access, refusals_are_no_larger_than_allowed)
{
    if (!is_5())
        GTEST_SKIP() << "3.1.1 has no Maximum Packet Size";
    constexpr unsigned kSize  = 30;
    Client             client = come("c", {.properties = property(MaximumPacketSize, kSize)});
    client.send(publish_packet(5, "secret", "x", {.qos = 1, .id = 8}));
    EXPECT_LE(client.expect_ack(PUBACK, 8, 0x87).whole.size(), kSize);
    client.send(publish_packet(5, "secret", "x", {.qos = 2, .id = 9}));
    EXPECT_LE(client.expect_ack(PUBREC, 9, 0x87).whole.size(), kSize);
    client.send(subscribe_packet(5, 10, {{"secret"}}));
    EXPECT_LE(client.expect(SUBACK).whole.size(), kSize);
}
