// memory_files.cpp - see memory_files.h.
#include "memory_files.h"

#include "persist/persist.h"
#include "promise.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <string>
#include <sys/stat.h>

namespace tarn::fuzz {
namespace {

struct File {
    std::string bytes;
    ino_t       number  = 0; // another whenever it is written, which tells it from what it was
    int         streams = 0; // open ones
};

std::map<std::string, File, std::less<>> g_files;

// Used again and again: allocating the buffer would be most of what opening costs.
struct Stream {
    File  *file; // null while it is closed
    size_t read;
    char   buffer[4096];
};

constexpr size_t kStreams = 128; // the library opens the files of a batch together
Stream           g_streams[kStreams];

bool is_in_memory(const char *path)
{
    return std::string_view(path).starts_with(kRoot);
}

std::string_view name_of(const char *path)
{
    return std::string_view(path).substr(kRoot.size());
}

File *find(std::string_view name)
{
    const auto found = g_files.find(name);
    return found == g_files.end() ? nullptr : &found->second;
}

int no_such_file()
{
    errno = ENOENT;
    return -1;
}

File &make_empty(std::string_view name)
{
    static ino_t number = 0;
    File *const  known  = find(name);
    File        &file   = known ? *known : g_files[std::string(name)];
    PROMISE(file.streams == 0);
    file.bytes.clear();
    file.number = ++number;
    return file;
}

// ---- what an open stream calls

ssize_t read_some(void *cookie, char *to, size_t room)
{
    auto        &stream = *static_cast<Stream *>(cookie);
    const size_t count  = stream.file->bytes.copy(to, room, stream.read);
    stream.read += count;
    return static_cast<ssize_t>(count);
}
ssize_t write_some(void *cookie, const char *from, size_t count)
{
    static_cast<Stream *>(cookie)->file->bytes.append(from, count);
    return static_cast<ssize_t>(count);
}
int close_stream(void *cookie)
{
    auto &stream = *static_cast<Stream *>(cookie);
    --stream.file->streams;
    stream.file = nullptr;
    return 0;
}

FILE *open_stream(File &file, const char *mode)
{
    auto *const stream = std::ranges::find(g_streams, nullptr, &Stream::file);
    PROMISE(stream != std::end(g_streams));
    FILE *const opened = fopencookie(stream, mode, {read_some, write_some, nullptr, close_stream});
    PROMISE(opened && setvbuf(opened, stream->buffer, _IOFBF, sizeof stream->buffer) == 0);
    stream->file = &file;
    stream->read = 0;
    ++file.streams;
    return opened;
}

} // namespace

void enter_data_directory()
{
    memcpy(g_persist_root_path, kRoot.data(), kRoot.size() - 1);
    g_persist_root_path[kRoot.size() - 1] = '\0';
}

void write_file(std::string_view name, const uint8_t *data, size_t size)
{
    make_empty(name).bytes.assign(reinterpret_cast<const char *>(data), size);
}

size_t size_of(std::string_view name)
{
    const File *const file = find(name);
    return file ? file->bytes.size() : 0;
}

void remove_files()
{
    for (const auto &[name, file] : g_files)
        PROMISE(file.streams == 0);
    g_files.clear();
}

} // namespace tarn::fuzz

// ---- the library's calls

using namespace tarn::fuzz;

extern "C" {

FILE *__real_fopen(const char *path, const char *mode);
int   __real_stat(const char *path, struct stat *status);
int   __real_rename(const char *from, const char *to);
int   __real_unlink(const char *path);

FILE *__wrap_fopen(const char *path, const char *mode)
{
    if (!is_in_memory(path))
        return __real_fopen(path, mode);
    if (mode[0] == 'w')
        return open_stream(make_empty(name_of(path)), mode);
    File *const file = find(name_of(path));
    if (!file)
        no_such_file();
    return file ? open_stream(*file, mode) : nullptr;
}

int __wrap_stat(const char *path, struct stat *status)
{
    if (!is_in_memory(path))
        return __real_stat(path, status);
    const File *const file = find(name_of(path));
    if (!file)
        return no_such_file();
    *status         = {};
    status->st_mode = S_IFREG | 0600;
    status->st_ino  = file->number;
    status->st_size = static_cast<off_t>(file->bytes.size());
    return 0;
}

int __wrap_rename(const char *from, const char *to)
{
    if (!is_in_memory(from))
        return __real_rename(from, to);
    auto node = g_files.extract(std::string(name_of(from)));
    if (node.empty())
        return no_such_file();
    PROMISE(is_in_memory(to) && node.mapped().streams == 0);
    node.key() = name_of(to);
    g_files.erase(node.key());
    g_files.insert(std::move(node));
    return 0;
}

int __wrap_unlink(const char *path)
{
    if (!is_in_memory(path))
        return __real_unlink(path);
    const auto found = g_files.find(name_of(path));
    if (found == g_files.end())
        return no_such_file();
    PROMISE(found->second.streams == 0);
    g_files.erase(found);
    return 0;
}

int __wrap_fsync(int)
{
    return 0;
}

} // extern "C"
