#include "file_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace tarn::broker {

FileLock::~FileLock()
{
    if (fd_ >= 0)
        close(fd_);
}

// Not opened for writing, so that the disk may be made read-only meanwhile.
bool FileLock::take_file(const std::string &path)
{
    return take(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600), LOCK_EX | LOCK_NB);
}

bool FileLock::wait_for_directory(const std::string &path)
{
    return take(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), LOCK_EX);
}

bool FileLock::take(int fd, int operation)
{
    fd_ = fd;
    if (fd < 0)
        return false;
    int result;
    do
        result = flock(fd, operation);
    while (result != 0 && errno == EINTR);
    return result == 0;
}

} // namespace tarn::broker
