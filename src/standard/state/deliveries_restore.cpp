// deliveries_restore.cpp - the deliveries of a session from and for files, see deliveries.h.
#include "deliveries.h"

#include <algorithm>

namespace tarn::standard {
namespace {

// Numbers of a file are not trusted.
bool is_possible(const DeliveryRecord &record)
{
    if (record.number == 0 || record.qos < 1 || record.qos > 2)
        return false;
    if (record.received)
        return record.qos == 2 && record.packet_id != 0;
    return static_cast<bool>(record.message);
}

} // namespace

DeliveryRecord Deliveries::record_of(const Delivery &delivery) noexcept
{
    return {.number                   = delivery.number,
            .message                  = delivery.message,
            .qos                      = delivery.qos,
            .retain                   = delivery.retain,
            .packet_id                = delivery.packet_id,
            .received                 = delivery.received,
            .subscription_identifiers = delivery.subscription_identifiers.all()};
}

// Of a queued delivery the number tells whether it is new: with a known one it was done, or is on its way already.
Restored Deliveries::restore(const DeliveryRecord &record) noexcept
{
    const bool is_known =
        record.packet_id == 0 ? record.number <= last_number_ : in_use_.find(record.packet_id) != nullptr;
    if (is_known || !is_possible(record))
        return Restored::Ignored;
    Delivery *const made = make(record.message, record.qos, record.retain, record.subscription_identifiers);
    if (!made)
        return Restored::NoMemory;
    made->number = record.number;
    append(queue_, *made);
    count_in(*made);
    if (record.message)
        note_expiry(*record.message);
    if (record.packet_id != 0)
        begin_flight(*made, record.packet_id);
    if (record.received)
        become_received(*made);
    restore_last_number(record.number);
    return Restored::Done;
}

Restored Deliveries::restore_sent(uint64_t number, uint16_t packet_id) noexcept
{
    Delivery *const found = find_queued(number);
    if (!found || packet_id == 0 || in_use_.find(packet_id))
        return Restored::Ignored;
    begin_flight(*found, packet_id);
    return Restored::Done;
}

Restored Deliveries::restore_received(uint64_t number, uint16_t packet_id) noexcept
{
    Delivery *const found = find_in_flight(number, packet_id);
    if (!found || found->qos != 2 || found->received)
        return Restored::Ignored;
    become_received(*found);
    return Restored::Done;
}

Restored Deliveries::restore_done(uint64_t number, uint16_t packet_id) noexcept
{
    Delivery *const found = packet_id == 0 ? find_queued(number) : find_in_flight(number, packet_id);
    if (!found)
        return Restored::Ignored;
    forget(*found);
    return Restored::Done;
}

void Deliveries::restore_last_number(uint64_t number) noexcept
{
    last_number_ = std::max(last_number_, number);
}

// Numbers ascend in the queue, and in most cases from search to search, too: it goes on where the last one ended.
Delivery *Deliveries::find_queued(uint64_t number) noexcept
{
    Delivery *at = search_from_ && search_from_->number <= number ? search_from_ : queue_.first();
    while (at && at->number < number)
        at = at->next;
    search_from_ = at;
    return at && at->number == number ? at : nullptr;
}

Delivery *Deliveries::find_in_flight(uint64_t number, uint16_t packet_id) noexcept
{
    Delivery *const found = in_use_.find(packet_id);
    return found && found->number == number ? found : nullptr;
}

} // namespace tarn::standard
