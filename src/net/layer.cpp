// layer.cpp - bringing the layer up and taking it down.
//
// A start is built in local descriptors and published in one step, so a failure leaves nothing behind. The listener is
// the exception in life time: a process cannot bind its own port twice, so it stays open when the layer goes down, and
// the next start adopts it. While the layer is down, connections wait there.
#include "../base/fd.h"
#include "../base/memory.h"
#include "../base/thread.h"
#include "../log/log.h"
#include "lane.h"

#include <algorithm>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

using namespace tarn;
using namespace tarn::net;

namespace tarn::net {
namespace {

enum class State : uint8_t {
    Down,
    Starting,
    Up,
    Standing, // everything runs, but the accept thread could not be started: not up, to be taken down first
    Stopping,
};

constinit std::atomic<State> g_state{State::Down}; // changes under g_netip_lock
constinit Shared<uint32_t>   g_start      = 0;     // number of the last start
constinit int32_t            g_io_started = 0;     // entries of g_io_threads. g_netip_lock

struct Parts {
    Fd               epoll;
    Fd               wake_fd;
    owned<pthread_t> threads;
    int32_t          thread_count = 0;
    Fd               new_listener; // unless there is one to adopt
    int              listener = -1;
    Fd               udp;
};

// ---- sockets

sockaddr_in any_address()
{
    sockaddr_in address{};
    address.sin_family      = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port        = htons(NETIP_PORT);
    return address;
}

bool bind_to_port(int fd)
{
    const int         on      = 1;
    const sockaddr_in address = any_address();
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    return bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

// Still the listener of an earlier start, not a descriptor that was closed from outside and used for something else.
bool is_our_listener(int fd)
{
    int         listening = 0;
    socklen_t   length    = sizeof listening;
    sockaddr_in address{};
    socklen_t   address_length = sizeof address;
    return fd >= 0 && getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0 && listening &&
           getsockname(fd, reinterpret_cast<sockaddr *>(&address), &address_length) == 0 &&
           address.sin_family == AF_INET && address.sin_port == htons(NETIP_PORT);
}

// Without delay: each packet is one write, and the peer often waits for it. Connections have it from their listener.
void send_at_once(int listener)
{
    const int on = 1;
    setsockopt(listener, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

Start open_listener(Parts &parts)
{
    Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd)
        return Start::NoSocket;
    if (!bind_to_port(fd.get()))
        return Start::Taken;
    if (listen(fd.get(), NETIP_BACKLOG) != 0)
        return Start::NoListen;
    parts.listener     = fd.get();
    parts.new_listener = std::move(fd);
    return Start::Up;
}

// The layer runs without UDP when this fails.
Fd open_udp()
{
    Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd && !bind_to_port(fd.get()))
        fd.reset();
    return fd;
}

// ---- up

Start make_parts(Parts &parts, int32_t io_threads, Udp udp)
{
    parts.epoll = Fd(epoll_create1(EPOLL_CLOEXEC));
    if (!parts.epoll)
        return Start::NoEpoll;
    parts.thread_count = std::clamp(io_threads, 1, int32_t{NETIP_IO_THREADS_MAX});
    parts.threads      = allocate_zeroed<pthread_t>(static_cast<size_t>(parts.thread_count));
    if (!parts.threads)
        return Start::NoMemory;
    parts.listener = peek(g_netip_tcp_listen);
    if (!is_our_listener(parts.listener))
        if (const Start failure = open_listener(parts); failure != Start::Up)
            return failure;
    send_at_once(parts.listener);
    parts.wake_fd = Fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)); // without it UDP waits a little longer
    (void)watch_shared(parts.epoll.get(), parts.wake_fd.get());
    if (udp == Udp::Open)
        parts.udp = open_udp();
    if (parts.udp) // an arrival is a round, in which UDP is read; without UDP it only would wake the thread for nothing
        (void)watch_shared(parts.epoll.get(), parts.listener);
    return Start::Up;
}

void set_callback(netip_event_cb_t cb, void *arg) REQUIRES(g_netip_lock)
{
    g_netip_cb_arg = arg;
    poke_release(g_netip_cb, cb); // see event_sink()
}

void set_descriptors(int epoll, int wake_fd, int listener, int udp) REQUIRES(g_netip_lock)
{
    const SharedFds changing(SharedFds::Change);
    netip_epoll_fd     = epoll;
    g_wake_fd          = wake_fd;
    g_netip_tcp_listen = listener;
    g_netip_udp        = udp;
}

// The threads wait for g_netip_lock before they look at anything.
int32_t start_io_threads(Parts &parts) REQUIRES(g_netip_lock)
{
    void *const start = reinterpret_cast<void *>(uintptr_t{uint32_t{g_start}});
    int32_t     count = 0;
    while (count < parts.thread_count && start_thread(parts.threads.get() + count, "tarn-io", io_thread, start) == 0)
        ++count;
    return count;
}

void join_threads(const pthread_t *threads, int32_t count)
{
    for (int32_t i = 0; i < count; ++i)
        join_or_detach(threads[i]);
}

bool publish(Parts &parts, netip_event_cb_t cb, void *arg)
{
    int32_t started;
    {
        ScopedLock    lock(g_netip_lock);
        const int32_t old_listener = g_netip_tcp_listen;
        clear_table();
        set_callback(cb, arg);
        set_descriptors(parts.epoll.get(), parts.wake_fd.get(), parts.listener, parts.udp.get());
        g_io_thread_num = parts.thread_count;
        g_start         = g_start + 1;
        g_netip_running = 1;
        started         = start_io_threads(parts);
        if (started == parts.thread_count) {
            g_io_threads = parts.threads.release();
            g_io_started = started;
            parts.epoll.release();
            parts.wake_fd.release();
            parts.new_listener.release();
            parts.udp.release();
            g_state = State::Up;
            return true;
        }
        g_netip_running = 0; // or those that were started would never end
        set_descriptors(-1, -1, old_listener, -1);
        set_callback(nullptr, nullptr);
    }
    join_threads(parts.threads.get(), started);
    return false;
}

void set_state(State state)
{
    ScopedLock lock(g_netip_lock);
    g_state = state;
}

// True when the caller is the one to start the layer.
bool begin_start()
{
    if (g_state == State::Standing)
        stop();
    ScopedLock lock(g_netip_lock);
    if (g_state != State::Down)
        return false;
    g_state = State::Starting;
    return true;
}

// ---- down

void stop_threads()
{
    pthread_t *threads;
    int32_t    count;
    {
        ScopedLock lock(g_netip_lock);
        g_state         = State::Stopping;
        g_netip_running = 0;
        threads         = swap_in(g_io_threads, nullptr);
        count           = g_io_started;
        g_io_started    = 0;
    }
    give_up_round();
    join_threads(threads, count);
    free(threads);
    stop_lanes();
    await_accept_thread();
}

} // namespace

bool layer_runs(uint32_t start) noexcept
{
    return peek(g_netip_running) && g_start == start;
}

bool is_up() noexcept
{
    return g_state == State::Up;
}

Start start(netip_event_cb_t cb, void *arg, int32_t io_threads, Udp udp) noexcept
{
    if (!begin_start())
        return Start::Taken; // as a second bind would say
    Parts parts;
    Start result = make_parts(parts, io_threads, udp);
    if (result == Start::Up && !publish(parts, cb, arg))
        result = Start::NoMemory;
    if (result != Start::Up) {
        set_state(State::Down);
        return result;
    }
    if (!start_accepting()) {
        set_state(State::Standing);
        LOG_ERROR("创建 accept 线程失败");
        return Start::NoMemory;
    }
    return Start::Up;
}

void stop() noexcept
{
    stop_threads();
    const EventSink sink = event_sink();
    for (uint32_t handle = 0; handle < NETIP_CLIENTS_MAX; ++handle)
        close_at_deinit(handle, sink);
    empty_queues();
    close_shared_udp();
    close_epoll();

    ScopedLock lock(g_netip_lock);
    close_left_open();
    set_callback(nullptr, nullptr);
    g_last_handle = 0;
    g_state       = State::Down;
}

} // namespace tarn::net
