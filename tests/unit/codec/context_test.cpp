#include "calls.h"
#include "log/agent_log.h"

#include <gtest/gtest.h>

using namespace tarn::test;

TEST(codec_context, init_sets_level_4_and_clears_the_rest)
{
    mqtt_codec_ctx_t ctx;
    memset(&ctx, 0xEE, sizeof ctx);
    LogCapture log;
    EXPECT_EQ(mqtt_codec_ctx_init(&ctx), 0);
    EXPECT_EQ(log.take(), Log{debug("mqtt_codec_ctx_init: success")});

    const mqtt_codec_ctx_t expected = {4, 0, 0, {}};
    EXPECT_EQ(memcmp(&ctx, &expected, sizeof ctx), 0);
}

TEST(codec_context, init_without_a_context)
{
    LogCapture log;
    EXPECT_EQ(mqtt_codec_ctx_init(nullptr), -1);
    EXPECT_EQ(log.take(), Log{error("mqtt_codec_ctx_init: ctx is NULL")});
}

TEST(codec_context, a_refusal_is_silent_above_its_level)
{
    LogCapture log(AGENT_LOG_FATAL);
    EXPECT_EQ(mqtt_codec_ctx_init(nullptr), -1);
    EXPECT_EQ(log.take(), Log{});
}
