// watch.cpp - what the epoll instance is told about each slot, and the descriptors that all slots share.
//
// An event carries generation << 32 | handle, so that one left over from a slot's last connection is recognised; 0 is
// the listener or g_wake_fd. Registration failures are harmless unless said otherwise: the descriptor is not in epoll,
// or no more.
#include "../base/clock.h"
#include "../base/fd.h"
#include "netip_internal.h"

#include <sys/eventfd.h>

namespace tarn::net {

constinit Shared<int32_t> g_wake_fd = -1;

namespace {

constexpr uint32_t kReadable = EPOLLIN | EPOLLERR | EPOLLHUP;

constexpr uint64_t kWatchPause_ms = 100;

pthread_rwlock_t g_shared_fds = PTHREAD_RWLOCK_INITIALIZER;

constinit std::atomic<uint32_t> g_paused{0};          // slots
constinit std::atomic<uint64_t> g_paused_since_ms{0}; // of the first of them

bool change_registration(int operation, uint32_t handle, uint32_t events = 0)
{
    epoll_event event{};
    event.events   = events;
    event.data.u64 = uint64_t{side_of(handle).generation} << 32 | handle;
    const SharedFds open(SharedFds::Use);
    return epoll_ctl(netip_epoll_fd, operation, slot_of(handle).fd, &event) == 0;
}

void set_paused(uint32_t handle, bool paused)
{
    SlotSide &side = side_of(handle);
    if (paused == (side.paused != 0))
        return;
    side.paused = paused;
    if (!paused)
        --g_paused;
    else if (g_paused++ == 0)
        g_paused_since_ms = mono_ms();
}

bool is_time_to_resume(bool idle)
{
    return g_paused != 0 && (idle || elapsed(mono_ms(), g_paused_since_ms) >= kWatchPause_ms);
}

Fd take_shared(Shared<int32_t> &descriptor)
{
    const SharedFds changing(SharedFds::Change);
    return Fd(swap_in(descriptor, -1));
}

} // namespace

SharedFds::SharedFds(For what) noexcept
{
    if (what == Use)
        pthread_rwlock_rdlock(&g_shared_fds);
    else
        pthread_rwlock_wrlock(&g_shared_fds);
}

SharedFds::~SharedFds()
{
    pthread_rwlock_unlock(&g_shared_fds);
}

bool watch(uint32_t handle) noexcept
{
    SlotSide &side = side_of(handle);
    if (!change_registration(EPOLL_CTL_ADD, handle, kReadable | (side.wants_writable ? EPOLLOUT : 0u)))
        return false;
    side.unwatched = 0;
    return true;
}

void unwatch(uint32_t handle) noexcept
{
    change_registration(EPOLL_CTL_DEL, handle);
    set_paused(handle, false);
}

void want_writable(uint32_t handle) noexcept
{
    side_of(handle).wants_writable = 1;
    change_registration(EPOLL_CTL_MOD, handle, kReadable | EPOLLOUT);
}

// A registration for writable events that stays would report for ever, as an idle socket is always writable.
bool forget_writable(uint32_t handle) noexcept
{
    if (!side_of(handle).wants_writable)
        return false;
    side_of(handle).wants_writable = 0;
    change_registration(EPOLL_CTL_MOD, handle, kReadable);
    return true;
}

void pause_watching(uint32_t handle) noexcept
{
    change_registration(EPOLL_CTL_DEL, handle);
    set_paused(handle, true);
}

void resume_watching(bool idle) noexcept
{
    if (!is_time_to_resume(idle))
        return;
    for (uint32_t handle = 0; handle < NETIP_CLIENTS_MAX; ++handle) {
        if (!side_of(handle).paused)
            continue;
        SlotLock lock(handle);
        if (!lock || !side_of(handle).paused || side_of(handle).server != Server::Rounds)
            continue;
        set_paused(handle, false);
        (void)watch(handle);
    }
}

// Edge-triggered, since each event only has to wake a round: the I/O thread reads neither of the two.
bool watch_shared(int epoll, int descriptor) noexcept
{
    epoll_event event{};
    event.events   = kReadable | EPOLLET;
    event.data.u64 = 0;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

// The listener alone is not enough: epoll tells nothing of a connection that was accepted before it looked.
void wake_io_thread() noexcept
{
    const SharedFds open(SharedFds::Use);
    (void)eventfd_write(g_wake_fd, 1);
}

void close_shared_udp() noexcept
{
    take_shared(g_netip_udp).reset();
}

void close_epoll() noexcept
{
    take_shared(netip_epoll_fd).reset();
    take_shared(g_wake_fd).reset();
}

} // namespace tarn::net
