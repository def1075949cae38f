// log_c.cpp - agent_log.h: what hosts call. Null pointers end here; everything else is log.h's.
#include "log_internal.h"

#include "../base/clock.h"

#include <cstdio>

using namespace tarn;

void agent_log_init(const agent_log_config_t *config)
{
    log::init(config);
}

void agent_log_deinit(void)
{
    log::deinit();
}

void agent_log_set_level(uint32_t level)
{
    log::set_level(level);
}

void agent_log(uint32_t level, const char *format, ...)
{
    if (!format)
        return;
    va_list arguments;
    va_start(arguments, format);
    log::write_list(level, format, arguments);
    va_end(arguments);
}

void agent_log_printf(const char *format, ...)
{
    if (!format || !log_passes(AGENT_LOG_INFO))
        return;
    char    text[AGENT_LOG_PRINTF_CHARS + 1] = "";
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    log::write(AGENT_LOG_INFO, "%s", text);
}

void agent_log_hexdump(const char *title, const uint8_t *data, uint16_t len)
{
    log::write_bytes(title, {data, len});
}

int32_t agent_log_clear_flash(void)
{
    return static_cast<int32_t>(log::clear_file());
}

// No lines are kept in memory; both exist for hosts that ask.
int32_t agent_log_get_count(void)
{
    return 0;
}

int32_t agent_log_get_entry(...)
{
    return 0;
}

void platform_get_localtime_str(char *dst, uint32_t size)
{
    if (dst && size != 0)
        log::write_local_time(dst, size);
}

uint32_t platform_get_tick_ms(void)
{
    return static_cast<uint32_t>(wall_ms());
}
