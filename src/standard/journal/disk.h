// disk.h - the calls by which kept state reaches its directory. Tests stand in for it, to make each of them fail.
#ifndef TARN_STANDARD_DISK_H
#define TARN_STANDARD_DISK_H

#include "../../base/fd.h"

#include <cstdint>
#include <span>
#include <sys/types.h>

namespace tarn::standard {

// `directory` is a descriptor, names are relative to it. Any thread. What fails says so as the system does: by no
// descriptor, -1 or false, and errno.
class Disk {
public:
    virtual Fd      open(int directory, const char *name, int flags) noexcept                 = 0;
    virtual ssize_t read(int file, std::span<uint8_t> to, uint64_t offset) noexcept           = 0;
    virtual ssize_t write(int file, std::span<const uint8_t> bytes, uint64_t offset) noexcept = 0;
    virtual bool    sync(int file) noexcept                                                   = 0;
    virtual bool    truncate(int file, uint64_t size) noexcept                                = 0;
    virtual bool    rename(int directory, const char *from, const char *to) noexcept          = 0;
    virtual bool    remove(int directory, const char *name) noexcept                          = 0;
    virtual bool    sync_directory(int directory) noexcept                                    = 0;

protected:
    ~Disk() = default;
};

Disk &system_disk() noexcept;

} // namespace tarn::standard

#endif
