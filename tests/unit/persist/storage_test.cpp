#include "base/text.h"
#include "persist_fixture.h"
#include "support/log_lines/persist.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

using storage = DataDirectory;

TEST(storage_init, makes_the_directories_and_loads)
{
    LogCapture log;
    ASSERT_EQ(sub_init(), 0);
    log.take();
    EXPECT_EQ(persist_init(nullptr), 0);
    EXPECT_STREQ(g_persist_root_path, "./mqtt_data");
    std::vector<LogLine> lines = log.take();
    EXPECT_EQ(lines.front(), info("[persist] 持久化模块初始化中..."));
    EXPECT_EQ(lines[1], logged::folder_created("./mqtt_data"));
    EXPECT_EQ(lines[2], logged::folder_created("./mqtt_data/session"));
    EXPECT_EQ(lines[3], logged::folder_created("./mqtt_data/subscription"));
    EXPECT_EQ(lines[4], logged::folder_created("./mqtt_data/message"));
    EXPECT_EQ(lines.end()[-2], logged::no_retained_file());
    EXPECT_EQ(lines.back(), logged::persist_ready("./mqtt_data"));
    EXPECT_TRUE(std::filesystem::is_directory("mqtt_data/message"));

    persist_init("");
    EXPECT_STREQ(g_persist_root_path, "./mqtt_data");
    persist_init("elsewhere");
    EXPECT_STREQ(g_persist_root_path, "elsewhere");
}

TEST_F(storage, entry_points_without_work_say_so)
{
    LogCapture log;
    persist_flush();
    persist_clean_expire();
    persist_stop();
    EXPECT_EQ(persist_destroy(), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::persist_flushed(), debug("[persist] 清理过期会话（未启用）"),
                                        info("[persist] 停止刷盘线程..."), logged::persist_ends()));
    persist_safe_write("after", "x");
    EXPECT_EQ(read_text("after"), "x") << "clients may close after this";
}

TEST_F(storage, a_file_is_replaced_whole)
{
    persist_safe_write("f", "first, and longer");
    persist_safe_write("f", "second");
    EXPECT_EQ(read_text("f"), "second");
    EXPECT_FALSE(std::filesystem::exists("f.tmp"));
    EXPECT_EQ(g_mqtt_stats.persist_write, 2u);
}

TEST_F(storage, refuses_nothing_to_write)
{
    LogCapture    log;
    const LogLine line = error("[persist] 安全写入失败：参数为空");
    persist_safe_write("f", nullptr);
    persist_safe_write("", "x");
    persist_safe_write(nullptr, "x");
    EXPECT_THAT(log.take(), ElementsAre(line, line, line));
}

TEST_F(storage, gives_up_after_three_attempts_and_keeps_the_old_file)
{
    persist_safe_write("f", "old");
    LogCapture log;
    {
        Fail fail(Call::FileOpen, 1, 28, 2); // ENOSPC
        persist_safe_write("f", "new");
    }
    EXPECT_EQ(read_text("f"), "new") << "the third attempt succeeds";
    EXPECT_THAT(log.take(), IsEmpty());
    Fail fail(Call::FileOpen, 1, 28, 3);
    persist_safe_write("f", "newer");
    EXPECT_EQ(read_text("f"), "new");
    EXPECT_THAT(log.take(), ElementsAre(logged::temporary_not_written("f.tmp")));
}

TEST_F(storage, a_target_that_cannot_be_replaced_is_told)
{
    std::filesystem::create_directories("d/inside");
    LogCapture log;
    persist_safe_write("d", "x");
    EXPECT_THAT(log.take(), ElementsAre(logged::file_not_renamed("d")));
    EXPECT_FALSE(std::filesystem::exists("d.tmp"));
}

TEST_F(storage, ids_that_lead_elsewhere_touch_nothing)
{
    std::filesystem::create_directories("data/session/dev");
    write_text("outside.json", "mine");
    for (const char *id : {"dev/1", "../../outside", "/etc/x", "a/../b", "../outside"}) {
        strcpy(record->client_id, id);
        subscribe("t", 0);
        LogCapture log(2);
        persist_flush_single(record.get(), PERSIST_SESSION);
        EXPECT_THAT(log.take(),
                    ElementsAre(logged::temporary_not_written("data/session/" + std::string(id) + ".json.tmp")));
        EXPECT_EQ(persist_load(record.get()), 0);
        EXPECT_EQ(persist_load_client_only(record.get()), -4);
        EXPECT_EQ(persist_remove(id), 0);
    }
    EXPECT_EQ(read_text("outside.json"), "mine");
    EXPECT_TRUE(std::filesystem::is_empty("data/session/dev"));
    strcpy(record->client_id, "..");
    persist_flush_single(record.get(), PERSIST_MESSAGES);
    EXPECT_EQ(read_text("data/message/...json"), R"({"msgs":[]})") << "a harmless name stays inside";
}

TEST_F(storage, remove_takes_all_three_files)
{
    for (const char *directory : {"session", "subscription", "message"})
        write_text(std::string("data/") + directory + "/dev1.json", "x");
    EXPECT_EQ(persist_remove("dev1"), 0);
    for (const char *directory : {"session", "subscription", "message"})
        EXPECT_TRUE(std::filesystem::is_empty(std::string("data/") + directory));
    EXPECT_EQ(persist_remove("dev1"), 0);
    EXPECT_EQ(persist_remove(nullptr), -1);
    Fail fail(Call::Allocate);
    EXPECT_EQ(persist_remove("dev1"), -5);
}

using retain_file = DataDirectory;

// A retained file that claims `count` records and holds `bytes` bytes behind that.
static std::string counted(uint32_t count, size_t bytes, char byte)
{
    std::string file(sizeof count + bytes, byte);
    memcpy(file.data(), &count, sizeof count);
    return file;
}

TEST_F(retain_file, an_empty_store_is_four_bytes)
{
    LogCapture log;
    EXPECT_EQ(persist_retain_save(), 0);
    EXPECT_EQ(read_text("data/retain.dat"), std::string(4, '\0'));
    EXPECT_THAT(log.take(), ElementsAre(logged::retained_saved(0)));
    EXPECT_EQ(persist_retain_load(), 0);
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
    EXPECT_EQ(g_mqtt_stats.persist_write, 1u);
    EXPECT_EQ(g_mqtt_stats.persist_read, 1u);
}

TEST_F(retain_file, brings_the_store_back)
{
    retain_msg_set_with_expiry("a/b", bytes("one"), 3, 1, 77);
    retain_msg_set("c", bytes("two"), 3, 2);
    EXPECT_EQ(std::filesystem::file_size("data/retain.dat"), 4u + 2 * 2336);
    sub_init();
    ASSERT_EQ(g_sub_mgr.retain_count, 0);
    LogCapture log(1);
    EXPECT_EQ(persist_retain_load(), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::retained_loaded(2)));
    retain_msg_t message;
    ASSERT_EQ(retain_msg_get("a/b", &message), 0);
    EXPECT_EQ(message.expiry_interval, 77u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(message.payload), message.payload_len), "one");
    EXPECT_FALSE(std::filesystem::exists("data/retain.dat.tmp"));
}

TEST_F(retain_file, that_is_missing_short_or_lying_is_ignored)
{
    LogCapture log(1);
    EXPECT_EQ(persist_retain_load(), -4);
    EXPECT_THAT(log.take(), ElementsAre(logged::no_retained_file()));
    for (const uint32_t count : {3u, 1001u, 0xFFFFFFFFu}) {
        write_text("data/retain.dat", counted(count, 2 * 2336, 'r'));
        EXPECT_EQ(persist_retain_load(), 0);
        EXPECT_EQ(g_sub_mgr.retain_count, 0);
    }
    write_text("data/retain.dat", "ab");
    EXPECT_EQ(persist_retain_load(), 0);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(retain_file, hostile_records_are_made_safe)
{
    const uint32_t count = 1;
    write_text("data/retain.dat", counted(count, 2336, '\xFF'));
    EXPECT_EQ(persist_retain_load(), 0);
    ASSERT_EQ(g_sub_mgr.retain_count, 1);
    EXPECT_EQ(strlen(g_sub_mgr.retains[0].topic), 256u);
    EXPECT_EQ(g_sub_mgr.retains[0].payload_len, 2048u);
}

TEST_F(retain_file, that_cannot_be_opened_is_told)
{
    std::filesystem::remove_all("data");
    LogCapture log(1);
    EXPECT_EQ(persist_retain_save(), -2);
    EXPECT_THAT(log.take(), ElementsAre(logged::retained_not_saved()));
    EXPECT_EQ(g_mqtt_stats.persist_write, 0u);
}

// ---- which ids have files, and where

// The files below `root`, by their path from there.
static std::set<std::string> files_below(const std::string &root)
{
    std::set<std::string> files;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(root))
        if (!entry.is_directory())
            files.insert(std::filesystem::relative(entry.path(), root).string());
    return files;
}

TEST_F(storage, every_id_stays_in_its_three_directories)
{
    LogCapture               quiet(4);
    std::vector<std::string> ids = {".",
                                    "..",
                                    "...",
                                    "a..b",
                                    ".json",
                                    "x.json",
                                    "-rf",
                                    "~",
                                    "$HOME",
                                    "a b",
                                    "a\nb",
                                    "\xff\xfe\x80",
                                    "%s%n",
                                    "a\\..\\b",
                                    "*",
                                    "\x7f",
                                    std::string(63, 'i'),
                                    std::string(63, '\xff'),
                                    "auto_17",
                                    "C:\\x",
                                    "\xe2\x80\xae",
                                    "\"}"};
    for (const char *middle : {"/", "//", "/../", "/./", "..//.."}) // none of these has a file
        for (const char *side : {"", "a", ".", ".."})
            ids.push_back(std::string(side) + middle + side);
    std::set<std::string> expected = {"retain.dat"};
    persist_retain_save();
    for (const std::string &id : ids) {
        memset(record.get(), 0, sizeof *record);
        strcpy(record->client_id, id.c_str());
        subscribe("t", 1);
        persist_flush_single(record.get(), PERSIST_SESSION | PERSIST_SUBSCRIPTIONS | PERSIST_MESSAGES);
        if (id.find('/') == std::string::npos)
            for (const char *directory : {"session/", "subscription/", "message/"})
                expected.insert(directory + id + ".json");
        EXPECT_EQ(load(id.c_str()).sub_count, id.find('/') == std::string::npos) << id;
    }
    EXPECT_EQ(files_below("data"), expected);
    EXPECT_EQ(files_below(".").size(), expected.size()) << "nothing lies outside";
    for (const std::string &id : ids)
        EXPECT_EQ(persist_remove(id.c_str()), 0);
    EXPECT_EQ(files_below("data"), std::set<std::string>{"retain.dat"});
}

// A data directory whose name has this many characters.
static std::string long_root(size_t length)
{
    std::string root = "data";
    while (root.size() + 2 < length)
        root += "/" + std::string(std::min<size_t>(200, length - root.size() - 1), 'r');
    EXPECT_EQ(root.size(), length);
    return root;
}

TEST_F(storage, a_temporary_name_may_have_511_characters)
{
    // <root>/session/<63 characters>.json.tmp
    for (const size_t root_length : {511u - 81, 512u - 81}) {
        const std::string root = long_root(root_length);
        const std::string id(63, 'i');
        std::filesystem::create_directories(root + "/session");
        copy_text(g_persist_root_path, root.c_str(), sizeof g_persist_root_path - 1);
        strcpy(record->client_id, id.c_str());
        const bool fits = root_length == 511 - 81;
        LogCapture log;
        persist_flush_single(record.get(), PERSIST_SESSION);
        const std::string path = root + "/session/" + id + ".json";
        EXPECT_EQ(path.size() + 4, fits ? 511u : 512u);
        EXPECT_EQ(std::filesystem::exists(path), fits);
        if (!fits) {
            EXPECT_THAT(log.take(), ElementsAre(logged::temporary_not_written(path + ".tmp")));
            write_text(path, R"({"session_expiry_interval":9})");
        }
        EXPECT_EQ(load(id.c_str()).session_expiry_interval, 0u) << "what was written, or nothing";
        EXPECT_EQ(g_mqtt_stats.persist_read, 1u) << "only the one that fits is opened";
        EXPECT_EQ(persist_remove(id.c_str()), 0);
        EXPECT_EQ(std::filesystem::exists(path), !fits);
    }
}

TEST_F(storage, a_name_passed_in_may_have_507_characters)
{
    const std::string directory = long_root(490);
    std::filesystem::create_directories(directory);
    LogCapture        log;
    const std::string fits = directory + "/" + std::string(16, 'f');
    persist_safe_write(fits.c_str(), "x");
    EXPECT_EQ(fits.size(), 507u);
    EXPECT_EQ(read_text(fits), "x");
    EXPECT_THAT(log.take(), IsEmpty());
    persist_safe_write((fits + "f").c_str(), "x");
    EXPECT_THAT(log.take(), ElementsAre(logged::temporary_not_written(fits + "f.tmp")));
    EXPECT_FALSE(std::filesystem::exists(fits + "f"));
}

TEST_F(storage, a_root_is_cut_at_511_characters)
{
    LogCapture quiet(4);
    persist_init(std::string(600, 'r').c_str());
    EXPECT_EQ(std::string(g_persist_root_path), std::string(511, 'r'));
}

TEST_F(storage, a_root_of_244_characters_is_the_longest_that_retained_messages_are_loaded_from)
{
    for (const size_t length : {244, 245}) {
        copy_text(g_persist_root_path, long_root(length).c_str(), sizeof g_persist_root_path - 1);
        std::filesystem::create_directories(g_persist_root_path);
        LogCapture quiet(4);
        EXPECT_EQ(persist_retain_save(), 0);
        EXPECT_TRUE(std::filesystem::exists(long_root(length) + "/retain.dat"));
        EXPECT_EQ(persist_retain_load(), length == 244 ? 0 : -4);
    }
}

TEST_F(storage, an_id_without_a_terminator_is_cut_at_127_characters)
{
    memset(record->client_id, 'i', sizeof record->client_id);
    const std::string name = std::string(127, 'i') + ".json";
    persist_mark(record.get(), PERSIST_MESSAGES);
    EXPECT_EQ(files_below("data"), std::set<std::string>{"message/" + name});
    write_text("data/subscription/" + name, R"({"subs":[{"topic":"t","qos":1}]})");
    memset(record->client_id, 'i', sizeof record->client_id);
    EXPECT_EQ(persist_load_client_only(record.get()), 0);
    memset(record->client_id, 'i', sizeof record->client_id);
    EXPECT_EQ(persist_load(record.get()), 0);
    EXPECT_EQ(record->sub_count, 1);
    EXPECT_EQ(persist_add_offline_msg(std::string(200, 'i').c_str(), "t", bytes("x"), 1, 1), 0);
    EXPECT_EQ(load(std::string(127, 'i').c_str()).msg_count, 1);
}
