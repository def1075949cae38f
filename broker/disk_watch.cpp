#include "disk_watch.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "access/text_file.h"

#include <tarn_sdk_mqtt_broker/persist/persist.h>
#include <tarn_sdk_mqtt_broker/sub/sub.h>

namespace tarn::broker {
namespace {

constexpr const char *kDirectory = "broker_data";
constexpr const char *kFile      = "broker_data/retain.dat";
constexpr const char *kProbe     = "broker_data/retain.dat.probe";

class LibraryLock { // its own of the store, or of its files
public:
    explicit LibraryLock(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~LibraryLock() { pthread_mutex_unlock(&mutex_); }
    LibraryLock(const LibraryLock &)            = delete;
    LibraryLock &operator=(const LibraryLock &) = delete;

private:
    pthread_mutex_t &mutex_;
};

// Messages and their count, as the file has them.
size_t store_bytes()
{
    const LibraryLock lock(g_sub_mgr.lock);
    return sizeof(uint32_t) + sizeof(retain_msg_t) * static_cast<size_t>(g_sub_mgr.retain_count);
}

// The file is replaced in one step, so it is read whole. Where it is missing there is nothing in it.
bool file_holds_store()
{
    std::string text;
    if (!read_file(kFile, text).empty())
        text.assign(sizeof(uint32_t), '\0');
    const LibraryLock lock(g_sub_mgr.lock);
    const auto        count = static_cast<uint32_t>(g_sub_mgr.retain_count);
    const size_t      bytes = sizeof(retain_msg_t) * count;
    return text.size() == sizeof count + bytes && memcmp(text.data(), &count, sizeof count) == 0 &&
           (bytes == 0 || memcmp(text.data() + sizeof count, g_sub_mgr.retains, bytes) == 0);
}

// Why the library cannot write a file of this size, 0 when it can.
int probe(size_t bytes)
{
    const int fd = open(kProbe, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return errno;
    const int error = posix_fallocate(fd, 0, static_cast<off_t>(bytes));
    close(fd);
    unlink(kProbe);
    return error;
}

std::pair<ino_t, int64_t> identity_of_file()
{
    struct stat file {};
    if (stat(kFile, &file) != 0)
        return {};
    return {file.st_ino, int64_t{file.st_mtim.tv_sec} * 1'000'000'000 + file.st_mtim.tv_nsec};
}

// The library tells little of a failed attempt, but a successful one leaves another file.
bool save_again()
{
    const auto before = identity_of_file();
    return persist_retain_save() == 0 && identity_of_file() != before;
}

// Why retained messages are not on the disk, empty when they are.
std::string fault()
{
    if (file_holds_store())
        return "";
    if (const int error = probe(store_bytes()))
        return std::string(kDirectory) + " cannot be written (" + strerror(error) +
               "): retained messages are not saved, and sessions may not be either";
    return save_again() ? "" : std::string(kFile) + " cannot be replaced: retained messages are not saved";
}

} // namespace

std::string DiskWatch::look()
{
    std::string news   = fault();
    const bool  before = std::exchange(failing_, !news.empty());
    if (before == failing_)
        return "";
    return failing_ ? news : std::string("retained messages are saved in ") + kDirectory + " again";
}

} // namespace tarn::broker
