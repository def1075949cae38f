// absent_session.cpp - see absent_session.h.
#include "absent_session.h"

#include "message_files.h"
#include "offline_message.h"

namespace tarn::persist {

AbsentSession::AbsentSession(const char *client_id) noexcept : client_id_(client_id)
{
    const Surroundings around = SaveBehind::of_this_thread() ? surroundings_of(client_id) : Surroundings{};
    if (around.known) {
        found_         = around.found;
        subscriptions_ = around.subscriptions;
        count_and_log(client_id, subscriptions_, found_);
    } else {
        held_.emplace(client_id);
    }
}

void AbsentSession::count_and_log_again() const noexcept
{
    if (held_)
        held_->count_and_log_again();
    else
        count_and_log(client_id_, subscriptions_, found_);
}

bool AbsentSession::add_message(const char *topic, const uint8_t *payload, uint32_t payload_len, uint8_t qos) noexcept
{
    if (!held_) {
        persist_msg_t message;
        make_message(message, topic, payload, payload_len, qos);
        if (append_message(client_id_, message))
            return true;
        held_.emplace(client_id_, LockedSession::Quietly);
    }
    return held_->add_message(topic, payload, payload_len, qos);
}

} // namespace tarn::persist
