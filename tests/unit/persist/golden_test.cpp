// Every file byte for byte, as it is written and as it is read back.
#include "persist_fixture.h"
#include "support/log_lines/persist.h"

using namespace tarn::test;
using testing::Each;
using testing::ElementsAre;

using golden = DataDirectory;

namespace {

// Every character that is written as something else, and neighbours that are not.
const char *const kOdd = "\"\\/{}[]:,\x01\t\n\x1f\x20\x7f\xc3\xa9\xff";

persist_msg_t &add_message(persist_session_t &record, uint16_t msgid, uint8_t qos, const char *topic,
                           const std::string &payload)
{
    persist_msg_t &message = record.msgs[record.msg_count++];
    message.msgid          = msgid;
    message.qos            = qos;
    strcpy(message.topic, topic);
    memcpy(message.payload, payload.data(), payload.size());
    message.payload_len = static_cast<uint32_t>(payload.size());
    return message;
}

// An integer as it lies in a file of this machine.
template <class Number> void put(std::string &file, size_t at, Number value)
{
    for (size_t i = 0; i < sizeof value; ++i)
        file[at + i] = static_cast<char>(static_cast<uint64_t>(value) >> 8 * i);
}

} // namespace

TEST_F(golden, session_file_with_a_will_up_to_its_cut)
{
    strcpy(record->client_id, "d");
    record->clean_start              = 1;
    record->session_expiry_interval  = 7;
    record->session_expiry_deadline  = 8;
    record->last_online              = 9;
    record->will_flag                = 1;
    record->will_qos                 = 2;
    record->will_len                 = 6;
    record->will_delay_interval      = 5;
    record->will_msg_expiry_interval = 4;
    strcpy(record->will_topic, "w");
    memcpy(record->will_payload, "\x00\xff{}\n\"", 6);
    persist_mark(record.get(), PERSIST_SESSION);
    EXPECT_EQ(read_text("data/session/d.json"),
              R"({"client_id":"d","clean_session":false,"clean_start":true,"session_expiry_interval":7,)"
              R"("session_expiry_deadline":8,"last_online":9,"will_flag":true,"will_topic":"w","will_qos":2,)"
              R"("will_len":6,"will_payload":"00ff7b7d0a22","will_d)");
}

TEST_F(golden, session_file_of_a_ten_character_id_without_a_will)
{
    strcpy(record->client_id, "0123456789");
    persist_mark(record.get(), PERSIST_SESSION);
    EXPECT_EQ(read_text("data/session/0123456789.json"),
              R"({"client_id":"0123456789","clean_session":false,"clean_start":false,"session_expiry_interval":0,)"
              R"("session_expiry_deadline":0,"last_online":0,"will_flag":false,"will_topic":"","will_qos":0,)"
              R"("will_len":0,"will_payload":"","will_del)");
}

TEST_F(golden, session_file_with_the_largest_numbers)
{
    strcpy(record->client_id, "d");
    record->clean_start             = 0xFF; // bit 0 counts
    record->session_expiry_interval = UINT32_MAX;
    record->session_expiry_deadline = UINT64_MAX;
    record->last_online             = UINT64_MAX;
    record->will_flag               = 2;
    record->will_qos                = 255;
    record->will_len                = UINT32_MAX; // 1024 bytes of it
    persist_mark(record.get(), PERSIST_SESSION);
    EXPECT_EQ(read_text("data/session/d.json"),
              R"({"client_id":"d","clean_session":false,"clean_start":true,"session_expiry_interval":4294967295,)"
              R"("session_expiry_deadline":18446744073709551615,"last_online":18446744073709551615,)"
              R"("will_flag":false,"will_topic":"","will_qos":255,")");
}

TEST_F(golden, session_file_escapes_id_and_will)
{
    strcpy(record->client_id, "a\"b\\\n{");
    strcpy(record->will_topic, "w\"\x02");
    persist_mark(record.get(), PERSIST_SESSION);
    EXPECT_EQ(read_text("data/session/a\"b\\\n{.json"),
              R"({"client_id":"a\"b\\\u000a{","clean_session":false,"clean_start":false,"session_expiry_interval":0,)"
              R"("session_expiry_deadline":0,"last_online":0,"will_flag":false,"will_topic":"w\"\u0002","will_qos":0,)"
              R"("will_len":0,"will_payload":)");
}

TEST_F(golden, subscription_file)
{
    subscribe("a/b", 1);
    subscribe(kOdd, 2);
    subscribe("", 255);
    persist_mark(record.get(), PERSIST_SUBSCRIPTIONS);
    EXPECT_EQ(read_text("data/subscription/dev1.json"),
              R"({"subs":[{"topic":"a/b","qos":1},{"topic":"\"\\/{}[]:,\u0001\u0009\u000a\u001f )"
              "\x7f\xc3\xa9\xff"
              R"(","qos":2},{"topic":"","qos":255}]})");
    ASSERT_EQ(load().sub_count, 3);
    EXPECT_STREQ(record->subs[1].topic, kOdd);
    EXPECT_EQ(record->subs[2].qos, 255);
}

TEST_F(golden, message_file)
{
    add_message(*record, 1, 0, "a/b", "hi");
    add_message(*record, 65535, 2, kOdd, std::string("\x00\x0f\xf0\xff", 4));
    add_message(*record, 0, 1, "", "");
    persist_mark(record.get(), PERSIST_MESSAGES);
    EXPECT_EQ(read_text("data/message/dev1.json"),
              R"({"msgs":[{"msgid":1,"qos":0,"topic":"a/b","payload":"6869"},)"
              R"({"msgid":65535,"qos":2,"topic":"\"\\/\u007b\u007d[]:,\u0001\u0009\u000a\u001f )"
              "\x7f\xc3\xa9\xff"
              R"(","payload":"000ff0ff"},{"msgid":0,"qos":1,"topic":"","payload":""}]})");
    ASSERT_EQ(load().msg_count, 3);
    EXPECT_STREQ(record->msgs[1].topic, kOdd);
    EXPECT_EQ(record->msgs[1].msgid, 65535);
    EXPECT_EQ(record->msgs[1].payload_len, 4u);
    EXPECT_EQ(memcmp(record->msgs[1].payload, "\x00\x0f\xf0\xff", 4), 0);
}

TEST_F(golden, a_hundred_messages_of_the_largest_size_are_written_whole)
{
    for (int i = 0; i < 100; ++i)
        add_message(*record, 65535, 255, std::string(255, '{').c_str(), std::string(1024, '\xAB')).payload_len = 5000;
    record->msg_count = 1000; // a caller's mistake
    persist_mark(record.get(), PERSIST_MESSAGES);
    std::string braces, pairs;
    for (int i = 0; i < 255; ++i)
        braces += "\\u007b";
    for (int i = 0; i < 1024; ++i)
        pairs += "ab";
    std::string expected = R"({"msgs":[)";
    for (int i = 0; i < 100; ++i)
        expected +=
            (i ? "," : "") + (R"({"msgid":65535,"qos":255,"topic":")" + braces) + R"(","payload":")" + pairs + R"("})";
    EXPECT_EQ(read_text("data/message/dev1.json"), expected + "]}");
}

TEST_F(golden, the_largest_subscription_list_is_written_whole)
{
    for (int i = 0; i < 64; ++i)
        subscribe(std::string(255, '\x01').c_str(), 255);
    record->sub_count = 1000;
    persist_mark(record.get(), PERSIST_SUBSCRIPTIONS);
    const std::string text = read_text("data/subscription/dev1.json");
    EXPECT_EQ(text.size(), 9 + 64 * (10 + 255 * 6 + 12) + 63 + 2u);
    EXPECT_THAT(text, testing::EndsWith(R"(\u0001","qos":255}]})"));
    record->sub_count = -1;
    write_text("data/subscription/dev1.json", "old");
    persist_mark(record.get(), PERSIST_SUBSCRIPTIONS);
    EXPECT_EQ(read_text("data/subscription/dev1.json"), "old");
    record->msg_count = -1;
    persist_mark(record.get(), PERSIST_MESSAGES);
    EXPECT_EQ(read_text("data/message/dev1.json"), R"({"msgs":[]})");
}

TEST_F(golden, retained_file)
{
    ManualClock clock;
    retain_msg_set_with_expiry("a/b", bytes("one"), 3, 1, 0x01020304);
    clock.advance_ms(1000);
    retain_msg_set(std::string(300, 't').c_str(), bytes("\xff\x00!"), 3, 2);

    constexpr size_t kRecord = 2336;
    std::string      file(4 + 2 * kRecord, '\0');
    put(file, 0, uint32_t{2});
    memcpy(&file[4], "a/b", 3);
    memcpy(&file[4 + 257], "one", 3);
    put(file, 4 + 2308, uint32_t{3});
    put(file, 4 + 2312, uint32_t{1});
    put(file, 4 + 2320, clock.wall_s() - 1);
    put(file, 4 + 2328, uint32_t{0x01020304});
    memset(&file[4 + kRecord], 't', 256);
    memcpy(&file[4 + kRecord + 257], "\xff\x00!", 3);
    put(file, 4 + kRecord + 2308, uint32_t{3});
    put(file, 4 + kRecord + 2312, uint32_t{2});
    put(file, 4 + kRecord + 2320, clock.wall_s());
    EXPECT_EQ(read_text("data/retain.dat"), file);

    for (const size_t at : {2305, 2306, 2307, 2316, 2319, 2332, 2335}) // alignment may hold anything
        file[4 + at] = 'x';
    file[4 + 257 + 3] = 'x'; // and so may what lies behind the payload
    write_text("data/retain.dat", file);
    sub_init();
    ASSERT_EQ(persist_retain_load(), 0);
    ASSERT_EQ(g_sub_mgr.retain_count, 2);
    const retain_msg_t &first = g_sub_mgr.retains[0];
    EXPECT_STREQ(first.topic, "a/b");
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(first.payload), first.payload_len), "one");
    EXPECT_EQ(first.qos, 1u);
    EXPECT_EQ(first.store_time, clock.wall_s() - 1);
    EXPECT_EQ(first.expiry_interval, 0x01020304u);
    EXPECT_EQ(strlen(g_sub_mgr.retains[1].topic), 256u);
    EXPECT_EQ(persist_retain_save(), 0);
    EXPECT_EQ(read_text("data/retain.dat"), file) << "written as the record stands";
}

TEST_F(golden, a_thousand_retained_messages_come_back_in_order)
{
    ManualClock clock;
    for (int i = 0; i < 1000; ++i) {
        retain_msg_t &message = g_sub_mgr.retains[i];
        snprintf(message.topic, sizeof message.topic, "t%d", i);
        message.store_time = clock.wall_s();
    }
    g_sub_mgr.retain_count = 1000;
    EXPECT_EQ(persist_retain_save(), 0);
    EXPECT_EQ(std::filesystem::file_size("data/retain.dat"), 4u + 1000 * 2336);
    sub_init();
    LogCapture log(1);
    EXPECT_EQ(persist_retain_load(), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::retained_loaded(1000)));
    ASSERT_EQ(g_sub_mgr.retain_count, 1000);
    EXPECT_STREQ(g_sub_mgr.retains[999].topic, "t999");
}

TEST_F(golden, a_message_of_eight_days_ago_ends_at_the_first_cleaning)
{
    ManualClock clock;
    retain_msg_set("old", bytes("x"), 1, 1);
    clock.advance_ms(int64_t{8} * 24 * 3600 * 1000);
    sub_init();
    ASSERT_EQ(persist_retain_load(), 0);
    ASSERT_EQ(g_sub_mgr.retain_count, 1);
    retain_clean_expired();
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
    EXPECT_EQ(read_text("data/retain.dat"), std::string(4, '\0'));
}
