// agent_log.cpp - levelled lines to the console and to a file.
//
// Logging must never block a network or timer thread: there is one busy flag, and a line offered while another is
// being written is dropped. The console is the dependable sink; see write_to_file() for why the file rarely is.
#include "log.h"
#include "log_internal.h"

#include <cstdarg>
#include <cstdio>

constinit const char *g_log_level_str[AGENT_LOG_LEVELS] = {"DEBUG", "INFO", "WARN", "ERROR", "FATAL"};

constinit agent_log_config_t g_log_config = {
    .level         = AGENT_LOG_DEBUG,
    .output        = AGENT_LOG_TO_CONSOLE,
    .max_file_size = AGENT_LOG_MAX_FILE_SIZE,
    .reserved_size = AGENT_LOG_RESERVED_SIZE,
    .file_path     = nullptr,
};

constinit volatile uint32_t g_log_in_use = 0;

namespace tarn::log {
namespace {

// Set from deinit to the next init: what a thread that finishes its line leaves in the busy flag.
constinit std::atomic<uint32_t> g_shut_down{0};

void set_shut_down(uint32_t down) noexcept
{
    g_shut_down.store(down);
    busy().store(down);
}

// In one piece, whatever the C library makes of a printf: a host that reads it can tell the end of a line from a newline
// that a client chose.
void print_line(uint32_t level, const char *message) noexcept
{
    char stamp[kStampSize];
    char line[kStampSize + kMessageSize + 16]; // and the level with its brackets
    platform_get_localtime_str(stamp, sizeof stamp);
    const int length = snprintf(line, sizeof line, "[%s] [%s] %s\n", stamp, name_of(level), message);
    flockfile(stdout);
    (void)fwrite_unlocked(line, 1, static_cast<size_t>(length), stdout);
    funlockfile(stdout);
}

} // namespace

uint32_t enter() noexcept
{
    uint32_t free = 0;
    return busy().compare_exchange_strong(free, 1) ? 0 : free;
}

void leave() noexcept
{
    uint32_t down;
    do { // again if deinit or init came between: their value is the one to stay
        down = g_shut_down.load();
        busy().store(down);
    } while (g_shut_down.load() != down);
}

} // namespace tarn::log

using namespace tarn;

extern "C" void agent_log_init(const agent_log_config_t *config)
{
    log::set_shut_down(0);
    if (!config)
        return;

    const bool to_file  = (config->output & AGENT_LOG_TO_FILE) != 0;
    g_log_config.level  = uint32_t{config->level};
    g_log_config.output = uint32_t{config->output};
    if (!log::configure_file(*config, to_file))
        g_log_config.output = config->output & ~uint32_t{AGENT_LOG_TO_FILE};
}

extern "C" void agent_log_deinit(void)
{
    log::set_shut_down(1);
    log::close_file();
}

extern "C" void agent_log(uint32_t level, const char *format, ...)
{
    if (!format || !log_passes(level) || log::enter() != 0)
        return;

    char    message[log::kMessageSize] = "";
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof message - 1, format, arguments);
    va_end(arguments);

    const uint32_t output = g_log_config.output;
    if (output & AGENT_LOG_TO_CONSOLE)
        log::print_line(level, message);
    if (output & AGENT_LOG_TO_FILE)
        log::write_to_file(level, message);
    log::leave();
}

extern "C" void agent_log_printf(const char *format, ...)
{
    if (!format || !log_passes(AGENT_LOG_INFO))
        return;

    char    text[AGENT_LOG_PRINTF_CHARS + 1] = "";
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    agent_log(AGENT_LOG_INFO, "%s", text);
}

extern "C" void agent_log_set_level(uint32_t level)
{
    if (level <= AGENT_LOG_FATAL)
        g_log_config.level = level;
}

// No lines are kept in memory; both exist for hosts that ask.
extern "C" int32_t agent_log_get_count(void)
{
    return 0;
}

extern "C" int32_t agent_log_get_entry(...)
{
    return 0;
}
