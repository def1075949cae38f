// What the disk, and what clients write to it, can do to a broker that serves: nothing outside its data directory, and
// nothing to other clients.
#include "support/broker_process.h"
#include "support/host.h"
#include "support/log_lines/persist.h"
#include "support/peer.h"

#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sys/mount.h>

using namespace tarn::test;
using testing::HasSubstr;

namespace fs = std::filesystem;

namespace {

constexpr const char *kNoMessages = R"({"msgs":[]})";

// Every file and directory here with its content, but for what the broker's own output goes to.
std::map<std::string, std::string> everything()
{
    std::map<std::string, std::string> all;
    for (const auto &entry : fs::recursive_directory_iterator(".")) {
        const std::string path = entry.path().string();
        if (entry.is_directory())
            all[path + "/"] = "";
        else if (path != "./broker.log" && path != "./broker.err" && path != "./tarn_flash.txt")
            all[path] = file_text(path);
    }
    return all;
}

// The paths in which two such lists differ.
std::set<std::string> changes(const std::map<std::string, std::string> &before)
{
    const auto            after = everything();
    std::set<std::string> paths;
    for (const auto &[path, content] : before)
        if (const auto found = after.find(path); found == after.end() || found->second != content)
            paths.insert(path);
    for (const auto &[path, content] : after)
        if (!before.contains(path))
            paths.insert(path);
    return paths;
}

std::set<std::string> files_for(const std::string &id, std::initializer_list<const char *> directories)
{
    std::set<std::string> paths;
    if (id.find('/') == std::string::npos)
        for (const char *directory : directories)
            paths.insert(std::string("./broker_data/") + directory + "/" + id + ".json");
    return paths;
}

const char *const kIds[] = {
    "../../x",
    "../x",
    "/etc/x",
    "..",
    ".",
    "a/../b",
    "a/b",
    "/",
    "//",
    "./x",
    "../retain",
    "../session/victim",
    "victim/",
    "x.json",
    ".json",
    "-rf",
    "a\\..\\b",
    "*",
    "%s%n%2e",
    "\x01\x02\x7f",
    "\xff\xfe\x80\xc0\xaf",
    "\"},{\"",
    "a\nb",
    "iiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiii", // 63
};

} // namespace

// A whole life of a client of each id: subscribing, leaving, missing a message, returning, and being forgotten.
TEST(disk, ids_reach_no_file_outside_the_data_directory)
{
    const bool           had_etc_x = fs::exists("/etc/x.json");
    BrokerProcess        broker    = BrokerProcess::start();
    constexpr const char kVictim[] = R"({"subs":[{"topic":"mine","qos":1}]})";
    fs::create_directories("broker_data/session/a");
    fs::create_directories("broker_data/subscription/victim");
    for (const char *path :
         {"x.json", "broker_data/x.json", "broker_data/retain.json", "broker_data/subscription/b.json",
          "broker_data/session/a/b.json", "broker_data/subscription/victim/.json", "broker_data/session/victim.json",
          "broker_data/message/victim.json"})
        write_text(path, kVictim);
    Peer sender = come(4, "sender", {});
    for (const unsigned level : {4u, 5u})
        for (const std::string id : kIds) {
            if (level == 4 && id.size() > 23)
                continue;
            SCOPED_TRACE(testing::PrintToString(id) + " at level " + std::to_string(level));
            const auto before = everything();
            const bool files  = id.find('/') == std::string::npos;
            Peer       client = come(level, id, keep(level, false));
            client.subscribe("s", 1);
            EXPECT_EQ(changes(before), files_for(id, {"subscription"}));
            client.disconnect();
            sender.publish("s", "missed", {.qos = 1});
            EXPECT_EQ(changes(before), files_for(id, {"subscription", "message"}));

            client = come(level, id, keep(level, files));
            if (level == 5 && files) {
                client.hang_up(); // writes the third file
                EXPECT_TRUE(wait_until([&] {
                    return changes(before) == files_for(id, {"session", "subscription", "message"});
                }));
            } else {
                client.disconnect();
            }
            come(level, id, {}).disconnect();
            EXPECT_EQ(changes(before), std::set<std::string>{});
            if (testing::Test::HasFailure())
                return;
        }
    EXPECT_EQ(fs::exists("/etc/x.json"), had_etc_x);
    broker.stop();
    // None of them is a client after the next start either.
    const auto    before = everything();
    BrokerProcess again  = BrokerProcess::start();
    come(4, "../session/victim", keep(4, false)).ping();
    EXPECT_EQ(changes(before), std::set<std::string>{});
}

TEST(disk, an_id_of_64_characters_has_the_files_of_its_first_63)
{
    BrokerProcess     broker = BrokerProcess::start();
    const std::string id(64, 'i');
    come(5, id, keep(5, false)).subscribe("t", 1).disconnect();
    EXPECT_TRUE(fs::exists("broker_data/subscription/" + std::string(63, 'i') + ".json"));
    come(5, std::string(63, 'i'), keep(5, true)).ping();
}

TEST(disk, a_topic_that_looks_like_the_file_is_one_topic)
{
    const std::string filter = R"(x","qos":1},{"topic":"secret","qos":1)", // saved filters have 63 characters
        topic                = R"(y"}]},{"msgid":1,"qos":1,"topic":"secret","payload":"6161"})";
    {
        BrokerProcess broker = BrokerProcess::start();
        come(4, "filter", keep(4, false)).subscribe(filter, 1).disconnect();
        come(4, "topic", keep(4, false)).subscribe("+", 1).disconnect();
        come(5, "quote", keep(5, false)).subscribe("\\\"{}\t", 1).disconnect();
        come(4, "sender", {}).publish(topic, "payload", {.qos = 1});
        broker.crash();
    }
    BrokerProcess broker = BrokerProcess::start();
    Peer          sender = come(4, "sender", {});
    Peer          owner  = come(4, "filter", keep(4, true));
    sender.publish("secret", "not for you", {.qos = 1});
    owner.ping(); // it holds one subscription, its own
    sender.publish(filter, "for you", {.qos = 1});
    owner.acknowledge(0x40, owner.expect_publish(filter, "for you", {.qos = 1}));
    Peer quote = come(5, "quote", keep(5, true));
    sender.publish("\\\"{}\t", "odd", {.qos = 1});
    quote.acknowledge(0x40, quote.expect_publish("\\\"{}\t", "odd", {.qos = 1}));

    // The newest of those kept for it comes first.
    Peer everyone = come(4, "topic", keep(4, true));
    for (const auto &[name, payload] : std::vector<std::pair<std::string, std::string>>{
             {"\\\"{}\t", "odd"}, {filter, "for you"}, {"secret", "not for you"}, {topic, "payload"}})
        everyone.acknowledge(0x40, everyone.expect_publish(name, payload, {.qos = 1}));
    EXPECT_EQ(file_text("broker_data/message/topic.json"), kNoMessages);
}

// ---- a disk that refuses

namespace {

const LogLine kCannotWrite = logged::temporary_not_written("./broker_data/message/away.json.tmp");

// A broker with one absent client, that has missed a message, and one retained message.
struct Served {
    BrokerProcess broker = BrokerProcess::start();
    Peer          sender = come(4, "sender", {}), other = come(5, "other", {});
    std::string   messages, retained;

    Served()
    {
        come(4, "away", keep(4, false)).subscribe("t", 1).disconnect();
        sender.publish("t", "first", {.qos = 1});
        sender.publish("r", "old", {.qos = 1, .retain = true});
        other.subscribe("live", 1);
        messages = file_text("broker_data/message/away.json");
        retained = file_text("broker_data/retain.dat");
        EXPECT_THAT(messages, HasSubstr(R"("payload":"6669727374"})"));
    }
    void all_go_on()
    {
        sender.publish("live", "x", {.qos = 1});
        other.acknowledge(0x40, other.expect_publish("live", "x", {.qos = 1}));
    }
    void write_something()
    {
        sender.publish("t", std::string(90, 'm'), {.qos = 1});
        sender.publish("r", "new", {.qos = 1, .retain = true});
        all_go_on();
        Peer reader = come(4, "reader", {}); // the store in memory goes on
        reader.send(subscribe_packet(4, 1, "r", 0));
        reader.expect_publish("r", "new", {.qos = 1, .retain = true});
    }
    void expect_old_files()
    {
        EXPECT_EQ(file_text("broker_data/message/away.json"), messages);
        EXPECT_EQ(file_text("broker_data/retain.dat"), retained);
        EXPECT_FALSE(fs::exists("broker_data/message/away.json.tmp"));
        EXPECT_FALSE(fs::exists("broker_data/retain.dat.tmp"));
    }
};

size_t times_said(const BrokerProcess &broker, const LogLine &line) // lines are written as they come, whole
{
    return times_in(broker.log(), line.text);
}

// Lines of threads that meet are lost.
void write_until_it_is_said(Served &test, const LogLine &line)
{
    for (int i = 0; i < 5 && times_said(test.broker, line) == 0; ++i)
        test.write_something();
}

} // namespace

TEST(disk, when_it_is_full_files_stay_and_clients_are_served)
{
    if (!mount_small_disk("broker_data"))
        GTEST_SKIP() << "no mounts here";
    Served test;
    write_text("broker_data/rest", std::string(200000, 'r')); // all there is
    write_until_it_is_said(test, kCannotWrite);
    test.expect_old_files();
    EXPECT_EQ(times_said(test.broker, kCannotWrite), 1u);
    EXPECT_EQ(times_said(test.broker, logged::retained_not_saved()), 0u) << "a file that is not whole is not told";

    fs::remove("broker_data/rest");
    test.write_something();
    EXPECT_THAT(file_text("broker_data/message/away.json"), HasSubstr(R"("payload":"6d6d6d6d)"));
    EXPECT_NE(file_text("broker_data/retain.dat"), test.retained);
    EXPECT_EQ(times_said(test.broker, kCannotWrite), 1u);
}

TEST(disk, when_it_is_read_only_files_stay_and_clients_are_served)
{
    if (!mount_small_disk("broker_data"))
        GTEST_SKIP() << "no mounts here";
    Served test;
    ASSERT_EQ(mount(nullptr, "broker_data", nullptr, MS_REMOUNT | MS_RDONLY, kSmallDisk), 0) << strerror(errno);
    write_until_it_is_said(test, kCannotWrite);
    test.expect_old_files();
    EXPECT_EQ(times_said(test.broker, kCannotWrite), 1u);
    EXPECT_GE(times_said(test.broker, logged::retained_not_saved()), 1u);
    come(4, "away", {}).disconnect(); // forgotten, but its files stay
    test.expect_old_files();

    ASSERT_EQ(mount(nullptr, "broker_data", nullptr, MS_REMOUNT, kSmallDisk), 0) << strerror(errno);
    test.sender.publish("r", "newer", {.qos = 1, .retain = true});
    EXPECT_NE(file_text("broker_data/retain.dat"), test.retained);
}

TEST(disk, when_the_directory_is_removed_clients_are_served)
{
    Served test;
    fs::remove_all("broker_data");
    test.write_something();
    EXPECT_FALSE(fs::exists("broker_data"));
    EXPECT_EQ(times_said(test.broker, logged::retained_not_saved()), 1u);
    Peer fresh = come(5, "fresh", keep(5, false));
    fresh.subscribe("fresh", 1);
    const auto not_written = logged::temporary_not_written("./broker_data/subscription/fresh.json.tmp");
    for (int i = 0; i < 5 && times_said(test.broker, not_written) == 0; ++i) // lines of threads that meet are lost
        fresh.subscribe("fresh", 1);
    EXPECT_GE(times_said(test.broker, not_written), 1u);
    fresh.disconnect();
    come(4, "away", keep(4, false)).ping(); // without files there is no saved session
    EXPECT_FALSE(fs::exists("broker_data"));

    // It is made anew at the next start, and until then whoever makes it is served.
    for (const char *directory : {"session", "subscription", "message"})
        fs::create_directories(std::string("broker_data/") + directory);
    Peer client = come(4, "new", keep(4, false));
    client.subscribe("new", 1);
    EXPECT_TRUE(fs::exists("broker_data/subscription/new.json"));
}

// tarn-broker would not start; the library does, for a host that has other things to do.
TEST(disk, when_the_directory_cannot_be_made_the_broker_starts_all_the_same)
{
    write_text("broker_data", "a file");
    testing::internal::CaptureStdout();
    Host              host;
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_THAT(log, HasSubstr("[WARN] [persist] 订阅目录不存在"));
    EXPECT_THAT(log, HasSubstr("[WARN] [persist] no retain file"));
    Peer client = come(4, "a", keep(4, false));
    client.subscribe("t", 1);
    Peer sender = come(5, "sender", {});
    sender.publish("t", "x", {.qos = 1});
    client.acknowledge(0x40, client.expect_publish("t", "x", {.qos = 1}));
    EXPECT_EQ(file_text("broker_data"), "a file");
}
