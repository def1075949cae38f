// wire.h - bounds-checked reading and writing of MQTT wire data. Codec code reads like the packet it handles.
#ifndef TARN_CODEC_WIRE_H
#define TARN_CODEC_WIRE_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace tarn::codec {

// Reads from the front of a packet and never leaves it: a read that does not fit returns false and moves nothing.
// Positions count from the packet's first byte, as log lines print them.
class Reader {
public:
    Reader(const uint8_t *packet, int end, int pos = 0) : packet_(packet), pos_(pos), end_(end) {}

    int  pos() const { return pos_; }
    int  end() const { return end_; }
    int  left() const { return end_ > pos_ ? end_ - pos_ : 0; }
    bool at_end() const { return pos_ >= end_; }
    bool has(int bytes) const { return bytes >= 0 && bytes <= left(); }

    // The rest of this packet up to `end` only (a property block); never beyond this reader's own end.
    Reader block(int end) const { return {packet_, end < end_ ? end : end_, pos_}; }
    void   seek(int pos) { pos_ = pos; }
    void   skip(int bytes) { pos_ += bytes; }

    [[nodiscard]] bool u8(uint8_t &value)
    {
        if (!has(1))
            return false;
        value = packet_[pos_++];
        return true;
    }
    [[nodiscard]] bool u16(uint16_t &value)
    {
        if (!has(2))
            return false;
        value = static_cast<uint16_t>(packet_[pos_] << 8 | packet_[pos_ + 1]);
        pos_ += 2;
        return true;
    }
    [[nodiscard]] bool u32(uint32_t &value)
    {
        if (!has(4))
            return false;
        value = static_cast<uint32_t>(packet_[pos_]) << 24 | static_cast<uint32_t>(packet_[pos_ + 1]) << 16 |
                static_cast<uint32_t>(packet_[pos_ + 2]) << 8 | packet_[pos_ + 3];
        pos_ += 4;
        return true;
    }
    // A big-endian number of 1, 2 or 4 bytes.
    [[nodiscard]] bool number(int width, uint32_t &value)
    {
        if (!has(width))
            return false;
        value = 0;
        for (int i = 0; i < width; ++i)
            value = value << 8 | packet_[pos_++];
        return true;
    }
    // Characters into an array with room for the terminator, too.
    [[nodiscard]] bool text(char *to, int count)
    {
        if (!bytes(to, count))
            return false;
        to[count] = '\0';
        return true;
    }
    [[nodiscard]] bool bytes(void *to, int count)
    {
        if (!has(count))
            return false;
        memcpy(to, packet_ + pos_, static_cast<size_t>(count));
        pos_ += count;
        return true;
    }
    const uint8_t *at() const { return packet_ + pos_; }

private:
    const uint8_t *packet_;
    int            pos_;
    int            end_;
};

// Writes into a fixed area and remembers the first write that did not fit, so that an encoder is a ladder of writes
// checked once. `need()` goes on counting, for the line that says how much was missing.
class Writer {
public:
    explicit Writer(std::span<uint8_t> area) : area_(area) {}

    Writer &u8(uint8_t value) { return put(&value, 1); }
    Writer &u16(uint16_t value)
    {
        const uint8_t wire[] = {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
        return put(wire, sizeof wire);
    }
    Writer &u32(uint32_t value)
    {
        const uint8_t wire[] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                                static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
        return put(wire, sizeof wire);
    }
    Writer &bytes(const void *from, size_t count) { return put(from, count); }
    Writer &text(std::string_view value)
    {
        return u16(static_cast<uint16_t>(value.size())).put(value.data(), value.size());
    }

    bool           fits() const { return need_ <= area_.size(); }
    size_t         need() const { return need_; } // bytes asked for so far
    size_t         size() const { return fits() ? need_ : area_.size(); }
    const uint8_t *data() const { return area_.data(); }

private:
    Writer &put(const void *from, size_t count)
    {
        if (fits() && count <= area_.size() - need_ && count != 0)
            memcpy(area_.data() + need_, from, count);
        need_ += count;
        return *this;
    }

    std::span<uint8_t> area_;
    size_t             need_ = 0;
};

} // namespace tarn::codec

#endif
