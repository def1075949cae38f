// A disk that does not take retained messages: said once, and once more when it does again.
#include "broker/disk_watch.h"
#include "program.h"
#include "support/peer.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <tarn_sdk_mqtt_broker.h>
#include <tarn_sdk_mqtt_broker/sub/retain.h>

using namespace tarn::broker;
using namespace tarn::test;

namespace fs = std::filesystem;

namespace {

constexpr int kLook_ms = 3 * 5000 * kSlowdown;

bool says_in_time(const Child &broker, const std::string &text)
{
    return wait_until([&] { return broker.errors().find(text) != std::string::npos; }, kLook_ms);
}

void retain(const std::string &topic)
{
    EXPECT_EQ(retain_msg_set(topic.c_str(), reinterpret_cast<const uint8_t *>("x"), 1, 0), 0);
}

struct disk_watch : testing::Test {
    broker_t *broker = tarn_sdk_mqtt_broker_create();
    DiskWatch watch;
    void      SetUp() override { ASSERT_EQ(tarn_sdk_mqtt_broker_init(broker), TARN_OK); }
    void      TearDown() override
    {
        tarn_sdk_mqtt_broker_deinit(broker);
        tarn_sdk_mqtt_broker_destroy(broker);
    }
};

} // namespace

TEST_F(disk_watch, has_nothing_to_say_of_a_disk_that_takes_all)
{
    EXPECT_EQ(watch.look(), "");
    retain("a");
    EXPECT_EQ(watch.look(), "");
    fs::remove("broker_data/retain.dat"); // lost in another way: it is written again
    EXPECT_EQ(watch.look(), "");
    EXPECT_TRUE(fs::exists("broker_data/retain.dat"));
}

TEST_F(disk_watch, says_once_that_nothing_is_taken_and_once_that_it_is_again)
{
    retain("a");
    EXPECT_EQ(watch.look(), "");
    fs::rename("broker_data", "elsewhere");
    retain("b");
    EXPECT_EQ(watch.look(), "broker_data cannot be written (No such file or directory): retained messages are not "
                            "saved, and sessions may not be either");
    retain("c");
    EXPECT_EQ(watch.look(), "");
    fs::rename("elsewhere", "broker_data");
    const auto size_before = fs::file_size("broker_data/retain.dat");
    EXPECT_EQ(watch.look(), "retained messages are saved in broker_data again");
    EXPECT_GT(fs::file_size("broker_data/retain.dat"), size_before); // those of before, too
    EXPECT_EQ(watch.look(), "");
}

TEST_F(disk_watch, sees_that_the_file_alone_cannot_be_replaced)
{
    fs::create_directory("broker_data/retain.dat");
    retain("a");
    EXPECT_EQ(watch.look(), "broker_data/retain.dat cannot be replaced: retained messages are not saved");
    EXPECT_EQ(watch.look(), "");
    fs::remove("broker_data/retain.dat");
    EXPECT_EQ(watch.look(), "retained messages are saved in broker_data again");
}

TEST(disk_watch_of_program, a_full_disk_and_a_read_only_one_are_told)
{
    if (!mount_small_disk("broker_data"))
        GTEST_SKIP() << "no mounts here";
    Child broker = run();
    ASSERT_TRUE(serves(broker)) << broker.errors();
    Peer peer = Peer::tcp();
    peer.connect_v4("a");
    peer.publish("first", "x", {.retain = true}); // so that no file takes up all of the disk
    peer.ping();
    for (int i = 0; i < 60; ++i) // of 2336 bytes each, and the old file stays until the new one is whole
        peer.publish("t/" + std::to_string(i), "x", {.retain = true});
    peer.ping();
    EXPECT_TRUE(says_in_time(broker, "tarn-broker: broker_data cannot be written (No space left on device): "))
        << broker.errors();
    for (int i = 0; i < 60; ++i) // all, as the file may take up most of it
        peer.publish("t/" + std::to_string(i), "", {.retain = true});
    peer.ping();
    EXPECT_TRUE(says_in_time(broker, "tarn-broker: retained messages are saved in broker_data again\n"))
        << broker.errors();

    ASSERT_EQ(mount(nullptr, "broker_data", nullptr, MS_REMOUNT | MS_RDONLY, kSmallDisk), 0) << strerror(errno);
    peer.publish("t", "x", {.retain = true});
    EXPECT_TRUE(says_in_time(broker, "tarn-broker: broker_data cannot be written (Read-only file system): "))
        << broker.errors();
    ASSERT_EQ(mount(nullptr, "broker_data", nullptr, MS_REMOUNT, kSmallDisk), 0) << strerror(errno);
    EXPECT_TRUE(wait_until([&] { return times_in(broker.errors(), "again\n") == 2; }, kLook_ms)) << broker.errors();
    EXPECT_EQ(times_in(broker.errors(), "cannot be written"), 2u);
    EXPECT_TRUE(ends_well(broker));
}
