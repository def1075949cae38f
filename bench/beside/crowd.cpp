#include "crowd.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace tarn::beside {

namespace {

constexpr uint16_t kPort = 1883;

sockaddr_in address_of(const char *text, uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port   = htons(port);
    inet_pton(AF_INET, text, &address.sin_addr);
    return address;
}

} // namespace

int start_connect(const std::string &from)
{
    const sockaddr_in source = address_of(from.c_str(), 0), broker = address_of("127.0.0.1", kPort);
    const int         on = 1;
    const int         fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&source), sizeof source) == 0 &&
        (connect(fd, reinterpret_cast<const sockaddr *>(&broker), sizeof broker) == 0 || errno == EINPROGRESS))
        return fd;
    ::close(fd);
    return -1;
}

void raise_file_limit()
{
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
}

double now_s()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

unsigned publish_id(Packet packet)
{
    size_t at = 1;
    while (packet.data[at] >= 0x80)
        ++at;
    const uint8_t *const topic = packet.data + at + 1;
    const uint8_t *const id    = topic + 2 + (topic[0] << 8 | topic[1]);
    return id + 2 <= packet.data + packet.size ? id[0] << 8 | id[1] : 0;
}

void Actor::open()
{
    reset();
    fd_ = start_connect(address_);
    if (fd_ < 0)
        return;
    epoll_event event{.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, .data = {.ptr = this}};
    epoll_ctl(crowd_.epoll_, EPOLL_CTL_ADD, fd_, &event);
}

void Actor::send(const Bytes &bytes)
{
    if (fd_ < 0)
        return;
    out_.insert(out_.end(), bytes.begin(), bytes.end());
    flush(); // an error shows as an event, too
}

void Actor::reset()
{
    const linger at_once{1, 0};
    if (fd_ >= 0)
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close();
}

void Actor::close()
{
    if (fd_ >= 0)
        ::close(std::exchange(fd_, -1));
    ++generation_;
    out_.clear();
    in_.clear();
}

bool Actor::flush()
{
    while (!out_.empty()) {
        const ssize_t sent = ::send(fd_, out_.data(), out_.size(), MSG_NOSIGNAL);
        if (sent < 0)
            return errno == EAGAIN;
        out_.erase(out_.begin(), out_.begin() + sent);
    }
    return true;
}

// False when the connection is gone. What came before its end is handled.
bool Actor::receive()
{
    uint8_t        chunk[65536];
    ssize_t        count;
    const unsigned generation = generation_;
    while ((count = recv(fd_, chunk, sizeof chunk, 0)) > 0) {
        in_.insert(in_.end(), chunk, chunk + count);
        take_packets();
        if (generation != generation_)
            return true; // a callback ended it
    }
    return count < 0 && errno == EAGAIN;
}

void Actor::take_packets()
{
    const unsigned generation = generation_;
    Bytes          bytes      = std::move(in_); // out of reach of a callback that opens anew
    size_t         at         = 0;
    in_.clear();
    for (size_t size; (size = test::packet_size(bytes.data() + at, bytes.size() - at)) > 0; at += size) {
        const Packet packet{bytes.data() + at, size};
        ++received[packet.type()];
        on_packet(packet);
        if (generation != generation_)
            return;
    }
    in_.assign(bytes.begin() + static_cast<long>(at), bytes.end());
}

void Actor::end()
{
    close();
    on_closed();
}

void Actor::handle_event()
{
    if (fd_ >= 0 && (!receive() || (fd_ >= 0 && !flush())))
        end();
}

Crowd::Crowd() : epoll_(epoll_create1(EPOLL_CLOEXEC))
{
    if (epoll_ < 0) {
        perror("epoll");
        exit(1);
    }
}

Crowd::~Crowd()
{
    actors_.clear();
    close(epoll_);
}

Actor &Crowd::add(const std::string &address)
{
    actors_.push_back(std::make_unique<Actor>(*this, address));
    return *actors_.back();
}

void Crowd::step(double limit_s)
{
    epoll_event events[256];
    const int   limit_ms = static_cast<int>(std::ceil(std::max(0.0, limit_s) * 1000));
    const int   count    = epoll_wait(epoll_, events, 256, limit_ms);
    for (int i = 0; i < count; ++i)
        static_cast<Actor *>(events[i].data.ptr)->handle_event();
}

bool Crowd::run_until(double limit_s, const std::function<bool()> &condition)
{
    const double end_s = now_s() + limit_s;
    while (!condition()) {
        if (now_s() > end_s)
            return false;
        step(0.01);
    }
    return true;
}

bool Crowd::ask(Actor &actor, const Bytes &request, Type answer, double limit_s)
{
    const unsigned before = actor.received[answer];
    actor.send(request);
    run_until(limit_s, [&] { return actor.received[answer] != before || !actor.is_open(); });
    return actor.received[answer] != before;
}

} // namespace tarn::beside
