#include "calls.h"
#include "log/agent_log.h"
#include "support/log_lines/codec.h"

#include <gtest/gtest.h>
#include <thread>

using namespace tarn::test;

TEST(codec_context, init_sets_level_4_and_clears_the_rest)
{
    mqtt_codec_ctx_t ctx;
    memset(&ctx, 0xEE, sizeof ctx);
    LogCapture log;
    EXPECT_EQ(mqtt_codec_ctx_init(&ctx), 0);
    EXPECT_EQ(log.take(), Log{logged::codec_context_ready()});

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

// The dispatcher, the retransmission scan and a host's publish use one context from their own threads. Only the thread
// sanitizer sees the difference.
TEST(codec_context, threads_may_share_a_context)
{
    mqtt_codec_ctx_t ctx;
    LogCapture       log(AGENT_LOG_FATAL);
    mqtt_codec_ctx_init(&ctx);
    std::thread               reader([&] {
        const Bytes         bytes = wire("10 0F | 00 04 'MQTT' 05 02 00 3C 00 | 00 02 'id'");
        mqtt_connect_para_t para;
        for (int i = 0; i < 1000; ++i) {
            int length = static_cast<int>(bytes.size());
            EXPECT_EQ(mqtt_codec_decode_connect(&ctx, bytes.data(), &length, &para), 0);
        }
    });
    const mqtt_connack_para_t connack{};
    const Bytes               disconnect = wire("E0 02 00 00");
    for (int i = 0; i < 1000; ++i) {
        uint8_t                buf[128];
        int                    capacity = 128, length = 4;
        mqtt_disconnect_para_t para;
        EXPECT_EQ(mqtt_codec_encode_connack(&ctx, &connack, buf, &capacity), 0);
        (void)mqtt_codec_decode_disconnect(&ctx, disconnect.data(), &length, &para);
    }
    reader.join();
    EXPECT_EQ(ctx.version, 5u);
}
