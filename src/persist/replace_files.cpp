// replace_files.cpp - see replace_files.h.
#include "replace_files.h"

#include "../base/clock.h"
#include "../log/log.h"
#include "known_files.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace tarn::persist {
namespace {

constexpr int      kAttempts      = 3;
constexpr uint32_t kRetryPause_ms = 10;

using TemporaryName = char[sizeof Path::text + sizeof ".tmp"];

void name_temporarily(const NewFile &file, TemporaryName &name)
{
    snprintf(name, sizeof name, "%s.tmp", file.path.text);
}

void write_text(NewFile &file)
{
    TemporaryName name;
    name_temporarily(file, name);
    file.stream  = open_stream(name, "we");
    file.written = file.stream && fputs(file.text, file.stream) >= 0;
    if (file.stream)
        file.written = fflush(file.stream) == 0 && file.written;
}

void sync_and_close(NewFile &file)
{
    if (!file.stream)
        return;
    file.written = fsync(fileno(file.stream)) == 0 && file.written;
    file.written = fclose(file.stream) == 0 && file.written;
    file.stream  = nullptr;
}

bool waits(const NewFile &file)
{
    return file.text && file.path.usable && !file.written;
}

bool lacks_descriptors(const NewFile &file)
{
    return !file.stream && (errno == EMFILE || errno == ENFILE);
}

// False when none was open.
bool close_all(std::span<NewFile> files)
{
    bool any = false;
    for (NewFile &file : files) {
        any = any || file.stream;
        sync_and_close(file);
    }
    return any;
}

// One attempt for those that are not written yet; false when one is left. Where descriptors run out, those before it are
// closed first.
bool write_all(std::span<NewFile> files)
{
    for (size_t i = 0; i < files.size(); ++i) {
        if (!waits(files[i]))
            continue;
        write_text(files[i]);
        if (lacks_descriptors(files[i]) && close_all(files.first(i)))
            write_text(files[i]);
    }
    close_all(files);
    return std::ranges::none_of(files, waits);
}

void give_up_writing(const NewFile &file)
{
    TemporaryName name;
    name_temporarily(file, name);
    if (file.path.usable)
        unlink(name);
    LOG_ERROR("[persist] 写入临时文件失败(重试%d次): %s", kAttempts, name);
}

// Replaces the target in one step. It is deleted first only where the file system cannot replace: after any other
// failure that could lose the old text for nothing.
bool put_in_place(const char *temporary, const char *target)
{
    for (int attempt = 1; attempt <= kAttempts; ++attempt) {
        if (rename(temporary, target) == 0)
            return true;
        if (errno == EEXIST)
            unlink(target);
        if (attempt < kAttempts)
            pause_ms(kRetryPause_ms);
    }
    return false;
}

void replace_written(NewFile &file)
{
    TemporaryName name;
    name_temporarily(file, name);
    file.replaced = put_in_place(name, file.path.text);
    if (file.replaced)
        return;
    LOG_ERROR("[persist] 重命名失败: %s", file.path.text);
    unlink(name);
}

void remove(NewFile &file)
{
    if (file.path.usable)
        unlink(file.path.text);
    file.replaced = true;
}

} // namespace

FILE *open_stream(const char *path, const char *mode) noexcept
{
    struct stat status;
    if (stat(path, &status) == 0 && S_ISFIFO(status.st_mode)) {
        errno = ENOENT;
        return nullptr;
    }
    return fopen(path, mode);
}

void replace_files(std::span<NewFile> files) noexcept
{
    for (int attempt = 1; !write_all(files) && attempt < kAttempts; ++attempt)
        pause_ms(kRetryPause_ms);
    for (NewFile &file : files) {
        if (!file.text)
            remove(file);
        else if (file.written)
            replace_written(file);
        else
            give_up_writing(file);
    }
    note_told_changes();
}

} // namespace tarn::persist
