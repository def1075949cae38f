// varint.h - the variable byte integer (1.5.5): seven bits a byte, least significant first, bit 7 = more follow.
//
// It is the remaining length of a packet at both levels, and of 5.0 each property length, property identifier and
// subscription identifier.
#ifndef TARN_CODEC_STANDARD_VARINT_H
#define TARN_CODEC_STANDARD_VARINT_H

#include "types.h"

namespace tarn::codec::standard {

constexpr size_t kVarintBytesMax = 4;

// The bytes that a value up to kVarintMax takes.
[[nodiscard]] constexpr size_t varint_size(size_t value) noexcept
{
    return value < 1U << 7 ? 1 : value < 1U << 14 ? 2 : value < 1U << 21 ? 3 : 4;
}

struct Varint {
    enum State { Incomplete, Complete, Malformed } state = Incomplete;
    uint32_t value                                       = 0;
    size_t   bytes                                       = 0;

    // Senders must use the shortest form [MQTT-1.5.5-1]. 3.1.1 does not say so.
    [[nodiscard]] bool is_shortest() const noexcept { return bytes == varint_size(value); }
};

// The number at the front. Malformed if the fourth byte says that more follow.
[[nodiscard]] constexpr Varint parse_varint(Bytes from) noexcept
{
    Varint number;
    while (number.bytes < from.size() && number.bytes < kVarintBytesMax) {
        const uint8_t byte = from[number.bytes];
        number.value |= (byte & 0x7FU) << 7 * number.bytes;
        ++number.bytes;
        if (!(byte & 0x80)) {
            number.state = Varint::Complete;
            return number;
        }
    }
    if (number.bytes == kVarintBytesMax)
        number.state = Varint::Malformed;
    return number;
}

} // namespace tarn::codec::standard

#endif
