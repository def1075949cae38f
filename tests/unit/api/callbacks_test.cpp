#include "api/broker.h"
#include "client/client_types.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace {

std::string    g_seen;
broker_t      *g_broker;
mqtt_client_t *g_client;
bool           g_answer;

void on_event(broker_t *broker, uint32_t kind, const char *text)
{
    g_broker = broker;
    g_seen   = std::to_string(kind) + " " + text;
}
bool on_auth(broker_t *broker, const char *client_id, const char *username, const char *password)
{
    g_broker = broker;
    g_seen   = std::string(client_id) + "/" + username + "/" + password;
    return g_answer;
}
bool on_acl(broker_t *broker, const char *client_id, const char *topic, uint8_t action, mqtt_client_t *client)
{
    g_broker = broker;
    g_client = client;
    g_seen   = std::string(client_id) + " " + topic + " " + std::to_string(action);
    return g_answer;
}

struct Fixture : testing::Test {
    broker_t                       broker{};
    std::unique_ptr<mqtt_client_t> client{new mqtt_client_t{}};

    Fixture()
    {
        g_seen.clear();
        g_broker       = nullptr;
        client->broker = &broker;
        strcpy(client->client_id, "dev1");
    }
};
using fire = Fixture;

} // namespace

TEST_F(fire, without_client_owner_or_callback_everything_is_allowed)
{
    EXPECT_TRUE(broker_fire_auth(nullptr, "a", "b", "c"));
    EXPECT_TRUE(broker_fire_acl(nullptr, "t", 1));
    broker_fire_event(nullptr, 0, nullptr, 0);
    EXPECT_TRUE(broker_fire_auth(client.get(), "a", "b", "c"));
    EXPECT_TRUE(broker_fire_acl(client.get(), "t", 1));
    broker_fire_event(client.get(), 0, nullptr, 0);
    client->broker = nullptr;
    EXPECT_TRUE(broker_fire_auth(client.get(), "a", "b", "c"));
    EXPECT_TRUE(broker_fire_acl(client.get(), "t", 1));
    broker_fire_event(client.get(), 0, nullptr, 0);
}

TEST_F(fire, auth_passes_the_texts_of_the_connect_and_the_answer)
{
    tarn_sdk_mqtt_broker_register_auth_callback(&broker, on_auth);
    g_answer = false;
    EXPECT_FALSE(broker_fire_auth(client.get(), "id", "user", ""));
    EXPECT_EQ(g_seen, "id/user/");
    EXPECT_EQ(g_broker, &broker);
    g_answer = true;
    EXPECT_TRUE(broker_fire_auth(client.get(), "id", "user", "pw"));
    tarn_sdk_mqtt_broker_register_auth_callback(&broker, nullptr);
    g_answer = false;
    EXPECT_TRUE(broker_fire_auth(client.get(), "id", "user", "pw"));
}

TEST_F(fire, acl_passes_the_record_and_its_id)
{
    tarn_sdk_mqtt_broker_register_acl_callback(&broker, on_acl);
    g_answer = false;
    EXPECT_FALSE(broker_fire_acl(client.get(), "a/b", BROKER_ACL_PUBLISH));
    EXPECT_EQ(g_seen, "dev1 a/b 1");
    EXPECT_EQ(g_client, client.get());
    g_answer = true;
    EXPECT_TRUE(broker_fire_acl(client.get(), "a/#", BROKER_ACL_SUBSCRIBE));
    EXPECT_EQ(g_seen, "dev1 a/# 0");
}

TEST_F(fire, event_text_names_client_topic_and_qos)
{
    tarn_sdk_mqtt_broker_register_event_callback(&broker, on_event);
    broker_fire_event(client.get(), BROKER_EVENT_CONNECTED, nullptr, 0);
    EXPECT_EQ(g_seen, R"(0 {"clientId":"dev1","topic":"","qos":0})");
    broker_fire_event(client.get(), BROKER_EVENT_PUBLISH, "a\"b", 2);
    EXPECT_EQ(g_seen, R"(2 {"clientId":"dev1","topic":"a"b","qos":2})") << "texts are not escaped";
}

TEST_F(fire, event_text_is_cut_at_255_characters)
{
    tarn_sdk_mqtt_broker_register_event_callback(&broker, on_event);
    const std::string topic(300, 't');
    broker_fire_event(client.get(), BROKER_EVENT_PUBLISH, topic.c_str(), 1);
    const std::string whole = R"({"clientId":"dev1","topic":")" + topic + R"(","qos":1})";
    EXPECT_EQ(g_seen, "2 " + whole.substr(0, 255));
}

TEST_F(fire, event_text_of_255_characters_stays_whole)
{
    tarn_sdk_mqtt_broker_register_event_callback(&broker, on_event);
    const size_t rest = strlen(R"({"clientId":"dev1","topic":"","qos":1})");
    for (const size_t length : {254, 255, 256, 257}) {
        const std::string topic(length - rest, 't');
        const std::string whole = R"({"clientId":"dev1","topic":")" + topic + R"(","qos":1})";
        ASSERT_EQ(whole.size(), length);
        broker_fire_event(client.get(), BROKER_EVENT_PUBLISH, topic.c_str(), 1);
        EXPECT_EQ(g_seen, "2 " + whole.substr(0, 255));
    }
}
