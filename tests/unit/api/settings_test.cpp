#include "log/agent_log.h"
#include "support/log_capture.h"
#include "support/log_lines/api.h"
#include "tarn_sdk_mqtt_broker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(error_str, every_code)
{
    EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(0), "OK");
    EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(-1), "Init failed");
    EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(-2), "Invalid parameter");
    EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(-3), "Resource error");
    EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(-4), "Not running");
    EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(-5), "Not found");
    EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(-6), "Denied");
    EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(-7), "Busy (already running)");
    EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(-8), "Timeout");
    for (const int32_t code : {1, -9, INT32_MAX, INT32_MIN})
        EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(code), "Unknown error") << code;
}

TEST(version, is_constant)
{
    EXPECT_STREQ(tarn_sdk_mqtt_broker_version(), "V2.0.0");
}

TEST(keepalive_timeout, is_1_to_3600_seconds)
{
    broker_t   broker{};
    LogCapture log;
    for (const int32_t bad : {0, -1, 3601, INT32_MIN, INT32_MAX})
        EXPECT_EQ(tarn_sdk_mqtt_broker_set_keepalive_timeout(&broker, bad), TARN_E_PARAM) << bad;
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ(broker.keepalive_timeout, 0);

    EXPECT_EQ(tarn_sdk_mqtt_broker_set_keepalive_timeout(&broker, 1), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_keepalive_timeout(&broker, 3600), TARN_OK);
    EXPECT_EQ(broker.keepalive_timeout, 3600);
    EXPECT_THAT(log.take(), ElementsAre(logged::keepalive_timeout_set(1), logged::keepalive_timeout_set(3600)));
}

TEST(keepalive_timeout, is_refused_while_running)
{
    broker_t broker{};
    broker.running           = 1;
    broker.keepalive_timeout = 300;
    LogCapture log;
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_keepalive_timeout(&broker, 0), TARN_E_BUSY);
    EXPECT_EQ(broker.keepalive_timeout, 300);
    EXPECT_THAT(log.take(), ElementsAre(error("[SDK] set_keepalive_timeout failed: broker is already running")));
}

TEST(max_packet_size, is_256_to_10485760_bytes)
{
    broker_t   broker{};
    LogCapture log;
    for (const int32_t bad : {255, 0, -1, 10485761, INT32_MAX})
        EXPECT_EQ(tarn_sdk_mqtt_broker_set_max_packet_size(&broker, bad), TARN_E_PARAM) << bad;
    EXPECT_EQ(broker.max_packet_size, 0);
    for (const int32_t good : {256, 10485760}) {
        EXPECT_EQ(tarn_sdk_mqtt_broker_set_max_packet_size(&broker, good), TARN_OK);
        EXPECT_EQ(broker.max_packet_size, good);
    }
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(max_packet_size, is_refused_while_running)
{
    broker_t broker{};
    broker.running         = 1;
    broker.max_packet_size = 4096;
    LogCapture log;
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_max_packet_size(&broker, 255), TARN_E_BUSY);
    EXPECT_EQ(broker.max_packet_size, 4096);
    EXPECT_THAT(log.take(), ElementsAre(error("[SDK] set_max_packet_size failed: broker is already running")));
}

TEST(log_level, is_set_with_and_without_an_instance)
{
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_log_level(nullptr, AGENT_LOG_FATAL), 0);
    EXPECT_EQ(g_log_config.level, static_cast<uint32_t>(AGENT_LOG_FATAL));
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_log_level(nullptr, 5), 0);
    EXPECT_EQ(g_log_config.level, static_cast<uint32_t>(AGENT_LOG_FATAL));
}

TEST(null_instance, is_refused_with_one_line_by_every_call)
{
    const LogLine               line = error("[SDK] invalid broker handle");
    tarn_sdk_mqtt_client_info_t about{};
    LogCapture                  log;
    EXPECT_EQ(tarn_sdk_mqtt_broker_init(nullptr), TARN_E_PARAM);
    EXPECT_EQ(tarn_sdk_mqtt_broker_start(nullptr, 1883, 10), TARN_E_PARAM);
    EXPECT_EQ(tarn_sdk_mqtt_broker_stop(nullptr), TARN_E_PARAM);
    tarn_sdk_mqtt_broker_deinit(nullptr);
    EXPECT_FALSE(tarn_sdk_mqtt_broker_is_running(nullptr));
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_keepalive_timeout(nullptr, 10), TARN_E_PARAM);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_max_packet_size(nullptr, 1000), TARN_E_PARAM);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_info(nullptr, "a", &about), TARN_E_PARAM);
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(nullptr, "a"), TARN_E_PARAM);
    EXPECT_THAT(log.take(), ElementsAre(line, line, line, line, line, line, line, line, line));

    tarn_sdk_mqtt_broker_destroy(nullptr);
    tarn_sdk_mqtt_broker_register_event_callback(nullptr, nullptr);
    tarn_sdk_mqtt_broker_register_auth_callback(nullptr, nullptr);
    tarn_sdk_mqtt_broker_register_acl_callback(nullptr, nullptr);
    EXPECT_THAT(log.take(), IsEmpty());
}
