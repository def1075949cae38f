// busy_flag.h - the flag that lets one line through at a time, and keeps all out while logging is shut down.
#ifndef TARN_LOG_BUSY_FLAG_H
#define TARN_LOG_BUSY_FLAG_H

#include "agent_log.h"

#include <atomic>

namespace tarn::log {

// The flag as an atomic. Sequentially consistent, because it and the shut-down mark are checked against each other by
// threads that each write one and read the other.
inline std::atomic_ref<uint32_t> busy() noexcept
{
    return std::atomic_ref<uint32_t>(const_cast<uint32_t &>(g_log_in_use));
}

// Takes the flag if it is free. Otherwise the value that stands in the way.
[[nodiscard]] uint32_t take_busy_flag() noexcept;
// Frees the flag, unless logging was shut down meanwhile: then it stays taken.
void free_busy_flag() noexcept;

void set_shut_down(uint32_t down) noexcept;

} // namespace tarn::log

#endif
