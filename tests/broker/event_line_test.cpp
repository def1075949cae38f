// What --events makes of the library's texts.
#include "broker/events.h"

#include <gtest/gtest.h>
#include <tarn_sdk_mqtt_broker.h>

using namespace tarn::broker;

namespace {

std::string text_of(const std::string &id, const std::string &topic, int qos = 0)
{
    return ("{\"clientId\":\"" + id + "\",\"topic\":\"" + topic + "\",\"qos\":" + std::to_string(qos) + "}")
        .substr(0, 255);
}

// Behind the time and the event's name.
std::string line_of(const std::string &text, uint32_t kind = BROKER_EVENT_PUBLISH)
{
    const std::string line = event_line(0, kind, text);
    const size_t      at   = line.find(",\"clientId\"");
    return at == line.npos ? line : line.substr(at + 1);
}

} // namespace

TEST(event_line, has_time_name_and_the_librarys_three)
{
    EXPECT_EQ(event_line(1'790'000'000'007, BROKER_EVENT_PUBLISH, text_of("a", "home/x", 2)),
              R"({"time":"2026-09-21T14:13:20.007Z","event":"publish","clientId":"a","topic":"home/x","qos":2})");
}

TEST(event_line, names_every_kind)
{
    const char *const names[] = {"connected", "disconnected", "publish", "subscribe", "unsubscribe", "will", "unknown"};
    for (uint32_t kind = 0; kind < std::size(names); ++kind)
        EXPECT_EQ(event_line(0, kind, text_of("a", "")),
                  std::string(R"({"time":"1970-01-01T00:00:00.000Z","event":")") + names[kind] +
                      R"(","clientId":"a","topic":"","qos":0})");
}

TEST(event_line, quotes_in_id_and_topic_are_theirs)
{
    EXPECT_EQ(line_of(text_of("a\"b\\", "t\"}\n", 1)), R"("clientId":"a\"b\\","topic":"t\"}\u000a","qos":1})");
    EXPECT_EQ(line_of(text_of("a\",\"qos\":2}", "t\",\"qos\":2}", 1)),
              R"("clientId":"a\",\"qos\":2}","topic":"t\",\"qos\":2}","qos":1})");
    EXPECT_EQ(line_of(text_of("\xC3", "\xFF\x80")),
              "\"clientId\":\"\xEF\xBF\xBD\",\"topic\":\"\xEF\xBF\xBD\xEF\xBF\xBD\",\"qos\":0}");
}

TEST(event_line, two_ways_to_read_it_give_none)
{
    const std::string in_id = text_of("a\",\"topic\":\"b", "t"), in_topic = text_of("a", "b\",\"topic\":\"t");
    EXPECT_EQ(in_id, in_topic);
    EXPECT_EQ(line_of(in_id), R"("clientId":null,"topic":null,"qos":0,)"
                              R"("text":"{\"clientId\":\"a\",\"topic\":\"b\",\"topic\":\"t\",\"qos\":0}"})");
    // The two places share a quote.
    EXPECT_EQ(line_of(text_of("a", ",\"topic\":\"t")).substr(0, 30), R"("clientId":null,"topic":null,")");
    EXPECT_EQ(line_of(text_of("a\",\"topic\":", "t")).substr(0, 30), R"("clientId":null,"topic":null,")");
}

TEST(event_line, without_a_topic_the_id_ends_at_the_last_place)
{
    for (const uint32_t kind : {BROKER_EVENT_CONNECTED, BROKER_EVENT_DISCONNECTED})
        EXPECT_EQ(line_of(text_of("a\",\"topic\":\"b", ""), kind),
                  R"("clientId":"a\",\"topic\":\"b","topic":"","qos":0})");
}

TEST(event_line, a_text_of_255_characters_may_be_cut)
{
    const size_t      around = text_of("a", "").size();
    const std::string fits(254 - around, 't'), full(255 - around, 't'), longer(300, 't');
    EXPECT_EQ(line_of(text_of("a", fits, 1)), R"("clientId":"a","topic":")" + fits + R"(","qos":1})");
    EXPECT_EQ(line_of(text_of("a", full, 1)), R"("clientId":"a","topic":")" + full + R"(","qos":null,"cut":true})");
    EXPECT_EQ(line_of(text_of("a", longer)),
              R"("clientId":"a","topic":")" + longer.substr(0, 255 - 13 - 1 - 11) + R"(","qos":null,"cut":true})");
}

// However much of `","qos":1}` is still there, topic is a beginning of the topic.
TEST(event_line, what_is_cut_leaves_no_trace_in_the_topic)
{
    const size_t around = text_of("a", "").size();
    for (size_t more = 0; more <= 10; ++more) {
        const std::string topic(255 - around + more, 't');
        EXPECT_EQ(line_of(text_of("a", topic, 1)),
                  R"("clientId":"a","topic":")" + topic + R"(","qos":null,"cut":true})");
    }
}

TEST(event_line, a_character_that_is_cut_is_replaced)
{
    std::string topic;
    while (topic.size() < 300)
        topic += "é";
    const std::string line = line_of(text_of("ab", topic));
    EXPECT_NE(line.find("é\xEF\xBF\xBD\",\"qos\":null,\"cut\":true}"), std::string::npos) << line;
}

TEST(event_line, a_text_of_another_form_is_shown_whole)
{
    EXPECT_EQ(line_of("boo"), R"("clientId":null,"topic":null,"qos":null,"text":"boo"})");
    EXPECT_EQ(line_of(""), R"("clientId":null,"topic":null,"qos":null,"text":""})");
    EXPECT_EQ(line_of("{\"clientId\":\"a"), R"("clientId":null,"topic":null,"qos":null,"text":"{\"clientId\":\"a"})");
}

TEST(event_line, tells_how_many_were_lost)
{
    EXPECT_EQ(lost_line(1, 7), R"({"time":"1970-01-01T00:00:00.001Z","event":"lost","count":7})");
}
