// checkpoint.cpp - see checkpoint.h, and journal.h for why state that changes meanwhile can be copied in pieces.
//
// A session is one record, and the messages that it refers to stand before it. Those of its queue are copied in as many
// steps as it takes. What came meanwhile, or is on the way, is copied in the step in which the session is.
#include "checkpoint.h"

#include "../../base/clock.h"
#include "../../log/log.h"

namespace tarn::standard {
namespace {

constexpr size_t   kMostAtOnce  = size_t{1} << 20; // bytes; a step that copied so much ends
constexpr uint64_t kLongest_us  = 2000;            // likewise
constexpr uint32_t kPausedSteps = 100;

} // namespace

void Checkpointer::step() noexcept
{
    if (pause_ > 0) {
        --pause_;
        return;
    }
    if (phase_ == Phase::None)
        begin();
    const uint64_t start_us = mono_us();
    AppendStatus   status   = AppendStatus::Ok;
    taken_                  = 0;
    while (phase_ != Phase::None && status == AppendStatus::Ok && taken_ < kMostAtOnce &&
           elapsed(mono_us(), start_us) < kLongest_us)
        status = copy_next();
    if (status == AppendStatus::Closed)
        phase_ = Phase::None;
    if (status == AppendStatus::TooLarge)
        wait_for_less();
}

// Without that session's record the checkpoint would lose it.
void Checkpointer::wait_for_less() noexcept
{
    pause_ = kPausedSteps;
    if (!std::exchange(told_too_large_, true))
        LOG_WARN("[journal] checkpoint waits: a session has more deliveries than a record can hold");
}

void Checkpointer::begin() noexcept
{
    if (!journal_.wants_checkpoint() || !journal_.begin_checkpoint())
        return;
    ++state_.last_checkpoint;
    phase_          = Phase::Counters;
    walks_          = 0;
    told_too_large_ = false;
}

// All copy_...(): Ok if something was copied or passed. What else there is ends the step, and it is tried again.

AppendStatus Checkpointer::copy_next() noexcept
{
    switch (phase_) {
    case Phase::Counters:
        return copy_counters();
    case Phase::Sessions:
        return copy_from_next_session();
    case Phase::Subscriptions:
        return copy_next_subscription();
    default:
        return copy_next_retained();
    }
}

// Later numbers stand in what is copied behind them, or in the journal.
AppendStatus Checkpointer::copy_counters() noexcept
{
    const auto  &key    = state_.id_key.words;
    AppendStatus status = append(RecordType::Key, {bytes_of_numbers(key[0], key[1], key[2], key[3])});
    if (status == AppendStatus::Ok)
        status =
            append(RecordType::Counters, {bytes_of_numbers(state_.sessions.last_number(), state_.last_message.load())});
    if (status != AppendStatus::Ok)
        return status;
    phase_                   = Phase::Sessions;
    state_.sessions.cursor() = state_.sessions.first();
    return AppendStatus::Ok;
}

// ---- Sessions

AppendStatus Checkpointer::copy_from_next_session() noexcept
{
    Session *const session = state_.sessions.cursor();
    if (!session) {
        phase_ = Phase::Retained;
        state_.retained.begin(retained_);
        return AppendStatus::Ok;
    }
    if (!session->is_kept()) {
        state_.sessions.cursor() = session->next;
        return AppendStatus::Ok;
    }
    if (std::exchange(walks_, session->number) != session->number)
        session->deliveries.begin_walk();
    const Delivery *const delivery = session->deliveries.walk();
    if (!delivery)
        return copy_session(*session);
    const AppendStatus status = delivery->qos > 0 ? copy_message(delivery->message) : AppendStatus::Ok;
    if (status == AppendStatus::Ok)
        session->deliveries.walk_on();
    return status;
}

AppendStatus Checkpointer::copy_session(const Session &session) noexcept
{
    AppendStatus status = AppendStatus::Ok;
    session.deliveries.for_each([&](const DeliveryRecord &delivery) {
        if (status == AppendStatus::Ok && delivery.message)
            status = copy_message(delivery.message);
    });
    if (status != AppendStatus::Ok)
        return status;
    rest_.clear();
    if (!append_rest_of(rest_, session))
        return AppendStatus::NoMemory;
    const MessageBytes will(session.will.message);
    status =
        append(RecordType::SessionState, {head_of(session), text_bytes(session.text), will.head(), will.topic(),
                                          will.properties(), will.payload(), ByteSpan(rest_.data(), rest_.size())});
    if (rest_.size() > kMostAtOnce)
        GrowArray<uint8_t>().swap(rest_);
    if (status != AppendStatus::Ok)
        return status;
    phase_                        = Phase::Subscriptions;
    state_.sessions.cursor()      = session.next;
    state_.subscriptions.cursor() = state_.subscriptions.of(session.number).first();
    return AppendStatus::Ok;
}

AppendStatus Checkpointer::copy_next_subscription() noexcept
{
    const Subscription *const subscription = state_.subscriptions.cursor();
    if (!subscription) {
        phase_ = Phase::Sessions;
        return AppendStatus::Ok;
    }
    const FilterBytes  text(*subscription);
    const AppendStatus status =
        append(RecordType::Subscribed, {head_of(subscription->session(), subscription->options()), text.share,
                                        text.group, text.slash, text.filter});
    if (status == AppendStatus::Ok)
        state_.subscriptions.cursor() = subscription->next();
    return status;
}

// ---- Retained messages

AppendStatus Checkpointer::copy_next_retained() noexcept
{
    const RetainedEntry *const entry = retained_.at();
    if (!entry) {
        journal_.finish_checkpoint();
        phase_ = Phase::None;
        return AppendStatus::Ok;
    }
    AppendStatus status = copy_message(entry->message);
    if (status == AppendStatus::Ok)
        status = append(RecordType::Retained, {bytes_of_numbers(entry->message->number())});
    if (status == AppendStatus::Ok)
        retained_.go_on();
    return status;
}

// ---- The journal

// Once a checkpoint.
AppendStatus Checkpointer::copy_message(const MessageRef &message) noexcept
{
    if (message->copied_in() == state_.last_checkpoint)
        return AppendStatus::Ok;
    const MessageBytes bytes(message);
    const AppendStatus status =
        append(RecordType::Message, {bytes.head(), bytes.topic(), bytes.properties(), bytes.payload()});
    if (status == AppendStatus::Ok)
        message->note_copied_in(state_.last_checkpoint);
    return status;
}

AppendStatus Checkpointer::append(RecordType type, RecordParts parts) noexcept
{
    const AppendStatus status = journal_.append_to_checkpoint(static_cast<uint8_t>(type), parts);
    if (status == AppendStatus::Ok)
        taken_ += record_size(parts);
    return status;
}

} // namespace tarn::standard
