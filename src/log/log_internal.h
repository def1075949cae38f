// log_internal.h - what the files of the logger share: level names, the time of a line and the file sink.
#ifndef TARN_LOG_LOG_INTERNAL_H
#define TARN_LOG_LOG_INTERNAL_H

#include "log.h"

#include <cstdarg>
#include <cstddef>

namespace tarn::log {

constexpr size_t kMessageSize = AGENT_LOG_MESSAGE_CHARS + 2; // in a file a line break and a terminator follow
constexpr size_t kStampSize   = 64;

inline const char *name_of(uint32_t level) noexcept
{
    return level < AGENT_LOG_LEVELS ? g_log_level_str[level] : "UNKNOWN";
}

// A line from its arguments, and nothing else of write(); hosts bring theirs as such a list.
void write_list(uint32_t level, const char *format, va_list arguments) noexcept;

void write_local_time(char *dst, uint32_t size) noexcept; // see platform_get_localtime_str

// ---- the file

// Takes over size limit and path and, if asked, opens the file for appending. False when it was asked and failed.
[[nodiscard]] bool configure_file(const agent_log_config_t &config, bool wanted) noexcept;
void               close_file() noexcept;
void               write_to_file(uint32_t level, const char *message) noexcept;
uint32_t           clear_file() noexcept; // see agent_log_clear_flash

} // namespace tarn::log

#endif
