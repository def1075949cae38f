#include "broker/line_writer.h"
#include "support/files.h"
#include "support/timing.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace tarn::broker;
using namespace tarn::test;

namespace {

std::string tell_lost(uint64_t count)
{
    return "lost " + std::to_string(count);
}

std::string read_rest(int fd)
{
    std::string text;
    char        bytes[65536];
    for (ssize_t count; (count = read(fd, bytes, sizeof bytes)) > 0;)
        text.append(bytes, static_cast<size_t>(count));
    return text;
}

// x0, x1 ... as far as `written`: some are missing, and each gap is told where it is.
void expect_gaps_told(const std::string &text, size_t written)
{
    std::istringstream lines(text);
    size_t             next = 0, gaps = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("lost ")) {
            next += std::stoul(line.substr(5));
            ++gaps;
        } else {
            ASSERT_EQ(line, "x" + std::to_string(next++));
        }
    }
    EXPECT_EQ(next, written);
    EXPECT_GT(gaps, 0u);
}

struct Pipe { // of the smallest size
    Pipe()
    {
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        EXPECT_GT(fcntl(ends[1], F_SETPIPE_SZ, 4096), 0);
    }
    int ends[2];
};

} // namespace

TEST(line_writer, writes_in_order_and_ends_with_all_of_it)
{
    {
        LineWriter writer(open_for_lines("out"), tell_lost);
        for (int i = 0; i < 3; ++i)
            writer.write("line " + std::to_string(i));
    }
    EXPECT_EQ(file_text("out"), "line 0\nline 1\nline 2\n");
    struct stat file {};
    ASSERT_EQ(stat("out", &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0600u);
    {
        LineWriter(open_for_lines("out"), tell_lost).write("more");
    }
    EXPECT_EQ(file_text("out"), "line 0\nline 1\nline 2\nmore\n") << "it is appended to";
}

TEST(line_writer, a_line_goes_out_while_nothing_follows)
{
    Pipe       pipe;
    LineWriter writer(pipe.ends[1], tell_lost);
    writer.write("now");
    char bytes[5] = "";
    EXPECT_EQ(read(pipe.ends[0], bytes, 4), 4);
    EXPECT_STREQ(bytes, "now\n");
}

// Nobody reads at first: writing never waits, and what finds no room is counted where it would have stood.
TEST(line_writer, a_slow_reader_loses_lines_and_is_told_how_many)
{
    constexpr size_t    kWritten = 3 * LineWriter::kCapacity;
    Pipe                pipe;
    std::string         got;
    std::atomic<size_t> lines = 0;
    std::thread         reader;
    {
        LineWriter writer(pipe.ends[1], tell_lost);
        for (size_t i = 0; i < kWritten; ++i)
            writer.write("x" + std::to_string(i));
        reader = std::thread([&] {
            char bytes[4096];
            for (ssize_t count; (count = read(pipe.ends[0], bytes, sizeof bytes)) > 0;) {
                got.append(bytes, static_cast<size_t>(count));
                lines += static_cast<size_t>(std::count(bytes, bytes + count, '\n'));
            }
        });
        EXPECT_TRUE(wait_until([&] { return lines >= LineWriter::kCapacity; }));
        writer.write("after");
    }
    reader.join();

    ASSERT_TRUE(got.ends_with("\nafter\n")) << got.substr(got.size() - 40);
    expect_gaps_told(got.substr(0, got.size() - 6), kWritten);
}

TEST(line_writer, the_end_tells_what_was_lost_last)
{
    constexpr size_t kWritten = 3 * LineWriter::kCapacity;
    Pipe             pipe;
    std::string      got;
    std::thread      reader;
    {
        LineWriter writer(pipe.ends[1], tell_lost);
        for (size_t i = 0; i < kWritten; ++i)
            writer.write("x" + std::to_string(i));
        reader = std::thread([&] { got = read_rest(pipe.ends[0]); });
    }
    reader.join();
    expect_gaps_told(got, kWritten);
}

TEST(line_writer, the_end_waits_only_so_long_for_a_reader)
{
    Pipe pipe;
    int  pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    for (const int fd : {open_for_lines(pipe.ends[1]), pair[1]}) {
        double begun_s;
        {
            LineWriter writer(fd, tell_lost);
            for (size_t i = 0; i < LineWriter::kCapacity; ++i)
                writer.write(std::string(1000, 'x'));
            begun_s = now_s();
        }
        EXPECT_GT(now_s() - begun_s, 0.9 * LineWriter::kEndLimit_ms / 1000);
        EXPECT_LT(now_s() - begun_s, kLimit_ms / 1000.0);
    }
}

// A pipe that is as others left it: a write of more than it has room for would wait.
TEST(line_writer, a_long_line_holds_up_the_end_no_longer_than_a_short_one)
{
    Pipe   pipe;
    double begun_s;
    {
        LineWriter writer(pipe.ends[1], tell_lost, LineWriter::Shared);
        writer.write(std::string(20'000, 'x'));
        pause_ms(50);
        begun_s = now_s();
    }
    EXPECT_LT(now_s() - begun_s, kLimit_ms / 1000.0);
    char bytes[4096];
    EXPECT_EQ(read(pipe.ends[0], bytes, sizeof bytes), 4096);
}

TEST(line_writer, what_waits_has_a_limit_in_bytes_too)
{
    constexpr size_t kLong = 1 << 20;
    Pipe             pipe;
    std::thread      reader;
    std::string      got;
    {
        LineWriter writer(pipe.ends[1], tell_lost);
        for (size_t i = 0; i < 2 * LineWriter::kCapacityB / kLong; ++i)
            writer.write(std::string(kLong, 'x'));
        reader = std::thread([&] { got = read_rest(pipe.ends[0]); });
    }
    reader.join();
    EXPECT_LE(got.size(), LineWriter::kCapacityB + 2 * kLong);
    EXPECT_NE(got.find("\nlost "), got.npos);
}

TEST(line_writer, a_reader_that_goes_holds_up_nothing)
{
    signal(SIGPIPE, SIG_IGN);
    Pipe pipe;
    close(pipe.ends[0]);
    const double begun_s = now_s();
    {
        LineWriter writer(pipe.ends[1], tell_lost);
        for (size_t i = 0; i < 3 * LineWriter::kCapacity; ++i)
            writer.write("x");
    }
    EXPECT_LT(now_s() - begun_s, 0.9 * LineWriter::kEndLimit_ms / 1000 * kSlowdown);
}

// A full disk takes the beginning of a line: the next one begins on a line of its own.
TEST(line_writer, a_line_that_was_torn_does_not_spoil_the_next)
{
    signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{10, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    {
        LineWriter writer(open_for_lines("torn"), tell_lost);
        writer.write("0123456789abcdef");
        EXPECT_TRUE(wait_until([] { return file_text("torn").size() == 10; }));
        pause_ms(20); // the rest is refused
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
        writer.write("next");
    }
    const std::string text = file_text("torn");
    EXPECT_EQ(text.substr(0, 11), "0123456789\n") << text;
    EXPECT_NE(text.find("\nnext\n"), text.npos) << text;
    EXPECT_NE(text.find("\nlost 1\n"), text.npos) << text;
}

TEST(line_writer, what_others_share_keeps_its_mode)
{
    Pipe      pipe;
    const int own = open_for_lines(pipe.ends[1]);
    EXPECT_NE(fcntl(own, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(pipe.ends[1], F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(write(own, "x", 1), 1);
    char byte = 0;
    EXPECT_EQ(read(pipe.ends[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
}

TEST(line_writer, a_pipe_with_a_name_needs_a_reader)
{
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    EXPECT_EQ(open_for_lines("fifo"), -1);
    EXPECT_EQ(errno, ENXIO);
}
