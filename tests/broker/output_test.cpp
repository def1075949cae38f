// What reaches standard output: whatever clients chose, a line is a line and acts on no terminal.
#include "broker/output.h"
#include "program.h"
#include "support/peer.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <gmock/gmock.h>
#include <sstream>
#include <tarn_sdk_mqtt_broker/log/agent_log.h>
#include <unistd.h>

using namespace tarn::broker;
using namespace tarn::test;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

std::vector<std::string> lines_of(std::initializer_list<std::string_view> pieces)
{
    std::vector<std::string> lines;
    PrintedLines             printed([&](std::string_view line) { lines.emplace_back(line); });
    for (const std::string_view piece : pieces)
        printed.take(piece);
    return lines;
}

} // namespace

TEST(printed_lines, plain_text_and_utf8_stay)
{
    EXPECT_THAT(lines_of({"[time] [WARN] a \\ b\n", "报文格式错误 é\n", "\n"}),
                ElementsAre("[time] [WARN] a \\ b\n", "报文格式错误 é\n", "\n"));
}

TEST(printed_lines, controls_are_escaped)
{
    EXPECT_THAT(lines_of({"\x1b[2J\a\r\t\x7f\n",
                          "\xC2\x9B"
                          "31m\n",
                          "\xE2\x80\xAE"
                          "gnp\xE2\x81\xA6\xD8\x9C\xE2\x80\x8F\n",
                          "\xC3\xFF\n"}),
                ElementsAre("\\x1b[2J\\x07\\r\\t\\x7f\n", "\\xc2\\x9b31m\n",
                            "\\xe2\\x80\\xaegnp\\xe2\\x81\\xa6\\xd8\\x9c\\xe2\\x80\\x8f\n", "\\xc3\\xff\n"));
}

TEST(printed_lines, a_newline_within_a_piece_ends_nothing)
{
    EXPECT_THAT(lines_of({"one\n[2026-01-31 23:59:59.042] [ERROR] forged\n"}),
                ElementsAre("one\\n[2026-01-31 23:59:59.042] [ERROR] forged\n"));
    EXPECT_THAT(lines_of({"one\n\n", "two\n"}), ElementsAre("one\\n\n", "two\n"));
}

TEST(printed_lines, a_line_may_come_in_pieces)
{
    EXPECT_THAT(lines_of({"{\"online\"", ":1}", "\n", "x\n"}), ElementsAre("{\"online\":1}\n", "x\n"));
    const std::string half(PrintedLines::kLineMax / 2, 'x');
    EXPECT_THAT(lines_of({half, half, "y\n"}), ElementsAre(half + half + '\n', "y\n"));
}

// Wherever the newline lies: a C library may hand on what one printf prints in pieces of 128 bytes.
TEST(printed_lines, a_line_of_the_library_is_one_piece)
{
    ASSERT_TRUE(freopen("printed", "w", stdout));
    escape_standard_output();
    agent_log_set_level(AGENT_LOG_INFO);
    constexpr size_t kFrom = 60, kTo = 300;
    for (size_t length = kFrom; length < kTo; ++length)
        agent_log(AGENT_LOG_INFO, "%s\n[2026-01-31 23:59:59.042] [ERROR] forged", std::string(length, 'x').c_str());
    puts("{\"online\":1}");
    log_warning("login \x1b refused");
    std::istringstream printed(file_text("printed"));
    std::string        line;
    for (size_t length = kFrom; length < kTo; ++length) {
        ASSERT_TRUE(std::getline(printed, line));
        ASSERT_THAT(line,
                    EndsWith("[INFO] " + std::string(length, 'x') + "\\n[2026-01-31 23:59:59.042] [ERROR] forged"));
    }
    ASSERT_TRUE(std::getline(printed, line));
    EXPECT_EQ(line, "{\"online\":1}");
    ASSERT_TRUE(std::getline(printed, line));
    EXPECT_THAT(line, EndsWith("[WARN] login \\x1b refused"));
}

TEST(output, the_librarys_log_lets_nothing_hostile_out)
{
    Child broker = run({"--log-level", "debug"});
    ASSERT_TRUE(serves(broker)) << broker.errors();
    const std::string id    = "a\n[2030-01-01 00:00:00.000] [ERROR] x\x1b[2J";
    const std::string topic = "t/\x1b]0;title\a\xC2\x9B"
                              "31m\xE2\x80\xAE\xFF\r\n\v";
    Peer              peer  = Peer::tcp();
    peer.connect_v5(id).subscribe(topic);
    peer.publish(topic, "x\x1b[31m\n[2030-01-01 00:00:00.000] [ERROR] y");
    peer.ping();
    peer.disconnect();
    ASSERT_TRUE(ends_well(broker));

    const std::string log = broker.output();
    EXPECT_THAT(log, HasSubstr("a\\n[2030-01-01 00:00:00.000] [ERROR] x\\x1b[2J"));
    EXPECT_THAT(log, HasSubstr("t/\\x1b]0;title\\x07\\xc2\\x9b31m\\xe2\\x80\\xae\\xff\\r\\n\\x0b"));
    EXPECT_TRUE(std::none_of(log.begin(), log.end(),
                             [](char c) { return (static_cast<unsigned char>(c) < ' ' && c != '\n') || c == '\x7f'; }));
    EXPECT_EQ(log.find('\xFF'), log.npos);
    EXPECT_EQ(log.find("\xC2\x9B"), log.npos);
    EXPECT_EQ(log.find("\xE2\x80\xAE"), log.npos);
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(line.starts_with("[20")) << line;
        EXPECT_FALSE(line.starts_with("[2030")) << line;
    }
}
