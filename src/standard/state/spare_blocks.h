// spare_blocks.h - memory for short messages, used again by the thread of the library that let it go.
//
// At QoS 1 and 2 a message lives for a round trip, and of those that are in flight malloc() keeps only a few at hand for
// a thread. Any thread may take, and give back what another one took; a host's thread keeps none, as it lives on when
// the broker is gone.
#ifndef TARN_STANDARD_SPARE_BLOCKS_H
#define TARN_STANDARD_SPARE_BLOCKS_H

#include <cstddef>

namespace tarn::standard {

[[nodiscard]] void *take_block(size_t size) noexcept;                   // null without memory
void                give_back_block(void *block, size_t size) noexcept; // with the size it was taken with

} // namespace tarn::standard

#endif
