// framing.h - where a packet ends in the stream, and whether its first byte can be right.
#ifndef TARN_CODEC_STANDARD_FRAMING_H
#define TARN_CODEC_STANDARD_FRAMING_H

#include "reason.h"

namespace tarn::codec::standard {

struct PacketLength {
    Verdict verdict;    // MalformedPacket: more than four length bytes; PacketTooLarge: longer than the limit
    size_t  length = 0; // of the whole packet, its fixed header included; 0 = more bytes are needed to tell
};

// The length of the packet that the stream begins with, as soon as its fixed header is there, which is after five bytes
// at the latest. The first byte is not judged.
[[nodiscard]] PacketLength packet_length(Bytes stream, size_t limit = kPacketMax) noexcept;

// The type in a packet's first byte; 0 and, before 5.0, 15 are reserved.
[[nodiscard]] constexpr PacketType type_of(uint8_t first) noexcept
{
    return static_cast<PacketType>(first >> 4);
}

// Whether a client of this level may send a packet that begins so: its type and its flags. Decoders check it too; it
// stands apart so that a packet can be refused before it is received whole.
Verdict check_first_byte(uint8_t first, Level level) noexcept;

} // namespace tarn::codec::standard

#endif
