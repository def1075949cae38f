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

// A hundred thousand of them take some milliseconds, with the engine's mutex held.
bool append_deliveries(GrowArray<uint8_t> &to, const Deliveries &deliveries)
{
    constexpr size_t kUsualSize = 32; // with one subscription identifier
    const size_t     count      = deliveries.stored().count;
    bool             done =
        to.reserve(to.size() + count * kUsualSize) && append_bytes(to, bytes_of_numbers(static_cast<uint32_t>(count)));
    deliveries.for_each([&](const DeliveryRecord &delivery) {
        const uint64_t message = delivery.message ? delivery.message->number() : 0;
        done                   = done && append_delivery(to, message, delivery);
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
