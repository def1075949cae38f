#include "persist_fixture.h"

#include <sys/stat.h>
#include <unistd.h>

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
    EXPECT_EQ(lines[1], debug("[persist] 目录创建成功: ./mqtt_data"));
    EXPECT_EQ(lines[2], debug("[persist] 目录创建成功: ./mqtt_data/session"));
    EXPECT_EQ(lines[3], debug("[persist] 目录创建成功: ./mqtt_data/subscription"));
    EXPECT_EQ(lines[4], debug("[persist] 目录创建成功: ./mqtt_data/message"));
    EXPECT_EQ(lines.end()[-2], warn("[persist] no retain file"));
    EXPECT_EQ(lines.back(), info("[persist] 持久化模块初始化完成，路径：./mqtt_data"));
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
    EXPECT_THAT(log.take(), ElementsAre(debug("[persist] 执行强制刷盘(无操作，已同步写入)"), debug("[persist] 清理过期会话（未启用）"),
                                        info("[persist] 停止刷盘线程..."), info("[persist] 持久化模块销毁中...")));
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
    EXPECT_THAT(log.take(), ElementsAre(error("[persist] 写入临时文件失败(重试3次): f.tmp")));
}

TEST_F(storage, a_target_that_cannot_be_replaced_is_told)
{
    std::filesystem::create_directories("d/inside");
    LogCapture log;
    persist_safe_write("d", "x");
    EXPECT_THAT(log.take(), ElementsAre(error("[persist] 重命名失败: d")));
    EXPECT_FALSE(std::filesystem::exists("d.tmp"));
}

TEST_F(storage, a_full_disk_keeps_the_old_file)
{
    if (access("/dev/full", W_OK) != 0)
        GTEST_SKIP() << "no /dev/full here";
    persist_safe_write("f", "old");
    std::filesystem::create_symlink("/dev/full", "f.tmp");
    LogCapture log;
    persist_safe_write("f", "new");
    EXPECT_EQ(read_text("f"), "old");
    EXPECT_TRUE(log.has(error("[persist] 写入临时文件失败(重试3次): f.tmp")) || read_text("f") == "new");
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
        EXPECT_THAT(log.take(), ElementsAre(error("[persist] 写入临时文件失败(重试3次): data/session/" + std::string(id) +
                                                  ".json.tmp")));
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
    EXPECT_THAT(log.take(), ElementsAre(debug("[persist] retain saved: 0 entries")));
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
    EXPECT_THAT(log.take(), ElementsAre(info("[persist] retain loaded: 2 entries")));
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
    EXPECT_THAT(log.take(), ElementsAre(warn("[persist] no retain file")));
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
    EXPECT_THAT(log.take(), ElementsAre(error("[persist] retain save failed")));
    EXPECT_EQ(g_mqtt_stats.persist_write, 0u);
}
