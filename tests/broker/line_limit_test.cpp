// How many lines of one kind the log takes in a second, and what counts as one kind.
#include "broker/line_limit.h"

#include <gmock/gmock.h>

using namespace tarn::broker;
using testing::ElementsAre;

namespace {

struct line_limit : testing::Test {
    bool takes(const std::string &line, int64_t now_s = 1) { return limit.takes(line, now_s); }

    std::vector<std::string> told;
    LineLimit                limit{
        2, [this](uint64_t count, const std::string &kind) { told.push_back(std::to_string(count) + " " + kind); }};
};

} // namespace

TEST_F(line_limit, a_kind_ends_where_values_begin)
{
    const std::string time = "[2026-01-31 23:59:59.042] ";
    EXPECT_EQ(kind_of_line(time + "[WARN] CONNECT decode: empty ClientID"), "[WARN] CONNECT decode");
    EXPECT_EQ(kind_of_line(time + "[ERROR] ACK decode failed (need=3)"), "[ERROR] ACK decode failed ");
    EXPECT_EQ(kind_of_line(time + "[WARN] [SDK] kick client 'a' failed"), "[WARN] [SDK] kick client ");
    EXPECT_EQ(kind_of_line(time + "[WARN] [QoS][x] 12"), "[WARN] [QoS][x] ");
    EXPECT_EQ(kind_of_line(time + "[ERROR] filter[3]"), "[ERROR] filter");
    EXPECT_EQ(kind_of_line(time + "[WARN] [ACL] 发布被拒绝: t"), "[WARN] [ACL] 发布被拒绝");
    EXPECT_EQ(kind_of_line(time + "[WARN] 空过滤器（f=x）"), "[WARN] 空过滤器");
    EXPECT_EQ(kind_of_line("{\"online\":1}"), "{");
    EXPECT_EQ(kind_of_line(""), "");
}

TEST_F(line_limit, takes_so_many_of_each_kind_in_a_second)
{
    EXPECT_TRUE(takes("one: 1"));
    EXPECT_TRUE(takes("one: 2"));
    EXPECT_FALSE(takes("one: 3"));
    EXPECT_TRUE(takes("two"));
    EXPECT_FALSE(takes("one: 4"));
    EXPECT_THAT(told, ElementsAre());
    EXPECT_TRUE(takes("one: 5", 2));
    EXPECT_THAT(told, ElementsAre("2 one"));
}

TEST_F(line_limit, what_was_left_out_is_told_when_no_line_comes)
{
    for (int i = 0; i < 5; ++i)
        takes("one");
    limit.begin_second(1);
    EXPECT_THAT(told, ElementsAre());
    limit.begin_second(2);
    limit.begin_second(3);
    EXPECT_THAT(told, ElementsAre("3 one"));
}

TEST_F(line_limit, no_more_kinds_are_kept_than_it_says)
{
    std::string kind(10, 'a');
    for (size_t i = 0; i < LineLimit::kKindsMax; ++i) {
        for (size_t at = 0, rest = i; at < kind.size(); ++at, rest /= 26)
            kind[at] = static_cast<char>('a' + rest % 26);
        EXPECT_TRUE(takes(kind));
    }
    EXPECT_TRUE(takes("yet another"));
    EXPECT_TRUE(takes("and one more"));
    EXPECT_FALSE(takes("and a last one"));
    limit.begin_second(2);
    EXPECT_THAT(told, ElementsAre("1 [of many kinds]"));
}

TEST(line_limits, zero_is_none)
{
    LineLimit none(0, [](uint64_t, const std::string &) { FAIL(); });
    for (int i = 0; i < 1000; ++i)
        EXPECT_TRUE(none.takes("one", 1));
    none.begin_second(2);
}
