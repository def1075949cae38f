// log_file.cpp - the file sink: opened by init, started afresh when it is full, closed by whatever fails.
#include "busy_flag.h"
#include "log_internal.h"

#include "../base/mutex.h"
#include "../base/text.h"

#include <climits>
#include <cstdio>
#include <cstring>

constinit const char *g_log_file_path = nullptr;
constinit void       *g_log_file      = nullptr;

namespace tarn::log {
namespace {

constexpr size_t kFileBufferBytes = 4096;
constexpr size_t kFileLineChars   = AGENT_LOG_MESSAGE_CHARS; // with time and level, without the line break

// Guards the stream, its path and its size limit. A writer that finds it taken drops its line.
constinit Mutex g_file_mutex{PTHREAD_MUTEX_INITIALIZER};

// The path as it read when init got it: the caller's string may be gone when the file is opened anew. One character
// more than any path has, so that a path that is too long stays too long.
char        g_path_copy[PATH_MAX + 1];
const char *g_path_copied_from = nullptr;

FILE *stream() noexcept REQUIRES(g_file_mutex)
{
    return static_cast<FILE *>(g_log_file);
}

void close_stream() noexcept REQUIRES(g_file_mutex)
{
    if (stream())
        fclose(stream());
    g_log_file = nullptr;
}

void remember_path(const char *path) noexcept REQUIRES(g_file_mutex)
{
    g_log_file_path    = path && *path ? path : "tarn_flash.txt";
    g_path_copied_from = g_log_file_path;
    copy_text(g_path_copy, g_log_file_path, PATH_MAX);
}

// Opens the path anew, whatever was open before. Returns what giving the stream its buffer returned, 0 if nothing
// could be opened.
int reopen(const char *mode) noexcept REQUIRES(g_file_mutex)
{
    close_stream();
    const char *path = g_log_file_path == g_path_copied_from ? g_path_copy : g_log_file_path;
    FILE       *file = fopen(path, mode);
    if (!file)
        return 0;
    g_log_file = file;
    return setvbuf(file, nullptr, _IOFBF, kFileBufferBytes);
}

// Leaves the stream at its end, and the file below its limit. False when there is no file to write to any more.
bool seek_to_end() noexcept REQUIRES(g_file_mutex)
{
    const long position = fseek(stream(), 0, SEEK_END) == 0 ? ftell(stream()) : -1;
    if (position < 0) {
        close_stream();
        return false;
    }
    if (g_log_config.max_file_size <= static_cast<uint32_t>(position))
        (void)reopen("we"); // truncates: there is no backup
    return stream() != nullptr;
}

void put_line(uint32_t level, const char *message) noexcept REQUIRES(g_file_mutex)
{
    char stamp[kStampSize];
    write_local_time(stamp, sizeof stamp);

    char line[kMessageSize];
    snprintf(line, kFileLineChars, "[%s] [%s] ", stamp, name_of(level));
    const size_t prefix = strlen(line);
    copy_text(line + prefix, message, kFileLineChars - prefix);
    strcat(line, "\n");
    fputs(line, stream());
    fflush(stream());
}

} // namespace

bool configure_file(const agent_log_config_t &config, bool wanted) noexcept
{
    ScopedLock lock(g_file_mutex);
    g_log_config.max_file_size = config.max_file_size ? config.max_file_size : uint32_t{AGENT_LOG_MAX_FILE_SIZE};
    g_log_config.reserved_size = config.reserved_size >= 1 && config.reserved_size <= AGENT_LOG_RESERVED_SIZE_MAX
                                     ? config.reserved_size
                                     : uint16_t{AGENT_LOG_RESERVED_SIZE};
    remember_path(config.file_path);
    close_stream();
    if (!wanted)
        return true;
    (void)reopen("ae");
    return stream() != nullptr;
}

void close_file() noexcept
{
    ScopedLock lock(g_file_mutex);
    close_stream();
}

// The caller holds the busy flag, and this writer gives up while the flag is held: so a line reaches the file only
// when another thread cleared the flag in the meantime. The order is meant as it is.
void write_to_file(uint32_t level, const char *message) noexcept
{
    if (busy().load() != 0 || !g_file_mutex.try_lock())
        return;
    if (stream()) {
        busy().store(1);
        if (seek_to_end())
            put_line(level, message);
    }
    g_file_mutex.unlock();
}

uint32_t clear_file() noexcept
{
    if (const uint32_t taken = take_busy_flag())
        return taken;

    uint32_t result = 0;
    {
        ScopedLock lock(g_file_mutex);
        if (g_log_file_path)
            result = static_cast<uint32_t>(reopen("we"));
        else
            close_stream();
    }
    free_busy_flag();
    return result;
}

} // namespace tarn::log
