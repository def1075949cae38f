// What the recorder wrote makes the same state again, and what it cannot write is refused or waits.
#include "state_support.h"
#include "support/timing.h"

#include <gtest/gtest.h>

using namespace tarn;
using namespace tarn::standard;
using namespace tarn::test;

TEST(recorder, a_session_comes_back_with_all_that_it_had)
{
    RecordedState broker;
    Session      &session = broker.session("client");
    session.will          = {message(1, "will", "is read"), 5, 0};
    ASSERT_TRUE(broker.recorder.session(session));
    broker.subscribe(session, "a/+/#", {.identifier = 268435455, .qos = 2, .retain_handling = 2, .no_local = true});
    broker.subscribe(session, "$share/group/a/b", {.qos = 1, .retain_as_published = true});
    ASSERT_TRUE(session.incoming.restore(9));
    const std::string zeros("payload\0with zeros", 18);
    ASSERT_TRUE(broker.publish(message(2, "a/b", zeros), {&session}, {.sender = &session, .packet_id = 9}));
    ASSERT_TRUE(broker.publish(message(3, "a/b", ""), {&session}));
    EXPECT_EQ(lines_of(broker.state).size(), 7u);
    broker.expect_the_same_again();
}

TEST(recorder, steps_of_deliveries_come_back)
{
    RecordedState broker;
    Session      &session = broker.session("client");
    for (uint64_t number = 1; number <= 5; ++number)
        ASSERT_TRUE(broker.publish(message(number, "topic", "payload"), {&session}));
    broker.send_all(session);
    EXPECT_EQ(session.deliveries.pubrec(2, 0).outcome, Outcome::Received);
    EXPECT_EQ(session.deliveries.pubrec(1, 0).outcome, Outcome::Received);
    EXPECT_EQ(session.deliveries.pubrec(4, 0).outcome, Outcome::Received);
    EXPECT_EQ(session.deliveries.pubcomp(4, 0).outcome, Outcome::Completed);
    ASSERT_TRUE(broker.publish(message(6, "topic", "payload"), {&session}));
    EXPECT_EQ(session.deliveries.stored().count, 5u);
    broker.expect_the_same_again();
}

TEST(recorder, what_went_is_gone)
{
    RecordedState broker;
    Session      &gone  = broker.session("gone");
    Session      &stays = broker.session("stays");
    broker.subscribe(gone, "a", {});
    broker.subscribe(stays, "a", {});
    broker.subscribe(stays, "b", {.qos = 1});
    ASSERT_TRUE(broker.publish(message(1, "a", "p"), {&gone, &stays}, {.is_retained = true}));
    ASSERT_TRUE(stays.incoming.restore(5));
    ASSERT_TRUE(broker.publish(message(2, "b", "p"), {}, {.is_retained = true, .sender = &stays, .packet_id = 5}));
    broker.state.retained.set(message(2, "b", "p"));

    ASSERT_TRUE(broker.recorder.session_is_gone(gone));
    broker.state.subscriptions.remove_all_of(gone.number);
    broker.state.sessions.destroy(gone);
    ASSERT_TRUE(broker.recorder.unsubscribed(stays, "a"));
    broker.state.subscriptions.remove(stays.number, "a");
    ASSERT_TRUE(broker.recorder.retained_is_gone("a"));
    ASSERT_TRUE(broker.recorder.released(stays, 5));
    stays.incoming.release(5);
    EXPECT_EQ(lines_of(broker.state).size(), 4u);
    broker.expect_the_same_again();
}

TEST(recorder, a_retained_message_without_payload_removes_the_one_before)
{
    RecordedState broker;
    ASSERT_TRUE(broker.publish(message(1, "a", "p"), {}, {.is_retained = true}));
    ASSERT_TRUE(broker.publish(message(2, "a", ""), {}, {.is_retained = true}));
    broker.expect_the_same_again();
}

TEST(recorder, a_publication_without_effects_takes_no_bytes)
{
    RecordedState broker;
    Session      &unkept = *broker.state.sessions.make("unkept", broker.state.bounds());
    EXPECT_TRUE(broker.publish(message(1, "a", "p"), {}));
    EXPECT_TRUE(broker.publish(message(1, "a", "p"), {}, {.sender = &unkept, .packet_id = 1}));
    EXPECT_EQ(broker.recorder.position(), 0u);
    EXPECT_FALSE(broker.recorder.end_publication({.is_retained = true})) << "none was begun";
    EXPECT_FALSE(broker.recorder.queued(1, {}));
}

TEST(recorder, the_key_comes_back)
{
    {
        RecordedState broker;
        ASSERT_TRUE(broker.recorder.key({{1, 2, 3, UINT64_MAX}}));
    }
    State    state{Limits{}};
    Restorer restorer(state, kNow_ms);
    Journal  journal;
    EXPECT_FALSE(restorer.has_key());
    ASSERT_EQ(journal.open(kStateDirectory, restorer).status, OpenStatus::Ok);
    EXPECT_TRUE(restorer.has_key());
    EXPECT_EQ(state.id_key.words[0], 1u);
    EXPECT_EQ(state.id_key.words[3], UINT64_MAX);
}

// A disk that hangs: publications are refused, and acknowledgements are recorded when it is back, in their order.
TEST(recorder, steps_wait_for_a_journal_that_is_full)
{
    RecordedState broker({.most_unsynced = 1000});
    Session      &session = broker.session("client");
    for (uint64_t number = 1; number <= 3; ++number)
        ASSERT_TRUE(broker.publish(message(number, "topic", "payload"), {&session}));
    broker.send_all(session);
    ASSERT_TRUE(eventually([&] { return broker.journal.unsynced() == 0; }));
    broker.disk.hold_next(DiskCall::Write);
    while (broker.publish(message(9, "topic", std::string(100, 'x')), {}, {.is_retained = true})) {}
    broker.state.retained.set(message(9, "topic", std::string(100, 'x')));
    while (broker.recorder.released(session, 1)) {}
    EXPECT_EQ(session.deliveries.pubrec(2, 0).outcome, Outcome::Received);
    EXPECT_EQ(session.deliveries.pubcomp(2, 0).outcome, Outcome::Completed);
    EXPECT_EQ(session.deliveries.pubrec(3, 0).outcome, Outcome::Received);
    EXPECT_FALSE(broker.recorder.released(session, 1)) << "nothing overtakes";
    EXPECT_FALSE(broker.recorder.catch_up());

    broker.disk.gate.open();
    ASSERT_TRUE(eventually([&] { return broker.journal.unsynced() == 0; }));
    EXPECT_EQ(session.deliveries.pubrec(1, 0).outcome, Outcome::Received); // behind those that wait
    EXPECT_TRUE(broker.recorder.catch_up());
    broker.expect_the_same_again();
}
