// delivery_cache.h - one message as its receivers get it. Receivers of one protocol version and QoS get the same bytes
// but for the packet identifier, so each form is encoded once and only its identifier written anew. The payload is not
// copied here: it goes from the message into each receiver's ring.
//
// QUIRK(delivery-size): a delivery has 2048 bytes, so a message of a client reaches nobody who is connected when its
// topic and payload have more than 2041 bytes together (2043 at QoS 0; to a 5.0 receiver 2040 and 2042, and five fewer
// with an expiry interval), although it is acknowledged [MQTT-4.5.0-1]. Packets of clients are bounded by the receive
// buffer, deliveries by this one.
//   standard profile: lifted (sizes)
//   test: publish.the_delivery_buffer_holds_2048_bytes, publish.the_largest_deliveries
//
// At DEBUG every delivery is encoded for itself, because the encoder's trace lines belong to it; so is one that the
// encoder refuses, for its ERROR line.
#ifndef TARN_HANDLER_DELIVERY_CACHE_H
#define TARN_HANDLER_DELIVERY_CACHE_H

#include "../base/limits.h"
#include "../base/memory.h"
#include "../codec/publish_view.h"

namespace tarn::handler {

// A message on its way: topic and payload lie elsewhere, the topic NUL-terminated. QoS and identifier are those of the
// delivery being made.
struct Message : codec::PublishView {
    const char *topic_text() const noexcept { return topic.data(); }
    uint32_t    payload_len() const noexcept { return static_cast<uint32_t>(payload.size()); }
};

class DeliveryCache {
public:
    struct Encoded {
        codec::Result            result;
        std::span<const uint8_t> head = {}; // what stands before the payload, until the next call; empty unless ready()
        bool                     had_memory = true; // else `result` means nothing

        bool ready() const noexcept { return had_memory && !failed(result); }
    };

    explicit DeliveryCache(Message &message) noexcept : message_(message) {} // leaves forms_ as they are
    ~DeliveryCache();
    DeliveryCache(const DeliveryCache &)            = delete;
    DeliveryCache &operator=(const DeliveryCache &) = delete;

    Encoded encode(uint32_t version, uint32_t qos, uint16_t id) noexcept;

    // True when a delivery that was refused with `result` for want of room can be retransmitted all the same: the scan
    // has a larger buffer and sends no properties.
    bool scan_can_encode(codec::Result result, uint32_t version) const noexcept;

private:
    struct Form {
        uint8_t *bytes;
        size_t   length; // of the head
        int      id_at;  // place of the packet identifier; -1 where the host's retain flag hides it
    };
    static constexpr uint32_t kForms = 2 * 3;  // by version and QoS
    static constexpr uint32_t kOther = kForms; // of a version or QoS that should not be

    bool has(uint32_t form) const noexcept { return made_ >> form & 1; }
    void keep(uint32_t form, owned<uint8_t> bytes, size_t length, int id_at) noexcept;

    Message &message_;
    uint32_t made_ = 0; // a bit a form; of a message most are not, and are neither cleared nor freed
    Form     forms_[kForms + 1];
};

} // namespace tarn::handler

#endif
