// qos.hpp - deliveries that are not acknowledged yet, for the other modules of the library. Hosts have the same as
// qos_reliable.h: qos_c.cpp turns away null pointers, calls this, and makes plain numbers of the results.
//
// Clients are pinned by the caller. All take and drop g_queue_mutex.
#ifndef TARN_QOS_QOS_HPP
#define TARN_QOS_QOS_HPP

#include "first_send.h"

namespace tarn::qos {

[[nodiscard]] bool init() noexcept;    // starts one more scan thread; false when it cannot be had
void               destroy() noexcept; // ends them all and drops every delivery

// Tracks a delivery as if it had just been sent: the scan repeats it. What is sent here and now has first_send.h.
Added track(mqtt_client_t &client, uint16_t msg_id, uint8_t qos, const char *topic, std::span<const uint8_t> payload,
            PayloadCopy *copy = nullptr) noexcept;
void  set_expiry(mqtt_client_t &client, uint16_t msg_id, uint32_t seconds) noexcept;

enum class Acknowledged : uint8_t { Taken, Unknown, Failed };
// `packet_type` is PUBACK, PUBREC, PUBREL or PUBCOMP. Failed: it does not fit the delivery, or has no answer.
Acknowledged acknowledge(mqtt_client_t &client, uint16_t msg_id, uint8_t packet_type) noexcept;

void drop_deliveries_of(mqtt_client_t &client) noexcept;

// Bytes of deliveries that have ended since the call before, as far as no new ones took their place.
[[nodiscard]] size_t bytes_left_over() noexcept;

} // namespace tarn::qos

#endif
