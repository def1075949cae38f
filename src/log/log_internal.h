// log_internal.h - what the files of the logger share: level names, the busy flag and the file sink.
#ifndef TARN_LOG_LOG_INTERNAL_H
#define TARN_LOG_LOG_INTERNAL_H

#include "agent_log.h"

#include <atomic>

namespace tarn::log {

constexpr size_t kMessageSize = AGENT_LOG_MESSAGE_CHARS + 2; // in a file a line break and a terminator follow
constexpr size_t kStampSize   = 64;

inline const char *name_of(uint32_t level) noexcept
{
    return level < AGENT_LOG_LEVELS ? g_log_level_str[level] : "UNKNOWN";
}

// The busy flag as an atomic. Sequentially consistent, because it and the shut-down mark are checked against each
// other by threads that each write one and read the other.
inline std::atomic_ref<uint32_t> busy() noexcept
{
    return std::atomic_ref<uint32_t>(const_cast<uint32_t &>(g_log_in_use));
}

// Takes the flag if it is free. Otherwise the value that stands in the way.
[[nodiscard]] uint32_t enter() noexcept;
// Frees the flag, unless logging was shut down meanwhile: then it stays taken.
void leave() noexcept;

// Takes over size limit and path and, if asked, opens the file for appending. False when it was asked and failed.
[[nodiscard]] bool configure_file(const agent_log_config_t &config, bool wanted) noexcept;
void               close_file() noexcept;
void               write_to_file(uint32_t level, const char *message) noexcept;

} // namespace tarn::log

#endif
