// booking.h - queues a delivery for its client and books it as pending, in one step.
//
// The client may acknowledge the packet before the thread that queued it runs again. An acknowledgement takes
// g_queue_mutex to find its delivery, so both steps are done under that lock.
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

enum class Added { Yes, NoTopic, NoPayload, TooLong, BadQos, Full, NoEntry, NoPayloadMemory };

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
