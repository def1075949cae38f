// data_directory.h - a data directory of a fuzzer's own, in memory where the machine has such a place.
#ifndef TARN_FUZZ_DATA_DIRECTORY_H
#define TARN_FUZZ_DATA_DIRECTORY_H

#include "persist/persist.h"
#include "promise.h"

#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace tarn::fuzz {

inline std::string path_of(const char *file)
{
    return std::string(g_persist_root_path) + "/" + file;
}

inline void leave_data_directory()
{
    for (const char *name : {"session/id.json", "subscription/id.json", "message/id.json", "retain.dat"})
        unlink(path_of(name).c_str());
    for (const char *name : {"session", "subscription", "message", ""})
        rmdir(path_of(name).c_str());
}

// Without persist_init, whose loading is no part of an input. Gone when the fuzzer ends as it should.
inline void enter_data_directory()
{
    const bool  has_memory = access("/dev/shm", W_OK) == 0;
    std::string root       = has_memory ? "/dev/shm/tarn-fuzz-XXXXXX" : "/tmp/tarn-fuzz-XXXXXX";
    PROMISE(mkdtemp(root.data()));
    strcpy(g_persist_root_path, root.c_str());
    for (const char *name : {"session", "subscription", "message"})
        PROMISE(mkdir(path_of(name).c_str(), 0700) == 0);
    atexit(leave_data_directory);
}

inline void remove_file(const char *file)
{
    unlink(path_of(file).c_str());
}

inline void write_file(const char *file, const uint8_t *data, size_t size)
{
    FILE *const out = fopen(path_of(file).c_str(), "wbe");
    PROMISE(out && fwrite(data, 1, size, out) == size);
    PROMISE(fclose(out) == 0);
}

inline size_t size_of(const char *file)
{
    struct stat status {};
    return stat(path_of(file).c_str(), &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
}

} // namespace tarn::fuzz

#endif
