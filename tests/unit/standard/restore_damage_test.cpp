// Records that are cut, changed, doubled, left out or in another order: state may differ, but it is one that works.
#include "standard/records/checkpoint.h"
#include "state_support.h"
#include "support/faults.h"

#include <gtest/gtest.h>
#include <random>

using namespace tarn;
using namespace tarn::standard;
using namespace tarn::test;

namespace {

struct Kept {
    uint8_t              type;
    std::vector<uint8_t> bytes;
};
using Records = std::vector<Kept>;

struct Keeper final : JournalVisitor {
    Records records;

    bool record(uint8_t type, std::span<const uint8_t> bytes) noexcept override
    {
        records.push_back({type, {bytes.begin(), bytes.end()}});
        return true;
    }
};

struct AnyLimits final : ReceiverLimits {
    uint16_t receive_maximum() const override { return 65535; }
    bool     takes(const Outgoing &) const override { return true; }
};

MessageRef message(uint64_t number, std::string_view topic)
{
    return MessageRef::make({.number     = number,
                             .sender     = 1,
                             .qos        = 2,
                             .topic      = topic,
                             .properties = bytes_of("p"),
                             .payload    = bytes_of("load")});
}

// A record of each kind, from the recorder and from a checkpoint.
Records records_of_all_kinds()
{
    State    state{Limits{}};
    Journal  journal(system_disk(), {.least_checkpoint = 1});
    Recorder recorder(journal);
    Keeper   keeper;
    EXPECT_EQ(journal.open(kStateDirectory, keeper).status, OpenStatus::Ok);
    Session &session = *state.sessions.make("id", state.bounds());
    session.expiry_s = 9;
    session.deliveries.set_sink(&recorder);
    const uint32_t identifiers[] = {1, 2};
    const auto     publish       = [&](const MessageRef &published, const PublicationEffects &effects) {
        recorder.begin_publication(published);
        EXPECT_EQ(session.deliveries.offer(published, 2, true, identifiers), Offered::Queued);
        EXPECT_TRUE(recorder.end_publication(effects));
    };
    EXPECT_TRUE(recorder.key({{1, 2, 3, 4}}));
    EXPECT_TRUE(recorder.session(session));
    EXPECT_TRUE(recorder.subscribed(session, "$share/g/a/+", {.identifier = 3, .qos = 1, .no_local = true}));
    EXPECT_TRUE(recorder.subscribed(session, "b/#", {.qos = 2, .retain_handling = 2, .retain_as_published = true}));
    EXPECT_TRUE(recorder.unsubscribed(session, "b/#"));
    publish(message(1, "a/b"), {.is_retained = true, .sender = &session, .packet_id = 5});
    publish(message(2, "c"), {.is_retained = true});
    publish(message(3, "d"), {});
    session.deliveries.resume();
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(session.deliveries.next(kNow_ms, AnyLimits{}).kind, Outgoing::Kind::Publish);
    EXPECT_EQ(session.deliveries.pubrec(1, 0).outcome, Outcome::Received);
    EXPECT_EQ(session.deliveries.pubcomp(1, 0).outcome, Outcome::Completed);
    EXPECT_TRUE(recorder.released(session, 5));
    EXPECT_TRUE(recorder.retained_is_gone("c"));
    EXPECT_TRUE(recorder.session_is_gone(*state.sessions.make("gone", state.bounds())));
    session.will = {message(4, "will"), 1, 2};
    state.subscriptions.add(session.number, "$share/g/a/+", {.identifier = 3, .qos = 1, .no_local = true});
    state.retained.set(message(1, "a/b"));
    EXPECT_TRUE(session.incoming.restore(6));
    journal.close();
    Keeper changes, all;
    EXPECT_EQ(journal.open(kStateDirectory, changes).status, OpenStatus::Ok);
    Checkpointer checkpointer(state, journal);
    for (int i = 0; i < 100; ++i) // one takes it all unless the machine is busy
        checkpointer.step();
    journal.close();
    EXPECT_EQ(journal.open(kStateDirectory, all).status, OpenStatus::Ok); // the checkpoint; the changes are in it
    const auto gone = bytes_of_numbers(session.number);
    all.records.push_back({static_cast<uint8_t>(RecordType::SessionGone), {gone.begin(), gone.end()}});
    all.records.insert(all.records.end(), changes.records.begin(), changes.records.end());
    return all.records;
}

// What an engine does with it does not crash, and it has an end.
void use(State &state)
{
    EXPECT_LE(lines_of(state).size(), 200u);
    for (Session *session = state.sessions.first(); session; session = session->next) {
        session->deliveries.resume();
        session->incoming.connected(100);
        while (const uint16_t packet_id = session->deliveries.next(kNow_ms, AnyLimits{}).packet_id)
            session->deliveries.pubrec(packet_id, 0);
    }
    struct Sink {
        size_t matches = 0;
        void   plain(uint64_t, const SubscriptionOptions &) { ++matches; }
        void   shared(SharedGroup &) { ++matches; }
    } sink;
    for (const char *topic : {"a/b", "b", "b/c/d"})
        state.subscriptions.match(topic, sink);
    state.retained.match("#", [&](const MessageRef &) { ++sink.matches; });
    EXPECT_LE(sink.matches, 100u);
    Session *const next = state.sessions.make("new", state.bounds());
    ASSERT_TRUE(next);
    EXPECT_GT(next->number, 0u);
    EXPECT_EQ(next->deliveries.offer(message(1, "a"), 1, false), Offered::Queued);
}

void restore_and_use(const Records &records)
{
    State    state{Limits{}};
    Restorer restorer(state, kNow_ms);
    for (const Kept &record : records)
        ASSERT_TRUE(restorer.record(record.type, record.bytes));
    restorer.finish();
    use(state);
}

} // namespace

TEST(restore_damage, the_records_are_of_all_kinds)
{
    std::set<uint8_t> types;
    for (const Kept &record : records_of_all_kinds())
        types.insert(record.type);
    EXPECT_EQ(types.size(), static_cast<size_t>(RecordType::RetainedGone));
    EXPECT_EQ(*types.rbegin(), static_cast<uint8_t>(RecordType::RetainedGone));
}

TEST(restore_damage, any_record_may_be_cut_anywhere)
{
    const Records whole = records_of_all_kinds();
    for (size_t i = 0; i < whole.size() && !HasFailure(); ++i) {
        Records records = whole;
        while (!records[i].bytes.empty() && !HasFailure()) {
            SCOPED_TRACE("record " + std::to_string(i) + " at " + std::to_string(records[i].bytes.size()));
            records[i].bytes.pop_back();
            records[i].bytes.shrink_to_fit(); // so that a sanitizer sees what is read behind it
            restore_and_use(records);
        }
    }
}

TEST(restore_damage, any_byte_may_be_another)
{
    const Records whole = records_of_all_kinds();
    for (size_t i = 0; i < whole.size(); ++i) {
        for (size_t at = 0; at < whole[i].bytes.size() && !HasFailure(); ++at) {
            SCOPED_TRACE("record " + std::to_string(i) + " at " + std::to_string(at));
            Records records = whole;
            for (const int flipped : {0x01, 0x02, 0x80, 0xFF}) {
                records[i].bytes[at] = static_cast<uint8_t>(whole[i].bytes[at] ^ flipped);
                restore_and_use(records);
            }
        }
    }
}

TEST(restore_damage, any_record_may_be_of_another_type)
{
    const Records whole = records_of_all_kinds();
    for (size_t i = 0; i < whole.size() && !HasFailure(); ++i) {
        Records records = whole;
        for (int type = 0; type <= 17; ++type) {
            records[i].type = static_cast<uint8_t>(type);
            restore_and_use(records);
        }
    }
}

// A seed is a sequence.
TEST(restore_damage, records_may_come_in_any_order_any_number_of_times)
{
    const Records whole = records_of_all_kinds();
    for (unsigned seed = 0; seed < 500 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        Records      records;
        for (size_t i = 0; i < 2 * whole.size(); ++i)
            records.push_back(whole[random() % whole.size()]);
        restore_and_use(records);
    }
}

// Texts that are no topics or filters would lead trees astray, and there is always a next number.
TEST(restore_damage, what_cannot_be_is_passed_over)
{
    State      state{Limits{}};
    Restorer   restorer(state, kNow_ms);
    const auto give = [&](RecordType type, RecordParts parts) {
        std::vector<uint8_t> bytes;
        for (const auto part : parts)
            bytes.insert(bytes.end(), part.begin(), part.end());
        EXPECT_TRUE(restorer.record(static_cast<uint8_t>(type), bytes));
    };
    const auto make = [&](uint64_t number, std::string_view id) {
        give(RecordType::Session, {bytes_of_numbers(number, uint32_t{9}, uint64_t{0}, uint8_t{0}, uint32_t{0},
                                                    uint32_t{0}, static_cast<uint32_t>(id.size())),
                                   bytes_of(id)});
    };
    make(0, "a");
    make(UINT64_MAX, "a");
    make(1, "");
    EXPECT_EQ(state.sessions.count(), 0u);
    make(1, "a");
    make(3, "a"); // instead of the other
    make(2, "a");
    EXPECT_EQ(state.sessions.count(), 1u);
    ASSERT_TRUE(state.sessions.find(3));
    for (const std::string_view filter : {"", "a#", "#/a", "a+/b", "$share//a", "$share/g/"})
        give(RecordType::Subscribed, {head_of(3, SubscriptionOptions{}), bytes_of(filter)});
    give(RecordType::Subscribed, {head_of(3, {.qos = 3}), bytes_of("a")});
    give(RecordType::Subscribed, {head_of(3, {.retain_handling = 3}), bytes_of("a")});
    give(RecordType::Subscribed, {head_of(3, {.identifier = 268435456}), bytes_of("a")});
    give(RecordType::Subscribed, {head_of(2, SubscriptionOptions{}), bytes_of("a")});
    EXPECT_EQ(state.subscriptions.count(), 0u);
    for (const std::string_view topic : {"", "a/#", "+"}) {
        const MessageBytes bytes(message(9, topic));
        give(RecordType::Publication, {bytes_of_numbers(kIsRetained, uint64_t{3}, uint16_t{1}), bytes.head(),
                                       bytes.topic(), bytes.properties(), bytes.payload()});
    }
    EXPECT_EQ(state.retained.count(), 0u);
    EXPECT_EQ(state.sessions.find(3)->incoming.count(), 0u);
    give(RecordType::Counters, {bytes_of_numbers(UINT64_MAX, UINT64_MAX)});
    EXPECT_EQ(state.sessions.last_number(), 3u);
    EXPECT_EQ(state.last_message, 0u);
}

// What is not told was only slower: a table that did not grow.
TEST(restore_damage, want_of_memory_is_told)
{
    const Records whole = records_of_all_kinds();
    State         complete{Limits{}};
    Restorer      unhindered(complete, kNow_ms);
    for (const Kept &record : whole)
        ASSERT_TRUE(unhindered.record(record.type, record.bytes));
    unhindered.finish();
    int told = 0;
    for (int nth = 1, failed = 1; failed > 0; ++nth) {
        State    state{Limits{}};
        Restorer restorer(state, kNow_ms);
        bool     taken = true;
        {
            Fail fail(Call::Allocate, nth);
            for (size_t i = 0; i < whole.size() && taken; ++i)
                taken = restorer.record(whole[i].type, whole[i].bytes);
            failed = fail.failed();
        }
        restorer.finish();
        if (taken) {
            EXPECT_EQ(lines_of(state), lines_of(complete)) << nth;
        }
        told += !taken;
    }
    EXPECT_GT(told, 20);
}
