// types.h - what all files of the standard's codec share: levels, sets of packet types, the largest sizes.
#ifndef TARN_CODEC_STANDARD_TYPES_H
#define TARN_CODEC_STANDARD_TYPES_H

#include "../packet_type.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace tarn::codec::standard {

using Bytes = std::span<const uint8_t>;

// The protocol level as CONNECT says it. MQTT 3.1 (level 3) is not spoken.
enum class Level : uint8_t { Mqtt311 = 4, Mqtt5 = 5 };

constexpr PacketType AUTH{15}; // 5.0 only
constexpr PacketType WILL{0};  // no packet: the will's part of CONNECT, which has properties of its own

using PacketSet = uint16_t; // a bit for each PacketType

template <class... Types> constexpr PacketSet packets(Types... types) noexcept
{
    return static_cast<PacketSet>(((1U << types) | ...));
}
constexpr bool contains(PacketSet set, PacketType type) noexcept
{
    return set >> type & 1U;
}

constexpr size_t kVarintMax = 268435455;          // four bytes of seven bits
constexpr size_t kPacketMax = 1 + 4 + kVarintMax; // first byte, remaining length, body
constexpr size_t kTextMax   = 65535;              // bytes of a text or of binary data, whose length is a u16
constexpr size_t kTooLarge  = kPacketMax + 1;     // stands for the size of what cannot be written

} // namespace tarn::codec::standard

#endif
