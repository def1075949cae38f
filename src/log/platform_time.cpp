// platform_time.cpp - the wall clock as text and as a 32-bit tick.
#include "agent_log.h"

#include "../base/clock.h"

#include <cstdio>
#include <time.h>

extern "C" void platform_get_localtime_str(char *dst, uint32_t size)
{
    if (!dst || size == 0)
        return;
    const uint64_t now_ms = tarn::wall_ms();
    const time_t   now_s  = static_cast<time_t>(now_ms / 1000);
    tm             local{};
    localtime_r(&now_s, &local);
    // One byte less than the buffer has: a margin that callers see when they pass an exact size.
    snprintf(dst, size - 1, "%04d-%02d-%02d %02d:%02d:%02d.%03ld", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<long>(now_ms % 1000));
}

extern "C" uint32_t platform_get_tick_ms(void)
{
    return static_cast<uint32_t>(tarn::wall_ms());
}
