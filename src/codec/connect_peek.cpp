// connect_id.cpp - the client id of a CONNECT, before the packet is decoded.
#include "codec_internal.h"

namespace tarn::codec {

std::string_view client_id_of(Bytes connect) noexcept
{
    if (connect.empty())
        return {};
    const FixedHeader header = read_fixed_header(connect.data(), static_cast<int>(connect.size()));
    Reader            in(connect.data(), static_cast<int>(connect.size()), header.body);
    uint16_t          length = 0;
    uint8_t           level  = 0;
    if (!header.length.ok() || !in.u16(length) || !in.has(length))
        return {};
    in.skip(length);
    constexpr int kFlagsAndKeepAlive = 3;
    if (!in.u8(level) || !in.has(kFlagsAndKeepAlive))
        return {};
    in.skip(kFlagsAndKeepAlive);
    if (level == 5) {
        const VarInt properties = peek_varint(in);
        if (!properties.ok() || !in.has(properties.bytes + properties.value))
            return {};
        in.skip(properties.bytes + properties.value);
    }
    if (!in.u16(length) || !in.has(length))
        return {};
    return {reinterpret_cast<const char *>(in.at()), length};
}

} // namespace tarn::codec
