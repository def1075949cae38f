// publish_link.h - one PUBLISH for many receivers: encode it once, then give each receiver its own packet identifier.
#ifndef TARN_CODEC_PUBLISH_LINK_H
#define TARN_CODEC_PUBLISH_LINK_H

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

// mqtt_codec_encode_publish without record and context: the same packet, result and log lines. Three things are left
// to the caller: the payload, which belongs behind the first `head_len` bytes of `buf` but need not be copied there;
// what `buf` held behind them (a refused call may have written header bytes); and no context learns of it. `buf_len` is
// the room for the whole packet and becomes its length.
[[nodiscard]] int encode_publish_head(uint32_t level, const PublishView &message, uint8_t *buf, int *buf_len,
                                      int *head_len) noexcept;

// Where the two bytes of the packet identifier stand (big-endian) inside an encoded PUBLISH of QoS 1 or 2, of which the head is enough; -1 when
// the packet is none.
[[nodiscard]] int publish_id_offset(const uint8_t *packet, int len) noexcept;

} // namespace tarn::codec

#endif
