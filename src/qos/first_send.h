// first_send.h - queues a delivery for its client and notes it as pending, in one step.
//
// The client may acknowledge the packet before the thread that queued it runs again. An acknowledgement takes
// g_queue_mutex to find its delivery, so both steps are done under that lock.
#ifndef TARN_QOS_FIRST_SEND_H
#define TARN_QOS_FIRST_SEND_H

#include "qos_reliable.h"

#include <span>

namespace tarn::qos {

struct SharedPayload;

// The payload of one message on its way: the first of its pending deliveries copies it, the others share that copy. It
// is freed with the last of them, once this is gone too. A short one is copied for each.
class PayloadCopy {
public:
    PayloadCopy() = default;
    ~PayloadCopy() noexcept; // takes and drops g_queue_mutex if anything was copied
    PayloadCopy(const PayloadCopy &)            = delete;
    PayloadCopy &operator=(const PayloadCopy &) = delete;

    // Needs g_queue_mutex. The shared payload of these bytes, which do not change meanwhile, or null.
    SharedPayload *of(std::span<const uint8_t> bytes) const noexcept;
    void           keep(std::span<const uint8_t> bytes, SharedPayload *shared) noexcept; // instead of the one before

private:
    std::span<const uint8_t> source_;
    SharedPayload           *shared_ = nullptr;
};

struct Delivery {
    mqtt_client_t           &client; // pinned
    uint16_t                 msg_id;
    uint8_t                  qos;
    const char              *topic;
    std::span<const uint8_t> payload;
    bool                     tracked;        // repeated until it is acknowledged
    bool                     remembered;     // as the one PUBACK that the client's record waits for
    PayloadCopy             *copy = nullptr; // the message's; null: the delivery gets one of its own
};

enum class Added { Yes, NoTopic, NoPayload, TooLong, BadQos, Full, NoEntry, NoPayloadMemory };

struct FirstSend {
    uint32_t result; // queue_packet's; what could not be queued is not tracked
    Added    added = Added::Yes;
    int      count = 0; // the client's entries, with Added::Full
};

// Queues the packet, notes the delivery if it is tracked or remembered, then sees to its sending. Logs nothing. `head`:
// the packet up to its payload.
[[nodiscard]] FirstSend send_and_track(const Delivery &delivery, std::span<const uint8_t> head) noexcept;
// The line of a delivery that was to be tracked.
void log_tracking(const Delivery &delivery, const FirstSend &first) noexcept;

} // namespace tarn::qos

#endif
