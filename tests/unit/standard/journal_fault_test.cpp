// The journal while the disk fails, and after a kill or a loss of power at any moment.
#include "journal_support.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/log_capture.h"
#include "support/timing.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>

using namespace tarn;
using namespace tarn::standard;
using namespace tarn::test;

namespace {

constexpr const char *kDirectory = "data/standard";

using Texts = std::vector<std::string>;

Appended append(Journal &journal, const std::string &text)
{
    return journal.append(1, {bytes_of(text)});
}

void open_journal(Journal &journal)
{
    Replayed replayed;
    ASSERT_EQ(journal.open(kDirectory, replayed).status, OpenStatus::Ok);
}

Texts kept()
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

// State is numbers under keys. Key 0 holds the number of the last change; each change sets it and sets or removes one
// other, in one record.
using State = std::map<int, int>;

struct Change {
    int number, key, value; // value 0: removed
};

struct Thing {
    int key, value;
};

template <class T> std::span<const uint8_t> raw(const T &value)
{
    return {reinterpret_cast<const uint8_t *>(&value), sizeof value};
}

void change_state(State &state, const Change &change)
{
    state[0] = change.number;
    if (change.value)
        state[change.key] = change.value;
    else
        state.erase(change.key);
}

struct StateVisitor final : JournalVisitor {
    static constexpr uint8_t kChange = 1, kThing = 2;
    State                    state;

    bool record(uint8_t type, std::span<const uint8_t> bytes) noexcept override
    {
        if (type == kChange) {
            Change change;
            memcpy(&change, bytes.data(), sizeof change);
            change_state(state, change);
        } else {
            Thing thing;
            memcpy(&thing, bytes.data(), sizeof thing);
            state[thing.key] = thing.value;
        }
        return true;
    }
};

// Changes state, waits for changes, and writes checkpoints in small steps between changes, as the engine does.
class ModelEngine {
public:
    explicit ModelEngine(TestDisk &disk)
        : journal_(disk, {.most_of_state = 128, .least_checkpoint = 1000, .retry_ms = 1}), history_(kChanges + 1)
    {
    }

    void run(uint32_t seed)
    {
        StateVisitor none;
        ASSERT_EQ(journal_.open(kDirectory, none).status, OpenStatus::Ok);
        std::mt19937 random(seed);
        while (number_ < kChanges) {
            change(1 + static_cast<int>(random() % 20), static_cast<int>(random() % 4));
            if (journal_.wants_checkpoint() && journal_.begin_checkpoint())
                streaming_ = state_.begin()->first;
            for (auto steps = random() % 4; steps > 0; --steps)
                continue_checkpoint();
            while (journal_.unsynced() > 400) // so that the thread keeps up, and there are checkpoints
                pause_ms(1);
        }
    }
    uint64_t close() { return journal_.close(); }

    int          told() const { return told_; }      // number of the last change that was said to be saved
    int          changed() const { return number_; } // of the last one
    const State &after(int change) const { return history_[static_cast<size_t>(change)]; }

private:
    struct ChangeWaiter final : persist::SaveWaiter {
        ModelEngine *engine = nullptr;
        int          number = 0;
    };

    void change(int key, int value)
    {
        const Change  change = {number_ + 1, key, value};
        const auto    at     = static_cast<size_t>(change.number);
        ChangeWaiter &waiter = waiters_[at];
        waiter.engine        = this;
        waiter.number        = change.number;
        waiter.saved         = [](persist::SaveWaiter &saved) noexcept {
            auto &self         = static_cast<ChangeWaiter &>(saved);
            self.engine->told_ = std::max<int>(self.engine->told_, self.number);
        };
        waiter.unsaved = 0; // the journal alone tells it
        change_state(state_, change);
        history_[at]            = state_;
        number_                 = change.number;
        const Appended appended = journal_.append(StateVisitor::kChange, {raw(change)});
        ASSERT_EQ(appended.status, AppendStatus::Ok);
        ASSERT_TRUE(journal_.wait(appended.position, waiter));
    }

    void continue_checkpoint()
    {
        if (!streaming_)
            return;
        const auto next = state_.lower_bound(*streaming_);
        if (next == state_.end()) {
            journal_.finish_checkpoint();
            streaming_.reset();
            return;
        }
        const Thing        thing  = {next->first, next->second};
        const AppendStatus status = journal_.append_to_checkpoint(StateVisitor::kThing, {raw(thing)});
        if (status == AppendStatus::Ok)
            streaming_ = thing.key + 1;
        else if (status == AppendStatus::Closed)
            streaming_.reset();
    }

    static constexpr int kChanges = 400;

    std::array<ChangeWaiter, kChanges + 1> waiters_;
    Journal                                journal_;
    State                                  state_;
    std::optional<int>                     streaming_; // the next key, while a checkpoint is under way
    std::vector<State>                     history_;
    std::atomic<int>                       number_{0};
    std::atomic<int>                       told_{0};
};

// What a kill, or a loss of power, at one moment would leave.
struct Moment {
    Files killed, powerless;
    int   told, changed;
};

bool changes_files(DiskCall call)
{
    return call != DiskCall::Read;
}

// Replaying gives the state after one change: one that was said to be saved, or a later one.
void expect_right(const Files &files, const Moment &moment, const ModelEngine &engine)
{
    write_files("copy", files);
    TestDisk     disk; // so that nothing waits for the real one
    Journal      journal(disk);
    StateVisitor visitor;
    ASSERT_EQ(journal.open("copy", visitor).status, OpenStatus::Ok);
    const int number = visitor.state.empty() ? 0 : visitor.state[0];
    EXPECT_GE(number, moment.told);
    EXPECT_LE(number, moment.changed);
    EXPECT_EQ(visitor.state, engine.after(number));
}

void expect_right_at_each(const std::vector<Moment> &moments, const ModelEngine &engine)
{
    for (size_t i = 0; i < moments.size() && !testing::Test::HasFailure(); ++i) {
        SCOPED_TRACE("call " + std::to_string(i));
        expect_right(moments[i].killed, moments[i], engine);
        expect_right(moments[i].powerless, moments[i], engine);
    }
}

Moment moment_of(TestDisk &disk, const ModelEngine &engine)
{
    Moment moment;
    moment.told      = engine.told();
    moment.killed    = files_in(kDirectory);
    moment.powerless = disk.after_power_loss();
    moment.changed   = engine.changed();
    return moment;
}

} // namespace

TEST(journal_fault, a_kill_at_any_call_loses_nothing_that_was_said_to_be_saved)
{
    TestDisk            disk;
    ModelEngine         engine(disk);
    std::vector<Moment> moments;
    disk.most_at_once = 100; // so that writes end in the middle of records
    disk.before       = [&](DiskCall call) {
        if (changes_files(call))
            moments.push_back(moment_of(disk, engine));
        return 0;
    };
    engine.run(1);
    EXPECT_EQ(engine.close(), 0u);
    moments.push_back(moment_of(disk, engine));
    EXPECT_EQ(moments.back().told, moments.back().changed);
    EXPECT_GE(moments.back().killed.begin()->first, "journal-4") << "too few checkpoints";
    expect_right_at_each(moments, engine);
}

TEST(journal_fault, nor_does_a_kill_on_a_disk_that_fails_at_times)
{
    LogCapture log; // of each failure
    for (const uint32_t seed : {2, 3, 4}) {
        fs::remove_all("data");
        TestDisk            disk;
        ModelEngine         engine(disk);
        std::vector<Moment> moments;
        std::mt19937        random(seed);
        std::atomic<bool>   healthy{false};
        disk.most_at_once   = 100;
        disk.loses_unsynced = true;
        disk.before         = [&](DiskCall call) {
            const bool opened = engine.changed() > 0;
            if (opened && changes_files(call))
                moments.push_back(moment_of(disk, engine));
            return opened && !healthy && random() % 16 == 0 ? EIO : 0;
        };
        engine.run(seed);
        healthy = true;
        EXPECT_EQ(engine.close(), 0u);
        disk.before = nullptr;
        moments.push_back(moment_of(disk, engine));
        EXPECT_EQ(moments.back().told, moments.back().changed);
        expect_right_at_each(moments, engine);
    }
}

TEST(journal_fault, a_full_disk_is_waited_for)
{
    TestDisk          disk;
    std::atomic<bool> full{false};
    Waiter            waiter;
    Journal           journal(disk, {.most_unsynced = 100, .retry_ms = 1});
    open_journal(journal);
    LogCapture log(2);
    disk.before = [&](DiskCall call) { return call == DiskCall::Write && full ? ENOSPC : 0; };
    append(journal, "before");
    ASSERT_TRUE(is_on_disk(journal));
    EXPECT_FALSE(journal.is_failing());

    full = true;
    ASSERT_TRUE(journal.wait(append(journal, "meanwhile").position, waiter));
    ASSERT_TRUE(eventually([&] { return journal.is_failing(); }));
    EXPECT_EQ(append(journal, std::string(70, 'x')).status, AppendStatus::Ok);
    EXPECT_EQ(append(journal, "more").status, AppendStatus::Busy);
    pause_ms(20); // some attempts
    EXPECT_FALSE(waiter.none_is_left());

    full = false;
    EXPECT_TRUE(eventually([&] { return waiter.none_is_left(); }));
    ASSERT_TRUE(is_on_disk(journal));
    EXPECT_FALSE(journal.is_failing());
    append(journal, "behind");
    EXPECT_EQ(journal.close(), 0u);
    EXPECT_EQ(log.take(), (std::vector{error("[journal] journal-1 cannot be written: No space left on device: what is "
                                             "to be kept waits, and so do acknowledgements"),
                                       warn("[journal] journal-1 is written again")}));
    EXPECT_EQ(kept(), (Texts{"1:before", "1:meanwhile", "1:" + std::string(70, 'x'), "1:behind"}));
}

TEST(journal_fault, what_a_failed_sync_spoilt_is_written_again)
{
    TestDisk disk;
    Journal  journal(disk, {.retry_ms = 1});
    open_journal(journal);
    append(journal, "safe");
    ASSERT_TRUE(is_on_disk(journal));
    std::atomic<int> failures{3};
    disk.loses_unsynced = true;
    disk.before         = [&](DiskCall call) { return call == DiskCall::Sync && failures-- > 0 ? EIO : 0; };
    LogCapture log;
    append(journal, "spoilt");
    ASSERT_TRUE(is_on_disk(journal));
    EXPECT_LE(failures, 0);
    journal.close();
    EXPECT_EQ(kept(), (Texts{"1:safe", "1:spoilt"}));
}

TEST(journal_fault, what_cannot_be_written_at_the_end_is_told_and_counted)
{
    TestDisk         disk;
    std::atomic<int> failures{0}; // to come: the one that was seen, and those of close()
    Waiter           waiter;
    Journal          journal(disk, {.retry_ms = 1'000'000}); // close() does not wait for it
    open_journal(journal);
    disk.before = [&](DiskCall call) { return call == DiskCall::Write && failures-- > 0 ? EIO : 0; };
    append(journal, "a");
    ASSERT_TRUE(is_on_disk(journal));
    failures = 4; // then it would write again
    LogCapture log(2);
    ASSERT_TRUE(journal.wait(append(journal, "lost").position, waiter));
    ASSERT_TRUE(eventually([&] { return journal.is_failing(); }));
    const uint64_t later = append(journal, "lost, too").position;
    ASSERT_TRUE(journal.wait(later, waiter));
    EXPECT_EQ(journal.close(), 2 * kRecordHeader + 13);
    EXPECT_TRUE(waiter.none_is_left());
    EXPECT_EQ(journal.unsynced(), 0u);
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], error("[journal] journal-1 could not be written to the end: 13 bytes lost"));
    EXPECT_EQ(lines[2], error("[journal] journal-1 could not be written to the end: 18 bytes lost"));
    EXPECT_EQ(kept(), Texts{"1:a"});
    open_journal(journal);
    EXPECT_FALSE(journal.is_failing());
    EXPECT_EQ(journal.close(), 0u);
}

// Each call of a checkpoint fails once, and so does each of all that follow it.
TEST(journal_fault, a_checkpoint_that_fails_is_given_up)
{
    size_t given_up = 0;
    bool   failed   = true;
    for (int nth = 1; failed; ++nth) {
        fs::remove_all("data");
        TestDisk         disk;
        std::atomic<int> calls{0};
        LogCapture       log(2);
        Journal          journal(disk, {.least_checkpoint = 100, .retry_ms = 1});
        open_journal(journal);
        append(journal, std::string(100, 'a'));
        ASSERT_TRUE(is_on_disk(journal));
        disk.before = [&](DiskCall) { return ++calls == nth ? ENOSPC : 0; };
        ASSERT_TRUE(journal.begin_checkpoint());
        (void)journal.append_to_checkpoint(1, {bytes_of("state")}); // it may be given up already
        journal.finish_checkpoint();
        append(journal, "b");
        ASSERT_TRUE(is_on_disk(journal));
        EXPECT_TRUE(eventually([&] { return !log.lines().empty() || fs::exists("data/standard/state-2"); }));
        const bool was_given_up = std::ranges::any_of(
            log.lines(), [](const LogLine &line) { return line.text.find("is given up: No space") != line.text.npos; });
        given_up += was_given_up;
        if (was_given_up) {
            EXPECT_TRUE(eventually(
                [&] { return journal.append_to_checkpoint(1, {bytes_of("late")}) == AppendStatus::Closed; }));
            EXPECT_FALSE(journal.wants_checkpoint());
            append(journal, std::string(100, 'c')); // as much more as a small one needs
            EXPECT_TRUE(journal.wants_checkpoint());
        }
        journal.close();
        failed              = calls >= nth;
        const Texts records = kept();
        EXPECT_TRUE(std::ranges::find(records, "1:b") != records.end()) << nth;
        EXPECT_EQ(std::ranges::count(records, "1:state"), was_given_up ? 0 : 1) << nth;
        EXPECT_EQ(std::ranges::count(records, "1:" + std::string(100, 'a')), was_given_up ? 1 : 0) << nth;
        for (const std::string &name : names_in(kDirectory))
            EXPECT_EQ(name.find(".tmp"), name.npos) << name;
    }
    EXPECT_GE(given_up, 8u);
}

// A full disk may hold what the journal needs in an unfinished checkpoint.
TEST(journal_fault, a_journal_that_fails_gives_its_checkpoint_up)
{
    TestDisk         disk;
    std::atomic<int> writes{0};
    LogCapture       log(2);
    Journal          journal(disk, {.retry_ms = 1});
    open_journal(journal);
    ASSERT_TRUE(journal.begin_checkpoint());
    ASSERT_TRUE(eventually([&] { return fs::exists("data/standard/state-2.tmp"); }));
    append(journal, "a");
    ASSERT_TRUE(is_on_disk(journal));
    disk.before = [&](DiskCall call) { return call == DiskCall::Write && ++writes == 1 ? ENOSPC : 0; };
    append(journal, "b");
    ASSERT_TRUE(is_on_disk(journal));
    EXPECT_FALSE(fs::exists("data/standard/state-2.tmp"));
    EXPECT_EQ(journal.append_to_checkpoint(1, {bytes_of("late")}), AppendStatus::Closed);
    EXPECT_EQ(log.lines().at(1), error("[journal] checkpoint behind journal-2 is given up: No space left on device"));
    journal.close();
    EXPECT_EQ(kept(), (Texts{"1:a", "1:b"}));
}

TEST(journal_fault, a_start_that_fails_changes_nothing_that_was_kept)
{
    {
        Journal journal;
        open_journal(journal);
        append(journal, "a");
    }
    write_file("data/standard/journal-1", content_of("data/standard/journal-1") + "torn");
    for (const bool first_start : {false, true}) {
        bool failed = true;
        for (int nth = 1; failed; ++nth) {
            TestDisk   disk;
            Journal    journal(disk);
            Replayed   replayed;
            LogCapture log;
            int        calls    = 0;
            disk.before         = [&](DiskCall) { return ++calls == nth ? EIO : 0; };
            const Opened opened = journal.open(first_start ? "data/new" : kDirectory, replayed);
            failed              = calls >= nth;
            EXPECT_TRUE(opened.status == OpenStatus::Ok ||
                        (opened.status == OpenStatus::Failed && opened.error == EIO));
            journal.close();
            if (first_start)
                fs::remove_all("data/new");
        }
    }
    EXPECT_EQ(kept(), Texts{"1:a"});
}

TEST(journal_fault, a_disk_that_is_really_full)
{
    if (!mount_small_disk("data"))
        GTEST_SKIP() << "the kernel refuses";
    Waiter     waiter;
    LogCapture log(2);
    Journal    journal(system_disk(), {.least_checkpoint = 1000, .retry_ms = 1});
    open_journal(journal);
    write_file("data/filler", std::string(64 << 10, 'f'));
    const std::string large(100 << 10, 'x');
    ASSERT_TRUE(journal.wait(append(journal, large).position, waiter));
    ASSERT_TRUE(eventually([&] { return journal.is_failing(); }));
    EXPECT_FALSE(waiter.none_is_left());
    fs::remove("data/filler");
    EXPECT_TRUE(eventually([&] { return waiter.none_is_left(); }));
    EXPECT_EQ(journal.close(), 0u);
    EXPECT_EQ(kept(), Texts{"1:" + large});
}
