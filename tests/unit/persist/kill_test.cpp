// What a kill leaves behind, system call by system call: a tracer ends a child before its first, its second, ... call of
// a write, and the loader then finds the old content or the new.
#include "persist_fixture.h"

#include <algorithm>
#include <csignal>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace tarn::test;
using testing::AnyOf;

using kill_at_each_call = DataDirectory;

namespace {

enum class End { Killed, Finished, Untraceable };

constexpr int kCallStop    = SIGTRAP | 0x80; // PTRACE_O_TRACESYSGOOD
constexpr int kUntraceable = 99;

// Lets the traced child go on to its next stop. False when it has ended.
bool next_stop(pid_t child, int &status)
{
    return ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) == 0 && waitpid(child, &status, 0) == child &&
           WIFSTOPPED(status);
}

// Runs `work` in a child and kills that at the entry of its nth system call, which then does not happen.
template <class Work> End kill_at(int nth, Work work)
{
    const pid_t child = fork();
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(kUntraceable);
        raise(SIGSTOP);
        work();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFSTOPPED(status))
        return End::Untraceable;
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    for (int call_stops = 0; next_stop(child, status);)
        if (WSTOPSIG(status) == kCallStop && ++call_stops == 2 * nth - 1) { // each call stops at entry and exit
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return End::Killed;
        }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    return End::Finished;
}

// Kills at every call; `reset` makes the old state before each try, `check` holds what is left against it. Returns the
// number of kills, 0 where nothing can be traced.
template <class Reset, class Work, class Check> int kill_everywhere(Reset reset, Work work, Check check)
{
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE(testing::Message() << "at system call " << nth);
        reset();
        const End end = kill_at(nth, work);
        if (end == End::Untraceable)
            return 0;
        check(end);
        if (end == End::Finished || testing::Test::HasFailure()) {
            testing::Test::RecordProperty("kills", nth - 1);
            return nth - 1;
        }
    }
}

constexpr int kFewestCalls = 5; // open, write, fsync, close, rename

std::string message_text(int msgid, const std::string &topic, const std::string &hex)
{
    return R"({"msgid":)" + std::to_string(msgid) + R"(,"qos":1,"topic":")" + topic + R"(","payload":")" + hex + "\"}";
}

std::string hex_of(const std::string &text)
{
    std::string pairs;
    for (const char c : text)
        pairs += {"0123456789abcdef"[static_cast<unsigned char>(c) >> 4], "0123456789abcdef"[c & 15]};
    return pairs;
}

std::string payload_of(const persist_msg_t &message)
{
    return {reinterpret_cast<const char *>(message.payload), message.payload_len};
}

} // namespace

TEST_F(kill_at_each_call, of_an_offline_message_the_loader_finds_it_or_not)
{
    const std::string path   = "data/message/dev1.json", first(300, 'f'), second(400, 's');
    const std::string before = R"({"msgs":[)" + message_text(7, "a", hex_of(first)) + "]}";
    for (const bool has_file : {true, false}) {
        const int kills = kill_everywhere(
            [&] {
                if (has_file)
                    write_text(path, before);
                else
                    std::filesystem::remove(path); // what an earlier kill left under another name stays
            },
            [&] { persist_add_offline_msg("dev1", "b", bytes(second.c_str()), 400, 1); },
            [&](End end) {
                const int old_count = has_file;
                load();
                if (end == End::Finished) {
                    EXPECT_EQ(record->msg_count, old_count + 1);
                }
                ASSERT_THAT(record->msg_count, AnyOf(old_count, old_count + 1));
                if (has_file) {
                    EXPECT_EQ(record->msgs[0].msgid, 7);
                    EXPECT_STREQ(record->msgs[0].topic, "a");
                    EXPECT_EQ(payload_of(record->msgs[0]), first);
                }
                if (record->msg_count == old_count + 1) {
                    EXPECT_STREQ(record->msgs[old_count].topic, "b");
                    EXPECT_EQ(payload_of(record->msgs[old_count]), second);
                }
            });
        if (kills == 0)
            GTEST_SKIP() << "nothing can be traced here";
        EXPECT_GT(kills, kFewestCalls);
        EXPECT_FALSE(std::filesystem::exists(path + ".tmp")) << "the last one came through";
    }
}

// Longer than a stream's buffer: written in parts.
TEST_F(kill_at_each_call, of_a_long_text_the_old_one_or_the_new_one_is_left)
{
    const std::string old_text(20000, 'o'), new_text(30000, 'n');
    const int         kills =
        kill_everywhere([&] { write_text("f", old_text); }, [&] { persist_safe_write("f", new_text.c_str()); },
                        [&](End end) {
                            const std::string text = read_text("f");
                            EXPECT_TRUE(text == new_text || (end == End::Killed && text == old_text));
                        });
    if (kills == 0)
        GTEST_SKIP() << "nothing can be traced here";
    EXPECT_GT(kills, kFewestCalls);
}

TEST_F(kill_at_each_call, of_a_subscription_the_start_finds_the_old_list_or_the_new)
{
    const std::string path = "data/subscription/dev1.json", old_list = R"({"subs":[{"topic":"a","qos":1}]})";
    subscribe("a", 1);
    subscribe("b", 2);
    const std::unique_ptr<persist_session_t> saved(new persist_session_t(*record));
    const int                                kills =
        kill_everywhere([&] { write_text(path, old_list); }, [&] { persist_mark(saved.get(), PERSIST_SUBSCRIPTIONS); },
                        [&](End end) {
                            LogCapture quiet(4);
                            sub_init();
                            persist_load_all_persisted_subscriptions();
                            const int count = g_sub_mgr.sub_count;
                            EXPECT_TRUE(count == 2 || (end == End::Killed && count == 1)) << count;
                            EXPECT_STREQ(g_sub_mgr.subs[0].topic_filter, "a");
                            EXPECT_STREQ(g_sub_mgr.subs[0].client_id, "dev1");
                            if (count == 2) {
                                EXPECT_STREQ(g_sub_mgr.subs[1].topic_filter, "b");
                            }
                        });
    if (kills == 0)
        GTEST_SKIP() << "nothing can be traced here";
    EXPECT_GT(kills, kFewestCalls);
}

namespace {

// The store as the file has it, message by message.
std::vector<std::string> stored()
{
    std::vector<std::string> messages;
    for (int32_t i = 0; i < g_sub_mgr.retain_count; ++i) {
        const retain_msg_t &entry = g_sub_mgr.retains[i];
        messages.push_back(entry.topic +
                           ("=" + std::string(reinterpret_cast<const char *>(entry.payload), entry.payload_len)) + "/" +
                           std::to_string(entry.expiry_interval));
    }
    return messages;
}

void load_store_of(const std::string &file)
{
    write_text("data/retain.dat", file);
    sub_init();
    ASSERT_EQ(persist_retain_load(), 0);
}

} // namespace

// A message with an expiry is saved twice: without it, then with it.
TEST_F(kill_at_each_call, of_a_retained_save_the_loader_finds_one_of_its_states)
{
    LogCapture quiet(4);
    retain_msg_set("old", bytes("1"), 1, 1);
    const std::string                           before  = read_text("data/retain.dat");
    const std::vector<std::vector<std::string>> kStates = {
        {"old=1/0"}, {"old=1/0", "new=22/0"}, {"old=1/0", "new=22/60"}};
    size_t    reached = 0;
    const int kills   = kill_everywhere([&] { load_store_of(before); },
                                      [] { retain_msg_set_with_expiry("new", bytes("22"), 2, 1, 60); },
                                      [&](End end) {
                                          sub_init();
                                          ASSERT_EQ(persist_retain_load(), 0);
                                          const auto state = std::ranges::find(kStates, stored());
                                          ASSERT_NE(state, kStates.end());
                                          const auto at = static_cast<size_t>(state - kStates.begin());
                                          EXPECT_GE(at, reached) << "later kills leave later states";
                                          reached = at;
                                          EXPECT_TRUE(end == End::Killed || at == 2);
                                      });
    if (kills == 0)
        GTEST_SKIP() << "nothing can be traced here";
    EXPECT_EQ(reached, 2u);
    EXPECT_GT(kills, 2 * (kFewestCalls - 1)) << "this file is not synchronised";
    EXPECT_FALSE(std::filesystem::exists("data/retain.dat.tmp"));
}

TEST_F(kill_at_each_call, of_a_full_store_all_thousand_are_left_or_all_but_the_deleted_one)
{
    LogCapture    quiet(4);
    const int64_t now = time(nullptr);
    for (int i = 0; i < RETAIN_CAPACITY; ++i) {
        retain_msg_t &entry = g_sub_mgr.retains[i];
        snprintf(entry.topic, sizeof entry.topic, "t%d", i);
        entry.payload_len = 1;
        entry.store_time  = now;
    }
    g_sub_mgr.retain_count = RETAIN_CAPACITY;
    ASSERT_EQ(persist_retain_save(), 0);
    const std::string before = read_text("data/retain.dat");
    const int         kills =
        kill_everywhere([&] { load_store_of(before); }, [] { retain_msg_delete("t0"); },
                        [&](End end) {
                            sub_init();
                            ASSERT_EQ(persist_retain_load(), 0);
                            const bool deleted = g_sub_mgr.retain_count == RETAIN_CAPACITY - 1;
                            EXPECT_TRUE(deleted || (end == End::Killed && g_sub_mgr.retain_count == RETAIN_CAPACITY));
                            EXPECT_STREQ(g_sub_mgr.retains[0].topic, deleted ? "t1" : "t0");
                            EXPECT_STREQ(g_sub_mgr.retains[998].topic, deleted ? "t999" : "t998");
                        });
    if (kills == 0)
        GTEST_SKIP() << "nothing can be traced here";
    EXPECT_GE(kills, kFewestCalls - 1);
}
