/*
 * agent_log.h - the process-wide logger and the two time helpers it offers.
 */
#ifndef TARN_LOG_AGENT_LOG_H
#define TARN_LOG_AGENT_LOG_H

#include <stddef.h>
#include <stdint.h>
#include "../base/export.h"
#include "../base/limits.h"

TARN_API_BEGIN

enum { AGENT_LOG_DEBUG = 0, AGENT_LOG_INFO = 1, AGENT_LOG_WARN = 2, AGENT_LOG_ERROR = 3, AGENT_LOG_FATAL = 4 };
enum { AGENT_LOG_TO_CONSOLE = 1, AGENT_LOG_TO_FILE = 2 };

typedef struct {
    uint32_t    level;
    uint32_t    output;        /* AGENT_LOG_TO_* bits */
    uint32_t    max_file_size; /* bytes, 0 = default */
    uint16_t    reserved_size; /* 1..1024, else default */
    const char *file_path;     /* must outlive the logger; null or empty = "tarn_flash.txt" */
} agent_log_config_t;

extern const char        *g_log_level_str[5];
extern agent_log_config_t g_log_config; /* file_path unused here: see g_log_file_path */
extern volatile uint32_t  g_log_in_use; /* 1 = a line is being written, or logging is shut down */
extern const char        *g_log_file_path;
extern void              *g_log_file; /* FILE *, or null */

void    agent_log_init(const agent_log_config_t *config);
void    agent_log_deinit(void);
void    agent_log(uint32_t level, const char *format, ...) __attribute__((format(printf, 2, 3)));
void    agent_log_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));
void    agent_log_hexdump(const char *title, const uint8_t *data, uint16_t len);
void    agent_log_set_level(uint32_t level);
int32_t agent_log_clear_flash(void);
int32_t agent_log_get_count(void); /* always 0 */
#ifdef __cplusplus
int32_t agent_log_get_entry(...); /* always 0, whatever is passed */
#else
int32_t agent_log_get_entry();
#endif

void     platform_get_localtime_str(char *dst, uint32_t size);
uint32_t platform_get_tick_ms(void); /* wall clock, wraps after 49.7 days */

TARN_API_END

TARN_LAYOUT_SIZE(agent_log_config_t, 24);
TARN_LAYOUT_OFFSET(agent_log_config_t, file_path, 16);

#endif
