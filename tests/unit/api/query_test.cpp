#include "api_fixture.h"

#include "base/clock.h"
#include "client/client.h"
#include "stats/mqtt_stats.h"
#include "sub/retain.h"
#include "sub/sub.h"

#include <cstring>

using namespace tarn;
using namespace tarn::test;

namespace {

// Records without a running layer.
struct Clients : testing::Test {
    QuietLog                    log;
    broker_t                    broker{};
    tarn_sdk_mqtt_client_info_t info{};

    int32_t     get_info(const char *id) { return tarn_sdk_mqtt_broker_get_client_info(&broker, id, &info); }
    std::string list(int32_t size = 1000)
    {
        std::string text(static_cast<size_t>(size), '\xEE');
        EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_id_list(nullptr, text.data(), size), TARN_OK);
        return text.c_str();
    }
};
using online_count   = Clients;
using client_id_list = Clients;
using client_info    = Clients;

bool is_filled_with(const void *area, size_t size, uint8_t value)
{
    const auto *bytes = static_cast<const uint8_t *>(area);
    return std::all_of(bytes, bytes + size, [&](uint8_t byte) { return byte == value; });
}

} // namespace

TEST_F(online_count, counts_the_two_online_states)
{
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_online_count(nullptr), 0u);
    for (const uint32_t state : {CLIENT_CONNECTED, CLIENT_LOGINED, CLIENT_WILL_PENDING, CLIENT_CLOSED, CLIENT_UNUSED})
        add_client(state, std::to_string(state).c_str(), &broker, state);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_online_count(nullptr), 2u);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_online_count(&broker), 2u);
}

TEST_F(client_id_list, needs_a_buffer_with_room)
{
    char byte = 'x';
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_id_list(&broker, nullptr, 100), TARN_E_PARAM);
    for (const int32_t size : {0, -1, INT32_MIN})
        EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_id_list(&broker, &byte, size), TARN_E_PARAM) << size;
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_id_list(&broker, &byte, 1), TARN_OK);
    EXPECT_EQ(byte, '\0');
}

TEST_F(client_id_list, has_commas_between_and_none_behind)
{
    EXPECT_EQ(list(), "");
    add_client(1, "a", &broker);
    EXPECT_EQ(list(), "a");
    add_client(2, "bb", nullptr); // whoever owns it
    add_client(3, "gone", &broker, CLIENT_WILL_PENDING);
    add_client(4, "c", &broker, CLIENT_CONNECTED);
    EXPECT_EQ(list(), "a,bb,c");
    EXPECT_EQ(list(7), "a,bb,c");
    EXPECT_EQ(list(6), "a,bb,");
}

TEST_F(client_id_list, zeroes_the_whole_buffer)
{
    add_client(1, "a", &broker);
    char text[100];
    memset(text, 0xEE, sizeof text);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_id_list(nullptr, text, 90), TARN_OK);
    EXPECT_EQ(text[0], 'a');
    EXPECT_TRUE(is_filled_with(text + 1, 89, 0));
    EXPECT_TRUE(is_filled_with(text + 90, 10, 0xEE));
}

TEST_F(client_id_list, a_failure_below_is_not_found)
{
    char text[10];
    for (const int32_t result : {-1, -5, INT32_MIN}) {
        g_modules.list = [&] { return result; };
        EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_id_list(nullptr, text, 10), TARN_E_NOT_FOUND);
        EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(nullptr, text, 10), TARN_E_NOT_FOUND);
    }
    g_modules.list = [] { return 7; };
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_id_list(nullptr, text, 10), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(nullptr, text, 10), TARN_OK);
    g_modules.list = nullptr;
}

TEST(retain_topic_list, names_each_topic_on_a_line)
{
    QuietLog log;
    ASSERT_EQ(sub_init(), 0);
    const uint8_t byte = 1;
    char          text[50];
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(nullptr, nullptr, 50), TARN_E_PARAM);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(nullptr, text, 0), TARN_E_PARAM);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(nullptr, text, -1), TARN_E_PARAM);
    memset(text, 0xEE, sizeof text);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(nullptr, text, 50), TARN_OK);
    EXPECT_TRUE(is_filled_with(text, 50, 0));
    ASSERT_EQ(retain_msg_set("r/1", &byte, 1, 0), 0);
    ASSERT_EQ(retain_msg_set("r/2", &byte, 1, 0), 0);
    memset(text, 0xEE, sizeof text);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(nullptr, text, 40), TARN_OK);
    EXPECT_STREQ(text, "r/1\nr/2\n");
    EXPECT_TRUE(is_filled_with(text + 8, 32, 0));
    EXPECT_TRUE(is_filled_with(text + 40, 10, 0xEE));
}

TEST_F(client_info, needs_id_and_record)
{
    (void)take_transcript();
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_info(&broker, nullptr, &info), TARN_E_PARAM);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_info(&broker, "a", nullptr), TARN_E_PARAM);
    EXPECT_THAT(take_lines(), IsEmpty());
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_info(nullptr, nullptr, nullptr), TARN_E_PARAM);
    EXPECT_THAT(take_lines(), ElementsAre("ERROR [SDK] invalid broker handle"));
}

TEST_F(client_info, an_unknown_id_is_not_found_without_a_line)
{
    add_client(1, "a", &broker);
    add_client(2, "closed", &broker, CLIENT_CLOSED);
    memset(&info, 0xEE, sizeof info);
    (void)take_transcript();
    for (const char *id : {"b", "", "A", "aa", "closed"})
        EXPECT_EQ(get_info(id), TARN_E_NOT_FOUND) << id;
    EXPECT_THAT(take_lines(), IsEmpty());
    EXPECT_TRUE(is_filled_with(&info, sizeof info, 0xEE));
}

TEST_F(client_info, of_another_instances_client_is_denied)
{
    broker_t other{};
    add_client(1, "a", &other);
    add_client(2, "b", nullptr);
    memset(&info, 0xEE, sizeof info);
    (void)take_transcript();
    EXPECT_EQ(get_info("a"), TARN_E_DENIED);
    EXPECT_EQ(get_info("b"), TARN_E_DENIED);
    EXPECT_THAT(take_lines(),
                ElementsAre("ERROR [SDK] get_client_info rejected: client 'a' belongs to another broker",
                            "ERROR [SDK] get_client_info rejected: client 'b' belongs to another broker"));
    EXPECT_TRUE(is_filled_with(&info, sizeof info, 0xEE));
}

TEST_F(client_info, fills_the_record_and_zeroes_the_rest)
{
    mqtt_client_t *const client = add_client(1, "dev1", &broker);
    client->keepalive_ms        = 61999;
    memset(&info, 0xEE, sizeof info);
    (void)take_transcript();
    EXPECT_EQ(get_info("dev1"), TARN_OK);
    EXPECT_THAT(take_lines(), IsEmpty());
    tarn_sdk_mqtt_client_info_t expected{};
    strcpy(expected.client_id, "dev1");
    strcpy(expected.ip, "192.0.2.7");
    expected.port      = 40001;
    expected.keepalive = 61;
    expected.online    = 1;
    EXPECT_EQ(memcmp(&info, &expected, sizeof info), 0);
}

TEST_F(client_info, shows_the_longest_texts_whole)
{
    const std::string    id(63, 'i');
    mqtt_client_t *const client = client_create(1, std::string(63, '9').c_str(), 65535, &broker);
    client_set_cid(client, id.c_str());
    client->keepalive_ms = 65535000;
    EXPECT_EQ(get_info(id.c_str()), TARN_OK);
    EXPECT_EQ(info.client_id, id);
    EXPECT_EQ(info.ip, std::string(63, '9'));
    EXPECT_EQ(info.port, 65535);
    EXPECT_EQ(info.keepalive, 65535);
}

TEST_F(client_info, online_means_connected_or_logged_in)
{
    mqtt_client_t *const client = add_client(1, "a", &broker);
    const struct {
        uint32_t state;
        int      online;
    } rows[] = {{CLIENT_UNUSED, 0}, {CLIENT_CONNECTED, 1}, {CLIENT_LOGINED, 1}, {CLIENT_WILL_PENDING, 0}};
    for (const auto &row : rows) {
        client->state = row.state;
        EXPECT_EQ(get_info("a"), TARN_OK);
        EXPECT_EQ(info.online, row.online) << row.state;
    }
}

TEST_F(client_info, idle_counts_whole_seconds_since_the_last_packet)
{
    ManualClock          clock;
    mqtt_client_t *const client = add_client(1, "a", &broker);
    const struct {
        int64_t  later_ms;
        uint32_t idle_s;
    } rows[] = {{0, 0}, {999, 0}, {1, 1}, {1500, 2}, {499, 2}, {1, 3}};
    for (const auto &row : rows) {
        clock.advance_ms(row.later_ms);
        EXPECT_EQ(get_info("a"), TARN_OK);
        EXPECT_EQ(info.idle_seconds, row.idle_s);
    }
    client->last_active = clock.mono_ms() + 1; // a packet came in between
    EXPECT_EQ(get_info("a"), TARN_OK);
    EXPECT_EQ(info.idle_seconds, 0u);
}

TEST_F(Clients, statistics_come_from_the_counters)
{
    ManualClock                  clock;
    tarn_sdk_mqtt_broker_stats_t stats;
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_stats(&broker, nullptr), TARN_E_PARAM);

    mqtt_stats_init();
    memset(&stats, 0xEE, sizeof stats);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_stats(nullptr, &stats), TARN_OK);
    EXPECT_TRUE(is_filled_with(&stats, sizeof stats, 0));

    add_client(1, "a", nullptr);
    add_client(2, "b", nullptr, CLIENT_WILL_PENDING);
    g_mqtt_stats.online = 99; // counted afresh
    g_mqtt_stats.qos0   = 1;
    g_mqtt_stats.qos1   = 20;
    g_mqtt_stats.qos2   = 300;
    g_mqtt_stats.subs   = 4000;
    clock.advance_ms(2999);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_stats(nullptr, &stats), TARN_OK);
    EXPECT_EQ(stats.online, 1u);
    EXPECT_EQ(stats.messages, 321u);
    EXPECT_EQ(stats.subscriptions, 4000u);
    EXPECT_EQ(stats.uptime_seconds, 2u);

    g_mqtt_stats.qos0 = UINT64_MAX; // the sum is cut to 32 bits
    clock.advance_ms(1);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_stats(nullptr, &stats), TARN_OK);
    EXPECT_EQ(stats.messages, 319u);
    EXPECT_EQ(stats.uptime_seconds, 3u);
}

TEST(stats, subscriptions_are_those_of_the_last_report)
{
    QuietLog log;
    ASSERT_EQ(sub_init(), 0);
    mqtt_stats_init();
    tarn_sdk_mqtt_broker_stats_t stats{};
    ASSERT_EQ(sub_add("a", "t", 0, 1), 0);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_stats(nullptr, &stats), TARN_OK);
    EXPECT_EQ(stats.subscriptions, 0u);
    broker_t broker{};
    api::housekeeping_turn(broker, wall_s());
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_stats(nullptr, &stats), TARN_OK);
    EXPECT_EQ(stats.subscriptions, 1u);
}
