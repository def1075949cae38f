// disk.cpp - see disk.h.
#include "disk.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

namespace tarn::standard {
namespace {

constexpr mode_t kMode = 0666; // less what the host's umask takes

class SystemDisk final : public Disk {
public:
    Fd open(int directory, const char *name, int flags) noexcept override
    {
        return Fd(openat(directory, name, flags | O_CLOEXEC, kMode));
    }
    ssize_t read(int file, std::span<uint8_t> to, uint64_t offset) noexcept override
    {
        return pread(file, to.data(), to.size(), static_cast<off_t>(offset));
    }
    ssize_t write(int file, std::span<const uint8_t> bytes, uint64_t offset) noexcept override
    {
        return pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    }
    bool sync(int file) noexcept override { return fdatasync(file) == 0; }
    bool truncate(int file, uint64_t size) noexcept override { return ftruncate(file, static_cast<off_t>(size)) == 0; }
    bool rename(int directory, const char *from, const char *to) noexcept override
    {
        return renameat(directory, from, directory, to) == 0;
    }
    bool remove(int directory, const char *name) noexcept override { return unlinkat(directory, name, 0) == 0; }
    bool sync_directory(int directory) noexcept override
    {
        return fsync(directory) == 0 || errno == EINVAL; // some file systems have nothing to sync there
    }
};

constinit SystemDisk g_system_disk;

} // namespace

Disk &system_disk() noexcept
{
    return g_system_disk;
}

} // namespace tarn::standard
