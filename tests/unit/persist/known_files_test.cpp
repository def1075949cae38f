// Which clients have files: what the library knows without asking the disk, and how it hears of what others do there.
#include "persist/known_files.h"
#include "persist/session_store.h"

#include "persist_fixture.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

using namespace tarn;
using namespace tarn::persist;
using namespace tarn::test;

namespace {

constexpr const char *kSession = R"({"clean":0})";

void write_file(const std::string &path, const char *text = kSession)
{
    std::ofstream(path) << text;
}

struct known_files : DataDirectory {
    known_files() { EXPECT_FALSE(may_be_on_disk("dev1")) << "the kernel or the file system does not tell"; }
};

} // namespace

TEST_F(known_files, an_absent_file_is_neither_opened_nor_deleted)
{
    write_file("data/session/other.json");
    int        files = 0;
    OnFileCall count([&] { ++files; });
    Fail       no_open(Call::FileOpen, 1, EMFILE, 1000), no_unlink(Call::Unlink, 1, EIO, 1000);
    load();
    EXPECT_EQ(persist_remove("dev1"), 0);
    EXPECT_EQ(files, 0);
    EXPECT_EQ(no_open.failed() + no_unlink.failed(), 0);
    EXPECT_EQ(persist_remove("other"), 0);
    EXPECT_EQ(no_unlink.failed(), 3);
}

TEST_F(known_files, a_load_tells_a_client_without_files_from_one_whose_files_cannot_be_read)
{
    write_file("data/session/other.json");
    Found none, unreadable;
    load_session(*record, none);
    EXPECT_TRUE(none.certainly_none);
    strcpy(record->client_id, "other");
    const Fail no_open(Call::FileOpen, 1, EMFILE, 1000);
    load_session(*record, unreadable);
    EXPECT_FALSE(unreadable.certainly_none);
    EXPECT_EQ(none.files() + unreadable.files(), 0);
}

TEST_F(known_files, what_appears_by_hand_is_found_at_once)
{
    for (int i = 0; i < 200; ++i) {
        const std::string id = "hand" + std::to_string(i);
        EXPECT_FALSE(may_be_on_disk(id.c_str()));
        write_file("data/session/" + id + ".json");
        EXPECT_TRUE(may_be_on_disk(id.c_str()));
        std::filesystem::remove("data/session/" + id + ".json");
        EXPECT_FALSE(may_be_on_disk(id.c_str()));
    }
    write_file("data/subscription/dev1.json", R"({"subs":[{"topic":"a","qos":1}]})");
    EXPECT_EQ(load().sub_count, 1);
    EXPECT_EQ(persist_remove("dev1"), 0);
    EXPECT_FALSE(std::filesystem::exists("data/subscription/dev1.json"));
}

TEST_F(known_files, names_come_and_go_in_every_way)
{
    write_file("elsewhere");
    std::filesystem::rename("elsewhere", "data/message/dev1.json");
    EXPECT_TRUE(may_be_on_disk("dev1"));
    std::filesystem::rename("data/message/dev1.json", "data/message/dev2.json");
    EXPECT_FALSE(may_be_on_disk("dev1"));
    EXPECT_TRUE(may_be_on_disk("dev2"));
    std::filesystem::create_hard_link("data/message/dev2.json", "data/session/dev2.json");
    std::filesystem::rename("data/message/dev2.json", "elsewhere");
    EXPECT_TRUE(may_be_on_disk("dev2")) << "the one in the other folder is left";
    std::filesystem::create_symlink("../../elsewhere", "data/session/dev3.json");
    EXPECT_TRUE(may_be_on_disk("dev3"));
    write_file("data/session/dev4.json.tmp");
    EXPECT_FALSE(may_be_on_disk("dev4"));
}

TEST_F(known_files, of_a_folder_that_is_a_symbolic_link_nothing_is_known)
{
    persist_destroy();
    std::filesystem::rename("data/session", "elsewhere");
    std::filesystem::create_directory_symlink("../elsewhere", "data/session");
    persist_init("data");
    EXPECT_TRUE(may_be_on_disk("dev1"));
}

TEST_F(known_files, of_a_folder_that_is_hidden_by_a_mount_nothing_is_known)
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        GTEST_SKIP() << "no mounts here";
    persist_destroy();
    persist_init("data");
    std::filesystem::create_directory("aside");
    ASSERT_EQ(mount("none", "aside", "tmpfs", 0, nullptr), 0);
    EXPECT_FALSE(may_be_on_disk("dev1")) << "it is mounted elsewhere";
    ASSERT_EQ(mount("none", "data/session", "tmpfs", 0, nullptr), 0);
    EXPECT_TRUE(may_be_on_disk("dev1"));
}

TEST_F(known_files, of_a_start_are_those_that_lie_there)
{
    persist_destroy();
    EXPECT_TRUE(may_be_on_disk("dev1")) << "nothing is known behind the end";
    write_file("data/message/dev7.json");
    persist_init("data");
    EXPECT_TRUE(may_be_on_disk("dev7"));
    EXPECT_FALSE(may_be_on_disk("dev1"));
}

TEST_F(known_files, what_the_library_writes_is_known_too)
{
    record->clean_session = 0;
    persist_mark(record.get(), PERSIST_SESSION);
    EXPECT_TRUE(may_be_on_disk("dev1"));
    EXPECT_EQ(persist_remove("dev1"), 0);
    EXPECT_FALSE(may_be_on_disk("dev1"));
    EXPECT_FALSE(std::filesystem::exists("data/session/dev1.json"));
}

TEST_F(known_files, a_change_too_many_makes_everything_possible)
{
    int           kept = 0; // by the kernel, of changes that nobody has asked about
    std::ifstream limit("/proc/sys/fs/inotify/max_queued_events");
    ASSERT_TRUE(limit >> kept);
    for (int i = 0; i <= kept / 2; ++i) {
        write_file("data/session/x.json", "");
        std::filesystem::remove("data/session/x.json");
    }
    EXPECT_TRUE(may_be_on_disk("dev1"));
    EXPECT_EQ(persist_remove("dev1"), 0);
    persist_init("data");
    EXPECT_FALSE(may_be_on_disk("dev1"));
}

TEST_F(known_files, are_not_believed_when_a_folder_is_another_one)
{
    const auto again = [](const char *root = "data") {
        persist_init(root);
        EXPECT_FALSE(may_be_on_disk("dev1"));
    };
    std::filesystem::rename("data/session", "data/old");
    std::filesystem::create_directory("data/session");
    EXPECT_TRUE(may_be_on_disk("dev1"));
    again();
    std::filesystem::remove("data/message");
    EXPECT_TRUE(may_be_on_disk("dev1"));
    again();
    std::filesystem::rename("data", "moved");
    std::filesystem::create_directories("data/session");
    write_file("data/session/dev1.json");
    EXPECT_TRUE(may_be_on_disk("dev1"));
    std::filesystem::remove("data/session/dev1.json");
    again();
    std::filesystem::create_directories("inner/data/session");
    write_file("inner/data/session/dev1.json");
    ASSERT_EQ(chdir("inner"), 0);
    EXPECT_TRUE(may_be_on_disk("dev1")) << "the path leads elsewhere";
    std::filesystem::remove("data/session/dev1.json");
    again();
}

TEST_F(known_files, many_threads_ask_while_files_come_and_go)
{
    std::atomic<bool>        over{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&over, i] {
            const std::string id = "t" + std::to_string(i);
            while (!over) {
                EXPECT_FALSE(may_be_on_disk(id.c_str()));
                write_file("data/session/" + id + ".json");
                EXPECT_TRUE(may_be_on_disk(id.c_str()));
                std::filesystem::remove("data/session/" + id + ".json");
            }
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    over = true;
    for (std::thread &thread : threads)
        thread.join();
}
