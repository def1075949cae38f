#include "sub/sub.h"

#include "log/agent_log.h"
#include "support/log_capture.h"
#include "support/log_lines/sub.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Table : testing::Test {
    Table() { sub_init(); }

    LogCapture log{AGENT_LOG_INFO};

    // "id filter qos clean identifier" of every entry.
    static std::vector<std::string> entries()
    {
        std::vector<std::string> all;
        for (int i = 0; i < g_sub_mgr.sub_count; ++i)
            all.push_back(show(g_sub_mgr.subs[i]));
        return all;
    }
    static std::string show(const sub_entry_t &e)
    {
        return std::string(e.client_id) + " " + e.topic_filter + " " + std::to_string(e.qos) + " " +
               std::to_string(e.clean_session) + " " + std::to_string(e.sub_identifier);
    }
    static std::vector<std::string> matches(const char *topic, int room = 16)
    {
        std::vector<sub_entry_t> found(static_cast<size_t>(room));
        found.resize(static_cast<size_t>(sub_match(topic, found.data(), room)));
        std::vector<std::string> all;
        for (const sub_entry_t &entry : found)
            all.push_back(entry.client_id);
        return all;
    }
    void at_debug()
    {
        agent_log_set_level(0);
        log.take();
    }
};
struct adding : Table {};
struct adding_with_id : Table {};
struct removing : Table {};
struct matching : Table {};
struct counting : Table {};
struct finding : Table {};

} // namespace

// ---- sub_add

TEST_F(adding, appends)
{
    log.take();
    EXPECT_EQ(sub_add("id", "a/b", 1, 1), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::subscription_added("id", "a/b", 1, 1)));
    EXPECT_THAT(entries(), ElementsAre("id a/b 1 1 0"));
}

TEST_F(adding, updates_what_is_there)
{
    sub_add("id", "a/b", 0, 0);
    log.take();
    EXPECT_EQ(sub_add("id", "a/b", 2, 1), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::subscription_updated("id", "a/b", 2)));
    EXPECT_THAT(entries(), ElementsAre("id a/b 2 1 0"));
}

TEST_F(adding, tells_filters_and_clients_apart)
{
    sub_add("id", "a", 0, 0);
    sub_add("id", "A", 0, 0);
    sub_add("ID", "a", 0, 0);
    sub_add("i", "da", 0, 0);
    EXPECT_EQ(g_sub_mgr.sub_count, 4);
}

TEST_F(adding, refuses_missing_texts)
{
    log.take();
    EXPECT_EQ(sub_add(nullptr, "a", 0, 0), -1);
    EXPECT_EQ(sub_add("", "a", 0, 0), -1);
    EXPECT_EQ(sub_add("id", nullptr, 0, 0), -1);
    EXPECT_EQ(sub_add("id", "", 0, 0), -1);
    EXPECT_THAT(log.take(), ElementsAre(logged::sub_add_invalid("(null)", "a"), logged::sub_add_invalid("", "a"),
                                        logged::sub_add_invalid("id", "(null)"), logged::sub_add_invalid("id", "")));
    EXPECT_EQ(g_sub_mgr.sub_count, 0);
}

TEST_F(adding, refuses_a_qos_above_2)
{
    EXPECT_EQ(sub_add("id", "a", 2, 0), 0);
    log.take();
    EXPECT_EQ(sub_add("id", "b", 3, 0), -1);
    EXPECT_EQ(sub_add("id", "b", 0xFFFFFFFF, 0), -1);
    EXPECT_THAT(log.take(), ElementsAre(logged::sub_add_bad_qos(3), logged::sub_add_bad_qos(-1)));
    EXPECT_EQ(g_sub_mgr.sub_count, 1);
}

TEST_F(adding, refuses_an_invalid_filter)
{
    log.take();
    EXPECT_EQ(sub_add("id", "a/+/#", 0, 0), -1);
    EXPECT_THAT(log.take(), ElementsAre(error("[DEBUG] mqtt_filter_is_valid：#前不能有+（filter=a/+/#）"),
                                        error("[DEBUG] sub_add：非法过滤器拒绝订阅（client_id=id, filter=a/+/#）")));
    EXPECT_EQ(g_sub_mgr.sub_count, 0);
}

TEST_F(adding, refuses_the_10001st_but_updates_on)
{
    agent_log_set_level(AGENT_LOG_ERROR);
    for (int i = 0; i < 10000; ++i)
        ASSERT_EQ(sub_add("id", std::to_string(i).c_str(), 0, 0), 0) << i;
    EXPECT_THAT(log.take_from("ERROR"), IsEmpty());
    EXPECT_EQ(sub_add("id", "new", 0, 0), -4);
    EXPECT_THAT(log.take(), ElementsAre(logged::sub_add_full(10000), logged::subscriptions_full()));
    EXPECT_EQ(sub_add("id", "9999", 2, 0), 0);
    EXPECT_EQ(g_sub_mgr.subs[9999].qos, 2u);
    EXPECT_EQ(g_sub_mgr.sub_count, 10000);
    EXPECT_EQ(sub_add_with_id("id", "new", 0, 0, 5), -4);
    EXPECT_EQ(sub_add_with_id("id", "0", 1, 0, 5), 0);
    EXPECT_EQ(g_sub_mgr.subs[0].sub_identifier, 5u);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(adding, cuts_ids_to_64_characters)
{
    const std::string id(100, 'i');
    sub_add(id.c_str(), "a", 0, 0);
    sub_add((id.substr(0, 64) + "other").c_str(), "a", 1, 0);
    EXPECT_THAT(entries(), ElementsAre(id.substr(0, 64) + " a 1 0 0"));
    sub_add(id.substr(0, 63).c_str(), "a", 2, 0);
    EXPECT_EQ(g_sub_mgr.sub_count, 2);
    EXPECT_EQ(sub_get_client_sub_count(id.c_str()), 1);
    EXPECT_EQ(sub_remove(id.c_str(), nullptr), 1);
}

TEST_F(adding, cuts_filters_to_2048_characters)
{
    const std::string filter(3000, 'f');
    sub_add("id", filter.c_str(), 0, 0);
    EXPECT_EQ(std::string(g_sub_mgr.subs[0].topic_filter), filter.substr(0, 2048));
    sub_add("id", (filter.substr(0, 2048) + "#other").c_str(), 0, 0); // judged before it is cut
    EXPECT_EQ(g_sub_mgr.sub_count, 1);
    sub_add("id", (filter.substr(0, 2048) + "other").c_str(), 1, 0);
    EXPECT_EQ(g_sub_mgr.sub_count, 1);
    EXPECT_EQ(g_sub_mgr.subs[0].qos, 1u);
    sub_add("id", filter.substr(0, 2047).c_str(), 0, 0);
    EXPECT_EQ(g_sub_mgr.sub_count, 2);
    EXPECT_EQ(sub_remove("id", filter.c_str()), 1);
}

TEST_F(adding, at_debug_tells_every_look)
{
    at_debug();
    sub_add("c1", "a", 1, 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::sub_add_started("c1", "a", 1, 0), logged::sub_add_locked(0),
                                        debug("[DEBUG] sub_add：新增订阅成功（client_id=c1, topic_filter=a, 总数=1）"),
                                        logged::subscription_added("c1", "a", 1, 0)));
    sub_add("c2", "a", 1, 0);
    log.take();
    sub_add("c2", "a", 2, 1);
    EXPECT_THAT(log.take(),
                ElementsAre(logged::sub_add_started("c2", "a", 2, 1), logged::sub_add_locked(2),
                            logged::sub_add_looks_at(0, "c1", "a"), logged::sub_add_looks_at(1, "c2", "a"),
                            debug("[DEBUG] sub_add：发现重复订阅，更新QoS和CleanSession（client_id=c2, topic_filter=a, "
                                  "旧QoS=1, 新QoS=2）"),
                            logged::subscription_updated("c2", "a", 2)));
    sub_add(nullptr, nullptr, 0, 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::sub_add_started("(null)", "(null)", 0, 0),
                                        logged::sub_add_invalid("(null)", "(null)")));
}

// ---- sub_add_with_id

TEST_F(adding_with_id, stores_the_identifier_without_a_line)
{
    at_debug();
    EXPECT_EQ(sub_add_with_id("id", "a", 1, 1, 7), 0);
    EXPECT_EQ(sub_add_with_id("id", "a", 2, 0, 8), 0);
    EXPECT_EQ(sub_add_with_id("", "b", 0, 0, 9), 0); // an empty id is not refused here
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_THAT(entries(), ElementsAre("id a 2 0 8", " b 0 0 9"));
}

TEST_F(adding_with_id, without_identifier_is_sub_add)
{
    log.take();
    EXPECT_EQ(sub_add_with_id("id", "a", 1, 1, 0), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::subscription_added("id", "a", 1, 1)));
    EXPECT_EQ(sub_add_with_id("", "a", 1, 1, 0), -1);
}

TEST_F(adding_with_id, identifier_survives_an_update_without_one)
{
    sub_add_with_id("id", "a", 1, 1, 7);
    sub_add("id", "a", 2, 0);
    EXPECT_THAT(entries(), ElementsAre("id a 2 0 7"));
}

TEST_F(adding_with_id, refuses_bad_arguments_silently)
{
    at_debug();
    EXPECT_EQ(sub_add_with_id(nullptr, "a", 0, 0, 1), -1);
    EXPECT_EQ(sub_add_with_id("id", nullptr, 0, 0, 1), -1);
    EXPECT_EQ(sub_add_with_id("id", "a", 3, 0, 1), -1);
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ(sub_add_with_id("id", "a#", 0, 0, 1), -1);
    EXPECT_EQ(sub_add_with_id("id", "", 0, 0, 1), -1);
    EXPECT_THAT(log.take(),
                ElementsAre(logged::filter_hash_without_slash("a#", 1), logged::sub_add_with_id_bad_filter("id", "a#"),
                            logged::filter_empty(), logged::sub_add_with_id_bad_filter("id", "")));
    EXPECT_EQ(g_sub_mgr.sub_count, 0);
}

// ---- sub_remove

TEST_F(removing, takes_out_one_and_keeps_the_order)
{
    sub_add("c1", "a", 0, 0);
    sub_add("c2", "a/long/filter", 1, 1);
    sub_add_with_id("c3", "b", 2, 0, 9);
    log.take();
    EXPECT_EQ(sub_remove("c1", "a"), 1);
    EXPECT_THAT(log.take(), ElementsAre(logged::subscription_removed("c1", "a", 1)));
    EXPECT_THAT(entries(), ElementsAre("c2 a/long/filter 1 1 0", "c3 b 2 0 9"));
    const sub_entry_t empty{};
    EXPECT_EQ(memcmp(&g_sub_mgr.subs[2], &empty, sizeof empty), 0);
}

TEST_F(removing, moved_entries_keep_nothing_of_their_predecessors)
{
    sub_add("c1", std::string(500, 'x').c_str(), 2, 1);
    sub_add("c", "b", 0, 0);
    sub_remove("c1", nullptr);
    sub_entry_t expected{};
    strcpy(expected.client_id, "c");
    strcpy(expected.topic_filter, "b");
    EXPECT_EQ(memcmp(&g_sub_mgr.subs[0], &expected, sizeof expected), 0);
}

TEST_F(removing, takes_out_all_of_a_client)
{
    for (int i = 0; i < 5; ++i) {
        sub_add("c1", std::to_string(i).c_str(), 0, 0);
        sub_add("c2", std::to_string(i).c_str(), 0, 0);
    }
    log.take();
    EXPECT_EQ(sub_remove("c1", nullptr), 5);
    EXPECT_THAT(log.take(), ElementsAre(logged::subscription_removed("c1", "所有", 5)));
    EXPECT_THAT(entries(), ElementsAre("c2 0 0 0 0", "c2 1 0 0 0", "c2 2 0 0 0", "c2 3 0 0 0", "c2 4 0 0 0"));
}

TEST_F(removing, takes_out_nothing_where_nothing_fits)
{
    sub_add("c1", "a", 0, 0);
    log.take();
    EXPECT_EQ(sub_remove("c1", "b"), 0);
    EXPECT_EQ(sub_remove("c2", nullptr), 0);
    EXPECT_EQ(sub_remove("c1", ""), 0);
    EXPECT_THAT(log.take(),
                ElementsAre(logged::subscription_removed("c1", "b", 0), logged::subscription_removed("c2", "所有", 0),
                            logged::subscription_removed("c1", "", 0)));
    EXPECT_EQ(g_sub_mgr.sub_count, 1);
}

TEST_F(removing, takes_an_id_that_stands_in_the_table)
{
    ASSERT_EQ(sub_add("c1", "a", 0, 0), 0);
    EXPECT_EQ(sub_remove(g_sub_mgr.subs[0].client_id, nullptr), 1);
}

TEST_F(removing, refuses_a_missing_id)
{
    log.take();
    EXPECT_EQ(sub_remove(nullptr, "a"), -1);
    EXPECT_EQ(sub_remove("", nullptr), -1);
    EXPECT_THAT(log.take(), ElementsAre(logged::sub_remove_no_id(), logged::sub_remove_no_id()));
}

TEST_F(removing, at_debug_tells_every_look)
{
    sub_add("c1", "a", 0, 0);
    sub_add("c1", "b", 0, 0);
    sub_add("c2", "a", 0, 0);
    at_debug();
    EXPECT_EQ(sub_remove("c1", nullptr), 2);
    EXPECT_THAT(log.take(), ElementsAre(logged::sub_remove_started("c1", "所有"), logged::sub_remove_locked(3),
                                        logged::sub_remove_looks_at(0, "c1", "a"), logged::sub_remove_removes(0, "a"),
                                        logged::sub_remove_looks_at(0, "c1", "b"), logged::sub_remove_removes(0, "b"),
                                        logged::sub_remove_looks_at(0, "c2", "a"), logged::sub_remove_ended("c1", 2, 1),
                                        logged::subscription_removed("c1", "所有", 2)));
    EXPECT_EQ(sub_remove("c2", "x"), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::sub_remove_started("c2", "x"), logged::sub_remove_locked(1),
                                        logged::sub_remove_looks_at(0, "c2", "a"), logged::sub_remove_ended("c2", 0, 1),
                                        logged::subscription_removed("c2", "x", 0)));
    EXPECT_EQ(sub_remove(nullptr, nullptr), -1);
    EXPECT_THAT(log.take(), ElementsAre(logged::sub_remove_started("(null)", "所有"), logged::sub_remove_no_id()));
}

// ---- sub_match

TEST_F(matching, lists_every_matching_subscription_in_table_order)
{
    sub_add("plus", "a/+", 0, 0);
    sub_add("exact", "a/b", 0, 0);
    sub_add("other", "a/c", 0, 0);
    sub_add("hash", "#", 0, 0);
    sub_add("shared", "$share/g/a/b", 0, 0);
    sub_add("plus", "+/b", 0, 0);
    log.take();
    EXPECT_THAT(matches("a/b"), ElementsAre("plus", "exact", "hash", "shared", "plus"));
    EXPECT_THAT(log.take(), ElementsAre(logged::topic_matched("a/b", 5)));
    EXPECT_THAT(matches("x"), ElementsAre("hash"));
}

TEST_F(matching, finds_the_level_above_a_hash)
{
    sub_add("hash", "a/b/#", 0, 0);
    sub_add("root", "/#", 0, 0);
    EXPECT_THAT(matches("a/b"), ElementsAre("hash"));
    EXPECT_THAT(matches("a/b/"), ElementsAre("hash"));
    EXPECT_THAT(matches("a/b/c/d"), ElementsAre("hash"));
    EXPECT_THAT(matches("a"), IsEmpty());
    EXPECT_THAT(matches(""), ElementsAre("root"));
}

TEST_F(matching, copies_whole_entries)
{
    sub_add_with_id("id", "a", 2, 1, 77);
    sub_entry_t found;
    memset(&found, 0xEE, sizeof found);
    EXPECT_EQ(sub_match("a", &found, 1), 1);
    EXPECT_EQ(memcmp(&found, &g_sub_mgr.subs[0], sizeof found), 0);
}

TEST_F(matching, stops_when_there_is_no_more_room)
{
    for (const char *id : {"c1", "c2", "c3"})
        sub_add(id, "a", 0, 0);
    sub_add("c4", "$share/g/", 0, 0); // would complain
    log.take();
    EXPECT_THAT(matches("a", 1), ElementsAre("c1"));
    EXPECT_THAT(matches("a", 3), ElementsAre("c1", "c2", "c3"));
    EXPECT_THAT(log.take(), ElementsAre(logged::topic_matched("a", 1), logged::topic_matched("a", 3)));
}

TEST_F(matching, complains_about_a_shared_filter_without_a_topic_part_each_time)
{
    sub_add("c1", "$share/g/", 0, 0);
    sub_add("c2", "a", 0, 0);
    log.take();
    EXPECT_THAT(matches("a"), ElementsAre("c2"));
    EXPECT_THAT(matches("b"), IsEmpty());
    EXPECT_THAT(log.take(), ElementsAre(logged::filter_empty(), logged::topic_matched("a", 1), logged::filter_empty(),
                                        logged::topic_matched("b", 0)));
}

TEST_F(matching, refuses_bad_arguments)
{
    sub_entry_t room;
    log.take();
    EXPECT_EQ(sub_match(nullptr, &room, 1), 0);
    EXPECT_EQ(sub_match("a", nullptr, 1), 0);
    EXPECT_EQ(sub_match(nullptr, &room, 0), 0);
    EXPECT_EQ(sub_match(nullptr, &room, -1), 0);
    const std::vector<LogLine> lines = log.take();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], logged::sub_match_invalid(&room, 1));
    EXPECT_THAT(lines[1].text, testing::HasSubstr(", matched=(nil), max_matched=1）"));
    EXPECT_EQ(lines[2], logged::sub_match_invalid(&room, 0));
    EXPECT_EQ(lines[3], logged::sub_match_invalid(&room, -1));
    at_debug();
    EXPECT_EQ(sub_match(nullptr, &room, 1), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::sub_match_started("(null)", 1), lines[0]));
}

TEST_F(matching, at_debug_tells_every_look)
{
    sub_add("c1", "x", 0, 0);
    sub_add("c2", "a/#", 0, 0);
    sub_add("c3", "y", 0, 0);
    at_debug();
    EXPECT_THAT(matches("a/b", 5), ElementsAre("c2"));
    EXPECT_THAT(log.take(),
                ElementsAre(logged::sub_match_started("a/b", 5), logged::sub_match_locked(3),
                            logged::sub_match_looks_at(0, "c1", "x"), logged::topic_match_result("x", "a/b", 0),
                            logged::sub_match_looks_at(1, "c2", "a/#"), logged::sub_match_found(1, "c2"),
                            logged::sub_match_looks_at(2, "c3", "y"), logged::topic_match_result("y", "a/b", 0),
                            logged::sub_match_ended("a/b", 1), logged::topic_matched("a/b", 1)));
    EXPECT_THAT(matches("a/b", 1), ElementsAre("c2"));
    EXPECT_THAT(log.take(),
                ElementsAre(logged::sub_match_started("a/b", 1), logged::sub_match_locked(3),
                            logged::sub_match_looks_at(0, "c1", "x"), logged::topic_match_result("x", "a/b", 0),
                            logged::sub_match_looks_at(1, "c2", "a/#"), logged::sub_match_found(1, "c2"),
                            logged::sub_match_ended("a/b", 1), logged::topic_matched("a/b", 1)));
}

// ---- sub_get_client_sub_count, sub_find_by_identifier

TEST_F(counting, counts_the_entries_of_a_client)
{
    sub_add("c1", "a", 0, 0);
    sub_add("c2", "a", 0, 0);
    sub_add("c1", "b", 0, 0);
    log.take();
    EXPECT_EQ(sub_get_client_sub_count("c1"), 2);
    EXPECT_EQ(sub_get_client_sub_count("c"), 0);
    EXPECT_EQ(sub_get_client_sub_count(nullptr), -1);
    EXPECT_EQ(sub_get_client_sub_count(""), -1);
    EXPECT_THAT(log.take(),
                ElementsAre(logged::client_subscriptions_counted("c1", 2), logged::client_subscriptions_counted("c", 0),
                            logged::sub_count_no_id(), logged::sub_count_no_id()));
}

TEST_F(counting, at_debug_tells_every_look)
{
    sub_add("c1", "a", 0, 0);
    sub_add("c2", "a", 0, 0);
    at_debug();
    EXPECT_EQ(sub_get_client_sub_count("c2"), 1);
    EXPECT_THAT(log.take(), ElementsAre(logged::sub_count_started("c2"),
                                        debug("[TRACE] sub_get_client_sub_count：已加锁，当前订阅数=2"),
                                        logged::sub_count_looks_at(0, "c1"), logged::sub_count_looks_at(1, "c2"),
                                        debug("[TRACE] sub_get_client_sub_count：匹配到客户端订阅（索引=1）"),
                                        debug("[DEBUG] sub_get_client_sub_count：统计完成（client_id=c2, 订阅数量=1）"),
                                        logged::client_subscriptions_counted("c2", 1)));
    EXPECT_EQ(sub_get_client_sub_count(nullptr), -1);
    EXPECT_THAT(log.take(), ElementsAre(logged::sub_count_started("(null)"), logged::sub_count_no_id()));
}

TEST_F(finding, returns_the_first_with_the_identifier)
{
    sub_add("c0", "a", 0, 0);
    sub_add_with_id("c1", "a", 1, 0, 5);
    sub_add_with_id("c2", "a", 2, 0, 5);
    sub_entry_t found{};
    EXPECT_EQ(sub_find_by_identifier(5, &found), 0);
    EXPECT_STREQ(found.client_id, "c1");
    EXPECT_EQ(memcmp(&found, &g_sub_mgr.subs[1], sizeof found), 0);
    EXPECT_EQ(sub_find_by_identifier(6, &found), -1);
    EXPECT_EQ(sub_find_by_identifier(0, &found), -1);
    EXPECT_EQ(sub_find_by_identifier(5, nullptr), -1);
}
