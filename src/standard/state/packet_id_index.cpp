// packet_id_index.cpp - see packet_id_index.h.
#include "packet_id_index.h"

#include <algorithm>

namespace tarn::standard {

Delivery *PacketIdIndex::find(uint16_t packet_id) const noexcept
{
    Delivery *at = buckets()[packet_id & (bucket_count_ - 1)];
    while (at && at->packet_id != packet_id)
        at = at->next_in_bucket;
    return at;
}

void PacketIdIndex::insert(Delivery &delivery) noexcept
{
    if (count_ == bucket_count_)
        grow();
    Delivery *&bucket       = bucket_of(delivery.packet_id);
    delivery.next_in_bucket = bucket;
    bucket                  = &delivery;
    last_                   = delivery.packet_id;
    ++count_;
}

void PacketIdIndex::remove(Delivery &delivery) noexcept
{
    Delivery **at = &bucket_of(delivery.packet_id);
    while (*at != &delivery)
        at = &(*at)->next_in_bucket;
    *at = delivery.next_in_bucket;
    if (--count_ > 0 || !grown_)
        return;
    grown_        = nullptr;
    bucket_count_ = kInside;
}

uint16_t PacketIdIndex::next_unused() const noexcept
{
    uint16_t next = last_;
    do
        ++next;
    while (next == 0 || find(next));
    return next;
}

void PacketIdIndex::grow() noexcept
{
    const size_t      old_count = bucket_count_;
    owned<Delivery *> larger    = allocate_zeroed<Delivery *>(old_count * 2);
    if (!larger)
        return;
    owned<Delivery *> old = std::exchange(grown_, std::move(larger));
    bucket_count_         = old_count * 2;
    for (Delivery *chain : std::span(old ? old.get() : inside_, old_count)) {
        while (chain) {
            Delivery *const moved  = std::exchange(chain, chain->next_in_bucket);
            Delivery      *&bucket = bucket_of(moved->packet_id);
            moved->next_in_bucket  = std::exchange(bucket, moved);
        }
    }
    std::ranges::fill(inside_, nullptr);
}

} // namespace tarn::standard
