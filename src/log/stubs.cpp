#pragma GCC diagnostic ignored "-Wunused-parameter"
// Weak stand-ins that let the whole library link while the modules are being written.
#include "agent_log.h"
extern "C" {
__attribute__((weak)) const char *g_log_level_str[5];
__attribute__((weak)) agent_log_config_t g_log_config;
__attribute__((weak)) volatile uint32_t g_log_in_use;
__attribute__((weak)) const char *g_log_file_path;
__attribute__((weak)) void *g_log_file;
__attribute__((weak)) void agent_log_init(const agent_log_config_t *config) {}
__attribute__((weak)) void agent_log_deinit(void) {}
__attribute__((weak)) void agent_log(uint32_t level, const char *format, ...)  {}
__attribute__((weak)) void agent_log_printf(const char *format, ...)  {}
__attribute__((weak)) void agent_log_hexdump(const char *title, const uint8_t *data, uint16_t len) {}
__attribute__((weak)) void agent_log_set_level(uint32_t level) {}
__attribute__((weak)) int32_t agent_log_clear_flash(void) { return {}; }
__attribute__((weak)) int32_t agent_log_get_count(void) { return {}; }
__attribute__((weak)) int32_t agent_log_get_entry(...) { return {}; }
__attribute__((weak)) void platform_get_localtime_str(char *dst, uint32_t size) {}
__attribute__((weak)) uint32_t platform_get_tick_ms(void) { return {}; }
}
