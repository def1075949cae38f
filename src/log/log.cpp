// log.cpp - levelled lines to the console and to a file.
//
// Logging must never block a network or timer thread: there is one busy flag, and a line offered while another is
// being written is dropped. The console is the dependable sink; see write_to_file() for why the file rarely is.
#include "busy_flag.h"
#include "log_internal.h"

#include <cstdio>
#include <cstring>

constinit const char *g_log_level_str[AGENT_LOG_LEVELS] = {"DEBUG", "INFO", "WARN", "ERROR", "FATAL"};

constinit agent_log_config_t g_log_config = {
    .level         = AGENT_LOG_DEBUG,
    .output        = AGENT_LOG_TO_CONSOLE,
    .max_file_size = AGENT_LOG_MAX_FILE_SIZE,
    .reserved_size = AGENT_LOG_RESERVED_SIZE,
    .file_path     = nullptr,
};

namespace tarn::log {
namespace {

// In one piece, whatever the C library makes of a printf: a host that reads it can tell the end of a line from a newline
// that a client chose.
void print_line(uint32_t level, const char *message) noexcept
{
    char stamp[kStampSize];
    char line[kStampSize + kMessageSize + 16]; // and the level with its brackets
    write_local_time(stamp, sizeof stamp);
    size_t length = 0;
    for (const char *const part : {"[", static_cast<const char *>(stamp), "] [", name_of(level), "] ", message, "\n"}) {
        const size_t chars = strnlen(part, sizeof line - length);
        memcpy(line + length, part, chars);
        length += chars;
    }
    flockfile(stdout);
    (void)fwrite_unlocked(line, 1, length, stdout);
    funlockfile(stdout);
}

} // namespace

void init(const agent_log_config_t *config) noexcept
{
    set_shut_down(0);
    if (!config)
        return;

    const bool to_file  = (config->output & AGENT_LOG_TO_FILE) != 0;
    g_log_config.level  = uint32_t{config->level};
    g_log_config.output = uint32_t{config->output};
    if (!configure_file(*config, to_file))
        g_log_config.output = config->output & ~uint32_t{AGENT_LOG_TO_FILE};
}

void deinit() noexcept
{
    set_shut_down(1);
    close_file();
}

void set_level(uint32_t level) noexcept
{
    if (level <= AGENT_LOG_FATAL)
        g_log_config.level = level;
}

void write_list(uint32_t level, const char *format, va_list arguments) noexcept
{
    if (!log_passes(level) || take_busy_flag() != 0)
        return;

    char message[kMessageSize] = "";
    vsnprintf(message, sizeof message - 1, format, arguments);

    const uint32_t output = g_log_config.output;
    if (output & AGENT_LOG_TO_CONSOLE)
        print_line(level, message);
    if (output & AGENT_LOG_TO_FILE)
        write_to_file(level, message);
    free_busy_flag();
}

void write(uint32_t level, const char *format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    write_list(level, format, arguments);
    va_end(arguments);
}

} // namespace tarn::log
