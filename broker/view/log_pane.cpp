#include "log_pane.h"

#include "../shortage.h"
#include "../thread.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace tarn::broker {

LogPane::LogPane()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return; // the screen will be untidy, no more
    fflush(stdout);
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        if (!isatty(fd))
            continue;
        taken_.push_back({fd, fcntl(fd, F_DUPFD_CLOEXEC, 3)});
        dup2(ends[1], fd);
    }
    close(ends[1]);
    thread_ = start_without_signals([this, fd = ends[0]] { read_all(fd); });
}

LogPane::~LogPane()
{
    fflush(stdout);
    for (const Taken &one : taken_) {
        dup2(one.saved, one.fd); // with the last of them the pipe ends, and so does the thread
        close(one.saved);
    }
    if (thread_.joinable())
        thread_.join();
}

std::vector<std::string> LogPane::last(size_t count)
{
    const std::lock_guard lock(mutex_);
    const auto            shown = static_cast<std::ptrdiff_t>(std::min(count, lines_.size()));
    return {lines_.end() - shown, lines_.end()};
}

void LogPane::read_all(int fd)
{
    std::string line;
    char        bytes[4096];
    for (ssize_t count; (count = read(fd, bytes, sizeof bytes)) > 0 || (count < 0 && errno == EINTR);) {
        for (const char c : std::string_view(bytes, static_cast<size_t>(std::max<ssize_t>(count, 0)))) {
            unless_short([&] {
                if (c == '\n')
                    keep(std::exchange(line, ""));
                else if (line.size() < kLineBytes)
                    line += c;
            });
        }
    }
    close(fd);
}

void LogPane::keep(std::string &&line)
{
    const std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
    if (lines_.size() > kLines)
        lines_.pop_front();
}

} // namespace tarn::broker
