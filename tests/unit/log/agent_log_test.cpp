#include "log/log.h"

#include "console.h"
#include "support/faults.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

agent_log_config_t console_at(uint32_t level)
{
    return {level, AGENT_LOG_TO_CONSOLE, 0, 256, nullptr};
}

} // namespace

TEST(agent_log, works_from_load_time_at_debug_on_the_console)
{
    EXPECT_EQ(g_log_config.level, 0u);
    EXPECT_EQ(g_log_config.output, 1u);
    EXPECT_EQ(g_log_config.max_file_size, 1048576u);
    EXPECT_EQ(g_log_config.reserved_size, 256);
    EXPECT_EQ(g_log_in_use, 0u);
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_EQ(g_log_file_path, nullptr);
    Console console;
    agent_log(AGENT_LOG_DEBUG, "early");
    EXPECT_THAT(console.text, testing::EndsWith("] [DEBUG] early\n"));
}

TEST(agent_log, prints_time_level_and_message)
{
    setenv("TZ", "UTC", 1);
    tzset();
    ManualClock clock;
    clock.advance_wall_ms(42);
    LogCapture log(AGENT_LOG_WARN);
    agent_log(AGENT_LOG_ERROR, "text %d", 7);
    EXPECT_EQ(log.raw(), "[2027-01-15 08:00:00.042] [ERROR] text 7\n");
}

TEST(agent_log, names_every_level)
{
    LogCapture log;
    for (uint32_t level = 0; level < 6; ++level)
        agent_log(level, "x");
    agent_log(0xFFFFFFFF, "x");
    EXPECT_THAT(log.take(), ElementsAre(debug("x"), info("x"), warn("x"), error("x"), fatal("x"),
                                        LogLine{"UNKNOWN", "x"}, LogLine{"UNKNOWN", "x"}));
}

TEST(agent_log, prints_nothing_below_its_level)
{
    LogCapture log(AGENT_LOG_WARN);
    agent_log(AGENT_LOG_DEBUG, "text");
    agent_log(AGENT_LOG_INFO, "text");
    EXPECT_THAT(log.take(), IsEmpty());
    agent_log(AGENT_LOG_WARN, "text");
    EXPECT_THAT(log.take(), ElementsAre(warn("text")));
}

TEST(agent_log, lets_unknown_levels_through_at_any_level)
{
    LogCapture log(AGENT_LOG_FATAL);
    agent_log(7, "x");
    EXPECT_THAT(log.take(), ElementsAre(LogLine{"UNKNOWN", "x"}));
}

TEST(agent_log, ignores_a_missing_format)
{
    const char *missing = nullptr;
    LogCapture  log;
    agent_log(AGENT_LOG_FATAL, missing, 0);
    agent_log_printf(missing, 0);
    EXPECT_EQ(log.raw(), "");
    EXPECT_EQ(g_log_in_use, 0u);
}

TEST(agent_log, cuts_a_message_to_1022_characters)
{
    for (const size_t length : {1021u, 1022u, 1023u, 2000u}) {
        LogCapture log;
        agent_log(AGENT_LOG_INFO, "%s", std::string(length, 'm').c_str());
        EXPECT_THAT(log.take(), ElementsAre(info(std::string(std::min<size_t>(length, 1022), 'm')))) << length;
    }
}

TEST(agent_log, prints_nothing_unless_the_console_is_an_output)
{
    LogCapture log;
    g_log_config.output = 0xFFFFFFFC;
    agent_log(AGENT_LOG_ERROR, "text");
    g_log_config.output = 0xFFFFFFFD;
    agent_log(AGENT_LOG_ERROR, "seen");
    EXPECT_THAT(log.take(), ElementsAre(error("seen")));
}

TEST(agent_log, drops_a_line_while_the_flag_is_taken)
{
    LogCapture log;
    g_log_in_use = 1;
    agent_log(AGENT_LOG_ERROR, "lost");
    EXPECT_EQ(log.raw(), "");
    EXPECT_EQ(g_log_in_use, 1u);
    g_log_in_use = 0;
    agent_log(AGENT_LOG_ERROR, "seen");
    EXPECT_EQ(g_log_in_use, 0u);
    EXPECT_THAT(log.take(), ElementsAre(error("seen")));
}

TEST(agent_log, holds_the_flag_while_it_prints)
{
    uint32_t seen = 0;
    Console  console([&] { seen = g_log_in_use; });
    agent_log(AGENT_LOG_ERROR, "text");
    EXPECT_EQ(seen, 1u);
}

TEST(agent_log, is_silent_from_deinit_to_init)
{
    LogCapture log;
    agent_log_deinit();
    EXPECT_EQ(g_log_in_use, 1u);
    agent_log(AGENT_LOG_FATAL, "lost");
    EXPECT_EQ(log.raw(), "");
    agent_log_init(nullptr);
    EXPECT_EQ(g_log_in_use, 0u);
    agent_log(AGENT_LOG_FATAL, "seen");
    EXPECT_THAT(log.take(), ElementsAre(fatal("seen")));
}

TEST(agent_log, stays_shut_when_deinit_comes_while_a_line_is_printed)
{
    Console console([] { agent_log_deinit(); });
    agent_log(AGENT_LOG_ERROR, "last");
    EXPECT_EQ(g_log_in_use, 1u);
    agent_log(AGENT_LOG_ERROR, "lost");
    EXPECT_THAT(console.text, testing::EndsWith("] [ERROR] last\n"));
}

TEST(agent_log, stays_open_when_deinit_and_init_come_while_a_line_is_printed)
{
    Console console([] {
        agent_log_deinit();
        agent_log_init(nullptr);
    });
    agent_log(AGENT_LOG_ERROR, "text");
    EXPECT_EQ(g_log_in_use, 0u);
}

TEST(agent_log_init, without_a_configuration_only_frees_the_flag)
{
    g_log_in_use        = 1;
    g_log_config.level  = 3;
    g_log_config.output = 2;
    agent_log_init(nullptr);
    EXPECT_EQ(g_log_in_use, 0u);
    EXPECT_EQ(g_log_config.level, 3u);
    EXPECT_EQ(g_log_config.output, 2u);
    EXPECT_EQ(g_log_file_path, nullptr);
}

TEST(agent_log_init, takes_level_and_output_as_they_are)
{
    const agent_log_config_t config = {77, 5, 4711, 1, nullptr};
    agent_log_init(&config);
    EXPECT_EQ(g_log_config.level, 77u);
    EXPECT_EQ(g_log_config.output, 5u);
    EXPECT_EQ(g_log_config.max_file_size, 4711u);
    EXPECT_EQ(g_log_config.reserved_size, 1);
    EXPECT_EQ(g_log_config.file_path, nullptr);
}

TEST(agent_log_init, replaces_a_size_limit_of_0)
{
    agent_log_config_t config = console_at(0);
    config.max_file_size      = 1;
    agent_log_init(&config);
    EXPECT_EQ(g_log_config.max_file_size, 1u);
    config.max_file_size = 0;
    agent_log_init(&config);
    EXPECT_EQ(g_log_config.max_file_size, 1048576u);
}

TEST(agent_log_init, clamps_the_reserved_size)
{
    const struct {
        uint16_t given, kept;
    } rows[] = {{0, 256}, {1, 1}, {2, 2}, {1023, 1023}, {1024, 1024}, {1025, 256}, {2000, 256}, {65535, 256}};
    for (const auto &row : rows) {
        agent_log_config_t config = console_at(0);
        config.reserved_size      = row.given;
        agent_log_init(&config);
        EXPECT_EQ(g_log_config.reserved_size, row.kept) << row.given;
    }
}

TEST(agent_log_set_level, takes_0_to_4_only)
{
    for (uint32_t level = 0; level <= 4; ++level) {
        agent_log_set_level(level);
        EXPECT_EQ(g_log_config.level, level);
    }
    LogCapture log(AGENT_LOG_DEBUG);
    agent_log_set_level(5);
    agent_log_set_level(0xFFFFFFFF);
    EXPECT_EQ(g_log_config.level, 0u);
    EXPECT_EQ(log.raw(), "");
}

TEST(agent_log_printf, logs_at_info_and_cuts_at_255_characters)
{
    for (const size_t length : {254u, 255u, 256u, 2000u}) {
        LogCapture log;
        agent_log_printf("%s", std::string(length, 'p').c_str());
        EXPECT_THAT(log.take(), ElementsAre(info(std::string(std::min<size_t>(length, 255), 'p')))) << length;
    }
    LogCapture log(AGENT_LOG_WARN);
    agent_log_printf("%s", "filtered");
    EXPECT_EQ(log.raw(), "");
}

TEST(agent_log_printf, does_not_read_its_text_as_a_format)
{
    LogCapture log;
    agent_log_printf("%s", "100%s %n");
    EXPECT_THAT(log.take(), ElementsAre(info("100%s %n")));
}

TEST(agent_log_get, keeps_no_lines)
{
    LogCapture log;
    agent_log(AGENT_LOG_ERROR, "text");
    EXPECT_EQ(agent_log_get_count(), 0);
    char line[8] = "";
    EXPECT_EQ(agent_log_get_entry(0, line, sizeof line), 0);
    EXPECT_EQ(agent_log_get_entry(), 0);
}

TEST(log_macros, evaluate_their_arguments_only_when_the_line_passes)
{
    LogCapture log(AGENT_LOG_ERROR);
    int        evaluated = 0;
    LOG_DEBUG("%d", ++evaluated);
    LOG_INFO("%d", ++evaluated);
    LOG_WARN("%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    LOG_ERROR("%d", ++evaluated);
    LOG_FATAL("%d", ++evaluated);
    EXPECT_THAT(log.take(), ElementsAre(error("1"), fatal("2")));
}
