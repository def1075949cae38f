#include "log/agent_log.h"

#include "base/relaxed.h"
#include "console.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/log_capture.h"
#include "support/process_state.h"

#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace tarn::test;
using testing::EndsWith;

namespace {

// This thread's last call of setvbuf, and what it shall return.
thread_local struct {
    const void *stream, *area;
    int         mode;
    size_t      size;
    int         result = 0;
} g_buffering;

constexpr char kDefaultPath[] = "tarn_flash.txt";

void start(const char *path, uint32_t max_file_size = 0, uint32_t output = 3)
{
    const agent_log_config_t config = {AGENT_LOG_DEBUG, output, max_file_size, 256, path};
    agent_log_init(&config);
}

// One line in the interleaving in which it reaches the file: the flag is cleared while the console prints.
std::string log_through(const char *text, uint32_t level = AGENT_LOG_WARN)
{
    Console console([] { tarn::shared(g_log_in_use) = 0; });
    agent_log(level, "%s", text);
    return console.text;
}

// Whether a thread of this process waits for something.
bool asleep(pid_t thread)
{
    const std::string stat = file_text("/proc/self/task/" + std::to_string(thread) + "/stat");
    return stat.substr(stat.rfind(')') + 2, 1) == "S";
}

struct log_file : testing::Test {
    log_file()
    {
        setenv("TZ", "UTC", 1);
        tzset();
    }
    ManualClock clock;
};

} // namespace

extern "C" int __real_setvbuf(FILE *stream, char *area, int mode, size_t size);
extern "C" int __wrap_setvbuf(FILE *stream, char *area, int mode, size_t size)
{
    g_buffering.stream = stream;
    g_buffering.area   = area;
    g_buffering.mode   = mode;
    g_buffering.size   = size;
    return g_buffering.result ? g_buffering.result : __real_setvbuf(stream, area, mode, size);
}

TEST_F(log_file, is_created_and_stays_empty_while_the_flag_is_held)
{
    start("a.log");
    Console console;
    agent_log(AGENT_LOG_ERROR, "text");
    EXPECT_EQ(console.text, "[2027-01-15 08:00:00.000] [ERROR] text\n");
    EXPECT_TRUE(std::filesystem::exists("a.log"));
    EXPECT_EQ(file_text("a.log"), "");
    EXPECT_EQ(g_log_in_use, 0u);
}

TEST_F(log_file, gets_the_line_when_another_thread_clears_the_flag_meanwhile)
{
    start("a.log");
    EXPECT_EQ(log_through("text"), "[2027-01-15 08:00:00.000] [WARN] text\n");
    EXPECT_EQ(file_text("a.log"), "[2027-01-15 08:00:00.000] [WARN] text\n");
    EXPECT_EQ(g_log_in_use, 0u);
    log_through("more", 9);
    EXPECT_EQ(file_text("a.log"), "[2027-01-15 08:00:00.000] [WARN] text\n[2027-01-15 08:00:00.000] [UNKNOWN] more\n");
}

TEST_F(log_file, is_appended_to_by_a_new_start)
{
    write_text("a.log", "old\n");
    start("a.log");
    log_through("new");
    EXPECT_EQ(file_text("a.log"), "old\n[2027-01-15 08:00:00.000] [WARN] new\n");
}

TEST_F(log_file, has_a_default_name)
{
    start(nullptr);
    EXPECT_TRUE(std::filesystem::exists(kDefaultPath));
    EXPECT_STREQ(g_log_file_path, kDefaultPath);
    start("other");
    start("");
    EXPECT_STREQ(g_log_file_path, kDefaultPath);
}

TEST_F(log_file, shows_the_callers_path_pointer)
{
    const std::string path = "a.log";
    start(path.c_str());
    EXPECT_EQ(g_log_file_path, path.c_str());
}

TEST_F(log_file, is_not_opened_unless_it_is_an_output)
{
    start("a.log", 0, AGENT_LOG_TO_CONSOLE);
    EXPECT_FALSE(std::filesystem::exists("a.log"));
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_STREQ(g_log_file_path, "a.log");
}

TEST_F(log_file, gets_nothing_while_it_is_not_an_output)
{
    start("a.log");
    g_log_config.output = AGENT_LOG_TO_CONSOLE;
    log_through("text");
    EXPECT_EQ(file_text("a.log"), "");
}

TEST_F(log_file, that_cannot_be_opened_is_no_output_any_more)
{
    LogCapture log;
    start("no/such/directory/a.log", 0, 0xFF);
    EXPECT_EQ(g_log_config.output, 0xFDu);
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_EQ(log.raw(), "");
    agent_log(AGENT_LOG_ERROR, "console goes on");
    EXPECT_TRUE(log.has(error("console goes on")));
}

TEST_F(log_file, line_never_exceeds_1023_characters)
{
    start("a.log");
    const std::string prefix = "[2027-01-15 08:00:00.000] [WARN] ";
    const size_t      room   = 1022 - prefix.size();
    for (const size_t length : {room - 1, room, room + 1, size_t{1022}}) {
        start("a.log", 1); // from the start again
        log_through(std::string(length, 'm').c_str());
        EXPECT_EQ(file_text("a.log"), prefix + std::string(std::min(length, room), 'm') + "\n") << length;
    }
}

TEST_F(log_file, starts_afresh_at_its_limit)
{
    const std::string line = "[2027-01-15 08:00:00.000] [WARN] new\n";
    for (const size_t size : {99u, 100u, 101u}) {
        const std::string old(size, 'o');
        write_text("a.log", old);
        start("a.log", 100);
        log_through("new");
        EXPECT_EQ(file_text("a.log"), size < 100 ? old + line : line) << size;
    }
    EXPECT_FALSE(std::filesystem::exists("a.log.1"));
}

TEST_F(log_file, stays_off_when_it_cannot_be_started_afresh)
{
    write_text("a.log", "old");
    start("a.log", 1);
    {
        Fail fail(Call::FileOpen);
        EXPECT_THAT(log_through("lost"), EndsWith("lost\n"));
        EXPECT_EQ(fail.failed(), 1);
    }
    EXPECT_EQ(g_log_file, nullptr);
    log_through("lost too");
    EXPECT_EQ(file_text("a.log"), "old");
    EXPECT_EQ(agent_log_clear_flash(), 0);
    log_through("seen");
    EXPECT_THAT(file_text("a.log"), EndsWith("] seen\n"));
}

TEST_F(log_file, is_closed_when_it_cannot_seek)
{
    start("a.log");
    {
        Fail fail(Call::FileSeek, 1, ESPIPE);
        EXPECT_THAT(log_through("lost"), EndsWith("lost\n"));
    }
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_EQ(g_log_config.output, 3u);
    EXPECT_EQ(g_log_in_use, 0u);
    log_through("lost too");
    EXPECT_EQ(file_text("a.log"), "");
    start("a.log");
    log_through("seen");
    EXPECT_THAT(file_text("a.log"), EndsWith("] seen\n"));
}

TEST_F(log_file, is_written_with_the_flag_taken_back)
{
    start("a.log");
    uint32_t   seen  = 99;
    const auto write = [](void *flag, const char *, size_t count) {
        *static_cast<uint32_t *>(flag) = g_log_in_use;
        return static_cast<ssize_t>(count);
    };
    const auto seek = [](void *, off64_t *, int) { return 0; };
    fclose(static_cast<FILE *>(g_log_file));
    g_log_file = fopencookie(&seen, "w", {nullptr, write, seek, nullptr});
    log_through("text");
    EXPECT_EQ(seen, 1u);
    EXPECT_EQ(g_log_in_use, 0u);
}

TEST_F(log_file, has_a_buffer_of_4096_bytes)
{
    const auto expect_buffered = [] {
        EXPECT_EQ(g_buffering.stream, g_log_file);
        EXPECT_EQ(g_buffering.area, nullptr);
        EXPECT_EQ(g_buffering.mode, _IOFBF);
        EXPECT_EQ(g_buffering.size, 4096u);
        g_buffering = {};
    };
    start("a.log", 1);
    expect_buffered();
    EXPECT_EQ(agent_log_clear_flash(), 0);
    expect_buffered();
    log_through("a line");
    log_through("started afresh");
    expect_buffered();
}

TEST_F(log_file, clear_returns_what_buffering_returned)
{
    start("a.log");
    g_buffering.result = -1;
    EXPECT_EQ(agent_log_clear_flash(), -1);
    EXPECT_NE(g_log_file, nullptr);
    EXPECT_EQ(g_log_in_use, 0u);
    g_buffering.result = 0;
    log_through("goes on");
    EXPECT_THAT(file_text("a.log"), EndsWith("] goes on\n"));
}

TEST_F(log_file, is_not_waited_for)
{
    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    start("pipe", 0, AGENT_LOG_TO_CONSOLE);
    g_log_config.output = 3;
    std::atomic<pid_t> id{0};
    std::thread        clearing([&] {
        id = gettid();
        EXPECT_EQ(agent_log_clear_flash(), 0); // waits for a reader of the pipe, and holds the file meanwhile
    });
    while (id == 0 || tarn::peek(g_log_in_use) == 0 || !asleep(id))
        std::this_thread::yield();
    tarn::shared(g_log_in_use) = 0;
    EXPECT_THAT(log_through("on the console alone"), EndsWith("alone\n"));
    const int reader = open("pipe", O_RDONLY);
    clearing.join();
    char byte;
    EXPECT_EQ(fcntl(reader, F_SETFL, O_NONBLOCK), 0);
    EXPECT_EQ(read(reader, &byte, 1), -1) << "the line was dropped";
    close(reader);
}

TEST_F(log_file, is_closed_by_deinit)
{
    const int before = descriptor_count();
    start("a.log");
    EXPECT_EQ(descriptor_count(), before + 1);
    agent_log_deinit();
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_EQ(descriptor_count(), before);
    agent_log_deinit();
}

TEST_F(log_file, of_the_last_start_is_closed_by_the_next)
{
    const int before = descriptor_count();
    start("a.log");
    start("b.log");
    EXPECT_EQ(descriptor_count(), before + 1);
    start("c.log", 0, AGENT_LOG_TO_CONSOLE);
    EXPECT_EQ(descriptor_count(), before);
}

TEST_F(log_file, is_not_inherited_by_programs_the_host_starts)
{
    start("a.log");
    EXPECT_TRUE(fcntl(fileno(static_cast<FILE *>(g_log_file)), F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(agent_log_clear_flash(), 0);
    EXPECT_TRUE(fcntl(fileno(static_cast<FILE *>(g_log_file)), F_GETFD) & FD_CLOEXEC);
}

TEST_F(log_file, gets_the_line_when_an_init_frees_the_flag_meanwhile)
{
    start("a.log");
    Console console([] { agent_log_init(nullptr); }); // frees the flag, as it does for every caller
    agent_log(AGENT_LOG_ERROR, "text");
    EXPECT_THAT(file_text("a.log"), EndsWith("] text\n"));
}

TEST_F(log_file, is_left_alone_after_a_deinit_in_between)
{
    start("a.log");
    Console console([] { agent_log_deinit(); });
    agent_log(AGENT_LOG_ERROR, "text");
    EXPECT_EQ(file_text("a.log"), "");
    EXPECT_EQ(g_log_in_use, 1u);
}

TEST_F(log_file, clear_truncates_and_keeps_writing)
{
    write_text("a.log", "old");
    start("a.log");
    EXPECT_EQ(agent_log_clear_flash(), 0);
    EXPECT_EQ(file_text("a.log"), "");
    EXPECT_EQ(g_log_in_use, 0u);
    log_through("new");
    EXPECT_EQ(file_text("a.log"), "[2027-01-15 08:00:00.000] [WARN] new\n");
}

TEST_F(log_file, clear_opens_it_even_when_it_is_no_output)
{
    start("a.log", 0, AGENT_LOG_TO_CONSOLE);
    EXPECT_EQ(agent_log_clear_flash(), 0);
    EXPECT_NE(g_log_file, nullptr);
    EXPECT_TRUE(std::filesystem::exists("a.log"));
    EXPECT_EQ(g_log_config.output, 1u);
}

TEST_F(log_file, clear_refuses_while_a_line_is_printed)
{
    write_text("a.log", "old");
    start("a.log");
    int32_t result = 0;
    {
        Console console([&] { result = agent_log_clear_flash(); });
        agent_log(AGENT_LOG_ERROR, "text");
    }
    EXPECT_EQ(result, 1);
    EXPECT_EQ(file_text("a.log"), "old");
}

TEST_F(log_file, clear_refuses_after_deinit_and_returns_what_it_found)
{
    write_text("a.log", "old");
    start("a.log");
    agent_log_deinit();
    EXPECT_EQ(agent_log_clear_flash(), 1);
    g_log_in_use = 7;
    EXPECT_EQ(agent_log_clear_flash(), 7);
    EXPECT_EQ(g_log_in_use, 7u);
    EXPECT_EQ(file_text("a.log"), "old");
}

TEST_F(log_file, clear_that_cannot_open_returns_0_and_leaves_it_closed)
{
    start("a.log");
    {
        Fail fail(Call::FileOpen);
        EXPECT_EQ(agent_log_clear_flash(), 0);
        EXPECT_EQ(fail.failed(), 1);
    }
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_EQ(g_log_in_use, 0u);
}

TEST_F(log_file, clear_before_any_init_does_nothing)
{
    EXPECT_EQ(agent_log_clear_flash(), 0);
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_TRUE(std::filesystem::is_empty("."));
    EXPECT_EQ(g_log_in_use, 0u);
}

TEST_F(log_file, clear_outlives_the_callers_path_string)
{
    std::string path = "a.log";
    start(path.c_str());
    path = "b.log"; // the same memory
    EXPECT_EQ(agent_log_clear_flash(), 0);
    EXPECT_TRUE(std::filesystem::exists("a.log"));
    EXPECT_FALSE(std::filesystem::exists("b.log"));
}

TEST_F(log_file, clear_follows_a_path_set_by_hand)
{
    g_log_file_path = "hand.log";
    EXPECT_EQ(agent_log_clear_flash(), 0);
    EXPECT_TRUE(std::filesystem::exists("hand.log"));
}

TEST_F(log_file, path_too_long_for_the_system_is_not_cut_to_one_that_fits)
{
    std::string path = "./";
    while (path.size() < 4096)
        path += "./";
    start((path + "a.log").c_str());
    EXPECT_EQ(g_log_config.output, 1u);
    EXPECT_EQ(agent_log_clear_flash(), 0);
    EXPECT_EQ(g_log_file, nullptr);
    EXPECT_TRUE(std::filesystem::is_empty("."));
}
