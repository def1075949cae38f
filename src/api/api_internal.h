// api_internal.h - what the API files share: the check every call begins with, and the housekeeping thread.
#ifndef TARN_API_API_INTERNAL_H
#define TARN_API_API_INTERNAL_H

#include "../base/relaxed.h"
#include "../log/log.h"
#include "api.hpp"
#include "broker.h"

#include <cstdint>

namespace tarn::api {

// False, with its line, for a null instance.
[[nodiscard]] inline bool is_instance(const broker_t *broker)
{
    if (broker)
        return true;
    LOG_ERROR("[SDK] invalid broker handle");
    return false;
}

// What is due at `now_s` (wall clock), measured from the start of the turn that did it last. The times of the last
// runs belong to the process and are kept across stop and start.
void housekeeping_turn(broker_t &broker, int64_t now_s);

// Takes over into the counters what other modules know: clients, subscriptions, retained messages. Nobody waits.
void update_statistics() noexcept;

// What every few seconds gives memory back that clients have left behind (memory.cpp).
void give_back_memory();

// ---- the profile that the next start serves, or the one that serves (profile.cpp)

[[nodiscard]] bool standard_is_chosen() noexcept;
void               limit_packets_of_standard(int32_t bytes) noexcept; // the host set the largest packet
[[nodiscard]] bool start_standard() noexcept; // below the data directory, with the limits that are set

// ----

// The instance whose start brought the network layer up, until it is down again; null when a host did so by itself.
[[nodiscard]] broker_t *owner_of_layer() noexcept;

// True inside one of the host's callbacks: the library goes on with the instance when the callback returns.
[[nodiscard]] bool in_callback() noexcept;

// Its body: housekeeping turns until the instance is stopped.
void *housekeeping_thread(void *broker);

// Starts the instance's housekeeping thread unless it still has one.
void start_housekeeping(broker_t &broker);

// Waits for it to end, after `running` was cleared. False on that very thread, which ends after its turn and is still
// to be waited for.
bool stop_housekeeping(broker_t &broker);

} // namespace tarn::api

#endif
