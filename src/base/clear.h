// clear.h - clears memory of which little was written, and spends no pages on the rest.
#ifndef TARN_BASE_CLEAR_H
#define TARN_BASE_CLEAR_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tarn {

// Zeroes `size` bytes, but writes only where some are not zero: the system gives a page to who writes it, whatever he
// writes, and lets all read the same page of zeros. For one thread at a time, as memset().
inline void clear_written(void *memory, size_t size) noexcept
{
    static constexpr size_t  kPiece = 64; // bytes; a cache line
    static constexpr uint8_t kZeros[kPiece]{};

    auto *at = static_cast<uint8_t *>(memory);
    for (size_t piece; size > 0; at += piece, size -= piece) {
        piece = size < kPiece ? size : kPiece;
        if (memcmp(at, kZeros, piece) != 0)
            memset(at, 0, piece);
    }
}

} // namespace tarn

#endif
