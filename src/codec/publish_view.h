// publish_view.h - one PUBLISH for many receivers: encode it once, then give each receiver its own packet identifier.
#ifndef TARN_CODEC_PUBLISH_VIEW_H
#define TARN_CODEC_PUBLISH_VIEW_H

#include "result.h"

#include <cstdint>
#include <span>
#include <string_view>

namespace tarn::codec {

// What a PUBLISH consists of, wherever its parts lie: nothing is copied to encode it. Fields and limits are those of
// mqtt_publish_para_t.
struct PublishView {
    std::string_view         topic;
    std::span<const uint8_t> payload;
    uint32_t                 qos                 = 0;
    uint16_t                 msg_id              = 0; // required for QoS 1 and 2
    uint8_t                  retain              = 0;
    uint8_t                  dup                 = 0;
    uint32_t                 msg_expiry_interval = 0; // s, 0 = absent
    uint16_t                 topic_alias         = 0; // 0 = absent
};

constexpr size_t kPublishBodyHeadMax = 2 + CODEC_TOPIC_MAX + 2 + 1 + 5 + 4; // topic, identifier, expiry, alias
constexpr size_t kPublishHeadMax     = 1 + 4 + kPublishBodyHeadMax;

struct PublishHead {
    Result                   result;
    std::span<const uint8_t> head;   // what stands before the payload; empty unless Ok
    size_t                   length; // of the whole packet
};

// encode_publish without record and context: the same packet, result and log lines. Three things are left to the caller:
// the payload, which belongs behind the head but need not be copied there; what `buf` held behind it (a refused call may
// have written header bytes); and no context learns of it. `capacity` is the room for the whole packet; `buf` has so many
// bytes, or kPublishHeadMax.
[[nodiscard]] PublishHead encode_publish_head(uint32_t level, const PublishView &message, std::span<uint8_t> buf,
                                              size_t capacity) noexcept;

// Where the two bytes of the packet identifier stand (big-endian) inside an encoded PUBLISH of QoS 1 or 2, of which the
// head is enough; -1 when the packet is none.
[[nodiscard]] int publish_id_offset(std::span<const uint8_t> packet) noexcept;

} // namespace tarn::codec

#endif
