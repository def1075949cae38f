// clock.h - the times the broker uses. The only callers of the system clocks.
#ifndef TARN_BASE_CLOCK_H
#define TARN_BASE_CLOCK_H

#include <cstdint>

namespace tarn {

uint64_t mono_us() noexcept; // CLOCK_MONOTONIC
uint64_t mono_ms() noexcept; // the same
int64_t  wall_s() noexcept;  // time()
uint64_t wall_ms() noexcept; // gettimeofday()
void     pause_ms(uint32_t ms) noexcept;

// now - then, never below zero: a clock that was read first may be the older one.
constexpr uint64_t elapsed(uint64_t now, uint64_t then) noexcept
{
    return now > then ? now - then : 0;
}

} // namespace tarn

#endif
