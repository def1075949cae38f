#include "sub/sub.h"

#include "log/agent_log.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

void expect_refused(const char *filter, const std::string &line)
{
    LogCapture log;
    EXPECT_EQ(mqtt_filter_is_valid(filter), 0) << (filter ? filter : "null");
    EXPECT_THAT(log.take(), ElementsAre(error("[DEBUG] mqtt_filter_is_valid：" + line)));
}

} // namespace

TEST(filter, accepts_silently)
{
    LogCapture log;
    for (const char *filter :
         {"a",  "/",   "a/",  "a//b",  "//",  "#",     "/#",         "a/#",        "a/b/#",    "+",      "+/",
          "/+", "+/b", "a/+", "a/+/b", "+/+", "+/+/+", "$share/g/a", "$share/g/#", "$share/g", "$SYS/+", " "})
        EXPECT_EQ(mqtt_filter_is_valid(filter), 1) << filter;
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(filter, refuses_nothing_and_the_empty_filter)
{
    expect_refused(nullptr, "空过滤器非法");
    expect_refused("", "空过滤器非法");
}

TEST(filter, refuses_a_hash_that_is_not_last)
{
    expect_refused("a/#/b", "#必须是最后一个字符（filter=a/#/b, #位置=2）");
    expect_refused("a/##", "#必须是最后一个字符（filter=a/##, #位置=2）");
    expect_refused("##", "#必须是最后一个字符（filter=##, #位置=0）");
    expect_refused("#/", "#必须是最后一个字符（filter=#/, #位置=0）");
    expect_refused("a+#b", "#必须是最后一个字符（filter=a+#b, #位置=2）"); // before the '+' is looked at
}

TEST(filter, refuses_a_hash_that_shares_its_level)
{
    expect_refused("a#", "#前必须是/（filter=a#, #位置=1）");
    expect_refused("a/b#", "#前必须是/（filter=a/b#, #位置=3）");
    expect_refused("+#", "#前必须是/（filter=+#, #位置=1）");
    expect_refused("a/+#", "#前必须是/（filter=a/+#, #位置=3）");
}

TEST(filter, refuses_a_plus_that_shares_its_level)
{
    expect_refused("a+", "+必须单独占一个层级（filter=a+, +位置=1）");
    expect_refused("+a", "+必须单独占一个层级（filter=+a, +位置=0）");
    expect_refused("++", "+必须单独占一个层级（filter=++, +位置=0）");
    expect_refused("a/+b/c", "+必须单独占一个层级（filter=a/+b/c, +位置=2）");
    expect_refused("+/+/b+/c", "+必须单独占一个层级（filter=+/+/b+/c, +位置=5）");
    expect_refused("a+/#", "+必须单独占一个层级（filter=a+/#, +位置=1）"); // before the rule below
}

TEST(filter, refuses_plus_before_hash)
{
    for (const std::string filter : {"+/#", "a/+/#", "+/a/#", "+/+/#"})
        expect_refused(filter.c_str(), "#前不能有+（filter=" + filter + "）");
}
