// A disk that takes its time: nobody waits for what another client's packets have to save, and nothing is acknowledged
// before it is saved.
#include "stats/mqtt_stats.h"
#include "support/files.h"
#include "support/host.h"
#include "support/peer.h"

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace tarn::test;
using namespace std::chrono_literals;
using testing::HasSubstr;

namespace {

std::atomic<int> g_sync_ms{0};   // that the disk needs for a file
std::atomic<int> g_rename_ms{0}; // likewise
std::atomic<int> g_renames{0};

// While it lives, the library's files take so long.
struct SlowDisk {
    explicit SlowDisk(int sync_ms, int rename_ms = 0)
    {
        g_sync_ms   = sync_ms;
        g_rename_ms = rename_ms;
        g_renames   = 0;
    }
    ~SlowDisk() { g_sync_ms = g_rename_ms = 0; }
};

constexpr int kSlow_ms = 800;

int64_t ms_since(std::chrono::steady_clock::time_point then)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - then).count();
}

// Away, with a session that is kept and a subscription to everything.
void leave_absent(const std::string &id)
{
    Peer client = come(4, id, keep(4, false));
    client.subscribe("#", 1);
    client.disconnect();
}

// What retain.dat held when the host's own publication inside the callback had returned.
std::string g_seen_inside;

bool publish_inside(broker_t *broker, const char *, const char *topic, uint8_t, mqtt_client_t *)
{
    if (strcmp(topic, "ask") != 0)
        return true;
    EXPECT_EQ(tarn_sdk_mqtt_broker_publish(broker, "inside", "v", 1, 0, 1, 0), 0);
    g_seen_inside = file_text("broker_data/retain.dat");
    return true;
}

std::string messages_of(const std::string &id)
{
    return file_text("broker_data/message/" + id + ".json");
}

} // namespace

// The linker leads the library here.
extern "C" int fsync(int fd)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(g_sync_ms));
    return static_cast<int>(syscall(SYS_fsync, fd));
}
extern "C" int rename(const char *from, const char *to) noexcept
{
    ++g_renames;
    std::this_thread::sleep_for(std::chrono::milliseconds(g_rename_ms));
    return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

TEST(waiting_disk, a_message_reaches_those_who_are_there_before_it_is_kept_for_those_who_are_not)
{
    Host host;
    leave_absent("away");
    Peer subscriber = come(4, "subscriber", {}), publisher = come(4, "publisher", {}), other = come(4, "other", {});
    subscriber.subscribe("t", 1);
    SlowDisk   disk(kSlow_ms);
    const auto began = std::chrono::steady_clock::now();
    publisher.send(publish_packet(4, "t", "x", {.qos = 1, .id = 7}));
    subscriber.expect_publish("t", "x", {.qos = 1});
    other.ping();
    EXPECT_LT(ms_since(began), kSlow_ms);
    publisher.expect("40 02 00 07");
    EXPECT_GE(ms_since(began), kSlow_ms);
    EXPECT_THAT(messages_of("away"), HasSubstr("\"topic\":\"t\""));
}

TEST(waiting_disk, a_clients_answers_keep_their_order)
{
    Host host;
    leave_absent("away");
    Peer     publisher = come(4, "publisher", {});
    SlowDisk disk(kSlow_ms);
    publisher.send(publish_packet(4, "t", "x", {.qos = 1, .id = 7}));
    publisher.send("C0 00");
    publisher.send("82 06 | 00 08 | 00 01 's' 00");
    publisher.send(publish_packet(4, "t", "y", {.qos = 2, .id = 9}));
    publisher.expect("40 02 00 07");
    publisher.expect("D0 00");
    publisher.expect("90 03 00 08 00");
    publisher.expect("50 02 00 09");
}

TEST(waiting_disk, a_packet_without_an_answer_holds_those_behind_it)
{
    Host host;
    leave_absent("away");
    Peer       publisher = come(4, "publisher", {});
    SlowDisk   disk(kSlow_ms);
    const auto began = std::chrono::steady_clock::now();
    publisher.send(publish_packet(4, "t", "x", {}));
    publisher.ping();
    EXPECT_GE(ms_since(began), kSlow_ms);
    EXPECT_THAT(messages_of("away"), HasSubstr("\"topic\":\"t\""));
}

TEST(waiting_disk, one_that_leaves_at_once_is_acknowledged_first)
{
    Host host;
    leave_absent("away");
    for (const bool politely : {true, false}) {
        Peer     publisher = come(4, "publisher", {});
        SlowDisk disk(kSlow_ms / 4);
        Bytes    packets = publish_packet(4, "t", "x", {.qos = 1, .id = 7});
        if (politely)
            packets.insert(packets.end(), {0xE0, 0x00});
        publisher.send(packets);
        if (!politely)
            shutdown(publisher.fd(), SHUT_WR);
        publisher.expect("40 02 00 07");
        publisher.expect_closed();
    }
}

TEST(waiting_disk, the_next_packet_of_a_delivery_waits_with_the_other_answers)
{
    Host host;
    leave_absent("away");
    Peer client = come(4, "client", {}), publisher = come(4, "publisher", {});
    client.subscribe("down", 2);
    publisher.publish("down", "x", {.qos = 2});
    const unsigned id = client.expect_publish("down", "x", {.qos = 2});
    SlowDisk       disk(kSlow_ms);
    client.send(publish_packet(4, "t", "x", {.qos = 1, .id = 7}));
    client.send(ack_packet(4, 0x50, id));
    client.expect("40 02 00 07");
    client.expect(ack_packet(4, 0x62, id));
}

TEST(waiting_disk, what_was_retained_waits_with_its_suback)
{
    Host host;
    leave_absent("away");
    Peer publisher = come(4, "publisher", {});
    publisher.publish("r", "kept", {.retain = true});
    publisher.ping();
    SlowDisk disk(kSlow_ms);
    publisher.send(publish_packet(4, "t", "x", {.qos = 1, .id = 7}));
    publisher.send(subscribe_packet(4, 8, "r", 0));
    publisher.expect("40 02 00 07");
    publisher.expect_publish("r", "kept", {.retain = true});
    publisher.expect("90 03 00 08 00");
}

TEST(waiting_disk, what_a_host_publishes_inside_a_callback_is_saved_when_its_call_returns)
{
    Host host;
    tarn_sdk_mqtt_broker_register_acl_callback(host.broker(), publish_inside);
    Peer     publisher = come(4, "publisher", {});
    SlowDisk disk(0, kSlow_ms / 4);
    publisher.send(publish_packet(4, "ask", "x", {.qos = 1, .id = 7}));
    publisher.expect("40 02 00 07");
    EXPECT_THAT(g_seen_inside, HasSubstr("inside"));
}

TEST(waiting_disk, a_message_behind_a_disconnect_is_kept_for_its_client)
{
    Host host;
    Peer client = come(4, "away", keep(4, false)), publisher = come(4, "publisher", {});
    client.subscribe("t", 1);
    {
        SlowDisk   disk(kSlow_ms);
        const auto began = std::chrono::steady_clock::now();
        client.send("E0 00");
        publisher.ping(); // a round later
        EXPECT_LT(ms_since(began), kSlow_ms);
        publisher.publish("t", "x", {.qos = 1});
        EXPECT_THAT(messages_of("away"), HasSubstr("\"topic\":\"t\""));
        client.expect_closed();
        EXPECT_GE(ms_since(began), kSlow_ms) << "it sees the end when its files are written";
    }
    Peer back = come(4, "away", keep(4, true));
    back.expect_publish("t", "x", {.qos = 1});
}

TEST(waiting_disk, many_messages_are_saved_together)
{
    constexpr unsigned kMessages = 60;
    Host               host;
    leave_absent("away");
    Peer     publisher = come(4, "publisher", {});
    SlowDisk disk(kSlow_ms / 4);
    for (unsigned id = 1; id <= kMessages; ++id)
        publisher.send(publish_packet(4, "t", "x", {.qos = 1, .id = id}));
    for (unsigned id = 1; id <= kMessages; ++id)
        publisher.expect(ack_packet(4, 0x40, id));
    EXPECT_LT(g_renames, static_cast<int>(kMessages) / 4);
}

TEST(waiting_disk, retained_messages_are_saved_together_and_acknowledged_behind_it)
{
    constexpr unsigned kMessages = 40;
    Host               host;
    Peer               subscriber = come(4, "subscriber", {}), publisher = come(4, "publisher", {});
    subscriber.subscribe("#", 0);
    SlowDisk   disk(0, kSlow_ms / 2);
    const auto began = std::chrono::steady_clock::now();
    for (unsigned id = 1; id <= kMessages; ++id)
        publisher.send(publish_packet(4, "r" + std::to_string(id), "x", {.qos = 1, .retain = true, .id = id}));
    for (unsigned id = 1; id <= kMessages; ++id)
        subscriber.expect_publish("r" + std::to_string(id), "x", {});
    EXPECT_LT(ms_since(began), kSlow_ms / 2);
    for (unsigned id = 1; id <= kMessages; ++id)
        publisher.expect(ack_packet(4, 0x40, id));
    EXPECT_GE(ms_since(began), kSlow_ms / 2);
    EXPECT_LT(g_renames, static_cast<int>(kMessages) / 4);
    EXPECT_THAT(file_text("broker_data/retain.dat"), HasSubstr("r40"));
}

TEST(waiting_disk, the_end_of_the_broker_saves_what_waits)
{
    constexpr int kAbsent = 20;
    {
        Host host;
        for (int i = 0; i < kAbsent; ++i)
            leave_absent("away" + std::to_string(i));
        Peer     subscriber = come(4, "subscriber", {}), publisher = come(4, "publisher", {});
        SlowDisk disk(20);
        subscriber.subscribe("t", 0);
        publisher.send(publish_packet(4, "t", "x", {.qos = 1, .id = 7}));
        subscriber.expect_publish("t", "x", {});
    }
    for (int i = 0; i < kAbsent; ++i)
        EXPECT_THAT(messages_of("away" + std::to_string(i)), HasSubstr("\"topic\":\"t\""));
}

TEST(waiting_disk, a_returning_client_gets_what_is_not_saved_yet)
{
    Host host;
    leave_absent("away");
    Peer     publisher = come(4, "publisher", {});
    SlowDisk disk(kSlow_ms);
    publisher.send(publish_packet(4, "t", "x", {.qos = 1, .id = 7}));
    Peer away = come(4, "away", keep(4, true));
    away.expect_publish("t", "x", {.qos = 1});
    publisher.expect("40 02 00 07");
    away.ping();
    EXPECT_EQ(messages_of("away"), R"({"msgs":[]})");
}

TEST(waiting_disk, a_client_that_is_faster_than_the_disk_waits_alone)
{
    constexpr unsigned kMessages = 3000, kUnsaved = 1024;
    Host               host;
    leave_absent("away");
    Peer           publisher = come(4, "publisher", {}), other = come(4, "other", {});
    SlowDisk       disk(kSlow_ms);
    const uint64_t before = g_mqtt_stats.pkt_rx;
    Bytes          packets;
    for (unsigned id = 1; id <= kMessages; ++id) {
        const Bytes one = publish_packet(4, "t", "x", {.qos = 1, .id = id});
        packets.insert(packets.end(), one.begin(), one.end());
    }
    publisher.send(packets);
    std::this_thread::sleep_for(std::chrono::milliseconds(kSlow_ms / 2));
    EXPECT_EQ(g_mqtt_stats.pkt_rx - before, kUnsaved);
    other.ping();
    for (unsigned id = 1; id <= kMessages; ++id)
        publisher.expect(ack_packet(4, 0x40, id));
}
