// The store of retained messages as clients and the host see it: its thousand places, its order, and how lives end.
#include "support/host.h"
#include "support/log_capture.h"
#include "support/log_lines/sub.h"
#include "support/peer.h"

#include "sub/sub.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr unsigned kCapacity    = 1000;
constexpr int64_t  kSevenDays_s = 7 * 24 * 3600;
// A cleaning follows every 5 seconds, and what it does shows soon after.
constexpr int kCleaned_ms = 6000 + kLimit_ms;

std::string topic_of(unsigned n) // "k/0000" ... "k/9999"
{
    return "k/" + std::to_string(10000 + n).substr(1);
}

std::string topics(unsigned first, unsigned end) // as the host lists them
{
    std::string lines;
    for (; first < end; ++first)
        lines += topic_of(first) + "\n";
    return lines;
}

void publish_all(Peer &sender, unsigned first, unsigned end)
{
    for (; first < end; ++first) {
        sender.publish(topic_of(first), "old " + std::to_string(first), {.retain = true});
        if (first % 10 == 9 || first + 1 == end) // each of them writes the whole file
            sender.ping();
    }
}

Bytes replay(unsigned n, std::string_view payload)
{
    return publish_packet(4, topic_of(n), payload, {.retain = true});
}

Bytes replay(unsigned first, unsigned end)
{
    Bytes all;
    for (; first < end; ++first)
        all = std::move(all) + replay(first, "old " + std::to_string(first));
    return all;
}

// What a new subscriber is given before its SUBACK.
void expect_replay(const std::string &filter, const Bytes &messages, Where where = Where::here())
{
    Peer reader = Peer::tcp();
    reader.connect_v4("reader").send(subscribe_packet(4, 7, filter, 0));
    reader.expect(messages + wire("90 03 00 07 00"), where);
    reader.ping(where);
    reader.disconnect(where);
}

retain_msg_t record(const std::string &topic, const std::string &payload, int64_t store_time, uint32_t expiry_s = 0)
{
    retain_msg_t entry{};
    memcpy(entry.topic, topic.data(), topic.size());
    memcpy(entry.payload, payload.data(), payload.size());
    entry.payload_len     = static_cast<uint32_t>(payload.size());
    entry.store_time      = store_time;
    entry.expiry_interval = expiry_s;
    return entry;
}

// What the next broker started here finds.
void write_file(const std::vector<retain_msg_t> &records)
{
    const auto count = static_cast<uint32_t>(records.size());
    std::filesystem::create_directory("broker_data");
    std::ofstream file("broker_data/retain.dat", std::ios::binary);
    file.write(reinterpret_cast<const char *>(&count), sizeof count);
    file.write(reinterpret_cast<const char *>(records.data()), static_cast<long>(count * sizeof(retain_msg_t)));
    EXPECT_TRUE(file.good());
}

std::vector<retain_msg_t> records_of(unsigned count)
{
    std::vector<retain_msg_t> records;
    for (unsigned n = 0; n < count; ++n)
        records.push_back(record(topic_of(n), "old " + std::to_string(n), time(nullptr)));
    return records;
}

struct Store { // with what the file holds
    Host host;
    Peer sender = Peer::tcp();
    Store() { sender.connect_v4("sender"); }
};

struct FullFile {
    FullFile() { write_file(records_of(kCapacity)); }
};
struct FullStore : FullFile, Store {};

} // namespace

TEST(retained, a_thousand_topics_and_not_one_more)
{
    constexpr unsigned kAlready = kCapacity - 100; // to spare the disk
    write_file(records_of(kAlready));
    Store test;
    Peer  watcher = Peer::tcp();
    watcher.connect_v4("watcher").subscribe("k/1000");
    LogCapture log(3);
    publish_all(test.sender, kAlready, kCapacity);
    EXPECT_THAT(log.take_from("ERROR"), IsEmpty());
    EXPECT_EQ(test.host.retained_topics(), topics(0, kCapacity));

    test.sender.publish(topic_of(kCapacity), "one more", {.qos = 1, .retain = true}); // acknowledged all the same
    EXPECT_THAT(log.take_from("ERROR"), ElementsAre(logged::retained_full()));
    watcher.expect_publish(topic_of(kCapacity), "one more"); // and passed on
    EXPECT_EQ(test.host.publish("k/host", "one more", 0, true), 0);
    EXPECT_THAT(log.take_from("ERROR"), ElementsAre(logged::retained_full()));
    EXPECT_EQ(test.host.retained_topics(), topics(0, kCapacity));
    expect_replay("k/#", replay(0, kCapacity));
    EXPECT_EQ(std::filesystem::file_size("broker_data/retain.dat"), 4 + kCapacity * sizeof(retain_msg_t));
}

TEST(retained, a_full_store_replaces_in_place)
{
    FullStore  full;
    LogCapture log(3);
    full.sender.publish(topic_of(500), "new", {.retain = true});
    EXPECT_EQ(full.host.publish(topic_of(0), "newer", 0, true), 0);
    full.sender.ping();
    EXPECT_THAT(log.take_from("ERROR"), IsEmpty());
    expect_replay("k/#", replay(0, "newer") + replay(1, 500) + replay(500, "new") + replay(501, kCapacity));
}

TEST(retained, a_deletion_makes_room_at_the_end)
{
    FullStore full;
    full.sender.publish(topic_of(300), "", {.qos = 1, .retain = true});
    EXPECT_EQ(tarn_sdk_mqtt_broker_clear_retain(full.host.broker(), topic_of(0).c_str()), 0);
    full.sender.publish("k/none", "", {.qos = 1, .retain = true}); // deletes nothing and adds nothing
    EXPECT_EQ(full.host.retained_topics(), topics(1, 300) + topics(301, kCapacity));
    publish_all(full.sender, 1000, 1001);
    full.sender.publish(topic_of(300), "back", {.retain = true});
    full.sender.publish(topic_of(0), "too late", {.retain = true});
    full.sender.ping();
    EXPECT_EQ(full.host.retained_topics(), topics(1, 300) + topics(301, 1001) + topics(300, 301));
    expect_replay("k/#", replay(1, 300) + replay(301, 1001) + replay(300, "back"));
}

TEST(retained, each_filter_of_a_subscribe_brings_its_own_in_turn)
{
    Store test;
    for (const char *topic : {"b/2", "a/1", "b/1", "c"})
        test.sender.publish(topic, "kept", {.retain = true});
    Peer reader = Peer::tcp();
    reader.connect_v4("reader");
    reader.send("82 19 | 00 07 | 00 03 'a/+' 00 | 00 03 'b/#' 00 | 00 02 'c+' 00 | 00 03 '+/1' 00");
    for (const char *topic : {"a/1", "b/2", "b/1", "a/1", "b/1"})
        reader.expect_publish(topic, "kept", {.retain = true});
    reader.expect("90 06 | 00 07 | 00 00 80 00");
    reader.ping();
}

TEST(retained, a_message_ends_after_its_interval)
{
    Store test;
    Peer  sender = Peer::tcp();
    sender.connect_v5("five").publish("lasting", "kept", {.retain = true});
    sender.publish("brief", "kept", {.retain = true, .properties = wire("02 00 00 00 01")});
    const double published_s = now_s();
    sender.ping();
    Peer reader = Peer::tcp();
    reader.connect_v5("reader").send(subscribe_packet(5, 7, "brief", 0));
    reader.expect("31 0C | 00 05 'brief' | 00 | 'kept' | 90 04 00 07 00 00"); // without the interval
    EXPECT_TRUE(wait_until([&] { return test.host.retained_topics() == "lasting\n"; }, kCleaned_ms));
    EXPECT_GT(now_s() - published_s, 0.9);
    expect_replay("+", publish_packet(4, "lasting", "kept", {.retain = true}));
}

TEST(retained, a_replacement_keeps_the_interval_unless_it_brings_one)
{
    Store       test;
    Peer        sender = Peer::tcp();
    const Bytes brief = wire("02 00 00 00 02"), longer = wire("02 00 00 0E 10");
    sender.connect_v5("five");
    sender.publish("kept", "one", {.retain = true, .properties = brief});
    sender.publish("kept", "two", {.retain = true});
    sender.publish("prolonged", "one", {.retain = true, .properties = brief});
    sender.publish("prolonged", "two", {.retain = true, .properties = longer});
    sender.publish("shortened", "one", {.retain = true});
    sender.publish("shortened", "two", {.retain = true, .properties = brief});
    sender.publish("anew", "one", {.retain = true, .properties = brief});
    sender.publish("anew", "", {.retain = true});
    sender.publish("anew", "two", {.retain = true}); // a deletion forgets the interval
    sender.ping();
    EXPECT_TRUE(wait_until([&] { return test.host.retained_topics() == "prolonged\nanew\n"; }, kCleaned_ms));
    expect_replay("+", publish_packet(4, "prolonged", "two", {.retain = true}) +
                           publish_packet(4, "anew", "two", {.retain = true}));
}

TEST(retained, a_replacement_starts_the_life_anew)
{
    const int64_t now = time(nullptr);
    write_file({record("renewed", "one", now - 3000, 3004), record("left", "one", now - 3000, 3004)});
    Store test;
    test.sender.publish("renewed", "two", {.retain = true});
    EXPECT_TRUE(wait_until([&] { return test.host.retained_topics() == "renewed\n"; }, 4000 + kCleaned_ms));
    EXPECT_GT(time(nullptr), now + 4);
    expect_replay("+", publish_packet(4, "renewed", "two", {.retain = true}));
}

TEST(retained, lives_go_on_across_a_restart_and_end_after_seven_days_without_an_interval)
{
    const int64_t now = time(nullptr), soon = now + 2 * kSlowdown;
    write_file({record("old", "x", now - kSevenDays_s - 60), record("soon", "x", soon - kSevenDays_s),
                record("young", "x", now - kSevenDays_s + 3600), record("over", "x", now - 60, 59),
                record("running", "x", now - 60, 3600)});
    LogCapture log(1);
    Host       host;
    tarn_sdk_mqtt_broker_set_log_level(host.broker(), 1);
    EXPECT_TRUE(
        wait_until([&] { return host.retained_topics() == "young\nrunning\n"; }, 2000 * kSlowdown + kCleaned_ms));
    EXPECT_GT(time(nullptr), soon);
    expect_replay("+", publish_packet(4, "young", "x", {.retain = true}) +
                           publish_packet(4, "running", "x", {.retain = true}));
    EXPECT_EQ(log.count(logged::retained_expired("soon")), 1);
    EXPECT_TRUE(wait_until(
        [] { return std::filesystem::file_size("broker_data/retain.dat") == 4 + 2 * sizeof(retain_msg_t); }));
}

TEST(retained, a_full_store_takes_a_new_topic_once_one_has_ended)
{
    std::vector<retain_msg_t> records = records_of(kCapacity);
    records[700].expiry_interval      = 1;
    write_file(records);
    Store test;
    pause_ms(2100); // ended: more than a second by the clock, which counts whole ones
    test.sender.publish("k/new", "new", {.qos = 1, .retain = true});
    EXPECT_EQ(test.host.retained_topics(), topics(0, 700) + topics(701, kCapacity) + "k/new\n");
}

TEST(retained, the_topic_list_takes_what_fits)
{
    Store test;
    EXPECT_EQ(test.host.publish("abcdefghij", "kept", 0, true), 0);
    EXPECT_EQ(test.host.publish("x", "kept", 0, true), 0);
    const auto list = [&](int32_t size) {
        char text[32];
        memset(text, '?', sizeof text);
        EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(test.host.broker(), text, size), 0);
        EXPECT_EQ(text[size], '?');
        return std::string(text);
    };
    EXPECT_EQ(list(1), "");
    EXPECT_EQ(list(2), "");
    EXPECT_EQ(list(3), "x\n");
    EXPECT_EQ(list(10), "x\n"); // the first does not fit, a later one may
    EXPECT_EQ(list(11), "x\n");
    EXPECT_EQ(list(12), "abcdefghij\n");
    EXPECT_EQ(list(13), "abcdefghij\n");
    EXPECT_EQ(list(14), "abcdefghij\nx\n");
    char text[4];
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(test.host.broker(), nullptr, 4), -2);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(test.host.broker(), text, 0), -2);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(test.host.broker(), text, -1), -2);
}
