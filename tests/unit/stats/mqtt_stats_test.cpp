#include "stats/mqtt_stats.h"

#include "base/relaxed.h"
#include "client/client.h"
#include "log/agent_log.h"
#include "sub/sub.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/log_lines/stats.h"

#include <atomic>
#include <clocale>
#include <cstdlib>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

using namespace tarn::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

struct stats : testing::Test {
    ManualClock clock;
    LogCapture  log{AGENT_LOG_WARN};

    // Every counter with a value of its own.
    static void fill()
    {
        mqtt_stats_t &s             = g_mqtt_stats;
        s.pkt_rx                    = 11;
        s.pkt_tx                    = 12;
        s.drop_offline              = 13;
        s.drop_queue_full           = 14;
        s.drop_too_big              = 15;
        s.drop_invalid_param        = 16;
        s.drop_send_failed          = 17;
        s.qos0                      = 18;
        s.qos1                      = 19;
        s.qos2                      = 20;
        s.offline_msg               = 21;
        s.timeout                   = 22;
        s.will_sent                 = 23;
        s.parse_error               = 24;
        s.persist_write             = 25;
        s.persist_read              = 26;
        s.period_rx                 = 31;
        s.period_tx                 = 32;
        s.period_drop_offline       = 33;
        s.period_drop_queue_full    = 34;
        s.period_drop_too_big       = 35;
        s.period_drop_invalid_param = 36;
        s.period_drop_send_failed   = 37;
        s.period_timeout            = 38;
        s.period_will               = 39;
        s.period_persist_write      = 40;
        s.period_persist_read       = 41;
    }
    // As in a host that asked for German numbers. The locale is made here, few machines have one.
    static bool use_decimal_comma()
    {
        std::ofstream("comma.src")
            << "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \"\"\ngrouping -1\nEND LC_NUMERIC\n";
        const int made = system("localedef -c -i ./comma.src -f UTF-8 ./comma 2>localedef.txt");
        setenv("LOCPATH", ".", 1);
        return made != -1 && setlocale(LC_NUMERIC, "comma") && *localeconv()->decimal_point == ',';
    }
    static void fill_sources()
    {
        g_client_mgr.capacity   = 300;
        g_client_mgr.used_count = 100;
        g_sub_mgr.sub_count     = 7;
        g_sub_mgr.retain_count  = 8;
    }
};

} // namespace

TEST_F(stats, init_zeroes_everything_and_takes_the_time)
{
    agent_log_set_level(AGENT_LOG_INFO);
    memset(static_cast<void *>(&g_mqtt_stats), 0xEE, sizeof g_mqtt_stats);
    mqtt_stats_init();
    EXPECT_THAT(log.take(), ElementsAre(info("[MQTT-Stats] 维测统计模块初始化完成")));
    mqtt_stats_t expected{};
    expected.start_ms = clock.mono_ms();
    EXPECT_EQ(g_mqtt_stats.start_ms, expected.start_ms);
    // All fields but the four bytes of padding behind parse_error and pool_usage.
    EXPECT_EQ(memcmp(&g_mqtt_stats, &expected, offsetof(mqtt_stats_t, parse_error) + 4), 0);
    EXPECT_EQ(memcmp(&g_mqtt_stats.persist_write, &expected.persist_write, 16 + 8 + 4), 0);
    EXPECT_EQ(memcmp(&g_mqtt_stats.period_rx, &expected.period_rx, sizeof expected - offsetof(mqtt_stats_t, period_rx)),
              0);
}

TEST_F(stats, deinit_does_nothing)
{
    agent_log_set_level(AGENT_LOG_DEBUG);
    fill();
    const mqtt_stats_t before = g_mqtt_stats;
    mqtt_stats_deinit();
    EXPECT_EQ(memcmp(&g_mqtt_stats, &before, sizeof before), 0);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(stats, each_increment_has_its_two_fields)
{
    mqtt_stats_t &s = g_mqtt_stats;
    const struct {
        void (*increment)();
        const tarn::Shared<uint64_t> *total, *period;
    } wide[] = {
        {mqtt_stats_inc_rx_pkt, &s.pkt_rx, &s.period_rx},
        {mqtt_stats_inc_tx_pkt, &s.pkt_tx, &s.period_tx},
        {mqtt_stats_inc_drop_offline, &s.drop_offline, &s.period_drop_offline},
        {mqtt_stats_inc_drop_queue_full, &s.drop_queue_full, &s.period_drop_queue_full},
        {mqtt_stats_inc_drop_too_big, &s.drop_too_big, &s.period_drop_too_big},
        {mqtt_stats_inc_drop_invalid_param, &s.drop_invalid_param, &s.period_drop_invalid_param},
        {mqtt_stats_inc_drop_send_failed, &s.drop_send_failed, &s.period_drop_send_failed},
        {mqtt_stats_inc_persist_write, &s.persist_write, &s.period_persist_write},
        {mqtt_stats_inc_persist_read, &s.persist_read, &s.period_persist_read},
        {mqtt_stats_inc_offline_msg, &s.offline_msg, nullptr},
    };
    for (const auto &row : wide) {
        mqtt_stats_t expected{};
        memcpy(static_cast<void *>(&expected), &s, sizeof s);
        const auto at = [&](const tarn::Shared<uint64_t> *field) -> tarn::Shared<uint64_t> & {
            using Words = tarn::Shared<uint64_t>;
            return reinterpret_cast<Words *>(&expected)[field - reinterpret_cast<const Words *>(&s)];
        };
        tarn::bump(at(row.total));
        if (row.period)
            tarn::bump(at(row.period));
        row.increment();
        EXPECT_EQ(memcmp(&s, &expected, sizeof s), 0) << (&row - wide);
    }

    mqtt_stats_t expected = s;
    mqtt_stats_inc_timeout();
    tarn::bump(expected.timeout), tarn::bump(expected.period_timeout);
    EXPECT_EQ(memcmp(&s, &expected, sizeof s), 0);
    mqtt_stats_inc_will_sent();
    tarn::bump(expected.will_sent), tarn::bump(expected.period_will);
    EXPECT_EQ(memcmp(&s, &expected, sizeof s), 0);
    mqtt_stats_inc_parse_error();
    tarn::bump(expected.parse_error);
    EXPECT_EQ(memcmp(&s, &expected, sizeof s), 0);
}

TEST_F(stats, qos_levels_are_counted_up_to_2)
{
    mqtt_stats_inc_qos(0);
    mqtt_stats_inc_qos(1);
    mqtt_stats_inc_qos(1);
    for (int i = 0; i < 3; ++i)
        mqtt_stats_inc_qos(2);
    const mqtt_stats_t before = g_mqtt_stats;
    EXPECT_EQ(before.qos0, 1u);
    EXPECT_EQ(before.qos1, 2u);
    EXPECT_EQ(before.qos2, 3u);
    mqtt_stats_inc_qos(3);
    mqtt_stats_inc_qos(255);
    EXPECT_EQ(memcmp(&g_mqtt_stats, &before, sizeof before), 0);
}

TEST_F(stats, update_takes_a_snapshot_of_the_other_modules)
{
    fill_sources();
    mqtt_stats_update();
    EXPECT_EQ(g_mqtt_stats.online, 0u);
    EXPECT_EQ(g_mqtt_stats.pool_cap, 300u);
    EXPECT_EQ(g_mqtt_stats.pool_used, 100u);
    EXPECT_NEAR(g_mqtt_stats.pool_usage, 33.3333f, 0.001f);
    EXPECT_EQ(g_mqtt_stats.subs, 7u);
    EXPECT_EQ(g_mqtt_stats.retain_msg, 8u);
    g_client_mgr.capacity = 0;
    mqtt_stats_update();
    EXPECT_EQ(g_mqtt_stats.pool_usage, 0.0f);
}

TEST_F(stats, online_number_is_live_and_the_highest_stays)
{
    mqtt_client_t *const first  = client_create(1, "127.0.0.1", 1, nullptr);
    mqtt_client_t *const second = client_create(2, "127.0.0.1", 2, nullptr);
    ASSERT_TRUE(first && second);
    mqtt_stats_update();
    EXPECT_EQ(g_mqtt_stats.online, 2u);
    EXPECT_EQ(g_mqtt_stats.max_online, 2u);
    second->state = CLIENT_CLOSED;
    mqtt_stats_update();
    EXPECT_EQ(g_mqtt_stats.online, 1u);
    EXPECT_EQ(g_mqtt_stats.max_online, 2u);
}

TEST_F(stats, reset_clears_the_period_only)
{
    mqtt_stats_init();
    fill();
    mqtt_stats_t expected = g_mqtt_stats;
    memset(static_cast<void *>(&expected.period_rx), 0, sizeof expected - offsetof(mqtt_stats_t, period_rx));
    mqtt_stats_reset_period();
    EXPECT_EQ(memcmp(&g_mqtt_stats, &expected, offsetof(mqtt_stats_t, period_timeout)), 0);
    EXPECT_EQ(memcmp(&g_mqtt_stats.period_timeout, &expected.period_timeout, 8), 0);
    EXPECT_EQ(g_mqtt_stats.period_persist_write, 0u);
    EXPECT_EQ(g_mqtt_stats.period_persist_read, 0u);
}

TEST_F(stats, report_has_thirteen_lines_at_warn)
{
    mqtt_stats_init();
    fill();
    fill_sources();
    g_mqtt_stats.max_online = 9;
    clock.advance_ms(61234);
    log.take();
    mqtt_stats_print();
    EXPECT_THAT(log.take(),
                ElementsAre(warn("!!!>>>===================== MQTT Broker 维测统计 ====================="),
                            warn("运行时长: 61234 ms"),          //
                            warn("在线客户端: 0 / 历史最高: 9"), //
                            logged::report_pool(100, 300, 33, 3), logged::report_period(31, 32, 38, 39, 40, 41),
                            logged::report_period_drops(33, 34, 35, 36, 37), logged::report_packets(11, 12), //
                            warn("[总丢包] 离线:13 | 队列满:14 | 超长:15 | 非法参数:16 | 发送失败:17"),
                            warn("QoS0: 18 | QoS1: 19 | QoS2: 20"), //
                            warn("离线消息: 21 | Retain消息: 8"),
                            warn("总订阅数: 7 | 超时断开: 22 | 遗嘱发送: 23"), //
                            warn("持久化写入: 25 | 读取: 26"),
                            warn("!!!>>>================================================================")));
    mqtt_stats_reset_period();
    mqtt_stats_print();
    const std::vector<LogLine> lines = log.take();
    ASSERT_EQ(lines.size(), 13u);
    EXPECT_EQ(lines[4], logged::report_period(0, 0, 0, 0, 0, 0));
    EXPECT_EQ(lines[5], logged::report_period_drops(0, 0, 0, 0, 0));
    EXPECT_EQ(lines[6], logged::report_packets(11, 12));
}

TEST_F(stats, report_shows_64_bits)
{
    mqtt_stats_init();
    g_mqtt_stats.pkt_rx = UINT64_MAX;
    log.take();
    mqtt_stats_print();
    EXPECT_TRUE(log.has(logged::report_packets(18446744073709551615ull, 0)));
    EXPECT_TRUE(log.has(logged::report_pool(0, 0, 0, 0)));
}

TEST_F(stats, json_names_totals_and_snapshot)
{
    fill();
    fill_sources();
    char text[1024];
    EXPECT_EQ(mqtt_stats_to_json(text, sizeof text), 0);
    EXPECT_STREQ(text,
                 "{\"online\":0,\"max_online\":0,\"pool_used\":100,\"pool_cap\":300,\"pool_usage\":33.3,\"pkt_rx\":11,"
                 "\"pkt_tx\":12,\"drop_offline\":13,\"drop_queue_full\":14,\"drop_too_big\":15,"
                 "\"drop_invalid_param\":16,\"drop_send_failed\":17,\"qos0\":18,\"qos1\":19,\"qos2\":20,"
                 "\"offline_msg\":21,\"retain_msg\":8,\"subs\":7,\"timeout\":22,\"will_sent\":23}");
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(stats, json_with_the_largest_numbers_fits_1024_bytes)
{
    memset(static_cast<void *>(&g_mqtt_stats), 0xFF, sizeof g_mqtt_stats);
    fill_sources();
    char text[1024];
    EXPECT_EQ(mqtt_stats_to_json(text, sizeof text), 0);
    EXPECT_EQ(text[strlen(text) - 1], '}');
}

TEST_F(stats, numbers_look_the_same_in_every_locale)
{
    if (!use_decimal_comma())
        GTEST_SKIP() << "no locale to try";
    fill_sources();
    char text[1024];
    EXPECT_EQ(mqtt_stats_to_json(text, sizeof text), 0);
    EXPECT_THAT(text, HasSubstr("\"pool_usage\":33.3,\"pkt_rx\":0,"));
    mqtt_stats_print();
    EXPECT_TRUE(log.has(logged::report_pool(100, 300, 33, 3)));
}

TEST_F(stats, usage_is_rounded_as_printf_rounds)
{
    const auto shown = [](int used, int capacity) {
        g_client_mgr.used_count = used;
        g_client_mgr.capacity   = capacity;
        char text[1024];
        EXPECT_EQ(mqtt_stats_to_json(text, sizeof text), 0);
        const std::string json = text, key = "\"pool_usage\":";
        const size_t      from = json.find(key) + key.size();
        return json.substr(from, json.find(',', from) - from);
    };
    for (int used = 0; used <= 11000; ++used) {
        char expected[16];
        snprintf(expected, sizeof expected, "%.1f", static_cast<double>(static_cast<float>(used) / 11000.0f * 100.0f));
        ASSERT_EQ(shown(used, 11000), expected);
    }
    EXPECT_EQ(shown(100, 1600), "6.2"); // 6.25 and 18.75: a tie goes to the even digit
    EXPECT_EQ(shown(300, 1600), "18.8");
    EXPECT_EQ(shown(7, 0), "0.0");
}

TEST_F(stats, json_needs_1024_bytes)
{
    char text[1024] = "untouched";
    EXPECT_EQ(mqtt_stats_to_json(text, 1023), -1);
    EXPECT_EQ(mqtt_stats_to_json(text, 0), -1);
    EXPECT_EQ(mqtt_stats_to_json(text, -1), -1);
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(mqtt_stats_to_json(nullptr, 4096), -1);
}

TEST(stats_threads, lose_no_count)
{
    LogCapture               log(AGENT_LOG_FATAL);
    std::atomic<int>         ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&ready] {
            for (++ready; ready < 4;)
                std::this_thread::yield();
            for (int i = 0; i < 100000; ++i) {
                mqtt_stats_inc_rx_pkt();
                mqtt_stats_inc_qos(1);
            }
        });
    char text[1024];
    for (int i = 0; i < 50; ++i) {
        mqtt_stats_to_json(text, sizeof text);
        mqtt_stats_print();
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(g_mqtt_stats.pkt_rx, 400000u);
    EXPECT_EQ(g_mqtt_stats.period_rx, 400000u);
    EXPECT_EQ(g_mqtt_stats.qos1, 400000u);
}
