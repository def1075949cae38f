// absent_session.h - the saved session of a client that is away, as a message for it finds it.
#ifndef TARN_PERSIST_ABSENT_SESSION_H
#define TARN_PERSIST_ABSENT_SESSION_H

#include "session_store.h"

#include <optional>

namespace tarn::persist {

// Counts and logs a load of the session when it is made. On a thread with a SaveBehind the files are read at the first
// message only, and are not held.
class AbsentSession {
public:
    explicit AbsentSession(const char *client_id) noexcept;

    bool is_loaded() const noexcept { return !held_ || held_->is_loaded(); }
    bool has_files() const noexcept { return held_ ? held_->has_files() : found_.files() > 0; }

    // As those of LockedSession.
    void count_and_log_again() const noexcept;
    bool add_message(const char *topic, const uint8_t *payload, uint32_t payload_len, uint8_t qos) noexcept;

private:
    const char                  *client_id_;
    std::optional<LockedSession> held_;              // unless what a load finds is known
    Found                        found_;             // then
    int32_t                      subscriptions_ = 0; // in the file
};

} // namespace tarn::persist

#endif
