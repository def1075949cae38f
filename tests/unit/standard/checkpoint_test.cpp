// A checkpoint holds all that files are to know, and no step of it takes long.
#include "state_support.h"
#include "support/log_capture.h"
#include "support/timing.h"

#include <algorithm>

using namespace tarn;
using namespace tarn::standard;
using namespace tarn::test;

namespace {

constexpr JournalLimits kSoon = {.least_checkpoint = 1};

// The types of the records that a start would read.
struct Types final : JournalVisitor {
    std::multiset<RecordType> all;

    Types()
    {
        Journal journal;
        EXPECT_EQ(journal.open(kStateDirectory, *this).status, OpenStatus::Ok);
    }
    bool record(uint8_t type, std::span<const uint8_t>) noexcept override
    {
        all.insert(static_cast<RecordType>(type));
        return true;
    }
    size_t count(RecordType type) const { return all.count(type); }
};

bool has_checkpoint()
{
    return fs::exists(std::string(kStateDirectory) + "/state-2");
}

} // namespace

TEST(checkpoint, has_all_that_files_know)
{
    RecordedState kept(kSoon);
    Session      &session = kept.session("client");
    Session      &empty   = kept.session("empty", kForever_s);
    session.will          = {message(1, "will", "is read"), 5, std::nullopt};
    kept.subscribe(session, "a/+/#", {.identifier = 268435455, .qos = 2, .retain_handling = 2, .no_local = true});
    kept.subscribe(session, "$share/group/a/b", {.qos = 1, .retain_as_published = true});
    kept.subscribe(empty, "a/b", {});
    ASSERT_TRUE(session.incoming.restore(65535));
    for (uint64_t number = 2; number <= 5; ++number)
        ASSERT_TRUE(kept.publish(message(number, "a/b", "payload"), {&session}));
    kept.send_all(session);
    EXPECT_EQ(session.deliveries.pubrec(2, 0).outcome, Outcome::Received);
    ASSERT_TRUE(kept.publish(message(6, "a/b", ""), {&session}));
    kept.state.retained.set(message(7, "r", "retained"));
    kept.state.last_message = 8;
    Session &gone           = kept.session("gone");
    ASSERT_TRUE(kept.recorder.session_is_gone(gone));
    kept.state.sessions.destroy(gone);
    kept.step_long();
    EXPECT_EQ(kept.journal.close(), 0u);
    const Types types;
    EXPECT_EQ(types.count(RecordType::Publication), 0u) << "the journals before it are not needed";
    EXPECT_EQ(types.count(RecordType::SessionState), 2u);
    kept.expect_the_same_again();
}

TEST(checkpoint, leaves_out_what_ends_with_its_connection)
{
    RecordedState kept(kSoon);
    Session      &unkept = *kept.state.sessions.make("unkept", kept.state.bounds());
    kept.state.subscriptions.add(unkept.number, "a", {});
    ASSERT_EQ(unkept.deliveries.offer(message(1, "a", "p"), 1, false), Offered::Queued);
    Session &session = kept.session("client");
    session.deliveries.resume();
    ASSERT_EQ(session.deliveries.offer(message(2, "a", "p"), 0, false), Offered::Queued);
    kept.step_long();
    EXPECT_EQ(kept.journal.close(), 0u);
    const Types types;
    EXPECT_EQ(types.all, (std::multiset{RecordType::Key, RecordType::Counters, RecordType::SessionState}));
}

TEST(checkpoint, has_a_message_once)
{
    RecordedState    kept(kSoon);
    Session         &first  = kept.session("first");
    Session         &second = kept.session("second");
    const MessageRef shared = message(1, "a", "shared");
    ASSERT_TRUE(kept.publish(shared, {&first, &second, &second}, {.is_retained = true}));
    kept.state.retained.set(shared);
    for (const uint32_t checkpoint : {1U, 2U}) {
        for (int i = 0; i < 100; ++i) // so that another one is worth it
            ASSERT_TRUE(kept.recorder.retained_is_gone("none"));
        ASSERT_TRUE(eventually([&] { // the one before may not have ended yet
            kept.step_long();
            return kept.state.last_checkpoint == checkpoint;
        }));
    }
    EXPECT_EQ(kept.journal.close(), 0u);
    const Types types;
    EXPECT_EQ(types.count(RecordType::Message), 1u);
    EXPECT_EQ(types.count(RecordType::Retained), 1u);
    kept.expect_the_same_again();
}

// 3 MB in steps of about 1 MB.
TEST(checkpoint, a_step_takes_little)
{
    const std::string payload(10'000, 'x');
    for (const int steps : {2, 1000}) {
        fs::remove_all("data");
        RecordedState kept(kSoon);
        Session      &session = kept.session("client");
        for (uint64_t number = 1; number <= 300; ++number)
            ASSERT_TRUE(kept.publish(message(number, "a", payload), {&session}));
        kept.step_long(steps);
        EXPECT_EQ(kept.journal.close(), 0u);
        EXPECT_EQ(has_checkpoint(), steps > 2);
        kept.expect_the_same_again();
    }
}

// A subscription goes that is to be copied next.
TEST(checkpoint, goes_on_behind_what_goes)
{
    RecordedState kept({.most_of_state = 2000, .least_checkpoint = 1});
    Session      &session = kept.session("client");
    for (int i = 0; i < 200; ++i)
        kept.subscribe(session, "filter/" + std::to_string(i), {});
    while (kept.journal.unsynced() > 0)
        pause_ms(1);
    ASSERT_EQ(kept.state.subscriptions.cursor(), nullptr);
    for (int i = 0; i < 1000 && !kept.state.subscriptions.cursor(); ++i)
        kept.checkpointer.step();
    ASSERT_TRUE(kept.state.subscriptions.cursor()) << "there is room for all of them";
    const std::string next(kept.state.subscriptions.cursor()->filter());
    ASSERT_TRUE(kept.recorder.unsubscribed(session, next));
    kept.state.subscriptions.remove(session.number, next);
    EXPECT_TRUE(eventually([&] {
        kept.checkpointer.step();
        return has_checkpoint();
    }));
    kept.expect_the_same_again();
}

TEST(checkpoint, one_that_the_disk_refuses_is_followed_by_another)
{
    LogCapture       log(2);
    RecordedState    kept({.most_of_state = 100, .least_checkpoint = 1000, .retry_ms = 1});
    std::atomic<int> calls{0};
    Session         &session = kept.session("client");
    uint64_t         number  = 0;
    kept.disk.before         = [&](DiskCall) { return ++calls % 40 == 0 && calls < 200 ? EIO : 0; };
    for (; number < 2000 && !has_checkpoint(); ++number) {
        ASSERT_TRUE(kept.publish(message(number + 1, "a", "payload"), {&session}));
        kept.step_long(3);
        kept.send_all(session);
        kept.end_all(session);
    }
    kept.expect_the_same_again();
}

// Its bounds allow a host's session more than a record can hold.
TEST(checkpoint, waits_for_a_session_that_is_too_large)
{
    LogCapture    log(2);
    RecordedState kept({.most_unsynced = 5000, .least_checkpoint = 1});
    Session      &session = kept.session("client");
    for (uint64_t number = 1; number <= 200; ++number) {
        ASSERT_TRUE(kept.publish(message(number, "a", "p"), {&session}));
        while (kept.journal.unsynced() > 0)
            pause_ms(1);
    }
    kept.step_long(500);
    EXPECT_FALSE(has_checkpoint());
    EXPECT_EQ(log.take(), (std::vector{warn("[journal] checkpoint waits: a session has more deliveries than a record "
                                            "can hold")}));
    ASSERT_TRUE(kept.recorder.session_is_gone(session));
    kept.state.sessions.destroy(session);
    kept.step_long();
    EXPECT_TRUE(eventually(has_checkpoint));
    kept.expect_the_same_again();
}

TEST(checkpoint, none_is_begun_before_it_is_worth_it_or_without_a_journal)
{
    RecordedState kept;
    kept.session("client");
    kept.step_long(3);
    EXPECT_EQ(kept.state.last_checkpoint, 0u);
    kept.journal.close();
    kept.step_long(3);
    EXPECT_EQ(kept.state.last_checkpoint, 0u);
}
