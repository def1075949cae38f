#include "log/agent_log.h"
#include "support/faults.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

TEST(agent_log, prints_time_level_and_message)
{
    LogCapture log(AGENT_LOG_WARN);
    agent_log(AGENT_LOG_ERROR, "text %d", 7);
    EXPECT_THAT(log.raw(), MatchesRegex("\\[[0-9-]+ [0-9:]+\\.[0-9][0-9][0-9]\\] \\[ERROR\\] text 7\n"));
}

TEST(agent_log, prints_nothing_below_its_level)
{
    LogCapture log(AGENT_LOG_WARN);
    agent_log(AGENT_LOG_DEBUG, "text");
    agent_log(AGENT_LOG_INFO, "text");
    EXPECT_THAT(log.take(), IsEmpty());
    agent_log(AGENT_LOG_WARN, "text");
    EXPECT_THAT(log.take(), ElementsAre(warn("text")));
}
