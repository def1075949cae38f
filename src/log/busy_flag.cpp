// busy_flag.cpp - see busy_flag.h.
#include "busy_flag.h"

constinit volatile uint32_t g_log_in_use = 0;

namespace tarn::log {
namespace {

// Set from deinit to the next init: what a thread that finishes its line leaves in the busy flag.
constinit std::atomic<uint32_t> g_shut_down{0};

} // namespace

void set_shut_down(uint32_t down) noexcept
{
    g_shut_down.store(down);
    busy().store(down);
}

uint32_t take_busy_flag() noexcept
{
    uint32_t free = 0;
    return busy().compare_exchange_strong(free, 1) ? 0 : free;
}

void free_busy_flag() noexcept
{
    uint32_t down;
    do { // again if deinit or init came between: their value is the one to stay
        down = g_shut_down.load();
        busy().store(down);
    } while (g_shut_down.load() != down);
}

} // namespace tarn::log
