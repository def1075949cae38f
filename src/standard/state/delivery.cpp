// delivery.cpp - see delivery.h.
#include "delivery.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace tarn::standard {
namespace {

Delivery *allocate_delivery()
{
    void *const block = malloc(sizeof(Delivery));
    return block ? new (block) Delivery : nullptr;
}

void free_delivery(Delivery *delivery)
{
    delivery->~Delivery();
    free(delivery);
}

} // namespace

bool SubscriptionIdentifiers::assign(std::span<const uint32_t> identifiers) noexcept
{
    owned<uint32_t> many;
    if (identifiers.size() > 1) {
        many = allocate<uint32_t>(identifiers.size());
        if (!many)
            return false;
        memcpy(many.get(), identifiers.data(), identifiers.size_bytes());
    }
    count_ = identifiers.size();
    one_   = identifiers.empty() ? 0 : identifiers.front();
    many_  = std::move(many);
    return true;
}

size_t Delivery::bytes() const noexcept
{
    return sizeof(Delivery) + subscription_identifiers.all().size_bytes() + (message ? message->size() : 0);
}

void DeliveryList::append(Delivery &delivery) noexcept
{
    delivery.previous              = last_;
    delivery.next                  = nullptr;
    (last_ ? last_->next : first_) = &delivery;
    last_                          = &delivery;
    ++count_;
}

void DeliveryList::remove(Delivery &delivery) noexcept
{
    (delivery.previous ? delivery.previous->next : first_) = delivery.next;
    (delivery.next ? delivery.next->previous : last_)      = delivery.previous;
    --count_;
}

DeliveryPool::~DeliveryPool()
{
    while (spare_)
        free_delivery(std::exchange(spare_, spare_->next));
}

Delivery *DeliveryPool::take() noexcept
{
    if (!spare_)
        return allocate_delivery();
    Delivery *const taken = std::exchange(spare_, spare_->next);
    taken->next           = nullptr;
    --spare_count_;
    return taken;
}

void DeliveryPool::give_back(Delivery &delivery) noexcept
{
    if (spare_count_ == kSpareMax) {
        free_delivery(&delivery);
        return;
    }
    delivery      = Delivery{}; // lets its message go
    delivery.next = std::exchange(spare_, &delivery);
    ++spare_count_;
}

} // namespace tarn::standard
