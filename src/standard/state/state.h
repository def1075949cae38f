// state.h - all that the standard profile knows beyond connections, and what of it files know: sessions with an expiry
// interval above 0, their subscriptions and deliveries, and retained messages.
#ifndef TARN_STANDARD_STATE_H
#define TARN_STANDARD_STATE_H

#include "../limits.h"
#include "retained_store.h"
#include "session.h"
#include "subscription_tree.h"

#include <atomic>

namespace tarn::standard {

// A directory's own, made once and kept there: how identifiers are written that records have no room for (stored_id.h).
struct IdKey {
    uint64_t words[4];
};

struct State {
    explicit State(const Limits &its_limits) noexcept
        : limits(its_limits), retained({its_limits.retained_messages, its_limits.retained_bytes})
    {
    }

    [[nodiscard]] DeliveryBounds bounds() const noexcept
    {
        return {{limits.queued_messages, limits.queued_bytes}, {limits.qos0_messages, limits.qos0_bytes}};
    }

    const Limits          limits;
    SubscriptionTree      subscriptions;
    RetainedStore         retained;
    Sessions              sessions;        // behind what they point into
    std::atomic<uint64_t> last_message{0}; // the number of the latest; any thread
    IdKey                 id_key{};
    uint32_t              last_checkpoint = 0; // since the start
};

} // namespace tarn::standard

#endif
