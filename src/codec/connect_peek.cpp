// connect_peek.cpp - what a CONNECT asks for, before the packet is decoded.
#include "codec_internal.h"

namespace tarn::codec {

ConnectPeek peek_connect(Bytes connect) noexcept
{
    if (connect.empty())
        return {};
    const FixedHeader header = read_fixed_header(connect.data(), static_cast<int>(connect.size()));
    Reader            in(connect.data(), static_cast<int>(connect.size()), header.body);
    uint16_t          length = 0;
    uint8_t           level = 0, flags = 0;
    if (!header.length.ok() || !in.u16(length) || !in.has(length))
        return {};
    in.skip(length);
    constexpr int     kKeepAlive  = 2; // bytes
    constexpr uint8_t kCleanStart = 0x02;
    if (!in.u8(level) || !in.u8(flags) || !in.has(kKeepAlive))
        return {};
    in.skip(kKeepAlive);
    if (level == 5) {
        const VarInt properties = peek_varint(in);
        if (!properties.ok() || !in.has(properties.bytes + properties.value))
            return {};
        in.skip(properties.bytes + properties.value);
    }
    if (!in.u16(length) || !in.has(length))
        return {};
    return {{reinterpret_cast<const char *>(in.at()), length}, (flags & kCleanStart) != 0};
}

} // namespace tarn::codec
