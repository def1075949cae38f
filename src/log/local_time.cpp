// local_time.cpp - the wall clock as text.
//
// Most of it is the same for a whole second. A warning for each packet of a busy client would otherwise spend more time
// on its date than on its words.
#include "log_internal.h"

#include "../base/clock.h"

#include <algorithm>
#include <cstring>
#include <time.h>

namespace tarn::log {
namespace {

constexpr size_t kSecondChars = sizeof "2026-01-02 03:04:05" - 1;
constexpr size_t kStampChars  = kSecondChars + sizeof ".678" - 1;

struct SecondText {
    time_t second;
    long   zone; // a host may change it
    char   text[kSecondChars];
};
constinit thread_local SecondText t_last{.second = -1, .zone = 0, .text = {}};

char *put_digits(char *at, int value, int digits) noexcept
{
    for (int i = digits - 1; i >= 0; --i, value /= 10)
        at[i] = static_cast<char>('0' + value % 10);
    return at + digits;
}

void put_second(time_t second, char *at) noexcept
{
    tm local{};
    localtime_r(&second, &local);
    at    = put_digits(at, local.tm_year + 1900, 4);
    *at++ = '-';
    at    = put_digits(at, local.tm_mon + 1, 2);
    *at++ = '-';
    at    = put_digits(at, local.tm_mday, 2);
    *at++ = ' ';
    at    = put_digits(at, local.tm_hour, 2);
    *at++ = ':';
    at    = put_digits(at, local.tm_min, 2);
    *at++ = ':';
    put_digits(at, local.tm_sec, 2);
}

const char *text_of(time_t second) noexcept
{
    SecondText &last = t_last;
    const long  zone = __atomic_load_n(&timezone, __ATOMIC_RELAXED); // another thread's localtime_r() writes it
    if (last.second != second || last.zone != zone) {
        put_second(second, last.text);
        last.second = second;
        last.zone   = zone;
    }
    return last.text;
}

// As snprintf does it with one byte less than the buffer has: a margin that callers see when they pass an exact size.
void copy_cut(const char *text, size_t length, char *dst, uint32_t size) noexcept
{
    const uint32_t room = size - 1;
    if (room == 0)
        return;
    const size_t kept = std::min<size_t>(length, room - 1);
    memcpy(dst, text, kept);
    dst[kept] = '\0';
}

} // namespace

void write_local_time(char *dst, uint32_t size) noexcept
{
    const uint64_t now_ms = wall_ms();
    char           stamp[kStampChars];
    memcpy(stamp, text_of(static_cast<time_t>(now_ms / 1000)), kSecondChars);
    stamp[kSecondChars] = '.';
    put_digits(stamp + kSecondChars + 1, static_cast<int>(now_ms % 1000), 3);
    copy_cut(stamp, sizeof stamp, dst, size);
}

} // namespace tarn::log
