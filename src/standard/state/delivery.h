// delivery.h - one message on its way to one session, the lists it stands in, and where its memory is from.
#ifndef TARN_STANDARD_DELIVERY_H
#define TARN_STANDARD_DELIVERY_H

#include "message.h"

#include "../../base/memory.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace tarn::standard {

// The identifiers of the subscriptions a delivery is for. One of them, the common case, takes no memory of its own.
class SubscriptionIdentifiers {
public:
    [[nodiscard]] bool        assign(std::span<const uint32_t> identifiers) noexcept; // false without memory
    std::span<const uint32_t> all() const noexcept { return {many_ ? many_.get() : &one_, count_}; }

private:
    size_t          count_ = 0;
    uint32_t        one_   = 0;
    owned<uint32_t> many_; // if there is more than one
};

// It is queued, its PUBLISH is sent, or PUBREC came for it: its session has a list for each.
struct Delivery {
    Delivery               *previous       = nullptr;
    Delivery               *next           = nullptr;
    Delivery               *next_in_bucket = nullptr; // of PacketIdIndex
    MessageRef              message;                  // empty once PUBREC came: it is not sent again
    SubscriptionIdentifiers subscription_identifiers;
    uint64_t                number     = 0; // in its session, ascending; 0 at QoS 0, which no file knows
    uint64_t                order      = 0; // in which PUBLISH was sent or PUBREC came, among all of the session
    uint32_t                connection = 0; // the one that sent its PUBLISH or PUBREL last; 0 = none since the start
    uint16_t                packet_id  = 0; // 0 while queued
    uint8_t                 qos        = 0;
    bool                    retain     = false;
    bool                    received   = false; // PUBREC came

    [[nodiscard]] size_t bytes() const noexcept; // of memory, its message included, which others may share
};

// A list through `previous` and `next`. It owns nothing.
class DeliveryList {
public:
    Delivery *first() const noexcept { return first_; }
    size_t    count() const noexcept { return count_; }
    void      append(Delivery &delivery) noexcept;
    void      remove(Delivery &delivery) noexcept; // which is in it

private:
    Delivery *first_ = nullptr;
    Delivery *last_  = nullptr;
    size_t    count_ = 0;
};

// Gives deliveries to all sessions and keeps some that were given back, so that most messages allocate nothing.
class DeliveryPool {
public:
    DeliveryPool()                                = default;
    DeliveryPool(const DeliveryPool &)            = delete;
    DeliveryPool &operator=(const DeliveryPool &) = delete;
    ~DeliveryPool();

    [[nodiscard]] Delivery *take() noexcept; // as new; null without memory
    void                    give_back(Delivery &delivery) noexcept;

    static constexpr size_t kSpareMax = 1024;

private:
    Delivery *spare_       = nullptr; // linked by `next`
    size_t    spare_count_ = 0;
};

} // namespace tarn::standard

#endif
