// What the disk can do to a write: refuse it, fill up, vanish, break, or be cut off with the process.
#include "persist_fixture.h"
#include "support/log_lines/persist.h"

#include <cerrno>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

using disk = DataDirectory;

namespace {

const LogLine kCannotWrite  = logged::temporary_not_written("f.tmp");
const LogLine kCannotRename = logged::file_not_renamed("f");

// Runs `work` in children that end before their first, second, ... call that changes a file, and holds `check` against
// what each leaves behind, until one comes through. Returns the number of those that did not.
template <class Work, class Check> int kill_everywhere(Work work, Check check)
{
    for (int nth = 1;; ++nth) {
        const pid_t child = fork();
        if (child == 0) {
            {
                KillAt kill(nth);
                work();
            }
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status)) << nth;
        const bool was_killed = WEXITSTATUS(status) == KillAt::kStatus;
        check(was_killed);
        if (!was_killed)
            return nth - 1;
    }
}

retain_msg_t &retain(const char *topic)
{
    retain_msg_t &message = g_sub_mgr.retains[tarn::bump(g_sub_mgr.retain_count)];
    strcpy(message.topic, topic);
    return message;
}

} // namespace

TEST_F(disk, a_kill_leaves_the_old_text_or_the_new_one)
{
    const std::string old_text(20000, 'o'), new_text(30000, 'n');
    const int         kills = kill_everywhere(
        [&] {
            persist_safe_write("f", old_text.c_str());
            persist_safe_write("f", new_text.c_str());
        },
        [&](bool was_killed) {
            const std::string text = read_text("f");
            if (was_killed)
                EXPECT_TRUE(text == "(no file)" || text == old_text || text == new_text) << text.size();
            else
                EXPECT_EQ(text, new_text);
        });
    EXPECT_EQ(kills, 2 * 6) << "open, write, flush, sync, close, rename; nothing is deleted";
}

TEST_F(disk, a_kill_leaves_the_old_store_or_the_new_one)
{
    retain("old").payload_len = 1;
    persist_retain_save();
    const std::string before  = read_text("data/retain.dat");
    retain("new").payload_len = 2;
    const int kills           = kill_everywhere([] { persist_retain_save(); },
                                      [&](bool was_killed) {
                                          const std::string text = read_text("data/retain.dat");
                                          EXPECT_EQ(text == before, was_killed);
                                          EXPECT_TRUE(was_killed || text.size() == 4u + 2 * 2336);
                                      });
    EXPECT_EQ(kills, 5) << "open, count, records, close, rename";
}

TEST_F(disk, each_step_of_a_write_may_break_twice)
{
    for (const Call call :
         {Call::FileOpen, Call::FileWrite, Call::FileFlush, Call::FileSync, Call::FileClose, Call::Rename}) {
        persist_safe_write("f", "old");
        LogCapture log;
        Fail       fail(call, 1, EIO, 2);
        persist_safe_write("f", "new");
        EXPECT_EQ(fail.failed(), 2);
        EXPECT_EQ(read_text("f"), "new");
        EXPECT_FALSE(std::filesystem::exists("f.tmp"));
        EXPECT_THAT(log.take(), IsEmpty());
    }
    EXPECT_EQ(g_mqtt_stats.persist_write, 12u);
}

TEST_F(disk, a_step_that_breaks_three_times_leaves_the_old_file)
{
    persist_safe_write("f", "old");
    for (const int code : {EIO, ENOSPC, EROFS, EACCES, EMFILE}) {
        for (const Call call :
             {Call::FileOpen, Call::FileWrite, Call::FileFlush, Call::FileSync, Call::FileClose, Call::Rename}) {
            LogCapture log;
            {
                Fail fail(call, 1, code, 3);
                persist_safe_write("f", "new");
                EXPECT_EQ(fail.failed(), 3);
            }
            EXPECT_EQ(read_text("f"), "old");
            EXPECT_FALSE(std::filesystem::exists("f.tmp"));
            EXPECT_THAT(log.take(), ElementsAre(call == Call::Rename ? kCannotRename : kCannotWrite));
        }
    }
    EXPECT_EQ(g_mqtt_stats.persist_write, 1u);
}

TEST_F(disk, a_file_system_that_cannot_replace_has_the_target_deleted_first)
{
    persist_safe_write("f", "old");
    LogCapture log;
    {
        Fail fail(Call::Rename, 1, EEXIST);
        Fail stays(Call::Unlink, 2);
        persist_safe_write("f", "new");
        EXPECT_EQ(stays.failed(), 0);
    }
    EXPECT_EQ(read_text("f"), "new");
    Fail rename(Call::Rename, 1, EEXIST, 3);
    persist_safe_write("f", "newer");
    EXPECT_EQ(read_text("f"), "(no file)");
    EXPECT_THAT(log.take(), ElementsAre(kCannotRename));
}

TEST_F(disk, three_attempts_have_two_pauses)
{
    LogCapture quiet(4);
    for (const Call call : {Call::FileOpen, Call::Rename}) {
        Fail       fail(call, 1, ENOSPC, 3);
        const auto before = std::chrono::steady_clock::now();
        persist_safe_write("f", "x");
        EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(20));
    }
}

TEST_F(disk, a_directory_that_was_removed_is_told_file_by_file)
{
    std::filesystem::remove_all("data");
    subscribe("t", 1);
    LogCapture log(2);
    persist_flush_single(record.get(), PERSIST_SESSION | PERSIST_SUBSCRIPTIONS | PERSIST_MESSAGES);
    EXPECT_THAT(log.take(), ElementsAre(logged::temporary_not_written("data/session/dev1.json.tmp"),
                                        logged::temporary_not_written("data/subscription/dev1.json.tmp"),
                                        logged::temporary_not_written("data/message/dev1.json.tmp")));
    EXPECT_EQ(persist_add_offline_msg("dev1", "t", bytes("x"), 1, 1), 0) << "told by the line alone";
    EXPECT_EQ(persist_load(record.get()), 0);
    EXPECT_EQ(persist_remove("dev1"), 0);
    EXPECT_EQ(persist_retain_save(), -2);
    EXPECT_FALSE(std::filesystem::exists("data"));
    EXPECT_EQ(g_mqtt_stats.persist_write, 0u);
}

TEST_F(disk, a_read_only_disk_keeps_its_files)
{
    if (!mount_small_disk("data/message"))
        GTEST_SKIP() << "no mounts here";
    persist_mark(record.get(), PERSIST_MESSAGES);
    ASSERT_EQ(mount(nullptr, "data/message", nullptr, MS_REMOUNT | MS_RDONLY, kSmallDisk), 0);
    LogCapture    log(2);
    const LogLine line = logged::temporary_not_written("data/message/dev1.json.tmp");
    EXPECT_EQ(persist_remove("dev1"), 0);
    EXPECT_EQ(persist_add_offline_msg("dev1", "t", bytes("x"), 1, 1), 0);
    EXPECT_EQ(persist_remove_offline_msg("dev1", 1), 0);
    EXPECT_EQ(read_text("data/message/dev1.json"), R"({"msgs":[]})");
    EXPECT_THAT(log.take(), ElementsAre(line, line));
}

TEST_F(disk, a_full_disk_keeps_its_files)
{
    if (!mount_small_disk("data"))
        GTEST_SKIP() << "no mounts here";
    LogCapture quiet(4);
    persist_init("data");
    persist_mark(record.get(), PERSIST_MESSAGES);
    retain("old").payload_len = 1;
    ASSERT_EQ(persist_retain_save(), 0);
    const std::string store = read_text("data/retain.dat");
    write_text("data/rest", std::string(200000, 'r')); // all there is
    memset(static_cast<void *>(&g_mqtt_stats), 0, sizeof g_mqtt_stats);

    LogCapture log(2);
    EXPECT_EQ(persist_add_offline_msg("dev1", "t", bytes(std::string(1024, 'p').c_str()), 1024, 1), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::temporary_not_written("data/message/dev1.json.tmp")));
    EXPECT_EQ(read_text("data/message/dev1.json"), R"({"msgs":[]})");
    EXPECT_FALSE(std::filesystem::exists("data/message/dev1.json.tmp"));
    EXPECT_EQ(g_mqtt_stats.persist_write, 0u);

    retain("new").payload_len = 2;
    EXPECT_EQ(persist_retain_save(), 0);
    EXPECT_EQ(read_text("data/retain.dat"), store);
    std::filesystem::remove("data/rest");
    EXPECT_EQ(persist_retain_save(), 0);
    EXPECT_EQ(read_text("data/retain.dat").size(), 4u + 2 * 2336);
}

TEST_F(disk, start_goes_on_without_directories)
{
    write_text("blocked", "a file where the directory would be");
    LogCapture log;
    EXPECT_EQ(persist_init("blocked"), 0);
    EXPECT_TRUE(log.has(logged::folder_created("blocked/session"))) << "said whether or not it succeeded";
    EXPECT_FALSE(log.has(logged::folder_created("blocked")));
    EXPECT_TRUE(log.has(logged::no_subscriptions_folder()));
    EXPECT_TRUE(log.has(logged::persist_ready("blocked")));
}

TEST_F(disk, retained_writes_that_break_keep_the_old_store)
{
    retain("old");
    persist_retain_save();
    const std::string before = read_text("data/retain.dat");
    retain("new");
    for (const int nth : {1, 2}) {
        Fail       fail(Call::FileWrite, nth, ENOSPC);
        LogCapture log;
        EXPECT_EQ(persist_retain_save(), 0) << "write errors are not told";
        EXPECT_EQ(log.count(logged::retained_saved(2)), 1);
        EXPECT_EQ(read_text("data/retain.dat"), before);
        EXPECT_FALSE(std::filesystem::exists("data/retain.dat.tmp"));
    }
    {
        Fail fail(Call::FileClose, 1, EIO);
        EXPECT_EQ(persist_retain_save(), 0);
        EXPECT_EQ(read_text("data/retain.dat"), before);
    }
    LogCapture log;
    for (const Call call : {Call::FileOpen, Call::Rename}) {
        Fail fail(call, 1, EIO);
        EXPECT_EQ(persist_retain_save(), -2);
        EXPECT_THAT(log.take(), ElementsAre(logged::retained_not_saved()));
        EXPECT_EQ(read_text("data/retain.dat"), before);
        EXPECT_FALSE(std::filesystem::exists("data/retain.dat.tmp"));
    }
    {
        Fail fail(Call::Allocate);
        EXPECT_EQ(persist_retain_save(), -2);
    }
    EXPECT_EQ(persist_retain_save(), 0);
    EXPECT_NE(read_text("data/retain.dat"), before);
}

TEST_F(disk, a_directory_in_the_place_of_the_retained_file_is_a_failure)
{
    std::filesystem::create_directory("data/retain.dat");
    LogCapture log;
    EXPECT_EQ(persist_retain_save(), -2);
    EXPECT_THAT(log.take(), ElementsAre(logged::retained_not_saved()));
    EXPECT_FALSE(std::filesystem::exists("data/retain.dat.tmp"));
    EXPECT_EQ(persist_retain_load(), 0) << "it can be opened";
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
}

// What is only out of reach for a moment must not be replaced by the one message that comes meanwhile.
TEST_F(disk, messages_that_cannot_be_read_now_are_not_overwritten)
{
    const std::string kept = R"({"msgs":[{"msgid":7,"qos":1,"topic":"a","payload":"61"}]})";
    const LogLine     line = logged::temporary_not_written("data/message/dev1.json.tmp");
    write_text("data/message/dev1.json", kept);
    for (const int code : {EMFILE, ENFILE, EACCES, EIO, ENOMEM}) {
        LogCapture log;
        {
            Fail fail(Call::FileOpen, 3, code); // of the session, the subscriptions, the messages
            EXPECT_EQ(persist_add_offline_msg("dev1", "t", bytes("x"), 1, 1), 0) << "told by the line alone";
        }
        EXPECT_THAT(log.take(), ElementsAre(logged::no_kept_messages_file("data/message/dev1.json"), line));
        {
            Fail fail(Call::FileOpen, 3, code);
            EXPECT_EQ(persist_remove_offline_msg("dev1", 7), 0);
        }
        EXPECT_EQ(read_text("data/message/dev1.json"), kept);
        EXPECT_EQ(g_mqtt_stats.persist_read, 0u);
        EXPECT_EQ(g_mqtt_stats.persist_write, 0u);
    }
    EXPECT_EQ(persist_add_offline_msg("dev1", "t", bytes("x"), 1, 1), 0);
    EXPECT_EQ(load().msg_count, 2);
}

TEST_F(disk, messages_whose_reading_breaks_are_not_overwritten)
{
    // Reading the first page of a process is an input/output error.
    std::filesystem::create_symlink("/proc/self/mem", "data/message/dev1.json");
    if (std::ifstream memory("data/message/dev1.json"); !memory)
        GTEST_SKIP() << "nothing here that breaks when it is read";
    LogCapture log;
    EXPECT_EQ(persist_add_offline_msg("dev1", "t", bytes("x"), 1, 1), 0);
    EXPECT_TRUE(std::filesystem::is_symlink("data/message/dev1.json"));
    EXPECT_THAT(log.take(), ElementsAre(logged::kept_messages_without_list(),
                                        logged::temporary_not_written("data/message/dev1.json.tmp")));
    EXPECT_EQ(g_mqtt_stats.persist_read, 1u) << "it was opened";
}

TEST_F(disk, a_directory_in_the_place_of_a_message_file_cannot_be_replaced)
{
    std::filesystem::create_directory("data/message/dev1.json");
    LogCapture log;
    EXPECT_EQ(persist_add_offline_msg("dev1", "t", bytes("x"), 1, 1), 0);
    EXPECT_THAT(log.take(),
                ElementsAre(logged::kept_messages_without_list(), logged::file_not_renamed("data/message/dev1.json")));
}

TEST_F(disk, without_memory_the_retained_file_is_not_read)
{
    retain("kept");
    persist_retain_save();
    sub_init();
    LogCapture log;
    Fail       fail(Call::Allocate);
    EXPECT_EQ(persist_retain_load(), 0);
    EXPECT_EQ(fail.failed(), 1);
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(disk, without_memory_a_text_is_not_written)
{
    subscribe("a/topic/that/needs/more/than/sixteen/characters", 1);
    for (const uint8_t what : {PERSIST_SESSION, PERSIST_SUBSCRIPTIONS, PERSIST_MESSAGES}) {
        LogCapture log;
        Fail       fail(Call::Allocate);
        persist_flush_single(record.get(), what);
        EXPECT_EQ(fail.failed(), 1);
        EXPECT_THAT(log.take(), IsEmpty());
    }
    for (const char *directory : {"session", "subscription", "message"})
        EXPECT_TRUE(std::filesystem::is_empty(std::string("data/") + directory));
}
