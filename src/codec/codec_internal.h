// codec_internal.h - what all packet families share: the fixed header in both directions, the words of the context,
// and the way a call is refused.
//
// An encoder: check, open_packet(), write the body into a scratch Writer, seal_packet(), encoded().
// A decoder:  check, read_fixed_header(), read the body with a Reader, decoded().
#ifndef TARN_CODEC_CODEC_INTERNAL_H
#define TARN_CODEC_CODEC_INTERNAL_H

#include "../log/log.h"
#include "codec.hpp"
#include "mqtt_codec.h"
#include "wire.h"

namespace tarn::codec {

// return REFUSE(CODEC_E_..., "format", ...): the ERROR line and the result of a failing call. A macro, so that the
// compiler checks the format.
#define REFUSE(code, ...)                                                                                              \
    ((::tarn::log_passes(AGENT_LOG_ERROR) ? ::tarn::log::write(AGENT_LOG_ERROR, __VA_ARGS__) : (void)0), (code))

// The context's level, read once a call: another thread may change it meanwhile.
[[nodiscard]] inline uint32_t level_of(const mqtt_codec_ctx_t *ctx)
{
    return level_of(*ctx);
}
inline void set_level(mqtt_codec_ctx_t *ctx, uint32_t level)
{
    shared(ctx->version) = level;
}
[[nodiscard]] constexpr bool known_level(uint32_t version)
{
    return version == 4 || version == 5;
}

// A capacity or input length as log lines show it, -1 when the pointer is missing.
[[nodiscard]] inline int length_of(const int *buf_len)
{
    return buf_len ? *buf_len : -1;
}

// A pointer for "%p", which takes nothing but void pointers.
[[nodiscard]] inline const void *addr(const void *pointer)
{
    return pointer;
}

// ---- variable byte integers (remaining_length.cpp)

// Bytes written, 1..4 of the room for four; 0 for too large a value, with its ERROR line.
uint32_t encode_length(uint8_t *buf, uint32_t len) noexcept;
// The value, and the bytes read; -1 when it does not end in `avail` bytes or has more than three.
int decode_length(const uint8_t *buf, int avail, uint32_t &consumed) noexcept;

// ---- encoders

// Zeroes the caller's whole buffer, which the caller may see, and writes the first byte.
inline void open_packet(uint8_t *buf, int capacity, uint8_t first_byte)
{
    memset(buf, 0, static_cast<size_t>(capacity));
    buf[0] = first_byte;
}

// Appends a variable byte integer. False above CODEC_ENCODE_LEN_MAX, with its ERROR line.
[[nodiscard]] inline bool put_varint(Writer &out, uint32_t value)
{
    uint8_t        field[4];
    const uint32_t bytes = encode_length(field, value);
    out.bytes(field, bytes);
    return bytes != 0;
}

struct Sealed {
    int length_bytes; // of the remaining length, 0 = it could not be encoded
    int total;        // bytes of the whole packet
};

// Puts remaining length and body behind the first byte. A total above the capacity, or a body that did not fit its
// scratch area, leaves only header bytes and zeroes; the caller refuses it then.
[[nodiscard]] inline Sealed seal_packet(uint8_t *buf, int capacity, const Writer &body)
{
    uint8_t      field[4];
    const auto   length       = static_cast<uint32_t>(body.need());
    const size_t length_bytes = encode_length(field, length);
    const size_t room         = static_cast<size_t>(capacity) - 1;

    memcpy(buf + 1, field, length_bytes < room ? length_bytes : room);
    if (length_bytes != 0 && body.fits() && length_bytes + length <= room)
        memcpy(buf + 1 + length_bytes, body.data(), length);
    return {static_cast<int>(length_bytes), static_cast<int>(1 + length_bytes + length)};
}

// The end of a successful encode.
inline int encoded(mqtt_codec_ctx_t *ctx, uint32_t type, int total, int *buf_len)
{
    *buf_len                      = total;
    shared(ctx->last_packet_type) = type;
    return CODEC_OK;
}

// ---- decoders

// A variable byte integer as read. A failed one shows as length -1 in 0 bytes, also in log lines.
struct VarInt {
    int  value = -1;
    int  bytes = 0;
    bool ok() const { return value >= 0; }
};

[[nodiscard]] inline VarInt peek_varint(const Reader &in)
{
    uint32_t  bytes = 0;
    const int value = decode_length(in.at(), in.left(), bytes);
    return {value, static_cast<int>(bytes)};
}

// The same, and moves behind it; a failed read moves nothing.
[[nodiscard]] inline VarInt read_varint(Reader &in)
{
    const VarInt found = peek_varint(in);
    in.skip(found.bytes);
    return found;
}

struct FixedHeader {
    uint8_t type;   // high nibble of the first byte
    uint8_t flags;  // low nibble
    VarInt  length; // remaining length
    int     body;   // position behind the length field
    int     end;    // of the packet; may lie beyond the input, meaningless when the length failed
};

// `input_len` must be at least 1.
[[nodiscard]] inline FixedHeader read_fixed_header(const uint8_t *buf, int input_len)
{
    const VarInt length = peek_varint(Reader(buf, input_len, 1));
    return {static_cast<uint8_t>(buf[0] >> 4), static_cast<uint8_t>(buf[0] & 0x0F), length, 1 + length.bytes,
            1 + length.bytes + length.value};
}

// The end of a successful decode. What it does to the level is the family's own business.
inline int decoded(mqtt_codec_ctx_t *ctx, uint32_t type, int consumed, int *buf_len)
{
    *buf_len                      = consumed;
    shared(ctx->last_packet_len)  = static_cast<uint32_t>(consumed);
    shared(ctx->last_packet_type) = type;
    return CODEC_OK;
}

} // namespace tarn::codec

#endif
