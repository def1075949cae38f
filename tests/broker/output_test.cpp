// What reaches standard output: whatever clients chose, a line is a line and acts on no terminal.
#include "broker/output.h"
#include "program.h"
#include "support/peer.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sstream>
#include <sys/stat.h>
#include <tarn_sdk_mqtt_broker/log/agent_log.h>
#include <thread>
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
    PrintedLines             printed([](std::string_view) { return true; },
                         [&](std::string_view line) { lines.emplace_back(line); });
    for (const std::string_view piece : pieces)
        printed.take(piece);
    return lines;
}

} // namespace

TEST(printed_lines, plain_text_and_utf8_stay)
{
    EXPECT_THAT(lines_of({"[time] [WARN] a \\ b\n", "报文格式错误 é\n", "\n"}),
                ElementsAre("[time] [WARN] a \\ b", "报文格式错误 é", ""));
}

TEST(printed_lines, controls_are_escaped)
{
    EXPECT_THAT(lines_of({"\x1b[2J\a\r\t\x7f\n",
                          "\xC2\x9B"
                          "31m\n",
                          "\xE2\x80\xAE"
                          "gnp\xE2\x81\xA6\xD8\x9C\xE2\x80\x8F\n",
                          "\xC3\xFF\n"}),
                ElementsAre("\\x1b[2J\\x07\\r\\t\\x7f", "\\xc2\\x9b31m",
                            "\\xe2\\x80\\xaegnp\\xe2\\x81\\xa6\\xd8\\x9c\\xe2\\x80\\x8f", "\\xc3\\xff"));
}

TEST(printed_lines, a_newline_within_a_piece_ends_nothing)
{
    EXPECT_THAT(lines_of({"one\n[2026-01-31 23:59:59.042] [ERROR] forged\n"}),
                ElementsAre("one\\n[2026-01-31 23:59:59.042] [ERROR] forged"));
    EXPECT_THAT(lines_of({"one\n\n", "two\n"}), ElementsAre("one\\n", "two"));
}

TEST(printed_lines, a_line_may_come_in_pieces)
{
    EXPECT_THAT(lines_of({"{\"online\"", ":1}", "\n", "x\n"}), ElementsAre("{\"online\":1}", "x"));
    const std::string half(PrintedLines::kLineMax / 2, 'x');
    EXPECT_THAT(lines_of({half, half, "y\n"}), ElementsAre(half + half, "y"));
}

// Wherever the newline lies: a C library may hand on what one printf prints in pieces of 128 bytes.
TEST(printed_lines, a_line_of_the_library_is_one_piece)
{
    const int before = dup(STDOUT_FILENO);
    ASSERT_TRUE(freopen("printed", "w", stdout));
    constexpr size_t kFrom = 60, kTo = 300;
    {
        Output output(0);
        agent_log_set_level(AGENT_LOG_INFO);
        for (size_t length = kFrom; length < kTo; ++length)
            agent_log(AGENT_LOG_INFO, "%s\n[2026-01-31 23:59:59.042] [ERROR] forged", std::string(length, 'x').c_str());
        puts("{\"online\":1}");
        log_warning("login \x1b refused");
    }
    dup2(before, STDOUT_FILENO);
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

// The same packet again and again, with the line that it causes each time.
void flood(Peer &peer, int times)
{
    Bytes burst;
    for (int i = 0; i < 1000; ++i)
        burst.insert(burst.end(), {0x30, 0x00});
    for (int i = 0; i < times; ++i)
        peer.send(burst);
    peer.ping();
}

TEST(output, lines_that_begin_alike_are_counted_beyond_the_limit)
{
    Child broker = run({"--log-level", "warn", "--log-limit", "5"});
    ASSERT_TRUE(serves(broker)) << broker.errors();
    Peer peer = Peer::tcp();
    peer.connect_v4("a");
    flood(peer, 10);
    EXPECT_TRUE(prints(broker, " more lines in one second that begin: [ERROR] ")) << tail(broker.output());
    EXPECT_TRUE(ends_well(broker));
    EXPECT_LT(broker.output().size(), 100'000u); // of several MB
}

TEST(output, the_limit_can_be_switched_off)
{
    Child broker = run({"--log-level", "warn", "--log-limit", "0"});
    ASSERT_TRUE(serves(broker)) << broker.errors();
    Peer peer = Peer::tcp();
    peer.connect_v4("a");
    flood(peer, 1);
    EXPECT_TRUE(ends_well(broker));
    EXPECT_EQ(broker.output().find(" more lines "), std::string::npos);
    const std::string log = broker.output();
    EXPECT_GE(std::count(log.begin(), log.end(), '\n'), 1000);
}

// Standard output and standard error are one pipe that nobody reads.
TEST(output, a_reader_that_sleeps_holds_up_neither_clients_nor_the_end)
{
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    const int reader = open("fifo", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    Child     broker("broker",
                     {"sh", "-c", "exec \"$0\" --control ctl -l debug --log-limit 0 >fifo 2>&1", TARN_BROKER_PROGRAM});
    EXPECT_TRUE(wait_until([] { // it answers once it serves
        return result_of({"console", {TARN_BROKER_PROGRAM, "ctl", "ctl", "stats"}}).status == 0;
    }));
    Peer peer = Peer::tcp();
    peer.connect_v4("a");
    flood(peer, 2); // at this level some ten lines a packet
    Peer::tcp().connect_v4("b").ping();
    const double begun_s = now_s();
    broker.signal(SIGTERM);
    EXPECT_EQ(broker.wait(5000 * kSlowdown), 0);
    EXPECT_LT(now_s() - begun_s, 5.0 * kSlowdown);
    close(reader);
}

// The reader sleeps, wakes up and is told what it missed; then it is told everything.
TEST(output, what_a_slow_reader_missed_is_told_where_it_is_missing)
{
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    const int reader = open("fifo", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    Child     broker("broker", {"sh", "-c", "exec \"$0\" --log-level warn --log-limit 0 >fifo", TARN_BROKER_PROGRAM});
    ASSERT_TRUE(serves(broker)) << broker.errors();
    Peer peer = Peer::tcp();
    peer.connect_v4("a");
    flood(peer, 40);
    std::string       got;
    std::atomic<bool> enough = false;
    std::thread       reading([&] {
        char bytes[65536];
        while (!enough) {
            const ssize_t count = read(reader, bytes, sizeof bytes);
            if (count > 0)
                got.append(bytes, static_cast<size_t>(count));
            else
                pause_ms(1);
        }
    });
    pause_ms(500); // for what waits to be read
    flood(peer, 1);
    EXPECT_TRUE(ends_well(broker));
    enough = true;
    reading.join();
    for (ssize_t count; (count = read(reader, got.data(), 1)) > 0;) {}
    EXPECT_NE(got.find(" lines are missing here: the log was not read as fast as it came\n"), got.npos) << tail(got, 3);
    std::istringstream lines(got);
    for (std::string line; std::getline(lines, line) && !lines.eof();)
        ASSERT_TRUE(line.starts_with("[20")) << line;
    close(reader);
}

TEST(output, the_last_lines_come_also_when_it_cannot_serve)
{
    ASSERT_EQ(mkdir("ctl", 0700), 0);
    Child broker = run({"--control", "ctl"});
    EXPECT_EQ(broker.wait(kLimit_ms), 1);
    EXPECT_EQ(broker.errors(), "tarn-broker: --control ctl: there is something that is no socket\n");
}
