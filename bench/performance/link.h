// link.h - connections of the load generator: no memory is taken for a message, and many packets share one call of the
// system.
#ifndef TARN_BENCH_PERFORMANCE_LINK_H
#define TARN_BENCH_PERFORMANCE_LINK_H

#include "beside/crowd.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <vector>

namespace tarn::performance {

using beside::Packet;
using test::Bytes;

inline constexpr unsigned kPuback = 4, kPubrec = 5, kPubrel = 6, kPubcomp = 7; // types of packets

uint64_t now_ns(); // of the monotonic clock

// A connection that never blocks.
class Link {
public:
    unsigned role = 0, index = 0; // for its owner

    Link() = default;
    ~Link() { close(); }
    Link(const Link &)            = delete;
    Link &operator=(const Link &) = delete;

    bool open(const std::string &from); // begins to connect to the broker; what is sent waits until it stands
    void close();
    int  fd() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }

    void queue(std::span<const uint8_t> bytes) { out_.insert(out_.end(), bytes.begin(), bytes.end()); }
    bool flush(); // false: the connection is gone
    // Hands each whole packet that has come to take(Packet); false: the connection is gone. take() may close it.
    template <class Take> bool read(std::span<uint8_t> buffer, Take &&take);

private:
    int   fd_ = -1;
    Bytes out_;  // not sent yet
    Bytes rest_; // the beginning of a packet that has not come in full
};

// Links of one thread, and what wakes it.
class Links {
public:
    Links();
    ~Links();
    Links(const Links &)            = delete;
    Links &operator=(const Links &) = delete;

    Link &add(); // lives as long as this
    bool  open(Link &link, const std::string &from);
    // Waits for so long at most, then hands each link that has something to come or room to send to ready(Link &).
    template <class Ready> void wait(uint64_t limit_ns, Ready &&ready);
    // Each of these links sends a request and gets an answer of that type, many of them at a time.
    bool ask_all(std::span<Link *const> links, const std::function<Bytes(size_t)> &request, unsigned answer,
                 double limit_s = 60);
    bool ask(Link &link, const Bytes &request, unsigned answer);

    std::span<uint8_t> buffer() { return buffer_; } // for Link::read

private:
    int wait_for_events(uint64_t limit_ns);

    static constexpr int kEvents = 512;

    int                                epoll_;
    epoll_event                        events_[kEvents];
    std::vector<uint8_t>               buffer_;
    std::vector<std::unique_ptr<Link>> links_;
};

template <class Take> bool Link::read(std::span<uint8_t> buffer, Take &&take)
{
    for (;;) {
        const size_t before = rest_.size(), room = buffer.size() - before;
        if (before > 0)
            memcpy(buffer.data(), rest_.data(), before);
        const ssize_t count = recv(fd_, buffer.data() + before, room, 0);
        if (count <= 0)
            return count < 0 && errno == EAGAIN;
        const size_t end = before + static_cast<size_t>(count);
        size_t       at  = 0;
        for (size_t size; (size = test::packet_size(buffer.data() + at, end - at)) > 0; at += size)
            take(Packet{buffer.data() + at, size});
        if (!is_open())
            return true;
        rest_.assign(buffer.data() + at, buffer.data() + end);
        if (static_cast<size_t>(count) < room)
            return true; // nothing more is there, else it would have filled the room
    }
}

template <class Ready> void Links::wait(uint64_t limit_ns, Ready &&ready)
{
    const int count = wait_for_events(limit_ns);
    for (int i = 0; i < count; ++i)
        ready(*static_cast<Link *>(events_[i].data.ptr));
}

} // namespace tarn::performance

#endif
