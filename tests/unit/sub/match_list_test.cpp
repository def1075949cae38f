#include "sub/match_list.h"

#include "log/agent_log.h"
#include "sub/sub.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/log_lines/sub.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace tarn::test;
using tarn::sub::kNoGroup;
using tarn::sub::list_matches;
using tarn::sub::Match;
using tarn::sub::MatchList;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct match_list : testing::Test {
    match_list() { sub_init(); }
    LogCapture log{AGENT_LOG_INFO};
    MatchList  list;

    // "index id qos" and, of shared ones, "group" or "no group".
    std::vector<std::string> shown() const
    {
        std::vector<std::string> all;
        for (const Match &match : list.matches) {
            std::string text = std::to_string(match.index) + " " + match.client_id + " " + std::to_string(match.qos);
            if (match.shared)
                text += match.group_size == kNoGroup ? " no group" : " '" + std::string(list.group_of(match)) + "'";
            all.push_back(text);
        }
        return all;
    }
};

} // namespace

TEST_F(match_list, tell_who_at_which_qos_and_in_which_group)
{
    sub_add("c0", "x", 0, 0);
    sub_add("c1", "a/b", 1, 0);
    sub_add("c2", "$share/group/a/+", 2, 0);
    sub_add("c3", "$share//a/b", 0, 0);
    sub_add(std::string(64, 'i').c_str(), "#", 1, 0);
    log.take();
    EXPECT_EQ(list_matches("a/b", list), 4);
    EXPECT_THAT(log.take(), ElementsAre(logged::topic_matched("a/b", 4)));
    EXPECT_THAT(shown(), ElementsAre("1 c1 1", "2 c2 2 'group'", "3 c3 0 ''", "4 " + std::string(64, 'i') + " 1"));
}

TEST_F(match_list, tell_what_the_subscriber_asked_to_be_kept)
{
    sub_add("c1", "a", 0, 0);
    sub_add("c2", "a", 0, 1);
    EXPECT_EQ(list_matches("a", list), 2);
    EXPECT_EQ(list.matches[0].clean_session, 0);
    EXPECT_EQ(list.matches[1].clean_session, 1);
}

TEST_F(match_list, mark_a_shared_filter_without_second_slash)
{
    sub_add("c", "$share/g", 1, 0);
    EXPECT_EQ(list_matches("$share/g", list), 1);
    EXPECT_THAT(shown(), ElementsAre("0 c 1 no group"));
}

TEST_F(match_list, replace_those_of_the_call_before)
{
    sub_add("c", "$share/g/a", 1, 0);
    EXPECT_EQ(list_matches("a", list), 1);
    EXPECT_EQ(list_matches("a", list), 1);
    EXPECT_THAT(shown(), ElementsAre("0 c 1 'g'"));
    EXPECT_EQ(list.names.size(), 1u);
    EXPECT_EQ(list_matches("b", list), 0);
    EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(match_list, complain_as_the_match_does)
{
    sub_add("c", "$share/g/", 1, 0);
    log.take();
    EXPECT_EQ(list_matches("a", list), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::filter_empty(), logged::topic_matched("a", 0)));
}

TEST_F(match_list, at_debug_write_the_lines_of_the_match)
{
    sub_add("c1", "x", 0, 0);
    sub_add("c2", "a", 0, 0);
    agent_log_set_level(0);
    log.take();
    EXPECT_EQ(list_matches("a", list), 1);
    EXPECT_THAT(shown(), ElementsAre("1 c2 0"));
    EXPECT_THAT(log.take(),
                ElementsAre(logged::sub_match_started("a", 11000), logged::sub_match_locked(2),
                            logged::sub_match_looks_at(0, "c1", "x"), logged::topic_match_result("x", "a", 0),
                            logged::sub_match_looks_at(1, "c2", "a"), logged::topic_match_result("a", "a", 1),
                            logged::sub_match_found(1, "c2"), logged::sub_match_ended("a", 1),
                            logged::topic_matched("a", 1)));
}

TEST_F(match_list, need_a_topic)
{
    log.take();
    EXPECT_EQ(list_matches(nullptr, list), 0);
    const std::vector<LogLine> lines = log.take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, "ERROR");
    EXPECT_THAT(lines[0].text, testing::StartsWith("[DEBUG] sub_match：入参无效（topic=(nil), matched=0x"));
    EXPECT_THAT(lines[0].text, testing::EndsWith(", max_matched=11000）"));
}

TEST_F(match_list, fail_when_memory_runs_out)
{
    sub_add("c1", "$share/g/a", 1, 0);
    for (const int nth : {1, 2}) { // the group's name, the route
        MatchList fresh;
        log.take();
        Fail fail(Call::Allocate, nth);
        EXPECT_EQ(list_matches("a", fresh), -1);
        EXPECT_EQ(fail.failed(), 1);
    }
    MatchList fresh;
    EXPECT_EQ(list_matches("a", fresh), 1);
}
