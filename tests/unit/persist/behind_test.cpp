// Changes that their thread does not wait for: what a load finds meanwhile, what the disk has in the end, who is told.
#include "persist/message_text.h"
#include "persist/persist.hpp"
#include "persist_fixture.h"
#include "support/log_lines/persist.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <random>
#include <regex>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

constexpr const char *kPath    = "data/message/dev1.json";
constexpr const char *kRetains = "data/retain.dat";

// Who waits for what a thread changes.
class Packet : persist::SaveWaiter {
public:
    Packet()
    {
        saved = [](persist::SaveWaiter &waiter) noexcept {
            auto                 &packet = static_cast<Packet &>(waiter);
            const std::lock_guard lock(packet.mutex_);
            packet.is_saved_ = true;
            packet.told_.notify_all();
        };
    }
    ~Packet() { await(); }

    // Changes of the calling thread's in `change` are saved behind it.
    void change(const std::function<void()> &change)
    {
        persist::SaveBehind behind(
            [](void *self) noexcept -> persist::SaveWaiter * { return static_cast<Packet *>(self); }, this);
        change();
    }
    void end() // no more changes
    {
        if (!std::exchange(ended_, true))
            one_is_saved();
    }
    bool is_saved()
    {
        const std::lock_guard lock(mutex_);
        return is_saved_;
    }
    void await()
    {
        end();
        std::unique_lock lock(mutex_);
        told_.wait(lock, [&] { return is_saved_; });
    }

private:
    std::mutex              mutex_;
    std::condition_variable told_;
    bool                    is_saved_ = false;
    bool                    ended_    = false;
};

// While it lives, other threads stop before they touch a file; `release` lets all of them go on.
class StuckDisk {
public:
    StuckDisk() : on_call_([this] { wait(); }) {}
    ~StuckDisk() { release(); }
    void await_visitor()
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return visitors_ > 0; });
    }
    void release()
    {
        const std::lock_guard lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }
    int visitors()
    {
        const std::lock_guard lock(mutex_);
        return visitors_;
    }

private:
    void wait()
    {
        if (std::this_thread::get_id() == owner_)
            return;
        std::unique_lock lock(mutex_);
        ++visitors_;
        changed_.notify_all();
        changed_.wait(lock, [&] { return released_; });
    }
    const std::thread::id   owner_ = std::this_thread::get_id();
    std::mutex              mutex_;
    std::condition_variable changed_;
    int                     visitors_ = 0;
    bool                    released_ = false;
    OnFileCall              on_call_;
};

bool keep(const std::string &topic, const std::string &payload, uint8_t qos = 1, const char *id = "dev1")
{
    persist::AbsentSession session(id);
    return session.add_message(topic.c_str(), bytes(payload.c_str()), static_cast<uint32_t>(payload.size()), qos);
}

// Identifiers are drawn, so two files never have the same.
std::string without_ids(const std::string &text)
{
    return std::regex_replace(text, std::regex(R"("msgid":\d+)"), "\"msgid\":N");
}

struct behind : DataDirectory {
    LogCapture log{2};

    std::vector<std::string> topics()
    {
        load();
        std::vector<std::string> all;
        for (int i = 0; i < record->msg_count; ++i)
            all.emplace_back(record->msgs[i].topic);
        return all;
    }
};

} // namespace

TEST_F(behind, a_kept_message_is_on_the_disk_when_its_packet_is_told)
{
    Packet packet;
    packet.change([] { EXPECT_TRUE(keep("a", "x")); });
    packet.await();
    EXPECT_EQ(without_ids(read_text(kPath)), R"({"msgs":[{"msgid":N,"qos":1,"topic":"a","payload":"78"}]})");
    EXPECT_EQ(g_mqtt_stats.persist_write, 1u);
}

TEST_F(behind, a_packet_without_changes_waits_for_nothing)
{
    Packet packet;
    packet.end();
    EXPECT_TRUE(packet.is_saved());
}

TEST_F(behind, loads_find_what_is_not_on_the_disk_yet)
{
    Packet    one, two;
    StuckDisk disk;
    one.change([] { EXPECT_TRUE(keep("a", "x")); });
    disk.await_visitor();
    two.change([] { EXPECT_TRUE(keep("b", "y")); });
    EXPECT_THAT(topics(), ElementsAre("a", "b"));
    EXPECT_EQ(read_text(kPath), "(no file)");
    one.end();
    EXPECT_FALSE(one.is_saved());
    disk.release();
    two.await();
    EXPECT_THAT(topics(), ElementsAre("a", "b"));
}

TEST_F(behind, changes_that_meet_are_written_at_once)
{
    constexpr int                        kChanges = 50;
    std::vector<std::unique_ptr<Packet>> packets;
    {
        StuckDisk disk;
        for (int i = 0; i < kChanges; ++i) {
            packets.push_back(std::make_unique<Packet>());
            packets.back()->change([] { EXPECT_TRUE(keep("a", "x")); });
            if (i == 0)
                disk.await_visitor();
        }
        disk.release();
        for (auto &packet : packets)
            packet->await();
        EXPECT_EQ(disk.visitors(), 2 * 6) << "open, write, flush, sync, close, rename; the first, and the rest";
    }
    EXPECT_THAT(topics(), SizeIs(kChanges));
    EXPECT_EQ(g_mqtt_stats.persist_write, static_cast<uint64_t>(kChanges)) << "each counts";
}

// The same messages kept one by one, each after a load of the whole file, leave the same file.
TEST_F(behind, any_messages_leave_the_file_that_single_writes_leave)
{
    UnsyncedFiles                  fast;
    std::mt19937                   random(7);
    const std::vector<std::string> topics = {
        "a",        "tele/livingroom/temperature", std::string(250, 't'), "q\"uote\\", "{braces}",
        "\x01\x1f", std::string(200, '{')};
    for (int round = 0; round < 30; ++round) {
        for (const char *id : {"dev1", "dev2"})
            std::filesystem::remove(std::string("data/message/") + id + ".json");
        for (int i = 0; i < 60; ++i) {
            const std::string &topic   = topics[random() % topics.size()];
            const size_t       sizes[] = {1, 20, 64, 300, 520, 1100, 1 + random() % 40};
            const std::string  payload(sizes[random() % (round % 2 ? 7 : 3)], 'p');
            write_text("data/message/dev2.json", read_text(kPath)); // with the same identifiers, of one to five digits
            if (i == 0)
                std::filesystem::remove("data/message/dev2.json");
            Packet packet;
            packet.change([&] { EXPECT_TRUE(keep(topic, payload, static_cast<uint8_t>(i % 3))); });
            packet.await();
            EXPECT_EQ(persist_add_offline_msg("dev2", topic.c_str(), bytes(payload.c_str()),
                                              static_cast<int32_t>(payload.size()), static_cast<uint8_t>(i % 3)),
                      0);
            ASSERT_EQ(without_ids(read_text(kPath)), without_ids(read_text("data/message/dev2.json")))
                << "round " << round << " message " << i;
        }
    }
}

TEST_F(behind, each_load_is_counted_and_logged_as_if_it_were_one)
{
    write_text("data/session/dev1.json", "{}");
    write_text("data/subscription/dev1.json", R"({"subs":[{"topic":"a","qos":1},{"topic":"b","qos":1}]})");
    for (int i = 0; i < 3; ++i) {
        log.take();
        g_mqtt_stats.persist_read = 0;
        LogCapture info(1);
        Packet     packet;
        packet.change([] {
            const persist::AbsentSession session("dev1");
            EXPECT_TRUE(session.is_loaded());
            EXPECT_TRUE(session.has_files());
        });
        EXPECT_EQ(g_mqtt_stats.persist_read, i == 0 ? 1u : 2u) << "the message file is there from the second time on";
        EXPECT_THAT(info.take(), ElementsAre(logged::subscriptions_restored("dev1", 2)));
        packet.change([] { EXPECT_TRUE(keep("a", "x")); });
    }
}

TEST_F(behind, files_that_others_changed_are_read_again)
{
    Packet one, two, three;
    one.change([] { EXPECT_TRUE(keep("a", "x")); });
    one.await();
    write_text(kPath, R"({"msgs":[{"msgid":7,"qos":1,"topic":"theirs","payload":"78"}]})");
    two.change([] { EXPECT_TRUE(keep("b", "y")); });
    two.await();
    EXPECT_THAT(topics(), ElementsAre("theirs", "b"));
    std::filesystem::remove(kPath);
    three.change([] { EXPECT_TRUE(keep("c", "z")); });
    three.await();
    EXPECT_THAT(topics(), ElementsAre("c"));
}

TEST_F(behind, what_cannot_be_written_is_told_once_and_waits_no_longer)
{
    Packet one, two, three;
    one.change([] { EXPECT_TRUE(keep("a", "x")); });
    one.await();
    log.take();
    {
        Fail full(Call::FileWrite, 1, ENOSPC, 3);
        two.change([] { EXPECT_TRUE(keep("b", "y")); });
        two.await();
    }
    EXPECT_THAT(log.take(), ElementsAre(logged::temporary_not_written(std::string(kPath) + ".tmp")));
    EXPECT_EQ(g_mqtt_stats.persist_write, 1u);
    three.change([] { EXPECT_TRUE(keep("c", "z")); });
    three.await();
    EXPECT_THAT(topics(), ElementsAre("a", "c")) << "the disk's file counts";
}

TEST_F(behind, a_file_removed_while_it_is_written_stays_removed)
{
    Packet one, two;
    {
        StuckDisk disk;
        one.change([] { EXPECT_TRUE(keep("a", "x")); });
        disk.await_visitor();
        two.change([&] { EXPECT_TRUE(persist::remove_session("dev1")); });
        EXPECT_THAT(topics(), IsEmpty());
        disk.release();
        one.await();
    }
    persist_flush();
    EXPECT_EQ(read_text(kPath), "(no file)");
}

TEST_F(behind, a_message_for_a_removed_file_starts_a_new_one)
{
    Packet    one, two;
    StuckDisk disk;
    one.change([] { EXPECT_TRUE(keep("a", "x")); });
    disk.await_visitor();
    two.change([&] {
        EXPECT_TRUE(persist::remove_session("dev1"));
        EXPECT_TRUE(keep("b", "y"));
    });
    disk.release();
    two.await();
    EXPECT_THAT(topics(), ElementsAre("b"));
    EXPECT_THAT(read_text(kPath), HasSubstr("\"b\""));
}

TEST_F(behind, exported_functions_leave_their_file_beside_the_saver)
{
    Packet one, two;
    one.change([] { EXPECT_TRUE(keep("a", "x")); });
    persist_add_offline_msg("dev1", "b", bytes("y"), 1, 1);
    EXPECT_THAT(without_ids(read_text(kPath)), HasSubstr(R"("topic":"b")"));
    EXPECT_THAT(without_ids(read_text(kPath)), HasSubstr(R"("topic":"a")"));
    two.change([] { EXPECT_TRUE(keep("c", "z")); });
    persist_remove("dev1");
    EXPECT_EQ(read_text(kPath), "(no file)");
}

TEST_F(behind, a_load_finds_a_session_that_is_not_on_the_disk_yet)
{
    constexpr const char *kSession = "data/session/dev1.json", *kSubscriptions = "data/subscription/dev1.json";
    subscribe("a/b", 1);
    record->session_expiry_interval = 300;
    Packet    packet;
    StuckDisk disk;
    packet.change([&] { persist_mark(record.get(), PERSIST_SESSION | PERSIST_SUBSCRIPTIONS); });
    disk.await_visitor();
    EXPECT_EQ(read_text(kSession), "(no file)");
    EXPECT_EQ(read_text(kSubscriptions), "(no file)");
    EXPECT_EQ(persist_load_client_only(record.get()), 0) << "the client is known by its subscription file";
    load();
    EXPECT_EQ(record->session_expiry_interval, 300u);
    ASSERT_EQ(record->sub_count, 1);
    EXPECT_STREQ(record->subs[0].topic, "a/b");
    EXPECT_FALSE(packet.is_saved());
    disk.release();
    packet.await();
    EXPECT_THAT(read_text(kSession), HasSubstr("\"session_expiry_interval\":300,"));
    EXPECT_EQ(read_text(kSubscriptions), R"({"subs":[{"topic":"a/b","qos":1}]})");
    EXPECT_EQ(g_mqtt_stats.persist_write, 2u);
}

TEST_F(behind, a_session_removed_while_it_is_written_stays_removed)
{
    subscribe("a/b", 1);
    Packet one, two;
    {
        StuckDisk disk;
        one.change([&] { persist_mark(record.get(), PERSIST_SUBSCRIPTIONS); });
        disk.await_visitor();
        two.change([] { EXPECT_TRUE(persist::remove_session("dev1")); });
        load();
        EXPECT_EQ(record->sub_count, 0);
        disk.release();
        one.await();
    }
    persist_flush();
    EXPECT_EQ(read_text("data/subscription/dev1.json"), "(no file)");
}

// The message is appended without a look at the files, although one beside its own was replaced after it was read.
TEST_F(behind, a_session_that_is_saved_later_is_still_expected)
{
    subscribe("a/b", 1);
    Packet one, two;
    {
        StuckDisk disk;
        one.change([&] { persist_mark(record.get(), PERSIST_SUBSCRIPTIONS); });
        disk.await_visitor();
        persist::expect_messages_for("dev1");
        disk.release();
        one.await();
    }
    {
        StuckDisk   disk; // a read would not return
        std::thread other([&] { two.change([] { EXPECT_TRUE(keep("a", "x")); }); });
        other.join();
        disk.release();
    }
    two.await();
    EXPECT_THAT(topics(), ElementsAre("a"));
}

TEST_F(behind, many_files_of_one_packet_come_behind_the_few_of_another)
{
    UnsyncedFiles fast;
    Packet        many, few;
    StuckDisk     disk;
    many.change([] {
        for (int i = 0; i < 300; ++i)
            EXPECT_TRUE(keep("a", "x", 1, ("many" + std::to_string(i)).c_str()));
    });
    disk.await_visitor();
    few.change([] { EXPECT_TRUE(keep("a", "x")); });
    disk.release();
    few.await();
    EXPECT_FALSE(std::filesystem::exists("data/message/many299.json"));
    many.await();
    EXPECT_TRUE(std::filesystem::exists("data/message/many299.json"));
}

TEST_F(behind, without_memory_for_who_waits_the_change_is_saved_at_once)
{
    persist::SaveBehind nobody([](void *) noexcept -> persist::SaveWaiter * { return nullptr; }, nullptr);
    EXPECT_TRUE(keep("a", "x"));
    EXPECT_TRUE(std::filesystem::exists(kPath));
    EXPECT_EQ(retain_msg_set("r", bytes("v"), 1, 0), 0);
    EXPECT_TRUE(std::filesystem::exists(kRetains));
}

TEST_F(behind, without_a_saver_thread_the_change_is_saved_at_once)
{
    Packet packet;
    Fail   no_thread(Call::ThreadCreate);
    packet.change([] { EXPECT_TRUE(keep("a", "x")); });
    EXPECT_TRUE(std::filesystem::exists(kPath));
}

TEST_F(behind, the_retained_store_is_saved_as_often_as_the_disk_can)
{
    constexpr int                        kChanges = 20;
    std::vector<std::unique_ptr<Packet>> packets;
    StuckDisk                            disk;
    for (int i = 0; i < kChanges; ++i) {
        packets.push_back(std::make_unique<Packet>());
        packets.back()->change([&] { EXPECT_EQ(retain_msg_set(std::to_string(i).c_str(), bytes("v"), 1, 0), 0); });
        if (i == 0)
            disk.await_visitor();
    }
    EXPECT_EQ(read_text(kRetains), "(no file)");
    packets[0]->end();
    EXPECT_FALSE(packets[0]->is_saved());
    disk.release();
    for (auto &packet : packets)
        packet->await();
    EXPECT_EQ(disk.visitors(), 2 * 5) << "open, count, records, close, rename; the first, and the rest";
    EXPECT_EQ(g_mqtt_stats.persist_write, static_cast<uint64_t>(kChanges));
    EXPECT_EQ(read_text(kRetains).size(), 4 + kChanges * sizeof(retain_msg_t));
}

TEST_F(behind, a_retained_store_that_cannot_be_saved_is_told)
{
    Packet packet;
    Fail   no_file(Call::FileOpen);
    packet.change([] { EXPECT_EQ(retain_msg_set("r", bytes("v"), 1, 0), 0); });
    packet.await();
    EXPECT_THAT(log.take(), ElementsAre(logged::retained_not_saved()));
    EXPECT_EQ(g_mqtt_stats.persist_write, 0u);
}

TEST_F(behind, the_end_of_the_module_saves_what_is_left)
{
    Packet one, two;
    one.change([] { EXPECT_TRUE(keep("a", "x")); });
    two.change([] { EXPECT_EQ(retain_msg_set("r", bytes("v"), 1, 0), 0); });
    persist_destroy();
    EXPECT_TRUE(std::filesystem::exists(kPath));
    EXPECT_TRUE(std::filesystem::exists(kRetains));
    one.end();
    EXPECT_TRUE(one.is_saved());
}

TEST_F(behind, a_pipe_in_the_place_of_a_file_counts_as_none)
{
    ASSERT_EQ(mkfifo(kPath, 0600), 0);
    EXPECT_THAT(topics(), IsEmpty());
    ASSERT_EQ(mkfifo("data/session/dev1.json.tmp", 0600), 0);
    ASSERT_EQ(mkfifo(kRetains, 0600), 0);
    EXPECT_EQ(persist_retain_load(), -4);
    log.take();
    persist_flush_single(record.get(), PERSIST_SESSION);
    EXPECT_THAT(log.take(), ElementsAre(logged::temporary_not_written("data/session/dev1.json.tmp")));
}

TEST_F(behind, a_client_that_is_expected_is_not_read_for_its_message)
{
    persist_add_offline_msg("dev1", "first", bytes("x"), 1, 1);
    persist::expect_messages_for("dev1");
    Packet packet;
    {
        StuckDisk   disk; // a read would not return
        std::thread other([&] { packet.change([] { EXPECT_TRUE(keep("second", "y")); }); });
        other.join();
    }
    packet.await();
    EXPECT_THAT(topics(), ElementsAre("first", "second"));
}

TEST_F(behind, a_start_reads_what_it_expects_messages_for)
{
    write_text("data/subscription/dev1.json", R"({"subs":[{"topic":"a","qos":1}]})");
    persist_init("data");
    Packet packet;
    {
        StuckDisk   disk;
        std::thread other([&] { packet.change([] { EXPECT_TRUE(keep("a", "x")); }); });
        other.join();
    }
    packet.await();
    EXPECT_THAT(topics(), ElementsAre("a"));
}

// Of a long message that was kept a load gets no payload; that is known without one.
TEST_F(behind, a_message_behind_a_long_one_is_kept_without_a_look_at_the_files)
{
    Packet one, two;
    one.change([] { EXPECT_TRUE(keep("long", std::string(600, 'p'))); });
    one.await();
    {
        StuckDisk   disk; // a read would not return
        std::thread other([&] { two.change([] { EXPECT_TRUE(keep("short", "x")); }); });
        other.join();
        disk.release();
    }
    two.await();
    EXPECT_EQ(without_ids(read_text(kPath)), R"({"msgs":[{"msgid":N,"qos":1,"topic":"long","payload":""},)"
                                             R"({"msgid":N,"qos":1,"topic":"short","payload":"78"}]})");
}

TEST_F(behind, what_a_host_changes_inside_is_saved_when_its_call_returns)
{
    Packet packet;
    packet.change([] {
        {
            const persist::SaveAtOnce host;
            EXPECT_TRUE(keep("a", "x"));
            EXPECT_TRUE(std::filesystem::exists(kPath));
            EXPECT_EQ(retain_msg_set("r", bytes("v"), 1, 0), 0);
            EXPECT_TRUE(std::filesystem::exists(kRetains));
        }
        StuckDisk disk;
        EXPECT_TRUE(keep("b", "y"));
        EXPECT_THAT(read_text(kPath), Not(HasSubstr("\"b\"")));
    });
}

TEST_F(behind, one_inside_another_leaves_the_outer_one_in_force)
{
    Packet inner, outer;
    outer.change([&] {
        inner.change([] { EXPECT_TRUE(keep("a", "x")); });
        StuckDisk disk;
        EXPECT_TRUE(keep("b", "y"));
        EXPECT_FALSE(outer.is_saved());
        EXPECT_THAT(read_text(kPath), Not(HasSubstr("\"b\"")));
    });
    outer.await();
    EXPECT_THAT(topics(), ElementsAre("a", "b"));
}

TEST_F(behind, what_nobody_waits_for_is_saved_too)
{
    {
        StuckDisk                    disk;
        const persist::SaveUnawaited will;
        EXPECT_TRUE(keep("a", "x"));
        EXPECT_TRUE(keep("b", "x"));
        EXPECT_EQ(read_text(kPath), "(no file)");
    }
    persist_flush();
    EXPECT_THAT(topics(), ElementsAre("a", "b"));
}

TEST_F(behind, the_retained_store_is_on_the_disk_before_it_is_emptied)
{
    Packet packet;
    packet.change([] { EXPECT_EQ(retain_msg_set("r", bytes("v"), 1, 0), 0); });
    sub_init();
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
    persist_init("data");
    EXPECT_EQ(g_sub_mgr.retain_count, 1);
    packet.await();
    EXPECT_EQ(read_text(kRetains).size(), 4 + sizeof(retain_msg_t));
}

TEST_F(behind, nobody_who_reads_files_holds_up_the_retained_store)
{
    Packet     packet;
    ScopedLock lock(g_persist_mutex);
    packet.change([] { EXPECT_EQ(retain_msg_set("r", bytes("v"), 1, 0), 0); });
    packet.await();
    EXPECT_TRUE(std::filesystem::exists(kRetains));
}

TEST_F(behind, behind_the_end_of_the_module_a_change_is_saved_at_once)
{
    persist_destroy();
    Packet packet;
    packet.change([] { EXPECT_TRUE(keep("a", "x")); });
    EXPECT_TRUE(std::filesystem::exists(kPath));
    persist_init("data");
    Packet    next;
    StuckDisk disk;
    next.change([] { EXPECT_TRUE(keep("b", "y")); });
    EXPECT_THAT(read_text(kPath), Not(HasSubstr("\"b\"")));
}

TEST_F(behind, changes_that_never_end_keep_nobody_waiting)
{
    std::atomic<bool> goes_on{true};
    std::thread       busy([&] {
        while (goes_on) {
            Packet packet;
            packet.change([] { EXPECT_TRUE(keep("busy", "x")); });
            packet.change([] { EXPECT_EQ(retain_msg_set("r", bytes("v"), 1, 0), 0); });
            packet.end();
        }
    });
    for (int i = 0; i < 20; ++i) {
        persist_add_offline_msg("dev1", "host", bytes("y"), 1, 1);
        persist_flush();
        persist_remove("dev1");
    }
    goes_on = false;
    busy.join();
}

TEST_F(behind, a_batch_has_all_its_files_with_few_descriptors)
{
    constexpr int kClients = 40;
    rlimit        limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlim_t before = limit.rlim_cur;
    Packet       first, many;
    StuckDisk    disk;
    first.change([] { EXPECT_TRUE(keep("a", "x")); });
    disk.await_visitor(); // the others become one batch
    many.change([] {
        for (int i = 0; i < kClients; ++i)
            EXPECT_TRUE(keep("t", "x", 1, ("many" + std::to_string(i)).c_str()));
    });
    const int next = dup(0);
    close(next);
    limit.rlim_cur = static_cast<rlim_t>(next) + 6;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    disk.release();
    many.await();
    limit.rlim_cur = before;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(g_mqtt_stats.persist_write, kClients + 1u);
    EXPECT_THAT(log.take(), IsEmpty());
}

// Only an allocation for the text itself loses it: otherwise the disk has it, behind what was there.
TEST_F(behind, without_memory_for_the_file_the_messages_go_straight_to_the_disk)
{
    record->msg_count = 2;
    for (int i = 0; i < 2; ++i) {
        strcpy(record->msgs[i].topic, "long");
        record->msgs[i].payload_len = 600;
    }
    const auto with_each_failing = [](const std::function<void()> &act, const std::function<void()> &look) {
        int nth = 1;
        for (int failed = 1; failed > 0; nth += failed, look()) {
            Fail no_memory(Call::Allocate, nth);
            act();
            failed = no_memory.failed();
        }
        return nth - 1;
    };
    const int of_text = with_each_failing([&] { persist::MessageText().set(*record); }, [] {});

    std::optional<Packet> packet;
    int                   lost = 0;
    packet.emplace();
    const int in_all = with_each_failing([&] { packet->change([&] { persist_mark(record.get(), PERSIST_MESSAGES); }); },
                                         [&] {
                                             packet.emplace();
                                             lost += read_text(kPath).find("long") == std::string::npos;
                                             persist_remove("dev1");
                                         });
    EXPECT_GT(in_all, of_text);
    EXPECT_EQ(lost, of_text);
}

TEST_F(behind, what_is_kept_for_a_client_is_known_without_a_look_at_the_files)
{
    EXPECT_FALSE(persist::keeps_messages_for("dev1"));
    Packet packet;
    packet.change([] { EXPECT_TRUE(keep("a", "x")); });
    EXPECT_TRUE(persist::keeps_messages_for("dev1"));
    packet.await();
    EXPECT_TRUE(persist::keeps_messages_for("dev1"));
    persist_remove("dev1");
    EXPECT_FALSE(persist::keeps_messages_for("dev1"));
}
