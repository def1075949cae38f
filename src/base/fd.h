// fd.h - a file descriptor that closes itself.
#ifndef TARN_BASE_FD_H
#define TARN_BASE_FD_H

#include <unistd.h>
#include <utility>

namespace tarn {

class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~Fd() { reset(); }

    explicit operator bool() const { return fd_ >= 0; }
    int      get() const { return fd_; }
    int      release() { return std::exchange(fd_, -1); }
    void     reset(int fd = -1)
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

} // namespace tarn

#endif
