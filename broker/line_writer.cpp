#include "line_writer.h"

#include "thread.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace tarn::broker {
namespace {

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// A socket is told for each write that it is not to wait; everything else has its mode.
ssize_t write_some(int fd, const char *bytes, size_t count)
{
    const ssize_t sent = send(fd, bytes, count, MSG_DONTWAIT | MSG_NOSIGNAL);
    return sent < 0 && errno == ENOTSOCK ? ::write(fd, bytes, count) : sent;
}

} // namespace

LineWriter::LineWriter(int fd, TellLost tell_lost) : fd_(fd), end_fd_(eventfd(0, EFD_CLOEXEC)), tell_lost_(tell_lost)
{
    thread_ = start_without_signals([this] { run(); });
}

LineWriter::~LineWriter()
{
    {
        const std::lock_guard lock(mutex_);
        ended_ = true;
        if (lost_ > 0)
            lines_.push_back(tell_lost_(lost_));
    }
    filled_.notify_one();
    eventfd_write(end_fd_, 1);
    thread_.join();
    close(end_fd_);
    close(fd_);
}

void LineWriter::write(std::string line)
{
    {
        const std::lock_guard lock(mutex_);
        if (lines_.size() >= kCapacity) {
            ++lost_;
            return;
        }
        if (lost_ > 0)
            lines_.push_back(tell_lost_(std::exchange(lost_, 0)));
        lines_.push_back(std::move(line));
    }
    filled_.notify_one();
}

void LineWriter::run()
{
    for (std::string text; !(text = take()).empty();) {
        if (put(text))
            continue;
        const std::lock_guard lock(mutex_);
        lost_ += static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n'));
    }
}

// No more than a pipe takes whole, so that lines of other writers to the same pipe stay whole too.
std::string LineWriter::take()
{
    std::unique_lock lock(mutex_);
    filled_.wait(lock, [this] { return ended_ || !lines_.empty(); });
    std::string text;
    while (!lines_.empty() && (text.empty() || text.size() + lines_.front().size() + 1 <= PIPE_BUF)) {
        text += lines_.front() + '\n';
        lines_.pop_front();
    }
    return text;
}

bool LineWriter::put(const std::string &text)
{
    const std::string whole = torn_ ? '\n' + text : text;
    size_t            done  = 0;
    while (done < whole.size() && wait_for_room()) {
        const ssize_t count = write_some(fd_, whole.data() + done, whole.size() - done);
        if (count > 0)
            done += static_cast<size_t>(count);
        else if (errno != EAGAIN && errno != EINTR)
            break;
    }
    if (done > 0)
        torn_ = whole[done - 1] != '\n';
    return done == whole.size();
}

bool LineWriter::wait_for_room()
{
    while (give_up_at_ms_ == 0) {
        pollfd fds[] = {{fd_, POLLOUT, 0}, {end_fd_, POLLIN, 0}};
        poll(fds, 2, -1);
        if (fds[1].revents != 0)
            give_up_at_ms_ = now_ms() + kEndLimit_ms;
        else if (fds[0].revents != 0)
            return true;
    }
    pollfd    room    = {fd_, POLLOUT, 0};
    const int left_ms = static_cast<int>(std::max<int64_t>(give_up_at_ms_ - now_ms(), 0));
    return poll(&room, 1, left_ms) > 0;
}

int open_for_lines(int shared_fd)
{
    struct stat file {};
    if (fstat(shared_fd, &file) == 0 && (S_ISFIFO(file.st_mode) || S_ISCHR(file.st_mode))) {
        const std::string name = "/proc/self/fd/" + std::to_string(shared_fd);
        if (const int own = open(name.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); own >= 0)
            return own;
    }
    return fcntl(shared_fd, F_DUPFD_CLOEXEC, 0);
}

int open_for_lines(const char *path)
{
    return open(path, O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600);
}

} // namespace tarn::broker
