// crash_disk.cpp - see crash_disk.h.
#include "crash_disk.h"

#include "promise.h"
#include "standard/journal/disk.h"

#include <cerrno>
#include <filesystem>
#include <fcntl.h>
#include <unistd.h>

using namespace tarn;
namespace files = std::filesystem;

namespace {

bool g_is_full = false;

class CrashDisk final : public standard::Disk {
public:
    Fd open(int directory, const char *name, int flags) noexcept override
    {
        if (flags & O_CREAT && is_full())
            return {};
        return Fd(openat(directory, name, flags | O_CLOEXEC, 0600));
    }
    ssize_t read(int file, std::span<uint8_t> to, uint64_t offset) noexcept override
    {
        return pread(file, to.data(), to.size(), static_cast<off_t>(offset));
    }
    ssize_t write(int file, std::span<const uint8_t> bytes, uint64_t offset) noexcept override
    {
        return is_full() ? -1 : pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    }
    bool sync(int /*file*/) noexcept override { return !is_full(); }
    bool truncate(int file, uint64_t size) noexcept override { return ftruncate(file, static_cast<off_t>(size)) == 0; }
    bool rename(int directory, const char *from, const char *to) noexcept override
    {
        return renameat(directory, from, directory, to) == 0;
    }
    bool remove(int directory, const char *name) noexcept override { return unlinkat(directory, name, 0) == 0; }
    bool sync_directory(int /*directory*/) noexcept override { return true; }

private:
    static bool is_full()
    {
        errno = ENOSPC;
        return g_is_full;
    }
};

CrashDisk   g_disk;
std::string g_root;

void remove_root()
{
    std::error_code ignored;
    files::remove_all(g_root, ignored);
}

} // namespace

extern "C" standard::Disk *__wrap__ZN4tarn8standard11system_diskEv() // a reference, to its callers
{
    return &g_disk;
}

namespace tarn::fuzz {

std::string make_state_directory(const char *name)
{
    if (g_root.empty()) {
        char root[] = "/dev/shm/tarn-fuzz-XXXXXX";
        PROMISE(mkdtemp(root));
        g_root = root;
        atexit(remove_root);
    }
    return g_root + "/" + name;
}

void remove_state(const std::string &directory)
{
    std::error_code ignored;
    files::remove_all(directory, ignored);
}

void copy_state(const std::string &from, const std::string &to)
{
    remove_state(to);
    files::copy(from, to, files::copy_options::recursive);
}

void set_disk_full(bool is_full)
{
    g_is_full = is_full;
}

} // namespace tarn::fuzz
