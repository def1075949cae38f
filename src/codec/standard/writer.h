// writer.h - writes a packet, or only counts what it would take: so one function both writes it and tells its size.
#ifndef TARN_CODEC_STANDARD_WRITER_H
#define TARN_CODEC_STANDARD_WRITER_H

#include "varint.h"

#include <cstring>

namespace tarn::codec::standard {

class Writer {
public:
    // Counts.
    Writer() noexcept : counts_only_(true) {}

    // Writes. What does not fit is left out, and so is everything behind it.
    explicit Writer(std::span<uint8_t> area) noexcept : area_(area) {}

    Writer &u8(uint8_t value) noexcept { return bytes({&value, 1}); }
    Writer &u16(uint16_t value) noexcept
    {
        return u8(static_cast<uint8_t>(value >> 8)).u8(static_cast<uint8_t>(value));
    }
    Writer &u32(uint32_t value) noexcept
    {
        return u16(static_cast<uint16_t>(value >> 16)).u16(static_cast<uint16_t>(value));
    }
    Writer &varint(size_t value) noexcept
    {
        if (value > kVarintMax)
            refuse();
        for (; value > 0x7F; value >>= 7)
            u8(static_cast<uint8_t>(value | 0x80));
        return u8(static_cast<uint8_t>(value));
    }
    Writer &bytes(Bytes from) noexcept
    {
        complete_ = complete_ && (counts_only_ || from.size() <= area_.size() - size_);
        if (!complete_)
            return *this;
        if (!counts_only_ && !from.empty())
            memcpy(area_.data() + size_, from.data(), from.size());
        size_ += from.size();
        return *this;
    }
    // length:u16 bytes
    Writer &binary(Bytes from) noexcept
    {
        if (from.size() > kTextMax)
            refuse();
        return u16(static_cast<uint16_t>(from.size())).bytes(from);
    }
    Writer &text(std::string_view from) noexcept
    {
        return binary({reinterpret_cast<const uint8_t *>(from.data()), from.size()});
    }

    // There is no such packet.
    void refuse() noexcept { complete_ = false; }

    [[nodiscard]] bool   complete() const noexcept { return complete_; }
    [[nodiscard]] size_t size() const noexcept { return complete_ ? size_ : kTooLarge; }

private:
    std::span<uint8_t> area_;
    size_t             size_        = 0;
    bool               counts_only_ = false;
    bool               complete_    = true;
};

} // namespace tarn::codec::standard

#endif
