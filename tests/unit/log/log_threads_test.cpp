// Run under ThreadSanitizer: every entry of the logger at once, with lines that do reach the file.
#include "log/log.h"

#include "support/log_capture.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

using namespace tarn::test;

TEST(log_threads, print_whole_lines_or_none)
{
    LogCapture               log;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 2000; ++i)
                agent_log(AGENT_LOG_INFO, "thread %d", t);
        });
    for (std::thread &thread : threads)
        thread.join();
    const std::vector<LogLine> lines = log.lines();
    EXPECT_GT(lines.size(), 0u);
    EXPECT_LE(lines.size(), 8000u);
    for (const LogLine &line : lines) {
        EXPECT_EQ(line.level, "INFO");
        ASSERT_EQ(line.text.size(), sizeof "thread 0" - 1) << line.text;
    }
    EXPECT_EQ(tarn::peek(g_log_in_use), 0u);
}

TEST(log_threads, survive_init_deinit_and_clear_at_any_moment)
{
    LogCapture               log;
    std::atomic<bool>        stop{false};
    std::thread              meddler([&] {
        const agent_log_config_t both = {AGENT_LOG_DEBUG, 3, 200, 256, "a.log"};
        for (int i = 0; i < 1500; ++i) {
            agent_log_init(&both);
            agent_log_set_level(static_cast<uint32_t>(i) & 1);
            if (i % 3 == 0)
                agent_log_deinit();
        }
        stop = true;
    });
    std::thread              clearer([&] {
        while (!stop)
            (void)agent_log_clear_flash();
    });
    const uint8_t            bytes[20] = {};
    std::vector<std::thread> writers;
    for (int t = 0; t < 2; ++t)
        writers.emplace_back([&] {
            while (!stop) {
                LOG_INFO("line");
                agent_log_hexdump("dump", bytes, sizeof bytes);
                agent_log_printf("printed");
            }
        });
    meddler.join();
    clearer.join();
    for (std::thread &writer : writers)
        writer.join();

    agent_log_deinit();
    EXPECT_EQ(tarn::peek(g_log_in_use), 1u); // none of the writers revived it
}
