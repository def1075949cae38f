#include "api_fixture.h"

#include "client/client.h"
#include "sub/retain.h"
#include "sub/sub.h"

#include <cstring>

using namespace tarn;
using namespace tarn::test;

namespace {

struct kick : testing::Test {
    QuietLog log;
    broker_t broker{};

    Transcript transcript(const char *id, int32_t expected)
    {
        (void)take_transcript();
        EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(&broker, id), expected);
        return take_transcript();
    }
};

struct publish : testing::Test {
    QuietLog log;
    uint8_t  bytes[3000]{};

    int32_t with(const char *topic, const void *payload, int32_t length, uint32_t qos, uint8_t retain = 0,
                 uint32_t expiry_s = 0)
    {
        return tarn_sdk_mqtt_broker_publish(nullptr, topic, payload, length, qos, retain, expiry_s);
    }
};

// A record that the table of ids leads to, in a state that the pool's own records never have there.
struct Listed {
    explicit Listed(mqtt_client_t *client) : entry(entry_of(client->client_id)) { entry = client; }
    ~Listed() { entry = nullptr; }
    static Shared<mqtt_client_t *> &entry_of(const char *id)
    {
        uint32_t hash = 0;
        for (; *id; ++id)
            hash = hash * 31 + static_cast<uint32_t>(static_cast<signed char>(*id));
        return g_client_mgr.by_cid[hash % CLIENT_MAX];
    }
    Shared<mqtt_client_t *> &entry;
};

} // namespace

TEST_F(kick, needs_instance_and_id)
{
    EXPECT_THAT(transcript(nullptr, TARN_E_PARAM), IsEmpty());
    EXPECT_THAT(transcript("", TARN_E_PARAM), IsEmpty());
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(nullptr, nullptr), TARN_E_PARAM);
    EXPECT_THAT(take_transcript(), ElementsAre("ERROR [SDK] invalid broker handle"));
}

TEST_F(kick, an_unknown_client_is_not_found)
{
    add_client(1, "closed", &broker, CLIENT_CLOSED);
    EXPECT_THAT(transcript("nobody", TARN_E_NOT_FOUND), ElementsAre("WARN [SDK] kick client not found: nobody"));
    EXPECT_THAT(transcript("closed", TARN_E_NOT_FOUND), ElementsAre("WARN [SDK] kick client not found: closed"));
}

TEST_F(kick, an_id_of_any_length_is_looked_up_and_shown)
{
    const std::string id(3000, 'x');
    EXPECT_THAT(transcript(id.c_str(), TARN_E_NOT_FOUND),
                ElementsAre(testing::StartsWith("WARN [SDK] kick client not found: " + id.substr(0, 900))));
}

TEST_F(kick, another_instances_client_is_denied_and_stays)
{
    broker_t             other{};
    mqtt_client_t *const client = add_client(1, "a", &other);
    EXPECT_THAT(transcript("a", TARN_E_DENIED),
                ElementsAre("ERROR [SDK] kick rejected: client 'a' does not belong to this broker instance"));
    EXPECT_EQ(client->state, unsigned{CLIENT_LOGINED});
    client->broker = nullptr;
    EXPECT_THAT(transcript("a", TARN_E_DENIED),
                ElementsAre("ERROR [SDK] kick rejected: client 'a' does not belong to this broker instance"));
}

TEST_F(kick, sends_a_disconnect_then_closes_then_says_so)
{
    for (const uint32_t state : {CLIENT_CONNECTED, CLIENT_LOGINED}) {
        mqtt_client_t *const client = add_client(1, "dev1", &broker, state);
        const Transcript     seen   = transcript("dev1", TARN_OK);
        EXPECT_EQ(client->state, unsigned{CLIENT_CLOSED});
        EXPECT_EQ(seen.front(), "packet_handler_send_disconnect dev1 152");
        EXPECT_EQ(seen.back(), "INFO [SDK] kick client success: dev1");
        EXPECT_THAT(seen, Contains("WARN [FREE-NORMAL] 客户端正常关闭: dev1"));
        EXPECT_EQ(tarn_sdk_mqtt_broker_get_online_count(nullptr), 0u);
    }
    EXPECT_THAT(transcript("dev1", TARN_E_NOT_FOUND), ElementsAre("WARN [SDK] kick client not found: dev1"));
}

TEST_F(kick, a_client_whose_will_waits_is_closed_again)
{
    mqtt_client_t *const client = add_client(1, "w", &broker, CLIENT_WILL_PENDING);
    EXPECT_EQ(transcript("w", TARN_OK).back(), "INFO [SDK] kick client success: w");
    EXPECT_EQ(client->state, unsigned{CLIENT_CLOSED});
}

// The connection may drop while the DISCONNECT is on its way: then the kick comes second and ends nothing again.
TEST_F(kick, a_client_that_was_closed_meanwhile_is_not_closed_again)
{
    mqtt_client_t *const client = add_client(1, "dev1", &broker);
    client_set_will_msg(client, "w", reinterpret_cast<const uint8_t *>("x"), 1, 0, 0);
    client_set_will_enhance(client, 30, 0, 0, nullptr, nullptr, nullptr, 0);
    g_modules.on_disconnect_sent = [](mqtt_client_t &kicked) { client_close(&kicked); };
    EXPECT_EQ(transcript("dev1", TARN_OK).back(), "INFO [SDK] kick client success: dev1");
    EXPECT_EQ(client->state, unsigned{CLIENT_WILL_PENDING});
    EXPECT_EQ(g_will_delay_client_count, 1);
    g_modules.on_disconnect_sent = nullptr;
    pool_free(client);
}

TEST_F(kick, a_record_without_a_state_is_closed_already)
{
    OwnClient client(&broker, "zero");
    client->used  = 1;
    client->state = CLIENT_UNUSED;
    const Listed listed(client);
    EXPECT_THAT(transcript("zero", TARN_OK), ElementsAre("WARN [SDK] kick client 'zero' already closed"));
    EXPECT_EQ(client->used, 1);
}

// A host may pass a text that it found in the record and that the close changes.
TEST_F(kick, the_last_line_shows_what_was_passed)
{
    mqtt_client_t *const client = add_client(1, "dev1", &broker);
    EXPECT_EQ(transcript(client->client_id, TARN_OK).back(), "INFO [SDK] kick client success: dev1");
    EXPECT_STREQ(client->client_id, "");

    mqtt_client_t *const other = add_client(2, "dev2", &broker);
    client_set_will_msg(other, "dev2", reinterpret_cast<const uint8_t *>("x"), 1, 0, 0);
    other->will_msg_used = 0; // nothing to publish, so the close frees it
    EXPECT_EQ(transcript(other->will_topic, TARN_OK).back(), "INFO [SDK] kick client success: dev2");
}

TEST_F(publish, refuses_bad_arguments_before_anything_happens)
{
    EXPECT_EQ(with(nullptr, bytes, 1, 0), TARN_E_PARAM);
    EXPECT_EQ(with("t", nullptr, 1, 0), TARN_E_PARAM);
    EXPECT_EQ(with("t", bytes, 0, 0), TARN_E_PARAM);
    EXPECT_EQ(with("t", bytes, -1, 0), TARN_E_PARAM);
    EXPECT_EQ(with("t", bytes, INT32_MIN, 0), TARN_E_PARAM);
    for (const uint32_t qos : {3u, 256u, 0x80000000u, 0xFFFFFFFFu}) // 256 must not become 0
        EXPECT_EQ(with("t", bytes, 1, qos), TARN_E_PARAM) << qos;
    EXPECT_THAT(take_transcript(), IsEmpty());
}

TEST_F(publish, hands_everything_on_and_ignores_the_result)
{
    g_modules.packet_handler_broker_publish = [] { return -1; };
    EXPECT_EQ(with("a/b", bytes, 1, 0), TARN_OK);
    EXPECT_EQ(with("t", bytes, 3000, 2, 1, 77), TARN_OK);
    EXPECT_EQ(with("", bytes, INT32_MAX, 1, 255, UINT32_MAX), TARN_OK);
    EXPECT_THAT(take_calls(),
                ElementsAre("packet_handler_broker_publish a/b 1 0 0 0", "packet_handler_broker_publish t 3000 2 1 77",
                            "packet_handler_broker_publish  2147483647 1 255 4294967295"));
    g_modules.packet_handler_broker_publish = nullptr;
}

TEST_F(publish, keeps_2048_bytes_with_the_expiry)
{
    ASSERT_EQ(sub_init(), 0);
    const auto kept = std::make_unique<retain_msg_t>();
    memset(bytes, 0xAB, 2048);
    for (const int32_t length : {2047, 2048, 2049, 3000}) {
        EXPECT_EQ(with("t", bytes, length, 1, 1, 60), TARN_OK);
        EXPECT_EQ(retain_msg_get("t", kept.get()), 0);
        EXPECT_EQ(kept->payload_len, static_cast<uint32_t>(std::min(length, 2048)));
        EXPECT_EQ(memcmp(kept->payload, bytes, kept->payload_len), 0);
        EXPECT_EQ(kept->qos, 1u);
        EXPECT_EQ(kept->expiry_interval, 60u);
    }
}

TEST(clear_retain, removes_exactly_this_topic)
{
    QuietLog log;
    ASSERT_EQ(sub_init(), 0);
    const uint8_t byte = 1;
    ASSERT_EQ(retain_msg_set("t", &byte, 1, 0), 0);
    EXPECT_EQ(tarn_sdk_mqtt_broker_clear_retain(nullptr, nullptr), TARN_E_PARAM);
    EXPECT_EQ(tarn_sdk_mqtt_broker_clear_retain(nullptr, "#"), TARN_E_NOT_FOUND);
    EXPECT_EQ(tarn_sdk_mqtt_broker_clear_retain(nullptr, "T"), TARN_E_NOT_FOUND);
    EXPECT_EQ(g_sub_mgr.retain_count, 1);
    EXPECT_EQ(tarn_sdk_mqtt_broker_clear_retain(nullptr, "t"), TARN_OK);
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
    EXPECT_EQ(tarn_sdk_mqtt_broker_clear_retain(nullptr, "t"), TARN_E_NOT_FOUND);
}
