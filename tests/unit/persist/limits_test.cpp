// How much of each file comes back, to the byte, and what becomes of texts that are cut or bent.
#include "persist_fixture.h"
#include "support/log_lines/persist.h"

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

using limits = DataDirectory;

namespace {

void session(const std::string &text)
{
    write_text("data/session/dev1.json", text);
}
void subscriptions(const std::string &text)
{
    write_text("data/subscription/dev1.json", text);
}
void messages(const std::string &text)
{
    write_text("data/message/dev1.json", text);
}

// Blanks in front, so that `text` ends at byte `end`.
std::string ending_at(size_t end, const std::string &text)
{
    return std::string(end - text.size(), ' ') + text;
}

} // namespace

TEST_F(limits, of_a_session_file_2047_bytes_are_read)
{
    const std::string number = R"("session_expiry_interval":12)";
    session(ending_at(2047, number) + "3");
    EXPECT_EQ(load().session_expiry_interval, 12u);
    session(ending_at(2048, number));
    EXPECT_EQ(load().session_expiry_interval, 1u);
    session(ending_at(2049, number));
    EXPECT_EQ(load().session_expiry_interval, 0u);
    session(ending_at(2050, number));
    EXPECT_EQ(load().session_expiry_interval, 0u) << "without its colon the key is none";
}

TEST_F(limits, a_value_behind_the_end_of_the_text_is_nothing)
{
    record->session_expiry_deadline = 77;
    session(ending_at(2047, R"("session_expiry_deadline":)"));
    EXPECT_EQ(persist_load(record.get()), 0);
    EXPECT_EQ(record->session_expiry_deadline, 0u);
    session(R"("session_expiry_deadline":1)");
    EXPECT_EQ(load().session_expiry_deadline, 0u);
    session(R"("session_expiry_deadline":123)");
    EXPECT_EQ(load().session_expiry_deadline, 3u);
}

TEST_F(limits, a_session_file_cut_anywhere_gives_the_keys_it_still_has)
{
    const std::string whole =
        R"({"clean_start":true,"session_expiry_interval":61,"session_expiry_deadline":1763200000,)"
        R"("will_flag":true,"will_topic":"w","will_qos":1,"will_len":5,"will_delay_interval":7,)"
        R"("will_payload_format":1,"will_content_type":"c","will_correlation_len":3})";
    for (size_t length = 0; length <= whole.size(); ++length) {
        session(whole.substr(0, length));
        load();
        EXPECT_EQ(record->clean_start, length >= whole.find("true") + 4);
        EXPECT_EQ(record->session_expiry_interval, length >= whole.find("61") + 2   ? 61u
                                                   : length >= whole.find("61") + 1 ? 6u
                                                                                    : 0u);
        EXPECT_EQ(record->will_len, length > whole.find(":5,") + 1 ? 5u : 0u);
        EXPECT_EQ(record->will_delay_interval, length > whole.find(":7,") + 1 ? 7u : 0u);
        EXPECT_EQ(record->will_correlation_len, length > whole.find(":3}") + 1 ? 3u : 0u);
    }
}

TEST_F(limits, without_a_will_its_first_fields_are_not_looked_at)
{
    session(
        R"({"will_flag":false,"will_topic":"w","will_qos":1,"will_len":5,"will_payload":"61","will_delay_interval":7})");
    strcpy(record->will_topic, "kept");
    record->will_qos = 2;
    record->will_len = 9;
    EXPECT_EQ(persist_load(record.get()), 0);
    EXPECT_STREQ(record->will_topic, "kept");
    EXPECT_EQ(record->will_qos, 2);
    EXPECT_EQ(record->will_len, 9u);
    EXPECT_EQ(record->will_delay_interval, 7u);
}

TEST_F(limits, what_a_session_file_does_not_name_stays)
{
    session("{}");
    record->clean_session           = 1;
    record->clean_start             = 1;
    record->session_expiry_interval = 1;
    record->last_online             = 2;
    record->will_flag               = 1;
    record->will_payload_format     = 3;
    strcpy(record->will_content_type, "c");
    persist_session_t before;
    memcpy(&before, record.get(), sizeof before);
    EXPECT_EQ(persist_load(record.get()), 0);
    EXPECT_EQ(memcmp(&before, record.get(), sizeof before), 0);
    session(R"({"client_id":"x","clean_session":false,"last_online":9})");
    EXPECT_EQ(persist_load(record.get()), 0);
    EXPECT_EQ(memcmp(&before, record.get(), sizeof before), 0) << "these are never read";
}

TEST_F(limits, the_first_of_two_equal_keys_counts)
{
    session(R"({"session_expiry_interval":1,"session_expiry_interval":2})");
    EXPECT_EQ(load().session_expiry_interval, 1u);
}

TEST_F(limits, of_a_subscription_file_2047_bytes_are_read)
{
    const std::string entry = R"("subs":[{"topic":"a/b","qos":1)";
    subscriptions(ending_at(2047, entry) + "2");
    EXPECT_EQ(load().sub_count, 1);
    EXPECT_EQ(record->subs[0].qos, 1);
    subscriptions(ending_at(2048, entry));
    EXPECT_EQ(load().sub_count, 1);
    EXPECT_EQ(record->subs[0].qos, 0);
    subscriptions(ending_at(2049, entry));
    EXPECT_EQ(load().sub_count, 0) << "the colon is byte 2048";
}

TEST_F(limits, of_a_message_file_4095_bytes_are_read)
{
    const std::string object = R"("msgs":[{"msgid":1,"qos":1,"topic":"t","payload":"61"})";
    messages(ending_at(4095, object));
    EXPECT_EQ(load().msg_count, 1);
    messages(ending_at(4096, object));
    EXPECT_EQ(load().msg_count, 0);
}

TEST_F(limits, of_a_message_1023_characters_are_looked_at)
{
    const auto object = [](size_t characters) {
        std::string text = R"({"msgid":1,"qos":1,"topic":"t","payload":"61"})";
        return text.insert(1, characters - text.size(), ' ');
    };
    messages(R"({"msgs":[)" + object(1024) + object(1025) + object(1026) + "]}");
    ASSERT_EQ(load().msg_count, 3);
    EXPECT_EQ(record->msgs[0].payload_len, 1u) << "only the brace is cut off";
    EXPECT_EQ(record->msgs[1].payload_len, 0u) << "the payload's closing quote, too";
    EXPECT_EQ(record->msgs[2].payload_len, 0u);
    messages(R"({"msgs":[)" + object(1023 + 4) + object(1023 + 5) + "]}");
    EXPECT_EQ(load().msg_count, 1) << "the payload's opening quote is byte 1023, then 1024";
}

TEST_F(limits, of_many_messages_the_oldest_come_back)
{
    const std::string topic = "home/kitchen/temperature";
    LogCapture        quiet(4);
    for (int i = 0; i < 100; ++i) {
        std::string payload = std::to_string(1000 + i);
        payload.resize(20, 'x');
        ASSERT_EQ(persist_add_offline_msg("dev1", topic.c_str(), bytes(payload.c_str()), 20, 1), 0);
    }
    load(); // each takes 108 to 112 characters, by the digits of its identifier: a 37th may or may not fit
    EXPECT_GE(record->msg_count, 36);
    EXPECT_LE(record->msg_count, 37);
    for (int i = 0; i < 36; ++i)
        EXPECT_EQ(memcmp(record->msgs[i].payload, std::to_string(1000 + i).c_str(), 4), 0) << i;
}

TEST_F(limits, a_payload_above_some_480_bytes_does_not_come_back)
{
    const std::string payload(500, 'p');
    const auto        kept = [&](int32_t length) {
        std::filesystem::remove("data/message/dev1.json");
        EXPECT_EQ(persist_add_offline_msg("dev1", "t", bytes(payload.c_str()), length, 1), 0);
        EXPECT_EQ(load().msg_count, 1);
        return record->msgs[0].payload_len;
    };
    EXPECT_EQ(kept(480), 480u);
    EXPECT_EQ(kept(500), 0u);
}

TEST_F(limits, sixty_four_subscriptions_are_the_most)
{
    for (const int count : {63, 64, 65}) {
        std::string text = R"({"subs":[)";
        for (int i = 0; i < count; ++i)
            text += R"({"topic":"t","qos":)" + std::to_string(i % 3) + "},";
        subscriptions(text);
        LogCapture log(1);
        EXPECT_EQ(load().sub_count, std::min(count, 64));
        EXPECT_THAT(log.take(), ElementsAre(logged::subscriptions_restored("dev1", std::min(count, 64))));
        EXPECT_EQ(record->msg_count, 0);
    }
}

TEST_F(limits, a_hundred_messages_are_the_most)
{
    for (const int count : {99, 100, 101}) {
        std::string text = R"({"msgs":[)";
        for (int i = 0; i < count; ++i)
            text += R"({"topic":"","qos":,"msgid":,"payload":"})";
        ASSERT_LT(text.size(), 4096u);
        messages(text);
        EXPECT_EQ(load().msg_count, std::min(count, 100));
    }
}

TEST_F(limits, the_100th_message_drops_none_and_the_101st_the_oldest)
{
    std::string text = R"({"msgs":[{"msgid":5,"topic":"o","qos":,"payload":"})";
    for (int i = 1; i < 99; ++i)
        text += R"({"topic":"","qos":,"msgid":,"payload":"})";
    messages(text);
    LogCapture log(2);
    EXPECT_EQ(persist_add_offline_msg("dev1", "new", bytes("x"), 1, 1), 0);
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_THAT(read_text("data/message/dev1.json"),
                testing::StartsWith(R"({"msgs":[{"msgid":5,"qos":0,"topic":"o",)"));

    messages(text + R"({"topic":"","qos":,"msgid":,"payload":"})");
    EXPECT_EQ(persist_add_offline_msg("dev1", "new", bytes("x"), 1, 1), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::kept_message_dropped("dev1")));
    const std::string kept = read_text("data/message/dev1.json");
    EXPECT_THAT(kept, testing::StartsWith(R"({"msgs":[{"msgid":0,"qos":0,"topic":"",)"));
    EXPECT_THAT(kept, testing::EndsWith(R"(,"qos":1,"topic":"new","payload":"78"}]})"));
}

TEST_F(limits, topics_are_cut_at_255_characters)
{
    for (const size_t length : {254, 255, 256}) {
        const std::string topic(length, 't');
        const size_t      kept = std::min<size_t>(length, 255);
        std::filesystem::remove("data/message/dev1.json");
        persist_add_offline_msg("dev1", topic.c_str(), bytes("x"), 1, 1);
        EXPECT_THAT(read_text("data/message/dev1.json"),
                    testing::HasSubstr(R"("topic":")" + std::string(kept, 't') + "\""));
        messages(R"({"msgs":[{"msgid":1,"qos":1,"topic":")" + topic + R"(","payload":"61"}]})");
        subscriptions(R"({"subs":[{"topic":")" + topic + R"(","qos":2}]})");
        load();
        EXPECT_EQ(strlen(record->msgs[0].topic), kept);
        EXPECT_EQ(strlen(record->subs[0].topic), kept);
    }
    std::string escaped; // 255 of them are read, whatever room they take
    for (int i = 0; i < 256; ++i)
        escaped += "\\\\";
    subscriptions(R"({"subs":[{"topic":")" + escaped + R"(","qos":2}]})");
    EXPECT_STREQ(load().subs[0].topic, std::string(255, '\\').c_str());
}

TEST_F(limits, payloads_are_stored_up_to_1024_bytes)
{
    for (const int length : {1023, 1024, 1025}) {
        const std::string payload(1500, 'p');
        std::filesystem::remove("data/message/dev1.json");
        EXPECT_EQ(persist_add_offline_msg("dev1", "t", bytes(payload.c_str()), length, 1), 0);
        const std::string text  = read_text("data/message/dev1.json");
        const size_t      start = text.find("payload\":\"") + 10;
        EXPECT_EQ(text.size() - start - strlen(R"("}]})"), 2u * static_cast<size_t>(std::min(length, 1024)));
    }
}

TEST_F(limits, escapes_that_are_written_are_read_and_all_other_backslashes_stay)
{
    const struct {
        const char *raw, *topic;
    } kCases[] = {
        {R"(\"\\)", "\"\\"},
        {R"(\u0001\u0009\u000a\u001f\u007b\u007d)", "\x01\t\n\x1f{}"},
        {R"(\/\b\f\n\r\t)", R"(\/\b\f\n\r\t)"},
        {R"(C:\new\table\u0041)", R"(C:\new\table\u0041)"}, // as it was written before there were escapes
        {R"(\u0000\u0020\u0022\u005c\u007a\u007c\u007f)", R"(\u0000\u0020\u0022\u005c\u007a\u007c\u007f)"},
        {R"(\u001F\u000A\u007B\u007D)", R"(\u001F\u000A\u007B\u007D)"},
        {R"(\u0080\u00ff\u0141\u0101\U001f\u001\u00g1\u001g)", R"(\u0080\u00ff\u0141\u0101\U001f\u001\u00g1\u001g)"},
        {R"(\a\x\')", R"(\a\x\')"},
        {R"(\\u001f)", R"(\u001f)"},
        {R"(a\\)", "a\\"},
    };
    for (const auto &[raw, topic] : kCases) {
        subscriptions(std::string(R"({"subs":[{"topic":")") + raw + R"(","qos":1}]})");
        messages(std::string(R"({"msgs":[{"msgid":1,"qos":1,"topic":")") + raw + R"(","payload":"61"}]})");
        load();
        EXPECT_STREQ(record->subs[0].topic, topic);
        EXPECT_STREQ(record->msgs[0].topic, topic);
    }
    subscriptions(R"({"subs":[{"topic":"a\","qos":1}]})");
    messages(R"({"msgs":[{"msgid":1,"qos":1,"topic":"a\\\"b\\","payload":"61"}]})");
    load();
    EXPECT_STREQ(record->subs[0].topic, "a\\") << "it ends at the key that follows";
    EXPECT_STREQ(record->msgs[0].topic, "a\\\"b\\") << "it ends at the quote that is not escaped";
    messages(R"({"msgs":[{"msgid":1,"qos":1,"topic":"never closed\","payload":\"61\"}]})");
    EXPECT_EQ(load().msg_count, 0) << "without a payload it is none";
}

TEST_F(limits, every_byte_comes_back_as_it_was_written)
{
    std::string topic;
    for (int byte = 1; byte < 256; ++byte)
        topic += static_cast<char>(byte);
    subscribe(topic.c_str(), 1);
    record->msg_count = 1;
    strcpy(record->msgs[0].topic, topic.c_str());
    persist_mark(record.get(), PERSIST_SUBSCRIPTIONS);
    persist_mark(record.get(), PERSIST_MESSAGES);
    load();
    ASSERT_EQ(record->sub_count, 1);
    EXPECT_EQ(record->subs[0].topic, topic);
    ASSERT_EQ(record->msg_count, 1);
    EXPECT_EQ(record->msgs[0].topic, topic);
}

TEST_F(limits, payloads_are_read_up_to_what_is_no_hex_pair)
{
    const struct {
        const char *raw, *payload;
    } kCases[] = {{"6162", "ab"}, {"6A6a", "jj"}, {"616", "a"}, {"61x2", "a"}, {"6x", ""}, {"", ""}, {"612x63", "a"}};
    for (const auto &[raw, payload] : kCases) {
        messages(std::string(R"({"msgs":[{"msgid":1,"qos":1,"topic":"t","payload":")") + raw + R"("}]})");
        ASSERT_EQ(load().msg_count, 1);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(record->msgs[0].payload), record->msgs[0].payload_len),
                  payload);
    }
    messages(R"({"msgs":[{"msgid":1,"qos":1,"topic":"t","payload":"6162}]})");
    ASSERT_EQ(load().msg_count, 1);
    EXPECT_EQ(record->msgs[0].payload_len, 0u) << "never closed";
}

TEST_F(limits, lists_end_where_they_stop_making_sense)
{
    LogCapture log(1);
    subscriptions(R"({"other":[{"topic":"a","qos":1}]})");
    record->sub_count = 3;
    EXPECT_EQ(persist_load(record.get()), 0);
    EXPECT_EQ(record->sub_count, 0);
    EXPECT_THAT(log.take(), IsEmpty()) << "without a list nothing is said";
    subscriptions(R"({"subs":[{"topic":"a","qos":1},{"topic":"b"},{"topic":"c","qos":2}]})");
    EXPECT_EQ(load().sub_count, 2);
    EXPECT_STREQ(record->subs[1].topic, R"(b"},{"topic":"c)") << "up to the next key";
    subscriptions(R"({"subs":[{"topic":"a","qos":1},{"topic":"b"}]})");
    EXPECT_EQ(load().sub_count, 1);
    for (const char *lacking : {R"("qos":1,"topic":"t","payload":"61")", R"("msgid":1,"topic":"t","payload":"61")",
                                R"("msgid":1,"qos":1,"payload":"61")", R"("msgid":1,"qos":1,"topic":"t")"}) {
        messages(std::string(R"({"msgs":[{)") + lacking + R"(},{"msgid":2,"qos":1,"topic":"t","payload":"61"}]})");
        ASSERT_EQ(load().msg_count, 1) << lacking;
        EXPECT_EQ(record->msgs[0].msgid, 2);
    }
}

TEST_F(limits, a_stored_identifier_is_between_1_and_65535_and_differs)
{
    std::set<int> seen;
    ManualClock   clock;
    for (int i = 0; i < 60; ++i)
        EXPECT_EQ(persist_add_offline_msg("dev1", "t", bytes("x"), 1, 1), 0);
    load();
    for (int i = 0; i < record->msg_count; ++i) {
        EXPECT_NE(record->msgs[i].msgid, 0);
        EXPECT_EQ(record->msgs[i].store_time, 0u) << "kept in memory only";
        seen.insert(record->msgs[i].msgid);
    }
    EXPECT_EQ(record->msg_count, 60);
    EXPECT_GT(seen.size(), 50u);
}

TEST_F(limits, an_unknown_identifier_writes_the_file_unchanged)
{
    persist_add_offline_msg("dev1", "a", bytes("1"), 1, 1);
    const std::string before = read_text("data/message/dev1.json");
    const uint16_t    other  = load().msgs[0].msgid == 9 ? 8 : 9;
    memset(static_cast<void *>(&g_mqtt_stats), 0, sizeof g_mqtt_stats);
    EXPECT_EQ(persist_remove_offline_msg("dev1", other), 0);
    EXPECT_EQ(g_mqtt_stats.persist_write, 1u);
    EXPECT_EQ(read_text("data/message/dev1.json"), before);
    messages(
        R"({"msgs":[{"msgid":7,"qos":1,"topic":"a","payload":"61"},{"msgid":8,"qos":1,"topic":"b","payload":"61"},)"
        R"({"msgid":7,"qos":1,"topic":"c","payload":"61"}]})");
    EXPECT_EQ(persist_remove_offline_msg("dev1", 7), 0);
    EXPECT_EQ(read_text("data/message/dev1.json"), R"({"msgs":[{"msgid":8,"qos":1,"topic":"b","payload":"61"}]})");
    EXPECT_EQ(persist_remove_offline_msg("nobody", 7), 0);
    EXPECT_EQ(read_text("data/message/nobody.json"), R"({"msgs":[]})");
}

TEST_F(limits, what_memory_does_not_let_be_read_is_not_overwritten)
{
    const std::string kept = R"({"msgs":[{"msgid":7,"qos":1,"topic":"a","payload":"61"}]})";
    messages(kept);
    persist_add_offline_msg("other", "t", bytes("x"), 1, 1); // this thread's record has its memory
    for (const int nth : {1, 2}) {
        Fail fail(Call::Allocate, nth);
        EXPECT_EQ(persist_add_offline_msg("dev1", "t", bytes("x"), 1, 1), -1);
        EXPECT_EQ(fail.failed(), 1);
    }
    for (const int nth : {1, 2}) {
        Fail fail(Call::Allocate, nth);
        EXPECT_EQ(persist_remove_offline_msg("dev1", 7), -4);
    }
    EXPECT_EQ(read_text("data/message/dev1.json"), kept);
    EXPECT_EQ(persist_add_offline_msg("", "t", bytes("x"), 1, 1), 0);
    EXPECT_FALSE(std::filesystem::exists("data/message/.json")) << "nobody's message has no file";
}

TEST_F(limits, sixty_messages_from_two_threads_are_all_kept)
{
    LogCapture quiet(4);
    const auto add = [] {
        for (int i = 0; i < 30; ++i)
            EXPECT_EQ(persist_add_offline_msg("dev1", "t", bytes("x"), 1, 1), 0);
    };
    std::thread other(add);
    add();
    other.join();
    EXPECT_EQ(load().msg_count, 60);
}
