#include "sub/retain.h"
#include "sub/sub.h"

#include "log/agent_log.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/log_lines/sub.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace tarn::test;
using testing::ElementsAre;

namespace {

const LogLine kStart     = debug("[DEBUG] sub_init：开始初始化订阅管理器");
const LogLine kHaveSubs  = debug("[DEBUG] sub_init：订阅数组分配成功（容量=10000）");
const LogLine kHaveKept  = debug("[DEBUG] sub_init：保留消息数组分配成功（容量=1000）");
const LogLine kHaveMutex = debug("[DEBUG] sub_init：互斥锁初始化成功");
const LogLine kDone      = info("订阅管理器初始化成功（符合MQTT 3.1.1标准，版本=1.0.0）");

} // namespace

TEST(sub_init, allocates_both_arrays_zeroed)
{
    LogCapture log;
    EXPECT_EQ(sub_init(), 0);
    EXPECT_THAT(log.take(), ElementsAre(kStart, kHaveSubs, kHaveKept, kHaveMutex, kDone));
    ASSERT_NE(g_sub_mgr.subs, nullptr);
    ASSERT_NE(g_sub_mgr.retains, nullptr);
    EXPECT_EQ(g_sub_mgr.sub_count, 0);
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
    const sub_entry_t last{};
    EXPECT_EQ(memcmp(&g_sub_mgr.subs[9999], &last, sizeof last), 0);
    EXPECT_EQ(g_sub_mgr.retains[999].payload_len, 0u);
}

TEST(sub_init, fails_without_memory_for_subscriptions)
{
    LogCapture log;
    {
        Fail fail(Call::Allocate);
        EXPECT_EQ(sub_init(), -2);
    }
    EXPECT_THAT(log.take(), ElementsAre(kStart, error("[DEBUG] sub_init：分配订阅数组失败（需要内存=21280000字节）"),
                                        error("分配订阅数组失败")));
    EXPECT_EQ(g_sub_mgr.subs, nullptr);
    EXPECT_EQ(g_sub_mgr.retains, nullptr);
}

TEST(sub_init, fails_without_memory_for_retained_messages)
{
    LogCapture log;
    {
        Fail fail(Call::Allocate, 2);
        EXPECT_EQ(sub_init(), -2);
    }
    EXPECT_THAT(log.take(),
                ElementsAre(kStart, kHaveSubs, error("[DEBUG] sub_init：分配保留消息数组失败（需要内存=2336000字节）"),
                            error("分配保留消息数组失败")));
    EXPECT_NE(g_sub_mgr.subs, nullptr); // keeps its value
    EXPECT_EQ(g_sub_mgr.retains, nullptr);

    EXPECT_EQ(sub_init(), 0);
    EXPECT_THAT(log.take(), ElementsAre(kStart, kHaveSubs, kHaveKept, kHaveMutex, kDone));
}

TEST(sub_init, empties_what_is_there_and_allocates_once)
{
    LogCapture log(AGENT_LOG_FATAL);
    ASSERT_EQ(sub_init(), 0);
    const sub_entry_t  *subs    = g_sub_mgr.subs;
    const retain_msg_t *retains = g_sub_mgr.retains;
    const uint8_t       payload = 1;
    ASSERT_EQ(sub_add("id", "a", 1, 0), 0);
    ASSERT_EQ(sub_add("id", "b", 1, 0), 0);
    ASSERT_EQ(sub_remove("id", "b"), 1);
    ASSERT_EQ(retain_msg_set("t", &payload, 1, 0), 0);
    ASSERT_EQ(retain_msg_set("u", &payload, 1, 0), 0);
    ASSERT_EQ(retain_msg_delete("u"), 0);

    Fail fail(Call::Allocate);
    EXPECT_EQ(sub_init(), 0);
    EXPECT_EQ(fail.failed(), 0);
    EXPECT_EQ(g_sub_mgr.subs, subs);
    EXPECT_EQ(g_sub_mgr.retains, retains);
    EXPECT_EQ(g_sub_mgr.sub_count, 0);
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
    const sub_entry_t  empty{};
    const retain_msg_t none{};
    EXPECT_EQ(memcmp(&subs[0], &empty, sizeof empty), 0);
    EXPECT_EQ(memcmp(&subs[1], &empty, sizeof empty), 0);
    EXPECT_EQ(memcmp(&retains[0], &none, sizeof none), 0);
    EXPECT_EQ(memcmp(&retains[1], &none, sizeof none), 0);
}

TEST(sub_deinit, frees_and_tells_the_counts)
{
    LogCapture log(AGENT_LOG_FATAL);
    ASSERT_EQ(sub_init(), 0);
    const uint8_t payload = 1;
    ASSERT_EQ(sub_add("id", "a", 1, 0), 0);
    ASSERT_EQ(sub_add("id", "b", 1, 0), 0);
    ASSERT_EQ(retain_msg_set("t", &payload, 1, 0), 0);
    agent_log_set_level(0);
    sub_deinit();
    EXPECT_THAT(log.take(), ElementsAre(debug("[DEBUG] sub_deinit：开始销毁订阅管理器"),
                                        debug("[DEBUG] sub_deinit：释放订阅数组（当前订阅数=2）"),
                                        debug("[DEBUG] sub_deinit：释放保留消息数组（当前保留消息数=1）"),
                                        info("订阅管理器销毁成功")));
    EXPECT_EQ(g_sub_mgr.subs, nullptr);
    EXPECT_EQ(g_sub_mgr.retains, nullptr);
    EXPECT_EQ(g_sub_mgr.sub_count, 0);
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
}

static void expect_no_arrays()
{
    LogCapture    log(AGENT_LOG_WARN);
    sub_entry_t   entry;
    retain_msg_t  message;
    char          list[8];
    const uint8_t payload = 1;
    EXPECT_EQ(sub_add("id", "a", 0, 0), -4);
    EXPECT_THAT(log.take(), ElementsAre(logged::sub_add_full(0), logged::subscriptions_full()));
    EXPECT_EQ(sub_add_with_id("id", "a", 0, 0, 1), -4);
    EXPECT_EQ(sub_remove("id", nullptr), 0);
    EXPECT_EQ(sub_remove("id", "a"), 0);
    EXPECT_EQ(sub_match("a", &entry, 1), 0);
    EXPECT_EQ(sub_get_client_sub_count("id"), 0);
    EXPECT_EQ(sub_find_by_identifier(1, &entry), -1);
    EXPECT_EQ(retain_msg_get("t", &message), -5);
    EXPECT_EQ(retain_msg_delete("t"), -5);
    EXPECT_EQ(retain_fill_topic_list(list, 8), 0);
    retain_clean_expired();
    EXPECT_EQ(retain_msg_set("t", &payload, 1, 0), -4);
    EXPECT_EQ(sub_init(), 0);
    EXPECT_EQ(sub_add("id", "a", 0, 0), 0);
    EXPECT_EQ(sub_match("a", &entry, 1), 1);
}

TEST(sub_mgr, is_empty_and_full_before_init)
{
    expect_no_arrays();
}

TEST(sub_mgr, is_empty_and_full_after_deinit)
{
    LogCapture log(AGENT_LOG_FATAL);
    ASSERT_EQ(sub_init(), 0);
    ASSERT_EQ(sub_add("id", "a", 0, 0), 0);
    sub_deinit();
    sub_deinit();
    expect_no_arrays();
}

TEST(sub_mgr, bears_any_count)
{
    LogCapture log(AGENT_LOG_FATAL);
    ASSERT_EQ(sub_init(), 0);
    ASSERT_EQ(sub_add("id", "a", 0, 0), 0);
    sub_entry_t entry;
    g_sub_mgr.sub_count = -5;
    EXPECT_EQ(sub_match("a", &entry, 1), 0);
    EXPECT_EQ(sub_get_client_sub_count("id"), 0);
    g_sub_mgr.sub_count = 20000;
    EXPECT_EQ(sub_match("a", &entry, 1), 1);
    EXPECT_EQ(sub_get_client_sub_count("id"), 1);
    EXPECT_EQ(sub_add("id", "b", 0, 0), -4);
}
