// file_lock.h - a lock between processes: flock, which ends with its holder, however that one ends.
#ifndef TARN_BROKER_FILE_LOCK_H
#define TARN_BROKER_FILE_LOCK_H

#include <string>

namespace tarn::broker {

class FileLock {
public:
    FileLock() = default;
    ~FileLock(); // gives it back; the file stays, because removing it could remove another process's lock
    FileLock(const FileLock &)            = delete;
    FileLock &operator=(const FileLock &) = delete;

    // Each is false with errno when there is no lock.
    bool take_file(const std::string &path);          // made if need be; EWOULDBLOCK: another process has it
    bool wait_for_directory(const std::string &path); // nothing is made; as long as another process has it

private:
    bool take(int fd, int operation);

    int fd_ = -1;
};

} // namespace tarn::broker

#endif
