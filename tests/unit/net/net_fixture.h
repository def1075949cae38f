// net_fixture.h - what the network tests share: a recorder for the event callback, a layer that ends with its test, and
// peers that talk to it over loopback.
#ifndef TARN_TESTS_NET_FIXTURE_H
#define TARN_TESTS_NET_FIXTURE_H

#include "base/fd.h"
#include "base/relaxed.h"
#include "log/agent_log.h"
#include "net/netip_internal.h"
#include "support/process_state.h"
#include "support/timing.h"
#include "support/wire.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace tarn::net {
inline void PrintTo(const Connection &c, std::ostream *out)
{
    *out << c.handle << '#' << c.generation;
}
} // namespace tarn::net

namespace tarn::test {

using namespace std::chrono_literals;

constexpr auto kPatience = 20s; // sanitizers are slow
constexpr auto kSilence  = 150ms;

// ---- events as text, so that sequences compare as they read: "0 connected 0", "0 data 3: 30 00", "0 disconnected 2"

inline std::string connected(uint32_t handle, uint32_t reason = 0)
{
    return std::to_string(handle) + " connected " + std::to_string(reason);
}
inline std::string disconnected(uint32_t handle, uint32_t reason)
{
    return std::to_string(handle) + " disconnected " + std::to_string(reason);
}
inline std::string data(uint32_t handle, const Bytes &bytes)
{
    return std::to_string(handle) + " data 3: " + hex(bytes);
}

// The event callback of a test. `on_event` runs inside it, with no lock of the recorder held; its result is the
// callback's.
class Recorder {
public:
    struct Event {
        uint32_t       handle, event;
        const uint8_t *bytes;
        uint32_t       length;
    };
    std::function<bool(const Event &)> on_event;

    static uint8_t callback(uint32_t handle, uint32_t event, const uint8_t *bytes, uint32_t length, uint32_t reason,
                            uint32_t error, void *self)
    {
        return static_cast<Recorder *>(self)->take({handle, event, bytes, length}, reason, error);
    }

    std::vector<std::string> seen()
    {
        std::lock_guard lock(mutex_);
        return seen_;
    }
    // Waits until `count` events were seen in all, and returns all.
    std::vector<std::string> wait_for(size_t count)
    {
        std::unique_lock lock(mutex_);
        news_.wait_for(lock, kPatience, [&] { return seen_.size() >= count; });
        return seen_;
    }
    size_t count(const std::string &event)
    {
        std::lock_guard lock(mutex_);
        return static_cast<size_t>(std::count(seen_.begin(), seen_.end(), event));
    }

private:
    uint8_t take(const Event &event, uint32_t reason, uint32_t error)
    {
        std::string line = std::to_string(event.handle);
        line += event.event == NETIP_EVENT_CONNECTED      ? " connected "
                : event.event == NETIP_EVENT_DISCONNECTED ? " disconnected "
                                                          : " data ";
        line += std::to_string(reason);
        if (event.event == NETIP_EVENT_DATA)
            line += ": " + hex(event.bytes, event.length);
        else if (event.bytes || event.length)
            line += " with data";
        if (error)
            line += " error " + std::to_string(error);
        {
            std::lock_guard lock(mutex_);
            seen_.push_back(line);
        }
        news_.notify_all();
        return on_event ? on_event(event) : 1;
    }

    std::mutex               mutex_;
    std::condition_variable  news_;
    std::vector<std::string> seen_;
};

// A running layer.
class Layer {
public:
    explicit Layer(int io_threads = 1) { start(io_threads); }
    explicit Layer(std::function<bool(const Recorder::Event &)> on_event)
    {
        events.on_event = std::move(on_event);
        start(1);
    }
    ~Layer() { netip_deinit(); }
    Layer(const Layer &)            = delete;
    Layer &operator=(const Layer &) = delete;

    Recorder events;

private:
    void start(int io_threads) { EXPECT_EQ(netip_init(Recorder::callback, &events, io_threads), unsigned{NETIP_OK}); }
};

inline sockaddr_in loopback(uint16_t port = NETIP_PORT)
{
    sockaddr_in address{};
    address.sin_family      = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port        = htons(port);
    return address;
}

inline uint16_t port_of(int fd)
{
    sockaddr_in address{};
    socklen_t   length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    return ntohs(address.sin_port);
}

inline bool readable(int fd, std::chrono::milliseconds wait)
{
    pollfd poll_fd{fd, POLLIN, 0};
    return poll(&poll_fd, 1, static_cast<int>(wait.count())) > 0;
}

// A TCP client on loopback.
class Peer {
public:
    Peer() : Peer(Fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))) {}
    explicit Peer(Fd unconnected) : fd_(std::move(unconnected))
    {
        const sockaddr_in address = loopback();
        if (connect(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            ADD_FAILURE() << "connect: " << strerror(errno);
    }
    int      fd() const { return fd_.get(); }
    uint16_t port() const { return port_of(fd_.get()); }
    void     send(const Bytes &bytes)
    {
        EXPECT_EQ(::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    void  send(std::string_view packet) { send(wire(packet)); }
    Bytes receive(size_t count)
    {
        Bytes  bytes(count);
        size_t got = 0;
        while (got < count && readable(fd_.get(), kPatience)) {
            const ssize_t n = recv(fd_.get(), bytes.data() + got, count - got, 0);
            if (n < 1)
                break;
            got += static_cast<size_t>(n);
        }
        bytes.resize(got);
        return bytes;
    }
    // 0: an orderly end; else the errno value, or -1 while the connection stands.
    int end()
    {
        if (!readable(fd_.get(), kPatience))
            return -1;
        uint8_t       byte;
        const ssize_t n = recv(fd_.get(), &byte, 1, 0);
        return n == 0 ? 0 : n < 0 ? errno : -1;
    }
    void close() { fd_.reset(); }
    void reset() // close with a reset
    {
        const linger at_once{1, 0};
        setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        fd_.reset();
    }

private:
    Fd fd_;
};

// A UDP client on loopback.
class UdpPeer {
public:
    UdpPeer() : UdpPeer(loopback(0)) {}
    explicit UdpPeer(const sockaddr_in &from) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_in address = loopback();
        EXPECT_EQ(bind(fd_.get(), reinterpret_cast<const sockaddr *>(&from), sizeof from), 0);
        EXPECT_EQ(connect(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }
    int      fd() const { return fd_.get(); }
    uint16_t port() const { return port_of(fd_.get()); }
    void     send(const Bytes &bytes)
    {
        EXPECT_EQ(::send(fd_.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    void  send(std::string_view packet) { send(wire(packet)); }
    Bytes receive()
    {
        Bytes bytes(5000);
        if (!readable(fd_.get(), kPatience))
            return {};
        const ssize_t n = recv(fd_.get(), bytes.data(), bytes.size(), 0);
        bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return bytes;
    }

private:
    Fd fd_;
};

// A slot filled by hand with one end of a stream socket pair; the other end is `peer`.
struct HandmadeSlot {
    explicit HandmadeSlot(uint32_t number) : handle(number)
    {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        netip_conn_t &slot = g_netip_clients[handle];
        slot.handle        = handle;
        slot.type          = NETIP_TCP;
        slot.fd            = pair[0];
        slot.port          = 1234;
        slot.last_active   = 99;
        strcpy(slot.ip, "10.20.30.40");
        slot.in_use = 1;
        peer        = Fd(pair[1]);
    }
    netip_conn_t &slot() const { return g_netip_clients[handle]; }
    uint32_t      handle;
    Fd            peer;
};

// Gives the number of a closed descriptor to something harmless, as the kernel may at any moment.
inline Fd take_number(int fd)
{
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << fd << " is still open";
    Fd other(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (other.get() == fd)
        return other;
    return Fd(dup3(other.get(), fd, O_CLOEXEC));
}

// Threads with this name.
// To be waited for: a joined thread is listed a moment longer, and a new one names itself.
inline size_t threads_named(const std::string &name)
{
    DIR   *dir   = opendir("/proc/self/task");
    size_t count = 0;
    while (const dirent *entry = dir ? readdir(dir) : nullptr) {
        const std::string path     = std::string("/proc/self/task/") + entry->d_name + "/comm";
        char              comm[64] = {};
        if (FILE *file = fopen(path.c_str(), "re")) {
            if (fgets(comm, sizeof comm, file) && name + "\n" == comm)
                ++count;
            fclose(file);
        }
    }
    if (dir)
        closedir(dir);
    return count;
}

inline uint32_t send_bytes(uint32_t handle, const Bytes &bytes)
{
    return netip_send(handle, bytes.data(), static_cast<int32_t>(bytes.size()));
}

} // namespace tarn::test

#endif
