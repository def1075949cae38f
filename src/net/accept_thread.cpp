// accept_thread.cpp - the one thread that sleeps in accept and puts new connections into the table.
//
// The listener outlives the layer, and so may this thread: asleep in accept it does not notice the layer going down.
// The connection that wakes it then is kept and the thread ends. The next start serves that connection first, then
// those in the listener's queue: no connection is lost or overtaken.
#include "../base/clock.h"
#include "../base/fd.h"
#include "../base/thread.h"
#include "netip_internal.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>

namespace tarn::net {
namespace {

constexpr uint32_t kAcceptPause_ms = 5;

struct Arrival {
    Fd          fd;
    PeerAddress peer;
};

struct Waiting {
    int         fd; // -1: none
    PeerAddress peer;
};

constinit bool g_alive      GUARDED_BY(g_netip_lock) = false;
constinit Waiting g_waiting GUARDED_BY(g_netip_lock) = {-1, {}};

constinit Mutex             g_admission_mutex{}; // held while a connection is admitted, its callback included
constinit thread_local bool t_accepting = false;

// Failures that do not go away by themselves at once.
bool lasts(int error)
{
    switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
    case EBADF: // a listener broken from outside, here and below
    case EINVAL:
    case ENOTSOCK:
    case EAGAIN:
        return true;
    default:
        return false;
    }
}

bool take_waiting(Arrival &arrival)
{
    ScopedLock lock(g_netip_lock);
    if (g_waiting.fd < 0)
        return false;
    arrival.fd   = Fd(g_waiting.fd);
    arrival.peer = g_waiting.peer;
    g_waiting.fd = -1;
    return true;
}

// To UDP, which is read in rounds only. Before the socket joins epoll, so that its own events never come before this one.
void owe_a_round()
{
    if (peek(g_netip_udp) >= 0)
        wake_io_thread();
}

bool accept_one(Arrival &arrival)
{
    arrival.fd = Fd(accept4(peek(g_netip_tcp_listen), reinterpret_cast<sockaddr *>(&arrival.peer.address),
                            &arrival.peer.length, SOCK_NONBLOCK | SOCK_CLOEXEC));
    return static_cast<bool>(arrival.fd);
}

// The callback comes before the socket joins epoll, so that "connected" precedes everything else.
void introduce(const SlotPin &pin, const EventSink &sink)
{
    sink.connected(pin.handle(), REASON_TCP);
    bool watched;
    {
        SlotLock slot(pin.handle(), SlotLock::Always);
        watched = !pin.is_current() || watch(pin.handle());
    }
    if (!watched)
        hang_up(pin, sink); // nothing would ever be heard of it
}

// False when the layer is down: the arrival is kept and the thread must end.
bool admit(Arrival &arrival)
{
    ScopedLock admission(g_admission_mutex);
    Connection connection;
    {
        ScopedLock lock(g_netip_lock);
        if (!g_netip_running) {
            g_waiting = {arrival.fd.release(), arrival.peer};
            g_alive   = false;
            return false;
        }
        connection = open_slot(NETIP_TCP, arrival.fd.get(), arrival.peer);
    }
    if (connection.handle == NETIP_NO_HANDLE)
        return true; // the table is full, and the arrival closes itself
    arrival.fd.release();
    introduce(SlotPin(connection, SlotPin::Counted), event_sink());
    return true;
}

bool end_if_down()
{
    ScopedLock lock(g_netip_lock);
    if (g_netip_running)
        return false;
    g_alive = false;
    return true;
}

void make_listener_blocking()
{
    const int fd = peek(g_netip_tcp_listen);
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
}

void *accept_thread(void *)
{
    t_accepting = true;
    make_listener_blocking();
    for (;;) {
        Arrival arrival;
        if (take_waiting(arrival) || accept_one(arrival)) {
            owe_a_round();
            if (!admit(arrival))
                return nullptr;
            continue;
        }
        const int error = errno;
        if (end_if_down())
            return nullptr;
        if (lasts(error))
            pause_ms(kAcceptPause_ms);
    }
}

} // namespace

bool start_accepting() noexcept
{
    {
        ScopedLock lock(g_netip_lock);
        if (g_alive)
            return true; // asleep in accept since an earlier start
        g_alive = true;
    }
    pthread_t thread;
    // Where it waits, the next connections have come, too, and a wake-up is paid for once.
    if (start_thread(&thread, "tarn-accept", accept_thread, nullptr, WakesUp::ToWait) == 0) {
        pthread_detach(thread);
        return true;
    }
    ScopedLock lock(g_netip_lock);
    g_alive = false;
    return false;
}

void await_accept_thread() noexcept
{
    if (!t_accepting)
        ScopedLock until_outside(g_admission_mutex);
}

} // namespace tarn::net
