// records.cpp - see records.h.
#include "records.h"

namespace tarn::standard {
namespace {

bool append_incoming(GrowArray<uint8_t> &to, const IncomingIdentifiers &incoming)
{
    bool done = append_bytes(to, bytes_of_numbers(static_cast<uint32_t>(incoming.count())));
    incoming.for_each([&](uint16_t packet_id) { done = done && append_bytes(to, bytes_of_numbers(packet_id)); });
    return done;
}

bool append_deliveries(GrowArray<uint8_t> &to, const Deliveries &deliveries)
{
    bool done = append_bytes(to, bytes_of_numbers(static_cast<uint32_t>(deliveries.stored().count)));
    deliveries.for_each([&](const DeliveryRecord &delivery) {
        const uint64_t message = delivery.message ? delivery.message->number() : 0;
        done                   = done && append_bytes(to, bytes_of_numbers(message)) && append_delivery(to, delivery);
    });
    return done;
}

} // namespace

bool append_rest_of(GrowArray<uint8_t> &to, const Session &session) noexcept
{
    return append_bytes(to, bytes_of_numbers(session.deliveries.last_number())) &&
           append_incoming(to, session.incoming) && append_deliveries(to, session.deliveries);
}

} // namespace tarn::standard
