/*
 * agent_log.h - the process-wide logger and the two time helpers it offers.
 *
 * The module owns the log: its level, its file, and the flag that lets one line through at a time. Every module writes
 * through it, and a host may. It works from the moment the library is loaded, at level DEBUG on standard output.
 *
 *   threads   any, at once. A line that comes while another one is being written is lost, so that nobody ever waits for
 *             a line but its own. Not for signal handlers.
 *   locks     the flag and the file's own lock, both hidden; any lock may be held, but standard output may block, so
 *             none should be that others wait for
 *   memory    what is passed in is copied, except the path of the file, see file_path
 *   failures  of the log itself are never told: the file is closed, the console goes on
 *
 *     [2026-01-31 23:59:59.042] [INFO] text
 */
#ifndef TARN_LOG_AGENT_LOG_H
#define TARN_LOG_AGENT_LOG_H

#include <stddef.h>
#include <stdint.h>
#include "../base/export.h"
#include "../base/limits.h"
#include "../base/mutex_type.h"

TARN_API_BEGIN

/* Levels; a larger number is named UNKNOWN and always written. */
enum { AGENT_LOG_DEBUG = 0, AGENT_LOG_INFO = 1, AGENT_LOG_WARN = 2, AGENT_LOG_ERROR = 3, AGENT_LOG_FATAL = 4 };
/* Where lines go; bits. */
enum { AGENT_LOG_TO_CONSOLE = 1, AGENT_LOG_TO_FILE = 2 };

/* How to log. The caller's, and only read by agent_log_init. */
typedef struct {
    TARN_SHARED(uint32_t) level;  /* lowest AGENT_LOG_* that is written */
    TARN_SHARED(uint32_t) output; /* AGENT_LOG_TO_* bits; others are ignored */
    uint32_t    max_file_size;    /* bytes; a file that has as many is emptied. 0 = AGENT_LOG_MAX_FILE_SIZE */
    uint16_t    reserved_size; /* 1..AGENT_LOG_RESERVED_SIZE_MAX, else AGENT_LOG_RESERVED_SIZE; kept, without effect */
    const char *file_path;     /* null or empty = "tarn_flash.txt"; g_log_file_path goes on pointing to the text */
} agent_log_config_t;

/* ---------------------------------------------------------------------------------------------------------- globals
 * To be read; the functions below change them. */

/* The names of the levels. Constant. */
extern const char *g_log_level_str[AGENT_LOG_LEVELS];
/* What counts now; file_path is not used. level, output: any thread. The sizes: under the file's lock. */
extern agent_log_config_t g_log_config;
/* 1 = a line is being written, or logging is shut down. Atomic: any thread. */
extern volatile uint32_t g_log_in_use;
/* The path of agent_log_init; null before it. Under the file's lock. */
extern const char *g_log_file_path;
/* The FILE * that is open, or null. Under the file's lock. */
extern void *g_log_file;

/* ----------------------------------------------------------------------------------------------- life of the module */

/*
 * Makes the log write again, and takes over how. Called by the broker's init.
 *
 *   config    null only ends a shut-down, everything else stays; its record may go after the call. The path is copied,
 *             and yet g_log_file_path points to the caller's text: it should live as long as the log is used.
 *
 * With AGENT_LOG_TO_FILE the file is opened to append; when that fails the bit is taken out of g_log_config.output.
 */
void agent_log_init(const agent_log_config_t *config);

/*
 * Ends all logging until the next agent_log_init and closes the file. A line that is being written is finished.
 */
void agent_log_deinit(void);

/*
 * Sets the lowest level that is written, at once and for all threads.
 *
 *   level     0..4; a larger number changes nothing
 */
void agent_log_set_level(uint32_t level);

/* ------------------------------------------------------------------------------------------------------------ lines */

/*
 * Writes one line, if its level is not below the one set. The library's own code tests the level before it evaluates
 * arguments.
 *
 *   level     AGENT_LOG_*
 *   format    as printf's, without a line break; null writes nothing. 1022 characters of the text survive.
 *
 * Standard output is not flushed. The file gets the line only in the rare case that another thread cleared the flag
 * meanwhile; it is emptied first when it has reached its size.
 */
void agent_log(uint32_t level, const char *format, ...) __attribute__((format(printf, 2, 3)));

/*
 * Writes one line at INFO, of which 255 characters survive; else as agent_log.
 */
void agent_log_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));

/*
 * Writes bytes at DEBUG: a line with the title, then one for each 16 bytes, "00 1F ... " with a blank behind each.
 *
 *   title     null leaves that line out
 *   data      null writes nothing
 *   len       bytes; 0 writes nothing
 *
 * Each line may be lost on its own.
 */
void agent_log_hexdump(const char *title, const uint8_t *data, uint16_t len);

/* --------------------------------------------------------------------------------------------------------- the file */

/*
 * Empties the log file and opens it, also when lines do not go there. Before agent_log_init there is no file.
 *
 *   returns   0, also when it cannot be opened; then it is closed
 *             1, and nothing is done, while a line is being written or logging is shut down
 */
int32_t agent_log_clear_flash(void);

/*
 * The number of lines kept in memory: none are, so always 0.
 */
int32_t agent_log_get_count(void);

/* One line kept in memory: always 0, whatever is passed. */
#ifdef __cplusplus
int32_t agent_log_get_entry(...);
#else
int32_t agent_log_get_entry();
#endif

/* ------------------------------------------------------------------------------------------------------------- time
 * Both read the wall clock, take no lock and may be called at any time. */

/*
 * Writes the local time as "2026-01-31 23:59:59.042".
 *
 *   dst       null does nothing
 *   size      of dst in bytes; 25 take all of it, in less it is cut, and 0 or 1 write nothing
 */
void platform_get_localtime_str(char *dst, uint32_t size);

/*
 * Milliseconds since 1970 in 32 bits, which wrap after 49.7 days. Not monotonic: it follows the wall clock.
 */
uint32_t platform_get_tick_ms(void);

TARN_API_END

TARN_LAYOUT_SIZE(agent_log_config_t, 24);
TARN_LAYOUT_OFFSET(agent_log_config_t, file_path, 16);
TARN_LAYOUT_CHECK(sizeof(g_log_level_str) == 5 * sizeof(char *));

#endif
