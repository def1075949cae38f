// reader.h - reads a packet from the front and remembers the first fault, so that a decoder is a ladder of reads with
// one look at the end.
#ifndef TARN_CODEC_STANDARD_READER_H
#define TARN_CODEC_STANDARD_READER_H

#include "reason.h"
#include "utf8.h"
#include "varint.h"

namespace tarn::codec::standard {

// After a fault the reader is at its end, and every read gives 0 or nothing. What it gives points into the packet.
class Reader {
public:
    explicit Reader(Bytes bytes) noexcept : rest_(bytes) {}

    [[nodiscard]] bool    ok() const noexcept { return verdict_.ok(); }
    [[nodiscard]] Verdict verdict() const noexcept { return verdict_; }
    [[nodiscard]] bool    at_end() const noexcept { return rest_.empty(); }
    [[nodiscard]] Bytes   rest() const noexcept { return rest_; }

    // The first fault stays.
    void refuse(Verdict verdict) noexcept
    {
        if (ok())
            verdict_ = verdict;
        if (!ok())
            rest_ = {};
    }
    void refuse(Reason reason, const char *text) noexcept { refuse({reason, text}); }

    uint8_t  u8() noexcept { return static_cast<uint8_t>(number(1)); }
    uint16_t u16() noexcept { return static_cast<uint16_t>(number(2)); }
    uint32_t u32() noexcept { return number(4); }

    uint32_t varint() noexcept
    {
        const Varint number = parse_varint(rest_);
        if (number.state != Varint::Complete || !number.is_shortest()) {
            refuse(Reason::MalformedPacket, "a variable byte integer is not well formed"); // [MQTT-1.5.5-1]
            return 0;
        }
        rest_ = rest_.subspan(number.bytes);
        return number.value;
    }

    Bytes bytes(size_t count) noexcept
    {
        if (count > rest_.size()) {
            refuse(Reason::MalformedPacket, "the packet ends too early");
            return {};
        }
        const Bytes taken = rest_.first(count);
        rest_             = rest_.subspan(count);
        return taken;
    }
    Bytes all() noexcept { return bytes(rest_.size()); }

    // length:u16 bytes
    Bytes binary() noexcept { return bytes(u16()); }

    // length:u16 text
    std::string_view text() noexcept
    {
        const Bytes            taken = binary();
        const std::string_view text{reinterpret_cast<const char *>(taken.data()), taken.size()};
        if (is_utf8(text))
            return text;
        refuse(Reason::MalformedPacket, "a text is not well-formed UTF-8"); // [MQTT-1.5.4-1], 3.1.1 [MQTT-1.5.3-1]
        return {};
    }

    // Nothing may follow.
    void end() noexcept
    {
        if (!at_end())
            refuse(Reason::MalformedPacket, "the packet is longer than its fields");
    }

private:
    uint32_t number(size_t count) noexcept
    {
        uint32_t value = 0;
        for (const uint8_t byte : bytes(count))
            value = value << 8 | byte;
        return value;
    }

    Bytes   rest_;
    Verdict verdict_;
};

} // namespace tarn::codec::standard

#endif
