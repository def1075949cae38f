#include "sub/retain.h"

#include "log/agent_log.h"
#include "persist/persist.h"
#include "stats/mqtt_stats.h"
#include "sub/sub.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/log_lines/persist.h"
#include "support/log_lines/sub.h"
#include "support/wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int64_t kWeek = 604800;

struct Store : testing::Test {
    Store() { sub_init(); }
    ManualClock clock;
    LogCapture  log{AGENT_LOG_INFO};

    int set(const std::string &topic, const std::string &payload, uint32_t qos = 0)
    {
        return retain_msg_set(topic.c_str(), text(payload).data(), static_cast<uint32_t>(payload.size()), qos);
    }
    int set_for(const std::string &topic, const std::string &payload, uint32_t expiry_s)
    {
        return retain_msg_set_with_expiry(topic.c_str(), text(payload).data(), static_cast<uint32_t>(payload.size()), 0,
                                          expiry_s);
    }
    // "topic payload qos age expiry" of every entry.
    std::vector<std::string> entries() const
    {
        std::vector<std::string> all;
        for (int i = 0; i < g_sub_mgr.retain_count; ++i) {
            const retain_msg_t &e = g_sub_mgr.retains[i];
            all.push_back(std::string(e.topic) + " " + std::string(e.payload, e.payload + e.payload_len) + " " +
                          std::to_string(e.qos) + " " + std::to_string(clock.wall_s() - e.store_time) + " " +
                          std::to_string(e.expiry_interval));
        }
        return all;
    }
    std::vector<LogLine> lines() // but those of the file
    {
        std::vector<LogLine> all = log.take();
        std::erase_if(all, [](const LogLine &line) { return line.text.rfind("[persist]", 0) == 0; });
        return all;
    }
    void at_debug()
    {
        agent_log_set_level(0);
        log.take();
    }
};
struct retain_set : Store {};
struct retain_set_with_expiry : Store {};
struct retain_expiry : Store {};
struct retain_get : Store {};
struct retain_delete : Store {};
struct retain_topic_list : Store {};

struct retain_file : Store {
    retain_file()
    {
        mkdir(g_persist_root_path, 0755);
        log.take();
    }
    // Saves since this was asked last.
    int saves()
    {
        const auto now = static_cast<int>(g_mqtt_stats.persist_write);
        return now - std::exchange(saves_, now);
    }
    int saves_ = 0;
};

} // namespace

// The store is walked each time, so it is always as it stands, whoever wrote into it.
TEST_F(retain_set, sees_what_was_written_into_a_full_store)
{
    for (int i = 0; i < 1000; ++i) {
        retain_msg_t &entry = g_sub_mgr.retains[i];
        strcpy(entry.topic, ("t" + std::to_string(i)).c_str());
        entry.payload_len = 1;
        entry.store_time  = clock.wall_s();
    }
    g_sub_mgr.retain_count = 1000;
    strcpy(g_sub_mgr.retains[999].topic, "hand");
    EXPECT_EQ(set("hand", "new"), 0);
    EXPECT_EQ(set("t999", "new"), -4);
    EXPECT_EQ(g_sub_mgr.retains[999].payload_len, 3u);
    strcpy(g_sub_mgr.retains[3].topic, "hand");
    EXPECT_EQ(set("hand", "second"), 0);
    EXPECT_EQ(g_sub_mgr.retains[3].payload_len, 6u) << "the first of two";
    EXPECT_EQ(retain_msg_delete("hand"), 0);
    EXPECT_EQ(retain_msg_delete("hand"), 0);
    EXPECT_EQ(retain_msg_delete("hand"), -5);
    g_sub_mgr.retain_count = 10;
    EXPECT_EQ(retain_msg_delete("t500"), -5);
    g_sub_mgr.retains[4].store_time -= kWeek + 1;
    EXPECT_EQ(set("new", "x"), 0);
    EXPECT_EQ(g_sub_mgr.retain_count, 10);
}

// ---- set

TEST_F(retain_set, appends)
{
    lines();
    EXPECT_EQ(set("a/b", "one", 2), 0);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_added("a/b")));
    set("c", "two");
    EXPECT_THAT(entries(), ElementsAre("a/b one 2 0 0", "c two 0 0 0"));
}

TEST_F(retain_set, replacing_keeps_place_and_expiry)
{
    set_for("a/b", "first", 100);
    set("c", "x");
    clock.advance_ms(5000);
    lines();
    EXPECT_EQ(set("a/b", "2nd", 1), 0);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_replaced("a/b")));
    EXPECT_THAT(entries(), ElementsAre("a/b 2nd 1 0 100", "c x 0 5 0"));
}

TEST_F(retain_set, deletes_by_an_empty_payload)
{
    set("a", "1");
    set("b", "2");
    set("c", "3");
    lines();
    EXPECT_EQ(retain_msg_set("a", nullptr, 0, 0), 0);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_removed("a")));
    EXPECT_THAT(entries(), ElementsAre("b 2 0 0 0", "c 3 0 0 0"));
    EXPECT_EQ(retain_msg_set("unknown", nullptr, 0, 0), 0);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(retain_set, refuses_a_missing_topic)
{
    lines();
    EXPECT_EQ(retain_msg_set(nullptr, nullptr, 0, 0), -1);
    EXPECT_EQ(retain_msg_set("", nullptr, 0, 0), -1);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_set_no_topic(), logged::retained_set_no_topic()));
}

TEST_F(retain_set, refuses_a_length_without_payload)
{
    EXPECT_EQ(retain_msg_set("a", nullptr, 1, 0), -1);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(retain_set, cuts_payloads_to_2048_bytes)
{
    const Bytes big = repeat(0x61, 5000);
    for (const uint32_t length : {2047u, 2048u, 2049u, 0xFFFFFFFFu}) {
        EXPECT_EQ(retain_msg_set("a", big.data(), length, 0), 0);
        EXPECT_EQ(g_sub_mgr.retains[0].payload_len, std::min(length, 2048u));
    }
}

TEST_F(retain_set, cuts_topics_to_256_characters)
{
    const std::string topic(256, 't');
    set(topic + "one", "1");
    set(topic + "two", "2");
    EXPECT_THAT(entries(), ElementsAre(topic + " 2 0 0 0"));
    set(topic.substr(1), "3");
    EXPECT_EQ(g_sub_mgr.retain_count, 2);
    retain_msg_t found;
    EXPECT_EQ(retain_msg_get((topic + "three").c_str(), &found), 0);
    EXPECT_EQ(retain_msg_delete((topic + "four").c_str()), 0);
}

TEST_F(retain_set, leaves_nothing_behind_a_topic)
{
    set_for(std::string(200, 't'), "1", 10);
    retain_msg_delete(std::string(200, 't').c_str());
    set("a", "1");
    char expected[257] = "a";
    EXPECT_EQ(memcmp(g_sub_mgr.retains[0].topic, expected, sizeof expected), 0);
    EXPECT_EQ(g_sub_mgr.retains[0].expiry_interval, 0u);
}

TEST_F(retain_set, refuses_the_1001st_but_replaces_on)
{
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(set("t" + std::to_string(i), "x"), 0);
    lines();
    EXPECT_EQ(set("new", "x"), -4);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_full()));
    EXPECT_EQ(set("t999", "y"), 0);
    EXPECT_EQ(set_for("new", "x", 5), -4);
}

TEST_F(retain_set, makes_room_by_discarding_what_has_expired)
{
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(i == 500 ? set_for("t500", "x", 10) : set("t" + std::to_string(i), "x"), 0);
    clock.advance_ms(11000);
    lines();
    EXPECT_EQ(set("new", "x"), 0);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_expired("t500"), logged::retained_added("new")));
    EXPECT_STREQ(g_sub_mgr.retains[999].topic, "new");
}

TEST_F(retain_set, at_debug_tells_its_steps)
{
    at_debug();
    set("a", "one", 1);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_set_started("a", 3, 1), logged::retained_set_locked(0),
                                     logged::retained_added("a")));
    retain_msg_set("a", nullptr, 0, 0);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_set_started("a", 0, 0), logged::retained_set_locked(1),
                                     logged::retained_set_empty("a"), logged::retained_removed("a")));
    retain_msg_set(nullptr, nullptr, 0, 0);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_set_started("(null)", 0, 0), logged::retained_set_no_topic()));
}

TEST_F(retain_set_with_expiry, stores_the_interval)
{
    EXPECT_EQ(set_for("a", "x", 10), 0);
    EXPECT_THAT(entries(), ElementsAre("a x 0 0 10"));
    EXPECT_EQ(set_for("a", "y", 0), 0); // keeps it
    EXPECT_THAT(entries(), ElementsAre("a y 0 0 10"));
    EXPECT_EQ(set_for("a", "", 20), 0);
    EXPECT_THAT(entries(), IsEmpty());
    EXPECT_EQ(set_for("", "x", 20), -1);
}

// ---- expiry

TEST_F(retain_expiry, ends_a_life_after_more_than_its_interval)
{
    set_for("a", "x", 10);
    clock.advance_ms(10000);
    retain_clean_expired();
    EXPECT_EQ(g_sub_mgr.retain_count, 1);
    clock.advance_ms(1000);
    lines();
    retain_clean_expired();
    EXPECT_THAT(lines(), ElementsAre(logged::retained_expired("a")));
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
}

TEST_F(retain_expiry, gives_entries_without_interval_seven_days)
{
    set("a", "x");
    set_for("b", "x", static_cast<uint32_t>(kWeek) + 1);
    clock.advance_ms(kWeek * 1000);
    retain_clean_expired();
    EXPECT_EQ(g_sub_mgr.retain_count, 2);
    clock.advance_ms(1000);
    retain_clean_expired();
    EXPECT_EQ(g_sub_mgr.retain_count, 1);
    EXPECT_STREQ(g_sub_mgr.retains[0].topic, "b");
}

TEST_F(retain_expiry, discards_all_that_ended_in_order)
{
    set_for("a", "1", 1);
    set_for("b", "2", 1);
    set("c", "3");
    set_for("d", "4", 1);
    clock.advance_ms(2000);
    lines();
    retain_clean_expired();
    EXPECT_THAT(lines(), ElementsAre(logged::retained_expired("a"), logged::retained_expired("b"),
                                     logged::retained_expired("d")));
    EXPECT_THAT(entries(), ElementsAre("c 3 0 2 0"));
}

// Counted and logged for each.
TEST_F(retain_file, is_written_once_for_all_that_have_expired)
{
    const auto calls_for = [&](int ended) {
        for (int i = 0; i < ended; ++i)
            set_for("t" + std::to_string(i), "x", 10);
        clock.advance_ms(11000);
        lines();
        saves();
        int        calls = 0;
        OnFileCall count([&] { ++calls; });
        retain_clean_expired();
        EXPECT_EQ(lines().size(), static_cast<size_t>(ended));
        EXPECT_EQ(saves(), ended);
        EXPECT_EQ(g_sub_mgr.retain_count, 1);
        return calls;
    };
    set("stays", "x");
    const int for_one = calls_for(1);
    EXPECT_GT(for_one, 0);
    EXPECT_EQ(calls_for(200), for_one);
    EXPECT_THAT(entries(), ElementsAre("stays x 0 22 0"));
    g_sub_mgr.retain_count = 0;
    persist_retain_load();
    EXPECT_THAT(entries(), ElementsAre("stays x 0 22 0"));
}

TEST_F(retain_file, says_of_each_expired_message_that_the_file_cannot_be_written)
{
    for (const char *topic : {"a", "b", "c"})
        set_for(topic, "x", 1);
    clock.advance_ms(2000);
    log.take();
    saves();
    Fail fail(Call::FileOpen, 1, 24 /* EMFILE */, 2);
    retain_clean_expired();
    EXPECT_THAT(log.take(),
                ElementsAre(logged::retained_expired("a"), logged::retained_not_saved(), logged::retained_expired("b"),
                            logged::retained_not_saved(), logged::retained_expired("c")));
    EXPECT_EQ(saves(), 1);
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
}

TEST_F(retain_expiry, without_memory_for_their_topics_they_go_one_by_one)
{
    for (const char *topic : {"a", "b", "c"})
        set_for(topic, "x", 1);
    clock.advance_ms(2000);
    lines();
    Fail fail(Call::Allocate, 1);
    retain_clean_expired();
    EXPECT_THAT(lines(), ElementsAre(logged::retained_expired("a"), logged::retained_expired("b"),
                                     logged::retained_expired("c")));
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
}

TEST_F(retain_expiry, bears_any_stored_time)
{
    set("a", "x");
    set("b", "x");
    g_sub_mgr.retains[0].store_time = INT64_MAX;
    g_sub_mgr.retains[1].store_time = INT64_MIN;
    retain_clean_expired();
    ASSERT_EQ(g_sub_mgr.retain_count, 1);
    EXPECT_STREQ(g_sub_mgr.retains[0].topic, "a");
}

// ---- get, delete, list

TEST_F(retain_get, copies_the_entry_of_exactly_this_topic)
{
    set("a", "1");
    set("a/b", "2", 1);
    lines();
    retain_msg_t found{};
    EXPECT_EQ(retain_msg_get("a/b", &found), 0);
    EXPECT_EQ(memcmp(&found, &g_sub_mgr.retains[1], sizeof found), 0);
    EXPECT_EQ(retain_msg_get("a/+", &found), -5);
    EXPECT_EQ(retain_msg_get("A", &found), -5);
    EXPECT_EQ(retain_msg_get("", &found), -5);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(retain_get, refuses_missing_arguments)
{
    retain_msg_t found;
    lines();
    EXPECT_EQ(retain_msg_get(nullptr, nullptr), -1);
    EXPECT_EQ(retain_msg_get("a", nullptr), -1);
    EXPECT_EQ(retain_msg_get(nullptr, &found), -1);
    const std::vector<LogLine> all = lines();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0], error("[DEBUG] retain_msg_get：入参无效（topic=(nil), msg=(nil)）"));
    EXPECT_EQ(all[1].level, "ERROR");
    EXPECT_THAT(all[1].text, testing::EndsWith("msg=(nil)）"));
    EXPECT_THAT(all[2].text, testing::StartsWith("[DEBUG] retain_msg_get：入参无效（topic=(nil), msg=0x"));
}

TEST_F(retain_get, at_debug_tells_every_look)
{
    set("a", "1");
    set("b", "22");
    retain_msg_t found;
    at_debug();
    EXPECT_EQ(retain_msg_get("b", &found), 0);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_get_started("b", &found), logged::retained_get_locked(2),
                                     logged::retained_get_looks_at(0, "a"), logged::retained_get_looks_at(1, "b"),
                                     debug("[DEBUG] retain_msg_get：找到保留消息（topic=b, payload_len=2）")));
    EXPECT_EQ(retain_msg_get("x", &found), -5);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_get_started("x", &found), logged::retained_get_locked(2),
                                     logged::retained_get_looks_at(0, "a"), logged::retained_get_looks_at(1, "b"),
                                     debug("[DEBUG] retain_msg_get：未找到保留消息（topic=x）")));
}

TEST_F(retain_delete, takes_out_the_entry_of_exactly_this_topic)
{
    set("a", "1");
    set("b", "2");
    set("c", "3");
    lines();
    EXPECT_EQ(retain_msg_delete("b"), 0);
    EXPECT_EQ(retain_msg_delete("b"), -5);
    EXPECT_EQ(retain_msg_delete("+"), -5);
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_THAT(entries(), ElementsAre("a 1 0 0 0", "c 3 0 0 0"));
    EXPECT_EQ(retain_msg_delete(nullptr), -1);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_delete_invalid()));
}

TEST_F(retain_delete, at_debug_tells_every_look)
{
    set("a", "1");
    set("b", "2");
    at_debug();
    EXPECT_EQ(retain_msg_delete("b"), 0);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_delete_started("b"), logged::retained_delete_locked(2),
                                     logged::retained_delete_looks_at(0, "a"), logged::retained_delete_looks_at(1, "b"),
                                     debug("[DEBUG] retain_msg_delete：删除保留消息成功（topic=b, 剩余数量=1）")));
    EXPECT_EQ(retain_msg_delete("b"), -5);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_delete_started("b"), logged::retained_delete_locked(1),
                                     logged::retained_delete_looks_at(0, "a"),
                                     debug("[DEBUG] retain_msg_delete：未找到保留消息（topic=b）")));
    EXPECT_EQ(retain_msg_delete(nullptr), -1);
    EXPECT_THAT(lines(), ElementsAre(logged::retained_delete_started("(null)"), logged::retained_delete_invalid()));
}

TEST_F(retain_topic_list, lists_what_fits_and_skips_what_does_not)
{
    set("abcdefghij", "1");
    set("x", "2");
    at_debug();
    char list[32];
    memset(list, '#', sizeof list);
    EXPECT_EQ(retain_fill_topic_list(list, 10), 1);
    EXPECT_STREQ(list, "x\n");
    EXPECT_EQ(retain_fill_topic_list(list, 14), 2);
    EXPECT_STREQ(list, "abcdefghij\nx\n");
    EXPECT_EQ(retain_fill_topic_list(list, 13), 1);
    EXPECT_STREQ(list, "abcdefghij\n");
    EXPECT_EQ(retain_fill_topic_list(list, 12), 1);
    EXPECT_STREQ(list, "abcdefghij\n");
    EXPECT_EQ(retain_fill_topic_list(list, 11), 1);
    EXPECT_STREQ(list, "x\n");
    EXPECT_EQ(retain_fill_topic_list(list, 3), 1);
    EXPECT_EQ(retain_fill_topic_list(list, 2), 0);
    EXPECT_STREQ(list, "");
    EXPECT_EQ(retain_fill_topic_list(list, 1), 0);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(retain_topic_list, of_an_empty_store_is_empty)
{
    char list[4] = "#";
    EXPECT_EQ(retain_fill_topic_list(list, 4), 0);
    EXPECT_STREQ(list, "");
}

TEST_F(retain_topic_list, needs_a_buffer)
{
    char list[4] = "#";
    EXPECT_EQ(retain_fill_topic_list(nullptr, 4), -1);
    EXPECT_EQ(retain_fill_topic_list(list, 0), -1);
    EXPECT_EQ(retain_fill_topic_list(list, -1), -1);
    EXPECT_STREQ(list, "#");
}

// ---- the file

TEST_F(retain_file, is_saved_with_every_change)
{
    retain_msg_t found;
    char         list[8];
    set("a", "1");
    EXPECT_EQ(saves(), 1);
    set("a", "2");
    EXPECT_EQ(saves(), 1);
    set("a", "");
    EXPECT_EQ(saves(), 1);
    set("a", "");
    retain_msg_set(nullptr, nullptr, 0, 0);
    EXPECT_EQ(saves(), 0);
    set_for("b", "1", 10);
    EXPECT_EQ(saves(), 2) << "once more for the interval";
    set_for("b", "", 10);
    EXPECT_EQ(saves(), 2) << "though there is nothing to write an interval into";
    set_for("b", "1", 0);
    EXPECT_EQ(saves(), 1);
    retain_msg_get("b", &found);
    retain_fill_topic_list(list, 8);
    retain_clean_expired();
    EXPECT_EQ(saves(), 0);
    EXPECT_EQ(retain_msg_delete("b"), 0);
    EXPECT_EQ(saves(), 1);
    EXPECT_EQ(retain_msg_delete("b"), -5);
    EXPECT_EQ(saves(), 0);
    for (const char *topic : {"a", "b", "c"})
        set_for(topic, "1", 10);
    saves();
    clock.advance_ms(11000);
    retain_clean_expired();
    EXPECT_EQ(saves(), 3) << "one for each";
}

TEST_F(retain_file, is_not_saved_for_a_message_that_is_refused)
{
    for (int i = 0; i < 1000; ++i)
        g_sub_mgr.retains[i].store_time = clock.wall_s();
    g_sub_mgr.retain_count = 1000;
    EXPECT_EQ(set("new", "x"), -4);
    EXPECT_EQ(set_for("new", "x", 5), -4);
    EXPECT_EQ(saves(), 0);
}

TEST_F(retain_file, is_saved_before_a_change_is_told_and_after_an_expiry_was)
{
    const LogLine one = logged::retained_saved(1), none = logged::retained_saved(0);
    set_for("a", "1", 10);
    clock.advance_ms(11000);
    at_debug();
    set("b", "1");
    EXPECT_THAT(log.take(), ElementsAre(logged::retained_set_started("b", 1, 0), logged::retained_expired("a"), none,
                                        logged::retained_set_locked(0), one, logged::retained_added("b")));
    set("b", "2");
    EXPECT_THAT(log.take(), ElementsAre(logged::retained_set_started("b", 1, 0), logged::retained_set_locked(1), one,
                                        logged::retained_replaced("b")));
    set("b", "");
    EXPECT_THAT(log.take(), ElementsAre(logged::retained_set_started("b", 0, 0), logged::retained_set_locked(1),
                                        logged::retained_set_empty("b"), none, logged::retained_removed("b")));
}

TEST_F(retain_file, that_cannot_be_written_changes_no_result)
{
    Fail fail(Call::FileOpen, 1, 13 /* EACCES */, 100);
    EXPECT_EQ(set("a", "1"), 0);
    EXPECT_EQ(set_for("b", "1", 10), 0);
    EXPECT_EQ(retain_msg_delete("a"), 0);
    EXPECT_EQ(g_sub_mgr.retain_count, 1);
    EXPECT_EQ(saves(), 0);
    EXPECT_EQ(log.count(logged::retained_not_saved()), 4);
}
