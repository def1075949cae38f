// booking.h - the first transmission of a delivery and its booking, as one step for whoever acknowledges it.
//
// The packet may be at its client, and the acknowledgement back on the I/O thread, before the thread that queued it has
// done another thing. So both happen under g_queue_mutex, where each acknowledgement comes by first.
#ifndef TARN_QOS_BOOKING_H
#define TARN_QOS_BOOKING_H

#include "qos_reliable.h"

#include <span>

namespace tarn::qos {

struct Delivery {
    mqtt_client_t           &client; // pinned
    uint16_t                 msg_id;
    uint8_t                  qos;
    const char              *topic;
    std::span<const uint8_t> payload;
    bool                     tracked;    // repeated until it is acknowledged
    bool                     remembered; // as the one PUBACK that the client's record waits for
};

enum class Added { Yes, NoClient, NoTopic, NoPayload, TooLong, BadQos, Full, NoEntry, NoPayloadMemory };

struct Booked {
    uint32_t result; // queue_packet's; nothing is booked of what could not be queued
    Added    added = Added::Yes;
    int      count = 0; // the client's entries, with Added::Full
};

// Queues the packet, books the delivery where it is to be tracked or remembered, then sees to its sending. Says nothing.
// `head`: the packet up to its payload.
[[nodiscard]] Booked send_booked(const Delivery &delivery, std::span<const uint8_t> head) noexcept;
// The line of a delivery that was to be tracked.
void say_booked(const Delivery &delivery, const Booked &booked) noexcept;

} // namespace tarn::qos

#endif
