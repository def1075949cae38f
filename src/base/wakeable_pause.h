// wakeable_pause.h - a thread's pause that another thread can cut short.
#ifndef TARN_BASE_WAKEABLE_PAUSE_H
#define TARN_BASE_WAKEABLE_PAUSE_H

#include "mutex.h"
#include "relaxed.h"

#include <cstdint>
#include <ctime>

namespace tarn {

// Statically initialised like a Mutex.
class WakeablePause {
public:
    // Pauses for `ms` milliseconds, or until ring() finds `running` cleared. A template, so that a flag of either kind
    // is looked at itself and never a copy of it.
    template <class Flag> void pause_while(const Flag &running, uint32_t ms) noexcept
    {
        timespec until{};
        clock_gettime(CLOCK_MONOTONIC, &until);
        until.tv_sec += ms / 1000;
        until.tv_nsec += static_cast<long>(ms % 1000) * 1000000;
        if (until.tv_nsec >= 1000000000) {
            until.tv_nsec -= 1000000000;
            ++until.tv_sec;
        }
        ScopedLock lock(mutex_);
        while (peek(running))
            if (pthread_cond_clockwait(&woken_, &mutex_.raw, CLOCK_MONOTONIC, &until) != 0)
                return;
    }

    // To be called after the flag was cleared.
    void wake() noexcept
    {
        ScopedLock lock(mutex_);
        pthread_cond_broadcast(&woken_);
    }

private:
    Mutex          mutex_{};
    pthread_cond_t woken_ = PTHREAD_COND_INITIALIZER;
};

} // namespace tarn

#endif
