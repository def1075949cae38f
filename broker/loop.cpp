#include "loop.h"

#include "shortage.h"

#include <algorithm>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <utility>

namespace tarn::broker {
namespace {

constexpr int kShortage_ms = 10; // before memory is asked for again

} // namespace

Loop::Loop() : signal_fd_(-1)
{
    sigemptyset(&signals_);
}

Loop::~Loop()
{
    if (signal_fd_ >= 0)
        close(signal_fd_);
}

void Loop::on_signal(int number, Act act)
{
    sigaddset(&signals_, number);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    signal_acts_[number] = std::move(act);
    const bool first     = signal_fd_ < 0;
    signal_fd_           = signalfd(signal_fd_, &signals_, SFD_CLOEXEC | SFD_NONBLOCK);
    if (first)
        on_readable(signal_fd_, [this] { take_signals(); });
}

void Loop::release_signal(int number)
{
    sigdelset(&signals_, number);
    signalfd(signal_fd_, &signals_, 0);
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, number);
    signal(number, SIG_DFL);
    pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
}

void Loop::on_readable(int fd, Act act)
{
    readers_[fd] = std::make_shared<Act>(std::move(act));
}

void Loop::on_writable(int fd, Act act)
{
    if (act)
        writers_[fd] = std::make_shared<Act>(std::move(act));
    else
        writers_.erase(fd);
}

void Loop::forget(int fd)
{
    readers_.erase(fd);
    writers_.erase(fd);
}

void Loop::call(const Acts &acts, int fd)
{
    const auto found = acts.find(fd);
    if (found == acts.end())
        return;
    const std::shared_ptr<Act> act = found->second;
    unless_short(*act);
}

void Loop::every(std::chrono::milliseconds period, Act act)
{
    intervals_.push_back({period, Clock::now() + period, std::move(act)});
}

void Loop::run()
{
    std::vector<pollfd> fds;
    while (!ended_) {
        if (!unless_short([&] { fds = watched(); })) {
            poll(nullptr, 0, kShortage_ms);
            continue;
        }
        if (poll(fds.data(), fds.size(), wait_ms()) > 0)
            for (const pollfd &ready : fds)
                if (ready.revents != 0)
                    call(ready.events == POLLIN ? readers_ : writers_, ready.fd);
        run_due_intervals();
    }
}

std::vector<pollfd> Loop::watched() const
{
    std::vector<pollfd> fds;
    fds.reserve(readers_.size() + writers_.size());
    for (const auto &reader : readers_)
        fds.push_back({reader.first, POLLIN, 0});
    for (const auto &writer : writers_)
        fds.push_back({writer.first, POLLOUT, 0});
    return fds;
}

void Loop::take_signals()
{
    signalfd_siginfo info;
    while (!ended_ && read(signal_fd_, &info, sizeof info) == sizeof info)
        if (const auto act = signal_acts_.find(static_cast<int>(info.ssi_signo)); act != signal_acts_.end())
            unless_short(act->second);
}

void Loop::run_due_intervals()
{
    for (Interval &interval : intervals_) {
        if (ended_ || Clock::now() < interval.next)
            continue;
        interval.next = Clock::now() + interval.period; // missed turns are not caught up with
        unless_short(interval.act);
    }
}

// How long poll may sleep: until the next interval, rounded up, or for ever (-1).
int Loop::wait_ms() const
{
    if (intervals_.empty())
        return -1;
    const auto next = std::min_element(intervals_.begin(), intervals_.end(),
                                       [](const Interval &a, const Interval &b) { return a.next < b.next; });
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next->next - Clock::now()).count();
    return static_cast<int>(std::clamp<long>(left, 0, 3'600'000));
}

} // namespace tarn::broker
