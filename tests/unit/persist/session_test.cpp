#include "persist_fixture.h"
#include "support/log_lines/persist.h"

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

using session_file = DataDirectory;
using loading      = DataDirectory;

TEST_F(session_file, carries_every_field)
{
    record->session_expiry_interval = 60;
    record->session_expiry_deadline = 1763200000;
    record->clean_start             = 1;
    persist_mark(record.get(), PERSIST_SESSION);
    const std::string whole =
        R"({"client_id":"dev1","clean_session":false,"clean_start":true,"session_expiry_interval":60,)"
        R"("session_expiry_deadline":1763200000,"last_online":0,"will_flag":false,"will_topic":"","will_qos":0,)"
        R"("will_len":0,"will_payload":"","will_delay_interval":0,"will_msg_expiry_interval":0,"will_payload_format":0,)"
        R"("will_content_type":"","will_response_topic":"","will_correlation_len":0})";
    EXPECT_EQ(read_text("data/session/dev1.json"), whole.substr(0, 227));
    EXPECT_EQ(g_mqtt_stats.persist_write, 1u);
}

TEST_F(session_file, is_cut_at_227_characters)
{
    record->will_flag = 1;
    memset(record->will_topic, 't', 200);
    persist_mark(record.get(), PERSIST_SESSION);
    EXPECT_EQ(read_text("data/session/dev1.json").size(), 227u);
}

TEST_F(session_file, written_with_others_is_cut_where_their_buffer_ends)
{
    constexpr uint8_t kSession = PERSIST_SESSION, kSubs = PERSIST_SUBSCRIPTIONS, kMsgs = PERSIST_MESSAGES;
    const struct {
        uint8_t what;
        int     subs, msgs;
        size_t  characters;
    } kCases[] = {
        {kSession, 1, 2, 227},
        {kSession | kSubs, 0, 2, 227},
        {kSession | kSubs, 1, 2, 227 + 288},
        {kSession | kSubs, 5, 2, 227 + 5 * 288},
        {kSession | kSubs, -1, 0, 227},
        {kSession | kMsgs, 1, 0, 227},
        {kSession | kMsgs, 1, -1, 227},
        {kSession | kMsgs, 1, 1, 227 + 2368},
        {kSession | kSubs | kMsgs, 0, 0, 227},
        {kSession | kSubs | kMsgs, 1, 0, 227 + 288},
        {kSession | kSubs | kMsgs, 1, 1, 227 + 288 + 2368},
    };
    // A will whose text alone has more characters than any of these buffers: escapes count as they are written.
    record->will_flag = 1;
    record->will_len  = sizeof record->will_payload;
    memset(record->will_topic, 'w', sizeof record->will_topic - 1);
    memset(record->will_content_type, '\x01', sizeof record->will_content_type - 1);
    memset(record->will_response_topic, '\x02', sizeof record->will_response_topic - 1);
    record->sub_count = 64;
    persist_flush_single(record.get(), kSession | kSubs);
    const std::string whole = read_text("data/session/dev1.json");
    EXPECT_EQ(whole.back(), '}') << "64 subscriptions leave room for all";
    ASSERT_GT(whole.size(), size_t{227 + 288 + 2368});

    for (const auto &[what, subs, msgs, characters] : kCases) {
        record->sub_count = subs;
        record->msg_count = msgs;
        persist_flush_single(record.get(), what);
        EXPECT_EQ(read_text("data/session/dev1.json"), whole.substr(0, characters)) << int{what} << ' ' << subs;
    }
    record->sub_count = 1;
    record->msg_count = 1;
    strcpy(record->subs[0].topic, "t");
    strcpy(record->msgs[0].topic, "m");
    persist_flush_single(record.get(), kSession | kSubs | kMsgs);
    EXPECT_EQ(read_text("data/subscription/dev1.json"), R"({"subs":[{"topic":"t","qos":0}]})") << "from its own start";
    EXPECT_EQ(read_text("data/message/dev1.json"), R"({"msgs":[{"msgid":0,"qos":0,"topic":"m","payload":""}]})");
}

TEST_F(session_file, of_a_clean_session_is_never_written)
{
    record->clean_session = 1;
    persist_mark(record.get(), PERSIST_SESSION);
    persist_flush_single(record.get(), PERSIST_MESSAGES);
    persist_mark(nullptr, PERSIST_SESSION);
    persist_flush_single(nullptr, PERSIST_SESSION);
    record->clean_session = 0;
    record->client_id[0]  = '\0';
    persist_mark(record.get(), PERSIST_SESSION);
    EXPECT_TRUE(std::filesystem::is_empty("data/session"));
    EXPECT_TRUE(std::filesystem::is_empty("data/message"));
}

TEST_F(session_file, distances_of_the_loader)
{
    write_text(
        "data/session/dev1.json",
        R"({"session_expiry_interval":61,"session_expiry_deadline":1763200000,"will_flag":true,"will_topic":"w",)"
        R"("will_qos":1,"will_len":5,"will_delay_interval":7,"will_msg_expiry_interval":9,)"
        R"("will_payload_format":1,"will_content_type":"c","will_response_topic":"r","will_correlation_len":3})");
    strcpy(record->will_topic, "x");
    EXPECT_EQ(persist_load(record.get()), 0);
    EXPECT_EQ(record->session_expiry_interval, 61u);
    EXPECT_EQ(record->session_expiry_deadline, 63200000u);
    EXPECT_EQ(record->will_flag, 1);
    EXPECT_STREQ(record->will_topic, "");
    EXPECT_EQ(record->will_qos, 0);
    EXPECT_EQ(record->will_len, 5u);
    EXPECT_EQ(record->will_delay_interval, 7u);
    EXPECT_EQ(record->will_msg_expiry_interval, 0u);
    EXPECT_EQ(record->will_payload_format, 1);
    EXPECT_STREQ(record->will_content_type, "");
    EXPECT_STREQ(record->will_response_topic, "");
    EXPECT_EQ(record->will_correlation_len, 3u);
}

TEST_F(session_file, a_will_payload_comes_back_empty)
{
    write_text("data/session/dev1.json", R"({"will_flag":true,"will_len":5,"will_payload":"6162"})");
    EXPECT_EQ(load().will_len, 0u);
}

TEST_F(session_file, truth_is_found_anywhere_behind_the_key)
{
    write_text("data/session/dev1.json", R"({"clean_start":false,"will_flag":true,"x":false})");
    EXPECT_EQ(load().clean_start, 1);
    EXPECT_EQ(record->will_flag, 1);
    write_text("data/session/dev1.json", R"({"clean_start":true,"will_flag":false})");
    EXPECT_EQ(load().clean_start, 1);
    EXPECT_EQ(record->will_flag, 0);
}

TEST_F(loading, needs_an_id_and_no_files)
{
    record->sub_count = 7;
    LogCapture log;
    EXPECT_EQ(persist_load(record.get()), 0);
    EXPECT_EQ(record->sub_count, 7) << "what is not found stays";
    EXPECT_THAT(log.take(), ElementsAre(logged::no_kept_messages_file("data/message/dev1.json")));
    EXPECT_EQ(persist_load(nullptr), -1);
    record->client_id[0] = '\0';
    EXPECT_EQ(persist_load(record.get()), -1);
    EXPECT_EQ(g_mqtt_stats.persist_read, 0u);
    strcpy(record->client_id, "dev1");
    Fail fail(Call::Allocate);
    EXPECT_EQ(persist_load(record.get()), -5);
}

TEST_F(loading, client_only_looks_for_the_subscription_file)
{
    EXPECT_EQ(persist_load_client_only(nullptr), -1);
    record->clean_session = 1;
    EXPECT_EQ(persist_load_client_only(record.get()), -4);
    write_text("data/subscription/dev1.json", "");
    EXPECT_EQ(persist_load_client_only(record.get()), 0);
    EXPECT_EQ(record->clean_session, 0);
    EXPECT_EQ(g_mqtt_stats.persist_read, 1u);
    record->client_id[0] = '\0';
    EXPECT_EQ(persist_load_client_only(record.get()), -1);
}

using subscription_file = DataDirectory;

TEST_F(subscription_file, comes_back_as_it_was_written)
{
    subscribe("a/b", 1);
    subscribe("#", 0);
    persist_mark(record.get(), PERSIST_SUBSCRIPTIONS);
    EXPECT_EQ(read_text("data/subscription/dev1.json"), R"({"subs":[{"topic":"a/b","qos":1},{"topic":"#","qos":0}]})");
    LogCapture log(1);
    EXPECT_EQ(load().sub_count, 2);
    EXPECT_STREQ(record->subs[0].topic, "a/b");
    EXPECT_EQ(record->subs[0].qos, 1);
    EXPECT_STREQ(record->subs[1].topic, "#");
    EXPECT_THAT(log.take(), ElementsAre(logged::subscriptions_restored("dev1", 2)));
    EXPECT_EQ(g_mqtt_stats.persist_read, 0u) << "this file is not counted";
}

TEST_F(subscription_file, stays_when_there_is_nothing_to_save)
{
    write_text("data/subscription/dev1.json", "old");
    persist_mark(record.get(), PERSIST_SUBSCRIPTIONS);
    EXPECT_EQ(read_text("data/subscription/dev1.json"), "old");
}

TEST_F(subscription_file, a_topic_made_to_look_like_json_is_one_topic)
{
    const char *const evil = "x\",\"qos\":1},{\"topic\":\"#\",\"qos\":2\\";
    subscribe(evil, 1);
    subscribe("tab\tend", 0);
    persist_mark(record.get(), PERSIST_SUBSCRIPTIONS);
    ASSERT_EQ(load().sub_count, 2);
    EXPECT_STREQ(record->subs[0].topic, evil);
    EXPECT_EQ(record->subs[0].qos, 1);
    EXPECT_STREQ(record->subs[1].topic, "tab\tend");
}

TEST_F(subscription_file, gives_back_64_entries_and_2047_bytes_at_most)
{
    std::string text = R"({"subs":[)";
    for (int i = 0; i < 70; ++i)
        text += R"({"topic":"t","qos":0},)";
    write_text("data/subscription/dev1.json", text);
    EXPECT_EQ(load().sub_count, 64);
    text = R"({"subs":[)";
    for (int i = 0; i < 40; ++i)
        text += R"({"topic":")" + std::string(60, 't') + R"(","qos":0},)";
    write_text("data/subscription/dev1.json", text);
    EXPECT_EQ(load().sub_count, 25) << "2047 bytes hold 25 of them";
}

TEST_F(subscription_file, a_topic_of_300_characters_is_cut_at_255)
{
    write_text("data/subscription/dev1.json", R"({"subs":[{"topic":")" + std::string(300, 't') + R"(","qos":2}]})");
    EXPECT_EQ(load().sub_count, 1);
    EXPECT_EQ(strlen(record->subs[0].topic), 255u);
    EXPECT_EQ(record->subs[0].qos, 2);
}

TEST_F(subscription_file, of_every_client_enters_the_table_at_start)
{
    write_text("data/subscription/dev1.json", R"({"subs":[{"topic":"a","qos":1}]})");
    write_text("data/subscription/x.json.bak", "");
    write_text("data/subscription/.json", R"({"subs":[{"topic":"a","qos":1}]})");
    write_text("data/subscription/other", "");
    LogCapture log(1);
    persist_load_all_persisted_subscriptions();
    const LogLine line = logged::subscriptions_separator();
    EXPECT_EQ(log.count(line), 4);
    EXPECT_TRUE(log.has(logged::subscriptions_loading()));
    EXPECT_TRUE(log.has(logged::client_subscriptions_restored("dev1", 1)));
    EXPECT_TRUE(log.has(logged::client_subscriptions_restored("x.jso", 0)));
    EXPECT_TRUE(log.has(logged::client_subscriptions_restored("", 0)));
    EXPECT_TRUE(log.has(logged::subscriptions_loaded()));
    ASSERT_EQ(g_sub_mgr.sub_count, 1);
    EXPECT_STREQ(g_sub_mgr.subs[0].client_id, "dev1");
    EXPECT_STREQ(g_sub_mgr.subs[0].topic_filter, "a");
    EXPECT_EQ(g_sub_mgr.subs[0].qos, 1);
    EXPECT_EQ(g_sub_mgr.subs[0].clean_session, 0) << "for messages are kept for it from now on";
    std::filesystem::remove_all("data/subscription");
    log.take();
    persist_load_all_persisted_subscriptions();
    EXPECT_THAT(log.take(),
                ElementsAre(line, logged::subscriptions_loading(), line, logged::no_subscriptions_folder()));
}

TEST_F(subscription_file, is_read_with_the_two_others_at_start)
{
    write_text("data/session/dev1.json", "{}");
    write_text("data/subscription/dev1.json", R"({"subs":[{"topic":"a","qos":1},{"topic":"b","qos":2}]})");
    write_text("data/message/dev1.json", "{}");
    LogCapture    log(1);
    const LogLine line = logged::subscriptions_separator();
    persist_load_all_persisted_subscriptions();
    std::vector<LogLine> lines = log.take();
    std::erase_if(lines, [](const LogLine &said) { return said.text.find("[persist]") != 0; });
    EXPECT_THAT(lines,
                ElementsAre(line, logged::subscriptions_loading(), line, logged::subscriptions_restored("dev1", 2),
                            logged::kept_messages_without_list(), logged::client_subscriptions_restored("dev1", 2),
                            line, logged::subscriptions_loaded(), line));
    EXPECT_EQ(g_mqtt_stats.persist_read, 2u);
    EXPECT_EQ(g_sub_mgr.sub_count, 2);
}

using message_file = DataDirectory;

TEST_F(message_file, keeps_what_was_added)
{
    EXPECT_EQ(persist_add_offline_msg("dev1", "a/b", bytes("hi\xFF"), 3, 2), 0);
    ASSERT_EQ(load().msg_count, 1);
    const persist_msg_t &message = record->msgs[0];
    EXPECT_STREQ(message.topic, "a/b");
    EXPECT_EQ(message.qos, 2);
    EXPECT_EQ(message.payload_len, 3u);
    EXPECT_EQ(memcmp(message.payload, "hi\xFF", 3), 0);
    EXPECT_NE(message.msgid, 0);
    EXPECT_EQ(read_text("data/message/dev1.json"), R"({"msgs":[{"msgid":)" + std::to_string(message.msgid) +
                                                       R"(,"qos":2,"topic":"a/b","payload":"6869ff"}]})");
}

// 4095 bytes hold a hundred objects only when they are tiny, so this file is made by hand.
TEST_F(message_file, drops_the_oldest_of_101)
{
    std::string text = R"({"msgs":[)";
    for (int i = 0; i < 100; ++i)
        text += R"({"topic":"","qos":,"msgid":,"payload":"})";
    write_text("data/message/dev1.json", text);
    ASSERT_EQ(load().msg_count, 100);
    LogCapture log(2);
    EXPECT_EQ(persist_add_offline_msg("dev1", "new", bytes("x"), 1, 1), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::kept_message_dropped("dev1")));
    const std::string kept    = read_text("data/message/dev1.json");
    size_t            objects = 0;
    for (size_t at = kept.find("\"msgid\""); at != std::string::npos; at = kept.find("\"msgid\"", at + 1))
        ++objects;
    EXPECT_EQ(objects, 100u);
    EXPECT_NE(kept.find(R"("topic":"new")"), std::string::npos);
}

TEST_F(message_file, cuts_a_payload_at_1024_bytes)
{
    const std::string payload(1500, 'p');
    persist_add_offline_msg("dev1", "t", bytes(payload.c_str()), 1500, 1);
    const std::string text = read_text("data/message/dev1.json");
    EXPECT_EQ(text.size() - text.find("payload\":\"") - 10 - 4, 2048u);
    EXPECT_EQ(load().msgs[0].payload_len, 0u)
        << "1023 characters of an object are looked at, without its closing quote";
}

TEST_F(message_file, refuses_what_is_nothing)
{
    EXPECT_EQ(persist_add_offline_msg(nullptr, "t", bytes("x"), 1, 1), -1);
    EXPECT_EQ(persist_add_offline_msg("dev1", nullptr, bytes("x"), 1, 1), -1);
    EXPECT_EQ(persist_add_offline_msg("dev1", "t", nullptr, 1, 1), -1);
    EXPECT_EQ(persist_add_offline_msg("dev1", "t", bytes("x"), 0, 1), -1);
    EXPECT_EQ(persist_add_offline_msg("dev1", "t", bytes("x"), -1, 1), -1);
    EXPECT_TRUE(std::filesystem::is_empty("data/message"));
}

TEST_F(message_file, gives_one_back)
{
    persist_add_offline_msg("dev1", "a", bytes("1"), 1, 1);
    persist_add_offline_msg("dev1", "b", bytes("2"), 1, 1);
    const uint16_t    first  = load().msgs[0].msgid;
    const std::string before = read_text("data/message/dev1.json");
    EXPECT_EQ(persist_remove_offline_msg(nullptr, 1), -1);
    EXPECT_EQ(persist_remove_offline_msg("dev1", 0), -1);
    EXPECT_EQ(persist_remove_offline_msg("", 1), -4);
    EXPECT_EQ(persist_remove_offline_msg("dev1", first), 0);
    EXPECT_EQ(load().msg_count, 1);
    EXPECT_STREQ(record->msgs[0].topic, "b");
    EXPECT_EQ(persist_remove_offline_msg("dev1", record->msgs[0].msgid == 9 ? 8 : 9), 0);
    EXPECT_EQ(load().msg_count, 1);
}

TEST_F(message_file, topics_with_braces_and_quotes_come_back)
{
    for (const char *topic : {"a{b}c", "q\"uote", "back\\slash\\", "nl\nx", "\",\"payload\":\"00"}) {
        std::filesystem::remove("data/message/dev1.json");
        persist_add_offline_msg("dev1", topic, bytes("x"), 1, 1);
        ASSERT_EQ(load().msg_count, 1) << topic;
        EXPECT_STREQ(record->msgs[0].topic, topic);
        EXPECT_EQ(record->msgs[0].payload_len, 1u);
    }
}

TEST_F(message_file, malformed_ones_give_what_they_hold)
{
    LogCapture log(2);
    write_text("data/message/dev1.json", "{}");
    EXPECT_EQ(load().msg_count, 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::kept_messages_without_list()));
    write_text(
        "data/message/dev1.json",
        R"({"msgs":[{"msgid":1},{"msgid":2,"qos":1,"topic":"t","payload":"61"},{"msgid":3,"qos":1,"topic":"u","payload":"61)");
    EXPECT_EQ(load().msg_count, 1);
    EXPECT_EQ(record->msgs[0].msgid, 2);
    Fail fail(Call::Allocate, 2);
    EXPECT_EQ(persist_load(record.get()), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::persist_no_memory()));
}
