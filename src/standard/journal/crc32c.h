// crc32c.h - the checksum of records in files: CRC-32C (Castagnoli), as RFC 3720 has it.
#ifndef TARN_STANDARD_CRC32C_H
#define TARN_STANDARD_CRC32C_H

#include <cstdint>
#include <span>

namespace tarn::standard {

// Of pieces that stand in different places: crc32c(second, crc32c(first)).
uint32_t crc32c(std::span<const uint8_t> bytes, uint32_t before = 0) noexcept;

} // namespace tarn::standard

#endif
