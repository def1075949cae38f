// log.h - the log for the other modules of the library: LOG_DEBUG() to LOG_FATAL() test the level before any argument is
// evaluated. Hosts have the same as agent_log.h: log_c.cpp turns away null pointers and calls this.
#ifndef TARN_LOG_LOG_H
#define TARN_LOG_LOG_H

#include "../base/relaxed.h"
#include "agent_log.h"

#include <span>

namespace tarn {

// True when a line of this level would pass the filter. Code with a cheap and a traced path asks this once a call.
[[nodiscard]] inline bool log_passes(uint32_t level) noexcept
{
    return g_log_config.level <= level;
}

} // namespace tarn

namespace tarn::log {

void init(const agent_log_config_t *config) noexcept; // null only ends a shut-down
void deinit() noexcept;
void set_level(uint32_t level) noexcept; // a larger number than AGENT_LOG_FATAL changes nothing

// What stands behind the macros.
void write(uint32_t level, const char *format, ...) noexcept __attribute__((format(printf, 2, 3)));
void write_bytes(const char *title, std::span<const uint8_t> bytes) noexcept; // at DEBUG; either may be null

} // namespace tarn::log

#define TARN_LOG(level, ...)                                                                                           \
    do {                                                                                                               \
        if (::tarn::log_passes(level))                                                                                 \
            ::tarn::log::write(level, __VA_ARGS__);                                                                    \
    } while (0)

#define LOG_DEBUG(...) TARN_LOG(AGENT_LOG_DEBUG, __VA_ARGS__)
#define LOG_INFO(...) TARN_LOG(AGENT_LOG_INFO, __VA_ARGS__)
#define LOG_WARN(...) TARN_LOG(AGENT_LOG_WARN, __VA_ARGS__)
#define LOG_ERROR(...) TARN_LOG(AGENT_LOG_ERROR, __VA_ARGS__)
#define LOG_FATAL(...) TARN_LOG(AGENT_LOG_FATAL, __VA_ARGS__)

// A raw packet, below its title, at DEBUG.
#define LOG_HEXDUMP(title, data, length)                                                                               \
    do {                                                                                                               \
        if (::tarn::log_passes(AGENT_LOG_DEBUG))                                                                       \
            ::tarn::log::write_bytes(title, {data, static_cast<uint16_t>(length)});                                    \
    } while (0)

#endif
