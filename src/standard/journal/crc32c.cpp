// crc32c.cpp - see crc32c.h. Eight bytes at a time by tables ("slicing by eight"), on any processor.
#include "crc32c.h"

#include <array>
#include <cstddef>

namespace tarn::standard {
namespace {

constexpr uint32_t kPolynomial = 0x82F63B78; // reflected
constexpr size_t   kSlices     = 8;

using Tables = std::array<std::array<uint32_t, 256>, kSlices>;

// tables[k][b]: what byte b does to the checksum when k bytes follow it.
constexpr Tables make_tables()
{
    Tables tables{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc >> 1 ^ (crc & 1 ? kPolynomial : 0);
        tables[0][byte] = crc;
    }
    for (size_t slice = 1; slice < kSlices; ++slice)
        for (size_t byte = 0; byte < 256; ++byte) {
            const uint32_t crc  = tables[slice - 1][byte];
            tables[slice][byte] = crc >> 8 ^ tables[0][crc & 0xFF];
        }
    return tables;
}

constexpr Tables kTables = make_tables();

uint32_t add_byte(uint32_t crc, uint8_t byte)
{
    return crc >> 8 ^ kTables[0][(crc ^ byte) & 0xFF];
}

uint32_t add_eight(uint32_t crc, const uint8_t *bytes)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < kSlices; ++i) {
        const uint32_t of_crc = i < 4 ? crc >> 8 * i : 0;
        sum ^= kTables[kSlices - 1 - i][(bytes[i] ^ of_crc) & 0xFF];
    }
    return sum;
}

} // namespace

uint32_t crc32c(std::span<const uint8_t> bytes, uint32_t before) noexcept
{
    uint32_t crc = ~before;
    for (; bytes.size() >= kSlices; bytes = bytes.subspan(kSlices))
        crc = add_eight(crc, bytes.data());
    for (const uint8_t byte : bytes)
        crc = add_byte(crc, byte);
    return ~crc;
}

} // namespace tarn::standard
