// The journal while the disk does what it is told: records, waiting, checkpoints.
#include "journal_support.h"
#include "support/faults.h"
#include "support/timing.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>
#include <thread>

using namespace tarn;
using namespace tarn::standard;
using namespace tarn::test;

namespace {

constexpr const char *kDirectory = "data/standard";

// What a test appends; the status is looked at where it matters.
Appended append(Journal &journal, const std::string &text, uint8_t type = 1)
{
    return journal.append(type, {bytes_of(text)});
}

void open_journal(Journal &journal)
{
    Replayed replayed;
    ASSERT_EQ(journal.open(kDirectory, replayed).status, OpenStatus::Ok);
}

std::vector<std::string> kept()
{
    Journal  journal;
    Replayed replayed;
    EXPECT_EQ(journal.open(kDirectory, replayed).status, OpenStatus::Ok);
    return replayed.records;
}

bool is_on_disk(Journal &journal)
{
    return eventually([&] { return journal.unsynced() == 0; });
}

bool has_ended_checkpoint(const std::string &state)
{
    return eventually([&] { return fs::exists(fs::path(kDirectory) / state); });
}

} // namespace

TEST(journal, keeps_records_in_their_order)
{
    Journal journal;
    open_journal(journal);
    EXPECT_EQ(names_in(kDirectory), (std::vector<std::string>{"journal-1", "state-1"}));
    EXPECT_EQ(append(journal, "a").status, AppendStatus::Ok);
    EXPECT_EQ(journal.append(255, {bytes_of("b"), {}, bytes_of("c")}).status, AppendStatus::Ok);
    EXPECT_EQ(append(journal, "", 2).status, AppendStatus::Ok);
    EXPECT_EQ(journal.close(), 0u);
    EXPECT_EQ(kept(), (std::vector<std::string>{"1:a", "255:bc", "2:"}));

    open_journal(journal); // the same object, once more
    EXPECT_EQ(append(journal, "d").status, AppendStatus::Ok);
    journal.close();
    EXPECT_EQ(kept(), (std::vector<std::string>{"1:a", "255:bc", "2:", "1:d"}));
}

TEST(journal, says_what_it_read)
{
    {
        Journal journal;
        open_journal(journal);
        append(journal, "a");
        append(journal, "b");
    }
    Journal      journal;
    Replayed     replayed;
    const Opened opened = journal.open(kDirectory, replayed);
    EXPECT_EQ(opened.records, 2u);
    EXPECT_EQ(opened.dropped_bytes, 0u);
}

TEST(journal, a_position_is_where_a_record_ends)
{
    Journal journal;
    open_journal(journal);
    EXPECT_EQ(append(journal, "12345").position, kRecordHeader + 5);
    EXPECT_EQ(append(journal, "").position, 2 * kRecordHeader + 5);
}

TEST(journal, who_waits_is_told_when_it_is_on_the_disk)
{
    TestDisk disk;
    Journal  journal(disk);
    open_journal(journal);
    Waiter waiter;
    disk.hold_next(DiskCall::Sync);
    const uint64_t position = append(journal, "a").position;
    ASSERT_TRUE(journal.wait(position, waiter));
    ASSERT_TRUE(eventually([&] { return disk.gate.waiting() == 1; }));
    EXPECT_FALSE(waiter.none_is_left());
    EXPECT_EQ(journal.unsynced(), position);
    disk.gate.open();
    EXPECT_TRUE(eventually([&] { return waiter.none_is_left(); }));
    EXPECT_EQ(waiter.told, 0); // its own one is left
    waiter.one_is_saved();
    EXPECT_EQ(waiter.told, 1);
}

TEST(journal, what_is_on_the_disk_is_not_waited_for)
{
    Journal journal;
    open_journal(journal);
    const uint64_t position = append(journal, "a").position;
    ASSERT_TRUE(is_on_disk(journal));
    Waiter waiter;
    EXPECT_TRUE(journal.wait(position, waiter));
    EXPECT_TRUE(journal.wait(0, waiter));
    EXPECT_TRUE(waiter.none_is_left());
}

TEST(journal, one_may_wait_for_what_is_being_written)
{
    TestDisk disk;
    Journal  journal(disk);
    open_journal(journal);
    disk.hold_next(DiskCall::Sync);
    const uint64_t first = append(journal, "a").position;
    ASSERT_TRUE(eventually([&] { return disk.gate.waiting() == 1; }));
    const uint64_t second = append(journal, "b").position;
    Waiter         of_first, of_second;
    ASSERT_TRUE(journal.wait(second, of_second));
    ASSERT_TRUE(journal.wait(first, of_first));
    disk.gate.open();
    EXPECT_TRUE(eventually([&] { return of_first.none_is_left() && of_second.none_is_left(); }));
}

TEST(journal, the_first_wait_for_a_record_needs_no_memory)
{
    TestDisk disk;
    Journal  journal(disk);
    open_journal(journal);
    disk.hold_next(DiskCall::Sync);
    append(journal, "held");
    ASSERT_TRUE(eventually([&] { return disk.gate.waiting() == 1; }));
    std::vector<Waiter>   waiters(100);
    std::vector<uint64_t> positions;
    for (size_t i = 0; i < waiters.size(); ++i)
        positions.push_back(append(journal, "x").position);
    Waiter many;
    {
        const Fail fail(Call::Allocate, 1, ENOMEM, 1000);
        for (size_t i = 0; i < waiters.size(); ++i)
            EXPECT_TRUE(journal.wait(positions[i], waiters[i]));
        bool waits = true;
        for (int i = 0; waits && i < 1000; ++i)
            waits = journal.wait(positions[0], many);
        EXPECT_FALSE(waits);
    }
    disk.gate.open();
    for (const Waiter &waiter : waiters)
        EXPECT_TRUE(eventually([&] { return waiter.none_is_left(); }));
    EXPECT_TRUE(eventually([&] { return many.none_is_left(); }));
}

TEST(journal, all_that_gathered_shares_one_sync)
{
    TestDisk         disk;
    std::atomic<int> syncs{0};
    Journal          journal(disk);
    open_journal(journal);
    disk.before = [&](DiskCall call) {
        syncs += call == DiskCall::Sync;
        return 0;
    };
    disk.hold_next(DiskCall::Sync);
    append(journal, "first");
    ASSERT_TRUE(eventually([&] { return disk.gate.waiting() == 1; }));
    for (int i = 0; i < 1000; ++i)
        append(journal, "more");
    disk.gate.open();
    ASSERT_TRUE(is_on_disk(journal));
    EXPECT_EQ(syncs, 2);
}

TEST(journal, takes_no_more_than_it_may_hold)
{
    TestDisk disk;
    Journal  journal(disk, {.most_unsynced = 100});
    EXPECT_EQ(append(journal, "early").status, AppendStatus::Closed);
    open_journal(journal);
    disk.hold_next(DiskCall::Sync);
    EXPECT_EQ(append(journal, std::string(92, 'x')).status, AppendStatus::TooLarge);
    EXPECT_EQ(append(journal, std::string(40, 'x')).status, AppendStatus::Ok);
    EXPECT_EQ(append(journal, std::string(42, 'x')).status, AppendStatus::Ok);
    EXPECT_EQ(journal.unsynced(), 100u);
    EXPECT_EQ(append(journal, "").status, AppendStatus::Busy);
    disk.gate.open();
    ASSERT_TRUE(is_on_disk(journal));
    EXPECT_EQ(append(journal, std::string(91, 'x')).status, AppendStatus::Ok);
    journal.close();
    EXPECT_EQ(append(journal, "late").status, AppendStatus::Closed);
    EXPECT_EQ(kept().size(), 3u);
}

TEST(journal, without_memory_nothing_is_appended)
{
    Journal journal;
    open_journal(journal);
    for (int nth = 1; nth <= 2; ++nth) { // of the waiter, of the record
        const std::string text(100'000, 'x');
        const Fail        fail(Call::Allocate, nth);
        EXPECT_EQ(append(journal, text).status, AppendStatus::NoMemory);
    }
    EXPECT_EQ(append(journal, "a").status, AppendStatus::Ok);
    journal.close();
    EXPECT_EQ(kept(), (std::vector<std::string>{"1:a"}));
}

// Under one mutex a record is appended and waited for, as the engine does it.
TEST(journal, threads_are_told_in_the_order_of_their_records)
{
    constexpr size_t kThreads = 4;
    constexpr size_t kRecords = 2000;
    struct Told {
        std::mutex            mutex;
        std::vector<uint64_t> by_journal, by_appender; // positions
    } told;
    struct InOrder final : persist::SaveWaiter {
        Told     *told     = nullptr;
        uint64_t  position = 0;
        pthread_t appender{};
    };
    Journal journal;
    open_journal(journal);
    std::vector<InOrder> waiters(kThreads * kRecords);
    std::mutex           engine_mutex;
    const auto           saved = [](persist::SaveWaiter &waiter) noexcept {
        auto                 &self = static_cast<InOrder &>(waiter);
        const std::lock_guard lock(self.told->mutex);
        const bool            here = pthread_equal(pthread_self(), self.appender);
        (here ? self.told->by_appender : self.told->by_journal).push_back(self.position);
    };
    std::vector<std::thread> threads;
    for (size_t thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([&, thread] {
            for (size_t i = 0; i < kRecords; ++i) {
                const std::lock_guard lock(engine_mutex);
                InOrder              &waiter   = waiters[thread * kRecords + i];
                const Appended        appended = append(journal, std::to_string(thread) + "," + std::to_string(i));
                EXPECT_EQ(appended.status, AppendStatus::Ok);
                waiter.saved    = saved;
                waiter.told     = &told;
                waiter.position = appended.position;
                waiter.appender = pthread_self();
                EXPECT_TRUE(journal.wait(appended.position, waiter));
                waiter.one_is_saved();
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(journal.close(), 0u);
    EXPECT_TRUE(std::ranges::is_sorted(told.by_journal));
    EXPECT_EQ(told.by_journal.size() + told.by_appender.size(), kThreads * kRecords);
    EXPECT_EQ(std::set(told.by_journal.begin(), told.by_journal.end()).size(), told.by_journal.size());
    EXPECT_GT(told.by_journal.size(), 0u);

    std::vector<size_t> next(kThreads);
    for (const std::string &record : kept()) {
        const size_t thread = std::stoul(record.substr(2));
        EXPECT_EQ(std::stoul(record.substr(4)), next[thread]++);
    }
    EXPECT_EQ(next, std::vector<size_t>(kThreads, kRecords));
}

TEST(journal, wants_a_checkpoint_when_it_has_grown)
{
    Journal journal(system_disk(), {.least_checkpoint = 1000});
    EXPECT_FALSE(journal.wants_checkpoint());
    EXPECT_FALSE(journal.begin_checkpoint());
    open_journal(journal);
    append(journal, std::string(991, 'x'));
    EXPECT_FALSE(journal.wants_checkpoint());
    append(journal, "");
    EXPECT_TRUE(journal.wants_checkpoint());
    journal.close();
    EXPECT_FALSE(journal.wants_checkpoint());
    open_journal(journal); // what is in the files counts
    EXPECT_TRUE(journal.wants_checkpoint());

    ASSERT_TRUE(journal.begin_checkpoint());
    EXPECT_FALSE(journal.begin_checkpoint());
    append(journal, std::string(1000, 'y'));
    EXPECT_FALSE(journal.wants_checkpoint()); // one is under way
    EXPECT_EQ(journal.append_to_checkpoint(1, {bytes_of(std::string(2000, 'x'))}), AppendStatus::Ok);
    journal.finish_checkpoint();
    ASSERT_TRUE(has_ended_checkpoint("state-2"));
    ASSERT_TRUE(eventually([&] { return journal.begin_checkpoint(); }));
    journal.close();

    open_journal(journal);
    append(journal, std::string(2900, 'z')); // with the 1000 from before not twice the checkpoint
    EXPECT_FALSE(journal.wants_checkpoint());
    append(journal, std::string(200, 'z'));
    EXPECT_TRUE(journal.wants_checkpoint());
}

TEST(journal, a_checkpoint_replaces_what_was_before_it)
{
    Journal journal;
    open_journal(journal);
    append(journal, "before");
    ASSERT_TRUE(journal.begin_checkpoint());
    EXPECT_EQ(journal.append_to_checkpoint(1, {bytes_of("state")}), AppendStatus::Ok);
    append(journal, "meanwhile");
    EXPECT_EQ(journal.append_to_checkpoint(1, {bytes_of("more state")}), AppendStatus::Ok);
    journal.finish_checkpoint();
    EXPECT_EQ(journal.append_to_checkpoint(1, {bytes_of("too late")}), AppendStatus::Closed);
    append(journal, "behind");
    journal.close(); // the checkpoint comes with it
    EXPECT_EQ(names_in(kDirectory), (std::vector<std::string>{"journal-2", "state-2"}));
    const auto records = kept();
    // What was appended before the thread knew of the checkpoint may stand behind it.
    EXPECT_EQ(std::vector(records.begin(), records.begin() + 2), (std::vector<std::string>{"1:state", "1:more state"}));
    EXPECT_EQ(std::vector(records.end() - 2, records.end()), (std::vector<std::string>{"1:meanwhile", "1:behind"}));
}

TEST(journal, many_checkpoints_follow_each_other)
{
    Journal journal;
    open_journal(journal);
    for (int i = 2; i < 20; ++i) {
        append(journal, "change");
        ASSERT_TRUE(eventually([&] { return journal.begin_checkpoint(); }));
        EXPECT_EQ(journal.append_to_checkpoint(1, {bytes_of(std::to_string(i))}), AppendStatus::Ok);
        ASSERT_TRUE(is_on_disk(journal));
        journal.finish_checkpoint();
        ASSERT_TRUE(has_ended_checkpoint("state-" + std::to_string(i)));
    }
    journal.close();
    EXPECT_EQ(names_in(kDirectory), (std::vector<std::string>{"journal-19", "state-19"}));
    EXPECT_EQ(kept().front(), "1:19");
}

TEST(journal, a_checkpoint_that_was_not_finished_is_dropped)
{
    Journal journal;
    open_journal(journal);
    append(journal, "a");
    ASSERT_TRUE(is_on_disk(journal));
    ASSERT_TRUE(journal.begin_checkpoint());
    EXPECT_EQ(journal.append_to_checkpoint(1, {bytes_of("half")}), AppendStatus::Ok);
    append(journal, "b");
    journal.close();
    EXPECT_EQ(journal.append_to_checkpoint(1, {bytes_of("late")}), AppendStatus::Closed);
    journal.finish_checkpoint();
    EXPECT_EQ(names_in(kDirectory), (std::vector<std::string>{"journal-1", "journal-2", "state-1"}));
    EXPECT_EQ(kept(), (std::vector<std::string>{"1:a", "1:b"}));

    open_journal(journal); // goes on in the second
    append(journal, "c");
    journal.close();
    EXPECT_EQ(kept(), (std::vector<std::string>{"1:a", "1:b", "1:c"}));
}

TEST(journal, a_checkpoint_takes_no_more_memory_than_it_may)
{
    TestDisk disk;
    Journal  journal(disk, {.most_of_state = 4000});
    open_journal(journal);
    ASSERT_TRUE(journal.begin_checkpoint());
    disk.hold_next(DiskCall::Sync);
    append(journal, "held");
    ASSERT_TRUE(eventually([&] { return disk.gate.waiting() == 1; }));
    const std::string tenth(400 - kRecordHeader, 'x'), large(10'000, 'L');
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(journal.append_to_checkpoint(1, {bytes_of(tenth)}), AppendStatus::Ok);
    EXPECT_EQ(journal.append_to_checkpoint(1, {bytes_of(tenth)}), AppendStatus::Busy);
    disk.gate.open();
    const auto append_when_possible = [&](const std::string &text) {
        return eventually([&] { return journal.append_to_checkpoint(2, {bytes_of(text)}) == AppendStatus::Ok; });
    };
    EXPECT_TRUE(append_when_possible("s"));   // waits there alone
    EXPECT_TRUE(append_when_possible(large)); // what is larger than all room goes alone
    EXPECT_TRUE(append_when_possible("end"));
    journal.finish_checkpoint();
    journal.close();
    const auto records = kept();
    ASSERT_GE(records.size(), 13u);
    EXPECT_EQ(records[10], "2:s");
    EXPECT_EQ(records[11], "2:" + large);
    EXPECT_EQ(records[12], "2:end");
}

TEST(journal, without_memory_nothing_is_appended_to_a_checkpoint)
{
    Journal journal(system_disk(), {.most_unsynced = 150'000});
    open_journal(journal);
    ASSERT_TRUE(journal.begin_checkpoint());
    EXPECT_EQ(journal.append_to_checkpoint(1, {bytes_of(std::string(150'000, 'x'))}), AppendStatus::TooLarge);
    const std::string text(100'000, 'x');
    const Fail        fail(Call::Allocate);
    EXPECT_EQ(journal.append_to_checkpoint(1, {bytes_of(text)}), AppendStatus::NoMemory);
    EXPECT_EQ(journal.append_to_checkpoint(1, {bytes_of(text)}), AppendStatus::Ok);
}

TEST(journal, memory_of_a_burst_is_given_back)
{
    Journal           journal;
    const std::string large(5'000'000, 'x');
    open_journal(journal);
    append(journal, large);
    ASSERT_TRUE(is_on_disk(journal));
    append(journal, "small");
    journal.close();
    EXPECT_EQ(kept(), (std::vector<std::string>{"1:" + large, "1:small"}));
}
