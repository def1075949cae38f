// The lines that tell what clients were refused, and how many of them there are.
#include "broker/events.h"
#include "broker/refusals.h"

#include <gmock/gmock.h>

using namespace tarn::broker;
using testing::ElementsAre;

namespace {

struct refusals : testing::Test {
    std::vector<std::string> lines;
    RefusalLog               log{[this](const std::string &line) { lines.push_back(line); }};
};

const Refusal kPublication{Refusal::Publication, "alice", "x", "10.0.0.7:50000", "home/x", "no rule allows it"};

} // namespace

TEST_F(refusals, a_line_has_user_id_address_and_reason)
{
    EXPECT_EQ(refusal_text({Refusal::Login, "alice", "x", "10.0.0.7:50000", "", "unknown user or wrong password"}),
              "login refused: user alice, id x, address 10.0.0.7:50000: unknown user or wrong password");
    EXPECT_EQ(refusal_text(kPublication),
              "publication refused: user alice, id x, address 10.0.0.7:50000, topic home/x: no rule allows it");
    EXPECT_EQ(refusal_text({Refusal::Subscription, "", "", "10.0.0.7:50000", "#", "no rule allows it"}),
              "subscription refused: no user, no id, address 10.0.0.7:50000, filter #: no rule allows it");
    EXPECT_EQ(refusal_text({Refusal::Will, "", "x", "", "gone", "no rule allows it"}),
              "will dropped: no user, id x, no address, topic gone: no rule allows it");
}

TEST_F(refusals, hostile_names_stay_names)
{
    EXPECT_EQ(refusal_text({Refusal::Login, "a, id b", "x\n\x1b[2J", "", "", "why"}),
              "login refused: user \"a, id b\", id \"x\\n\\x1b[2J\", no address: why");
}

TEST_F(refusals, of_each_kind_so_many_are_told_and_the_rest_is_counted)
{
    const auto line_count = static_cast<size_t>(RefusalLog::kLinesMax);
    for (int i = 0; i < RefusalLog::kLinesMax + 3; ++i)
        log.report(kPublication);
    EXPECT_EQ(lines.size(), line_count);
    log.report({Refusal::Login, "alice", "x", "", "", "why"}); // a flood of one kind hides no other
    EXPECT_EQ(lines.size(), line_count + 1);
    lines.clear();
    log.end_period();
    EXPECT_THAT(lines, ElementsAre("3 more refused publications in the last 10 seconds"));
    lines.clear();
    log.end_period();
    EXPECT_THAT(lines, ElementsAre());
    log.report(kPublication);
    EXPECT_EQ(lines.size(), 1u);
}

TEST_F(refusals, the_event_of_one)
{
    EXPECT_EQ(refused_line(7, {Refusal::Publication, "a\"", "x\x1b", "10.0.0.7:50000", "\xFF", "no rule allows it"}),
              "{\"time\":\"1970-01-01T00:00:00.007Z\",\"event\":\"refused\",\"clientId\":\"x\\u001b\",\"topic\":"
              "\"\xEF\xBF\xBD\",\"qos\":null,\"what\":\"publish\",\"user\":\"a\\\"\",\"address\":\"10.0.0.7:50000\","
              "\"reason\":\"no rule allows it\"}");
    const char *const names[] = {"login", "publish", "subscribe", "will", "connect"};
    static_assert(std::size(names) == Refusal::kKinds);
    for (size_t kind = 0; kind < Refusal::kKinds; ++kind)
        EXPECT_THAT(refused_line(0, {static_cast<Refusal::Kind>(kind), "", "", "", "", ""}),
                    testing::HasSubstr(std::string("\"what\":\"") + names[kind] + '"'));
}
