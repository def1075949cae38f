#include "clock.h"

#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace tarn {
namespace {

constinit thread_local uint64_t t_packet_us = 0; // 0: none is handled

uint64_t us_of(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

// A tick of the system has passed since then, a few milliseconds at most: known without asking the hardware.
bool tick_is_behind(uint64_t then_us)
{
    return us_of(CLOCK_MONOTONIC_COARSE) > then_us;
}

} // namespace

uint64_t mono_us() noexcept
{
    return us_of(CLOCK_MONOTONIC);
}

uint64_t mono_ms() noexcept
{
    return mono_us() / 1000;
}

int64_t wall_s() noexcept
{
    return time(nullptr);
}

uint64_t wall_ms() noexcept
{
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

uint64_t packet_us() noexcept
{
    return t_packet_us != 0 ? t_packet_us : mono_us();
}

uint64_t packet_ms() noexcept
{
    return packet_us() / 1000;
}

void renew_packet_time() noexcept
{
    if (t_packet_us != 0 && tick_is_behind(t_packet_us))
        t_packet_us = mono_us();
}

PacketTime::PacketTime() noexcept : outer_us_(t_packet_us)
{
    t_packet_us = 0;
}

PacketTime::~PacketTime() noexcept
{
    t_packet_us = outer_us_;
}

uint64_t PacketTime::read() noexcept
{
    return t_packet_us = mono_us();
}

uint64_t PacketTime::next() noexcept
{
    if (sharing_ > 0 && !tick_is_behind(t_packet_us)) {
        --sharing_;
        return t_packet_us;
    }
    const uint64_t before_us = t_packet_us;
    sharing_                 = elapsed(read(), before_us) < kQuick_us ? kShare - 1 : 0;
    return t_packet_us;
}

void pause_ms(uint32_t ms) noexcept
{
    usleep(ms * 1000);
}

} // namespace tarn
