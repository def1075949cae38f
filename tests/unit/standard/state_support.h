// state_support.h - what tests of records share: all of a state as lines of text, and a journal beside a state.
#ifndef TARN_TESTS_UNIT_STANDARD_STATE_SUPPORT_H
#define TARN_TESTS_UNIT_STANDARD_STATE_SUPPORT_H

#include "journal_support.h"
#include "standard/recorder.h"
#include "standard/restore.h"

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

} // namespace tarn::test

#endif
