// What matched a topic is remembered for the next message on it, until the table changes, by whomever.
#include "sub/match_memo.h"

#include "log/agent_log.h"
#include "sub/match_list.h"
#include "sub/sub.h"
#include "support/faults.h"
#include "support/library_thread.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Texts = std::vector<std::string>;

// In a table of 65 or more, stamps are not all compared for a message of the library's threads; the clock stands still,
// so they are not compared after a pause either.
struct match_memo : testing::TestWithParam<int> {
    match_memo()
    {
        sub_init();
        for (int i = 0; i < GetParam(); ++i)
            sub_add(("c" + std::to_string(i)).c_str(), ("t/" + std::to_string(i)).c_str(), 1, 0);
        on_a_library_thread([] { (void)routed("t/0"); });
    }
    ~match_memo() override { sub_deinit(); }
    LogCapture  log{AGENT_LOG_INFO};
    ManualClock clock;

    static Texts routed(const std::string &topic)
    {
        static tarn::sub::MatchList list;
        Texts                       found;
        (void)tarn::sub::list_matches(topic.c_str(), list);
        for (const tarn::sub::Match &match : list.matches)
            found.push_back(match.client_id + std::string(" ") + std::to_string(match.qos));
        return found;
    }
    // Twice, so that the second time it may be known.
    static Texts routed_by_the_library(const std::string &topic)
    {
        Texts once, again;
        on_a_library_thread([&] {
            once  = routed(topic);
            again = routed(topic);
        });
        EXPECT_EQ(once, again) << topic;
        return again;
    }
    static bool is_remembered(const std::string &topic)
    {
        tarn::ScopedLock lock(g_sub_mgr.lock);
        return !tarn::sub::remembered_matches(g_sub_mgr, topic).empty();
    }
};

} // namespace

INSTANTIATE_TEST_SUITE_P(in_a_table_of, match_memo, testing::Values(10, 100), testing::PrintToStringParamName());

TEST_P(match_memo, remembers_what_matched)
{
    sub_add("other", "t/+", 2, 0);
    EXPECT_FALSE(is_remembered("t/7"));
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("c7 1", "other 2"));
    EXPECT_TRUE(is_remembered("t/7"));
    EXPECT_THAT(routed("t/7"), ElementsAre("c7 1", "other 2"));
    sub_entry_t first[1];
    EXPECT_EQ(sub_match("t/7", first, 1), 1) << "no more than there is room for";
}

TEST_P(match_memo, is_of_the_whole_topic)
{
    EXPECT_THAT(routed_by_the_library("t/1"), ElementsAre("c1 1"));
    for (const char *const other : {"t/", "t/1/", "t/11", "t", "T/1"})
        EXPECT_FALSE(is_remembered(other)) << other;
    EXPECT_THAT(routed_by_the_library("t/1/"), IsEmpty());
    for (const size_t length : {62u, 63u, 64u, 200u}) { // around the longest that is kept
        const std::string topic(length, 'x');
        sub_add("long", topic.c_str(), 0, 0);
        EXPECT_THAT(routed_by_the_library(topic), ElementsAre("long 0")) << length;
        EXPECT_THAT(routed_by_the_library(topic.substr(1) + "y"), IsEmpty()) << length;
        EXPECT_EQ(is_remembered(topic), length <= 62) << length;
    }
}

TEST_P(match_memo, has_room_for_some_matches)
{
    for (int i = 1; i <= 20; ++i) {
        sub_add(("fan" + std::to_string(i)).c_str(), "fan", 0, 0);
        EXPECT_EQ(routed_by_the_library("fan").size(), static_cast<size_t>(i));
        EXPECT_EQ(is_remembered("fan"), i <= 14);
    }
}

TEST_P(match_memo, is_void_when_a_subscription_comes_or_goes)
{
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("c7 1"));
    sub_add("new", "#", 0, 0);
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("c7 1", "new 0"));
    sub_remove("c3", nullptr); // moves what is behind it
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("c7 1", "new 0"));
    sub_remove("c7", "t/7");
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("new 0"));
    on_a_library_thread([] { sub_add("newer", "t/7", 1, 0); });
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("new 0", "newer 1"));
    on_a_library_thread([] { sub_remove("new", nullptr); });
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("newer 1"));
    sub_init();
    EXPECT_THAT(routed_by_the_library("t/7"), IsEmpty());
}

TEST_P(match_memo, reads_ids_and_qos_anew)
{
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("c7 1"));
    sub_add("c7", "t/7", 2, 0); // an update
    EXPECT_TRUE(is_remembered("t/7"));
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("c7 2"));
    strcpy(g_sub_mgr.subs[7].client_id, "hand");
    g_sub_mgr.subs[7].qos = 0;
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("hand 0"));
}

TEST_P(match_memo, notices_a_filter_that_was_written_over)
{
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("c7 1"));
    strcpy(g_sub_mgr.subs[7].topic_filter, "t/x");
    EXPECT_FALSE(is_remembered("t/7") && GetParam() > tarn::sub::kAlwaysCheckedEntries);
    EXPECT_THAT(routed_by_the_library("t/7"), IsEmpty());
    EXPECT_THAT(routed("t/x"), ElementsAre("c7 1"));
    strcpy(g_sub_mgr.subs[7].topic_filter, "t/7");
    EXPECT_THAT(routed("t/7"), ElementsAre("c7 1"));
}

// A host's thread compares all stamps, so what it finds beside what was remembered is what stands there.
TEST_P(match_memo, of_a_host_thread_has_what_was_written_in)
{
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("c7 1"));
    strcpy(g_sub_mgr.subs[9].topic_filter, "t/7");
    EXPECT_THAT(routed("t/7"), ElementsAre("c7 1", "c9 1"));
    g_sub_mgr.sub_count = 8;
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("c7 1"));
    g_sub_mgr.sub_count = 7;
    EXPECT_THAT(routed_by_the_library("t/7"), IsEmpty());
}

// An entry that was edited since the stamps were compared is found by its old filter and matched with its new one.
TEST_P(match_memo, keeps_nothing_of_an_entry_with_another_stamp)
{
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("c7 1"));
    strcpy(g_sub_mgr.subs[7].topic_filter, "t/#");
    EXPECT_THAT(routed_by_the_library("t/7"), ElementsAre("c7 1"));
    EXPECT_EQ(is_remembered("t/7"), GetParam() <= tarn::sub::kAlwaysCheckedEntries) << "there it was compared at once";
}

TEST_P(match_memo, leaves_out_topics_of_which_a_candidate_complains)
{
    strcpy(g_sub_mgr.subs[3].topic_filter, "wrong#");
    EXPECT_THAT(routed("t/7"), ElementsAre("c7 1"));
    EXPECT_FALSE(is_remembered("t/7"));
    (void)log.take_from("ERROR");
    EXPECT_THAT(routed("t/7"), ElementsAre("c7 1"));
    EXPECT_EQ(log.take_from("ERROR").size(), 1u) << "each time";
}
