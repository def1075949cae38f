#include "log/log.h"

#include "console.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numeric>
#include <vector>

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<uint8_t> counting(size_t count)
{
    std::vector<uint8_t> bytes(count);
    std::iota(bytes.begin(), bytes.end(), uint8_t{0});
    return bytes;
}

constexpr char kFirstRow[] = "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F ";

} // namespace

TEST(hexdump, prints_title_and_rows_of_sixteen)
{
    LogCapture log;
    agent_log_hexdump("pkt", counting(17).data(), 17);
    EXPECT_THAT(log.take(), ElementsAre(debug("pkt"), debug(kFirstRow), debug("10 ")));
}

TEST(hexdump, prints_no_empty_row_after_a_full_one)
{
    LogCapture log;
    agent_log_hexdump("pkt", counting(16).data(), 16);
    EXPECT_THAT(log.take(), ElementsAre(debug("pkt"), debug(kFirstRow)));
    agent_log_hexdump("pkt", counting(15).data(), 15);
    EXPECT_THAT(log.take(), ElementsAre(debug("pkt"), debug("00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E ")));
}

TEST(hexdump, prints_high_bytes_in_upper_case)
{
    const uint8_t bytes[] = {0xFF, 0x7F, 0xA0};
    LogCapture    log;
    agent_log_hexdump("t", bytes, 3);
    EXPECT_THAT(log.take(), ElementsAre(debug("t"), debug("FF 7F A0 ")));
}

TEST(hexdump, without_a_title_prints_the_rows)
{
    LogCapture log;
    agent_log_hexdump(nullptr, counting(1).data(), 1);
    EXPECT_THAT(log.take(), ElementsAre(debug("00 ")));
}

TEST(hexdump, without_bytes_prints_nothing)
{
    LogCapture log;
    agent_log_hexdump("pkt", counting(1).data(), 0);
    agent_log_hexdump("pkt", nullptr, 0);
    agent_log_hexdump("pkt", nullptr, 5);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(hexdump, prints_the_largest_packet)
{
    LogCapture log;
    agent_log_hexdump("pkt", counting(65535).data(), 65535);
    const std::vector<LogLine> lines = log.take();
    ASSERT_EQ(lines.size(), 1u + 4096u);
    EXPECT_EQ(lines.back().text.size(), 15u * 3u);
}

TEST(hexdump, is_subject_to_the_level)
{
    LogCapture log(AGENT_LOG_INFO);
    agent_log_hexdump("pkt", counting(1).data(), 1);
    LOG_HEXDUMP("pkt", counting(1).data(), 1);
    EXPECT_THAT(log.take(), IsEmpty());
    agent_log_set_level(0);
    LOG_HEXDUMP("pkt", counting(1).data(), 1);
    EXPECT_THAT(log.take(), ElementsAre(debug("pkt"), debug("00 ")));
}

TEST(hexdump, rows_are_lines_of_their_own)
{
    // The level rises behind the title: the rows are filtered, each by itself.
    Console console([] { g_log_config.level = AGENT_LOG_INFO; });
    agent_log_hexdump("pkt", counting(40).data(), 40);
    EXPECT_THAT(console.text, testing::EndsWith("] [DEBUG] pkt\n"));
}

TEST(hexdump, title_is_no_format)
{
    LogCapture log;
    agent_log_hexdump("%s%n", counting(1).data(), 1);
    EXPECT_THAT(log.take(), ElementsAre(debug("%s%n"), debug("00 ")));
}
