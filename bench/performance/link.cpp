#include "link.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>
#include <utility>

namespace tarn::performance {
namespace {

constexpr size_t kReadBytes     = 256 * 1024; // by one call
constexpr size_t kAskedAtOnce   = 64;
constexpr double kAnswerComes_s = 10;

} // namespace

uint64_t now_ns()
{
    return static_cast<uint64_t>(std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count());
}

bool Link::open(const std::string &from)
{
    close();
    fd_ = beside::start_connect(from);
    return fd_ >= 0;
}

void Link::close()
{
    if (fd_ >= 0)
        ::close(std::exchange(fd_, -1));
    out_.clear();
    rest_.clear();
}

bool Link::flush()
{
    if (out_.empty())
        return true;
    const ssize_t sent = send(fd_, out_.data(), out_.size(), MSG_NOSIGNAL);
    if (sent < 0)
        return errno == EAGAIN;
    out_.erase(out_.begin(), out_.begin() + sent);
    return true;
}

Links::Links() : epoll_(epoll_create1(EPOLL_CLOEXEC)), buffer_(kReadBytes)
{
    if (epoll_ < 0) {
        perror("epoll");
        exit(1);
    }
}

Links::~Links()
{
    links_.clear();
    close(epoll_);
}

Link &Links::add()
{
    links_.push_back(std::make_unique<Link>());
    return *links_.back();
}

bool Links::open(Link &link, const std::string &from)
{
    epoll_event event{.events = EPOLLIN | EPOLLOUT | EPOLLET, .data = {.ptr = &link}};
    return link.open(from) && epoll_ctl(epoll_, EPOLL_CTL_ADD, link.fd(), &event) == 0;
}

int Links::wait_for_events(uint64_t limit_ns)
{
    const timespec limit{static_cast<time_t>(limit_ns / 1000000000), static_cast<long>(limit_ns % 1000000000)};
    return epoll_pwait2(epoll_, events_, kEvents, &limit, nullptr);
}

bool Links::ask_all(std::span<Link *const> links, const std::function<Bytes(size_t)> &request, unsigned answer,
                    double limit_s)
{
    size_t         asked = 0, answered = 0;
    bool           alive  = true;
    const uint64_t end_ns = now_ns() + static_cast<uint64_t>(limit_s * 1e9);
    while (answered < links.size()) {
        for (; asked < links.size() && asked - answered < kAskedAtOnce; ++asked) {
            links[asked]->queue(request(asked));
            links[asked]->flush(); // an error shows as an event, too
        }
        wait(10000000, [&](Link &link) {
            alive &= link.flush() && link.read(buffer(), [&](Packet packet) { answered += packet.type() == answer; });
        });
        if (!alive || now_ns() > end_ns)
            return false;
    }
    return true;
}

bool Links::ask(Link &link, const Bytes &request, unsigned answer)
{
    Link *const one = &link;
    return ask_all(
        {&one, 1}, [&](size_t) { return request; }, answer, kAnswerComes_s);
}

} // namespace tarn::performance
