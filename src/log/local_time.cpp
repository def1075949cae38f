// local_time.cpp - the wall clock as text.
#include "log_internal.h"

#include "../base/clock.h"

#include <cstdio>
#include <time.h>

void tarn::log::write_local_time(char *dst, uint32_t size) noexcept
{
    const uint64_t now_ms = wall_ms();
    const time_t   now_s  = static_cast<time_t>(now_ms / 1000);
    tm             local{};
    localtime_r(&now_s, &local);
    // One byte less than the buffer has: a margin that callers see when they pass an exact size.
    snprintf(dst, size - 1, "%04d-%02d-%02d %02d:%02d:%02d.%03ld", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<long>(now_ms % 1000));
}
