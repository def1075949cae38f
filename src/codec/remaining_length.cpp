// remaining_length.cpp - the variable byte integer: seven bits a byte, least significant first, bit 7 = more follow.
//
// It carries the fixed header's remaining length and every 5.0 property length.
#include "codec_internal.h"

namespace tarn::codec {

static_assert(CODEC_ENCODE_LEN_MAX == (1 << 4 * 7) - 1, "four bytes of seven bits");

uint32_t encode_length(uint8_t *buf, uint32_t len) noexcept
{
    if (len > CODEC_ENCODE_LEN_MAX)
        return REFUSE(0u, "codec_encode_remaining_length: len=%u exceeds max=%u", len,
                      static_cast<uint32_t>(CODEC_ENCODE_LEN_MAX));

    uint32_t bytes = 0;
    for (uint32_t rest = len;;) {
        if (bytes == 4) // cannot happen below the maximum
            return REFUSE(0u, "codec_encode_remaining_length: len=%u requires more than 4 bytes", len);
        const auto seven_bits = static_cast<uint8_t>(rest & 0x7F);
        rest >>= 7;
        buf[bytes++] = rest ? seven_bits | 0x80 : seven_bits;
        if (!rest)
            return bytes;
    }
}

int decode_length(const uint8_t *buf, int avail, uint32_t &consumed) noexcept
{
    // QUIRK(three-length-bytes): a fourth length byte is refused although the standard allows four [MQTT 5.0 1.5.5];
    // it bounds every incoming packet and property block to 2097151 bytes. Longer forms of a small value pass, which
    // [MQTT-1.5.5-1] forbids to senders only.
    //   standard profile: lifted (sizes)
    //   test: decode_remaining_length.a_fourth_byte_is_refused
    constexpr int kLengthBytesMax = 3;
    static_assert(CODEC_DECODE_LEN_MAX == (1 << kLengthBytesMax * 7) - 1);

    int value = 0;
    for (int i = 0; i < kLengthBytesMax && i < avail; ++i) {
        value |= (buf[i] & 0x7F) << (7 * i);
        if (!(buf[i] & 0x80)) {
            consumed = static_cast<uint32_t>(i) + 1;
            return value;
        }
    }
    return -1;
}

} // namespace tarn::codec
