// timing.h - how long tests wait, and waiting for a condition instead of sleeping.
#ifndef TARN_TESTS_TIMING_H
#define TARN_TESTS_TIMING_H

#include <chrono>
#include <concepts>
#include <thread>

namespace tarn::test {

// Sanitizers slow everything down; limits grow with them, so that a limit hit means a fault and not a slow machine.
#ifdef TARN_SANITIZED
inline constexpr bool kSanitized = true;
inline constexpr int  kSlowdown  = 6;
#else
inline constexpr bool kSanitized = false;
inline constexpr int  kSlowdown  = 1;
#endif

inline constexpr int kLimit_ms = 4000 * kSlowdown; // for anything that must happen
inline constexpr int kQuiet_ms = 200;              // for anything that must not

inline void pause_ms(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

inline double now_s()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// True as soon as the condition holds, false when it does not within the limit.
bool wait_until(std::predicate auto condition, int limit_ms = kLimit_ms)
{
    const double end_s = now_s() + limit_ms / 1000.0;
    while (!condition()) {
        if (now_s() > end_s)
            return false;
        pause_ms(2);
    }
    return true;
}

// The same for what threads of this process do, however busy the machine is.
bool eventually(std::predicate auto condition)
{
    return wait_until(condition, 20'000 * kSlowdown);
}

} // namespace tarn::test

#endif
