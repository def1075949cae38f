// connection_table.cpp - the exported table and globals, how handles are chosen, and what callers may ask about one.
#include "../base/text.h"
#include "netip_internal.h"

#include <cstring>
#include <netinet/tcp.h>
#include <sys/socket.h>

using namespace tarn;
using namespace tarn::net;

constinit netip_conn_t             g_netip_clients[NETIP_CLIENTS_MAX] = {};
constinit Shared<uint32_t>         g_last_handle                      = 0;
constinit Shared<uint8_t>          g_netip_running                    = 0;
constinit tarn_mutex_t             g_netip_lock                       = {PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP};
constinit Shared<netip_event_cb_t> g_netip_cb                         = nullptr;
constinit Shared<void *>           g_netip_cb_arg                     = nullptr;
constinit Shared<int32_t>          g_io_thread_num                    = 1;
constinit Shared<pthread_t *>      g_io_threads                       = nullptr;
constinit Shared<int32_t>          g_netip_tcp_listen                 = -1;
constinit Shared<int32_t>          g_netip_udp                        = -1;
constinit Shared<int32_t>          netip_epoll_fd                     = -1;
constinit epoll_event              g_epoll_events[NETIP_EPOLL_EVENTS] = {};

namespace tarn::net {
namespace {

// Slots that are still being torn down, or whose last packet is still being handled, wait for their turn.
bool is_free(uint32_t handle)
{
    return !peek_acquire(slot_of(handle).in_use) && side_of(handle).pins.load(std::memory_order_acquire) == 0;
}

uint32_t first_free(uint32_t from, uint32_t end)
{
    for (uint32_t handle = from; handle < end && handle < NETIP_CLIENTS_MAX; ++handle)
        if (is_free(handle))
            return handle;
    return NETIP_NO_HANDLE;
}

} // namespace

// Next fit: from where the last search ended, then once round. A handle comes back as late as possible.
uint32_t take_free_handle() noexcept
{
    const uint32_t start  = g_last_handle;
    uint32_t       handle = first_free(start, NETIP_CLIENTS_MAX);
    if (handle == NETIP_NO_HANDLE)
        handle = first_free(0, start);
    if (handle != NETIP_NO_HANDLE)
        g_last_handle = handle + 1;
    return handle;
}

uint32_t generation_of(uint32_t handle) noexcept
{
    const bool is_used = handle < NETIP_CLIENTS_MAX && peek_acquire(slot_of(handle).in_use);
    return is_used ? uint32_t{side_of(handle).generation} : 0;
}

bool is_open(Connection connection) noexcept
{
    return connection.generation == 0 || is_current(connection);
}

bool copy_ip(uint32_t handle, std::span<char> ip) noexcept
{
    SlotLock lock(handle);
    if (!lock) {
        memset(ip.data(), 0, ip.size());
        return false;
    }
    const std::string_view text  = text_of(lock->ip);
    const size_t           count = text.copy(ip.data(), ip.size() - 1);
    ip[count]                    = '\0';
    return true;
}

uint16_t port_of(uint32_t handle) noexcept
{
    SlotLock lock(handle);
    return lock ? lock->port : 0;
}

uint64_t last_active_of(uint32_t handle) noexcept
{
    ScopedLock table(g_netip_lock);
    SlotLock   lock(handle);
    return lock ? uint64_t{lock->last_active} : 0;
}

bool set_keepalive(uint32_t handle, int32_t idle_s, int32_t interval_s, int32_t count) noexcept
{
    ScopedLock table(g_netip_lock);
    SlotLock   lock(handle);
    if (!lock || lock->type != NETIP_TCP)
        return false;
    const int on = 1; // what the kernel makes of the values is its own affair
    setsockopt(lock->fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(lock->fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle_s, sizeof idle_s);
    setsockopt(lock->fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval_s, sizeof interval_s);
    setsockopt(lock->fd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count);
    return true;
}

} // namespace tarn::net
