// state_support.h - what tests of records share: all of a state as lines of text, and a journal beside a state.
#ifndef TARN_TESTS_UNIT_STANDARD_STATE_SUPPORT_H
#define TARN_TESTS_UNIT_STANDARD_STATE_SUPPORT_H

#include "journal_support.h"
#include "standard/records/checkpoint.h"
#include "standard/records/recorder.h"
#include "standard/records/restore.h"
#include "base/clock.h"

#include <gtest/gtest.h>
#include <memory>
#include <set>

namespace tarn::test {

inline std::string text_of(std::span<const uint8_t> bytes)
{
    return {bytes.begin(), bytes.end()};
}

inline std::string text_of(const standard::MessageRef &message)
{
    if (!message)
        return "-";
    return std::to_string(message->number()) + "/" + std::to_string(message->expires_ms()) + "/" +
           std::to_string(message->sender()) + "/q" + std::to_string(message->qos()) +
           (message->retain() ? "r/" : "/") + std::string(message->topic()) + "/" + text_of(message->properties()) +
           "/" + text_of(message->payload());
}

inline std::string text_of(const standard::DeliveryRecord &delivery)
{
    std::string text = "#" + std::to_string(delivery.number) + " q" + std::to_string(delivery.qos) +
                       (delivery.retain ? " retain" : "") + " id" + std::to_string(delivery.packet_id) +
                       (delivery.received ? " received" : "") + " for";
    for (const uint32_t identifier : delivery.subscription_identifiers)
        text += " " + std::to_string(identifier);
    return text + ": " + text_of(delivery.message);
}

inline std::string text_of(const standard::Subscription &subscription)
{
    const standard::SubscriptionOptions &options = subscription.options();
    const std::string group = subscription.group().empty() ? "" : "$share/" + std::string(subscription.group()) + "/";
    return group + std::string(subscription.filter()) + " q" + std::to_string(options.qos) + " id" +
           std::to_string(options.identifier) + " handling" + std::to_string(options.retain_handling) +
           (options.no_local ? " no local" : "") + (options.retain_as_published ? " as published" : "");
}

constexpr const char *kStateDirectory = "data/standard";
constexpr uint64_t    kNow_ms         = 1'800'000'000'000;

using Lines = std::multiset<std::string>;

// As a start would find it: a connected session has been away since then.
inline void add_lines_of(Lines &lines, const standard::State &state, const standard::Session &session)
{
    const std::string           name = "session " + std::to_string(session.number) + " ";
    const standard::StoredWill &will = session.will;
    lines.insert(name + std::string(session.text) + " expiry " + std::to_string(session.expiry_s) + " away " +
                 std::to_string(session.away_ms ? session.away_ms : kNow_ms) + " last #" +
                 std::to_string(session.deliveries.last_number()));
    if (will.message)
        lines.insert(name + "will delay " + std::to_string(will.delay_s) + " expiry " +
                     (will.expiry_s ? std::to_string(*will.expiry_s) : "none") + ": " + text_of(will.message));
    for (const standard::Subscription &subscription : state.subscriptions.of(session.number))
        lines.insert(name + "subscribed " + text_of(subscription));
    session.incoming.for_each([&](uint16_t id) { lines.insert(name + "holds " + std::to_string(id)); });
    size_t place = 0;
    session.deliveries.for_each([&](const standard::DeliveryRecord &delivery) {
        lines.insert(name + "delivery " + std::to_string(++place) + " " + text_of(delivery));
    });
}

inline Lines lines_of(const standard::State &state)
{
    Lines lines;
    for (const standard::Session *session = state.sessions.first(); session; session = session->next)
        if (session->is_kept())
            add_lines_of(lines, state, *session);
    for (const standard::MessageRef &message : state.retained)
        lines.insert("retained " + text_of(message));
    return lines;
}

// What a broker would have in memory after a start in this directory.
inline std::unique_ptr<standard::State> restored(const char *directory = kStateDirectory, uint64_t now_ms = kNow_ms)
{
    auto               state = std::make_unique<standard::State>(standard::Limits{});
    TestDisk           disk; // so that nothing waits for the real one
    standard::Journal  journal(disk);
    standard::Restorer restorer(*state, now_ms);
    if (journal.open(directory, restorer).status != standard::OpenStatus::Ok)
        return nullptr;
    restorer.finish();
    return state;
}

inline standard::MessageRef message(uint64_t number, std::string_view topic, std::string_view payload)
{
    return standard::MessageRef::make({.number     = number,
                                       .expires_ms = kNow_ms + 77'000,
                                       .sender     = 1,
                                       .qos        = 1,
                                       .retain     = true,
                                       .topic      = topic,
                                       .properties = bytes_of("properties"),
                                       .payload    = bytes_of(payload)});
}

struct WideLimits final : standard::ReceiverLimits {
    uint16_t receive_maximum() const override { return 65535; }
    bool     takes(const standard::Outgoing &) const override { return true; }
};

// A state with its records. What it says of itself it also says to them.
struct RecordedState {
    explicit RecordedState(const standard::JournalLimits &limits = {})
        : journal(disk, limits), recorder(journal), checkpointer(state, journal)
    {
        standard::Restorer restorer(state, kNow_ms);
        EXPECT_EQ(journal.open(kStateDirectory, restorer).status, standard::OpenStatus::Ok);
    }

    standard::Session &session(std::string_view id, uint32_t expiry_s = 60)
    {
        standard::Session &made = *state.sessions.make(id, state.bounds());
        made.expiry_s           = expiry_s;
        made.away_ms            = kNow_ms - 5;
        made.deliveries.set_sink(&recorder);
        EXPECT_TRUE(recorder.session(made));
        return made;
    }
    void subscribe(const standard::Session &session, std::string_view filter,
                   const standard::SubscriptionOptions &options)
    {
        EXPECT_EQ(state.subscriptions.add(session.number, filter, options), standard::SubscriptionTree::Added::New);
        EXPECT_TRUE(recorder.subscribed(session, filter, options));
    }
    // To all of them at QoS 2.
    bool publish(const standard::MessageRef &message, std::initializer_list<standard::Session *> sessions,
                 const standard::PublicationEffects &effects = {})
    {
        const uint32_t identifiers[] = {7, 268435455};
        recorder.begin_publication(message);
        for (standard::Session *session : sessions)
            EXPECT_EQ(session->deliveries.offer(message, 2, true, identifiers), standard::Offered::Queued);
        state.last_message = std::max(state.last_message.load(), message->number());
        return recorder.end_publication(effects);
    }
    void send_all(standard::Session &session)
    {
        session.deliveries.resume();
        while (session.deliveries.next(kNow_ms, WideLimits{}).kind != standard::Outgoing::Kind::Nothing) {}
    }
    // The client refuses all that is on the way to it.
    void end_all(standard::Session &session)
    {
        std::vector<uint16_t> packet_ids;
        session.deliveries.for_each([&](const standard::DeliveryRecord &delivery) {
            if (delivery.packet_id != 0)
                packet_ids.push_back(delivery.packet_id);
        });
        for (const uint16_t packet_id : packet_ids)
            session.deliveries.pubrec(packet_id, 0x83);
    }
    // So many steps copy all of a small state, once a checkpoint has begun.
    void step_long(int steps = 200)
    {
        for (; steps > 0; --steps) {
            while (journal.unsynced() > 0)
                pause_ms(1);
            checkpointer.step();
        }
    }
    void expect_the_same_again()
    {
        EXPECT_EQ(journal.close(), 0u);
        const std::unique_ptr<standard::State> again = restored();
        ASSERT_TRUE(again);
        EXPECT_EQ(lines_of(*again), lines_of(state));
        EXPECT_EQ(again->last_message, state.last_message);
        EXPECT_EQ(again->sessions.last_number(), std::max<uint64_t>(state.sessions.last_number(), 1)) << "as a sender";
    }

    TestDisk               disk;
    standard::State        state{standard::Limits{}};
    standard::Journal      journal;
    standard::Recorder     recorder;
    standard::Checkpointer checkpointer;
};

} // namespace tarn::test

#endif
