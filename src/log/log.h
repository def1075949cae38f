// log.h - how the library writes its own lines: the level is tested before any argument is evaluated.
#ifndef TARN_LOG_LOG_H
#define TARN_LOG_LOG_H

#include "../base/relaxed.h"
#include "agent_log.h"

namespace tarn {

// True when a line of this level would pass the filter. Code with a cheap and a traced path asks this once a call.
[[nodiscard]] inline bool log_passes(uint32_t level) noexcept
{
    return g_log_config.level <= level;
}

} // namespace tarn

#define TARN_LOG(level, ...)                                                                                           \
    do {                                                                                                               \
        if (::tarn::log_passes(level))                                                                                 \
            agent_log(level, __VA_ARGS__);                                                                             \
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
            agent_log_hexdump(title, data, static_cast<uint16_t>(length));                                             \
    } while (0)

#endif
