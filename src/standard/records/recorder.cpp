// recorder.cpp - see recorder.h; records.h says what the records are made of.
#include "recorder.h"

namespace tarn::standard {

// ---- Sessions and what belongs to them

bool Recorder::key(const IdKey &key) noexcept
{
    const auto &words = key.words;
    return append(RecordType::Key, {bytes_of_numbers(words[0], words[1], words[2], words[3])});
}

bool Recorder::session(const Session &session) noexcept
{
    const MessageBytes will(session.will.message);
    return append(RecordType::Session, {head_of(session), text_bytes(session.text), will.head(), will.topic(),
                                        will.properties(), will.payload()});
}

bool Recorder::session_is_gone(const Session &session) noexcept
{
    return append(RecordType::SessionGone, {bytes_of_numbers(session.number)});
}

bool Recorder::subscribed(const Session &session, std::string_view filter, const SubscriptionOptions &options) noexcept
{
    return append(RecordType::Subscribed, {head_of(session.number, options), text_bytes(filter)});
}

bool Recorder::unsubscribed(const Session &session, std::string_view filter) noexcept
{
    return append(RecordType::Unsubscribed, {bytes_of_numbers(session.number), text_bytes(filter)});
}

bool Recorder::released(const Session &session, uint16_t packet_id) noexcept
{
    return append(RecordType::Released, {bytes_of_numbers(session.number, packet_id)});
}

bool Recorder::retained_is_gone(std::string_view topic) noexcept
{
    return append(RecordType::RetainedGone, {text_bytes(topic)});
}

// ---- Publications

void Recorder::begin_publication(const MessageRef &message) noexcept
{
    message_ = message;
    deliveries_.clear();
}

bool Recorder::queued(uint64_t session, const DeliveryRecord &delivery) noexcept
{
    if (!message_)
        return false;
    const size_t before = deliveries_.size();
    if (append_delivery(deliveries_, session, delivery))
        return true;
    deliveries_.resize_down(before);
    return false;
}

bool Recorder::end_publication(const PublicationEffects &effects) noexcept
{
    const MessageRef message = std::exchange(message_, {});
    const bool       is_held = effects.sender && effects.sender->is_kept();
    if (!message || (deliveries_.empty() && !effects.is_retained && !is_held))
        return static_cast<bool>(message);
    const uint64_t     sender    = is_held ? effects.sender->number : 0;
    const uint16_t     packet_id = is_held ? effects.packet_id : uint16_t{0};
    const uint8_t      flags     = effects.is_retained ? kIsRetained : 0;
    const MessageBytes bytes(message);
    return append(RecordType::Publication, {bytes_of_numbers(flags, sender, packet_id),
                                            bytes.head(),
                                            bytes.topic(),
                                            bytes.properties(),
                                            bytes.payload(),
                                            {deliveries_.data(), deliveries_.size()}});
}

// ---- Steps of deliveries

void Recorder::sent(uint64_t session, uint64_t number, uint16_t packet_id) noexcept
{
    append_or_keep({RecordType::Sent, packet_id, session, number});
}

void Recorder::received(uint64_t session, uint64_t number, uint16_t packet_id) noexcept
{
    append_or_keep({RecordType::Received, packet_id, session, number});
}

void Recorder::done(uint64_t session, uint64_t number, uint16_t packet_id) noexcept
{
    append_or_keep({RecordType::Done, packet_id, session, number});
}

// Without memory it is lost, and after a restart its message goes once more.
void Recorder::append_or_keep(const Step &step) noexcept
{
    if (!catch_up() || !append_now(step))
        (void)waiting_.push(step);
}

// ---- The journal

// Steps that wait are the next records, and all of one size.
uint64_t Recorder::position_behind_waiting() const noexcept
{
    const size_t step = record_size({bytes_of_numbers(uint64_t{0}, uint64_t{0}, uint16_t{0})});
    return position_ + (waiting_.size() - waiting_from_) * step;
}

bool Recorder::catch_up() noexcept
{
    while (waiting_from_ < waiting_.size()) {
        if (!append_now(waiting_[waiting_from_]))
            return false;
        ++waiting_from_;
    }
    waiting_.clear();
    waiting_from_ = 0;
    return true;
}

bool Recorder::append(RecordType type, RecordParts parts) noexcept
{
    return catch_up() && append_now(type, parts);
}

bool Recorder::append_now(RecordType type, RecordParts parts) noexcept
{
    const Appended appended = journal_.append(static_cast<uint8_t>(type), parts);
    if (appended.status != AppendStatus::Ok)
        return false;
    position_ = appended.position;
    return true;
}

bool Recorder::append_now(const Step &step) noexcept
{
    return append_now(step.type, {bytes_of_numbers(step.session, step.number, step.packet_id)});
}

} // namespace tarn::standard
