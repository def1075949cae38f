// absent_session.cpp - see absent_session.h.
#include "absent_session.h"

#include "message_files.h"
#include "offline_message.h"
#include "persist.hpp"

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

Loaded read_absent(persist_session_t &record, Found &found) noexcept
{
    Surroundings around{.known = true, .found = {}, .subscriptions = 0, .stamps = {}};
    ScopedLock   files(files_mutex(record.client_id));
    take_stamps(record.client_id, around.stamps); // before the files are read: what changes in between shows later
    if (const Loaded loaded = read_session(record, around.found); loaded != Loaded::Yes)
        return loaded;
    around.subscriptions = record.sub_count;
    found                = around.found;
    remember(record, around);
    return Loaded::Yes;
}

void expect_messages_for(const char *client_id) noexcept
{
    Found found;
    if (persist_session_t *const record = scratch_session(client_id))
        (void)read_absent(*record, found);
}

} // namespace tarn::persist
