#include "connections.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <tarn_sdk_mqtt_broker/base/limits.h>
#include <tarn_sdk_mqtt_broker/client/client.h>
#include <tarn_sdk_mqtt_broker/net/netip.h>

namespace tarn::broker {
namespace {

// The kernel's probes: a peer that is gone is noticed after two minutes of silence.
constexpr int32_t kProbeAfter_s = 60;
constexpr int32_t kProbeEvery_s = 10;
constexpr int32_t kProbes       = 6;

constexpr uint32_t kProbedEnough = 1000; // in a row: more than can overtake one another on their way into the queue

// When each was opened, in ms of a steady clock; 0 = closed, or known to have connected.
std::array<std::atomic<int64_t>, NETIP_CLIENTS_MAX> g_opened_ms;

// Connections that this thread found to be probed, one after another. Only one thread accepts, and one more tells of
// those that came during the start; each sees its own in the order in which they came.
constinit thread_local uint32_t t_probed_in_a_row = 0;

template <class T> T peek(T &field, std::memory_order order = std::memory_order_relaxed)
{
    return std::atomic_ref<T>(field).load(order);
}

bool is_open_tcp(uint32_t handle)
{
    netip_conn_t &slot = g_netip_clients[handle];
    return peek(slot.in_use, std::memory_order_acquire) != 0 && peek(slot.type) == NETIP_TCP;
}

bool set(int fd, int level, int name, int value)
{
    return setsockopt(fd, level, name, &value, sizeof value) == 0;
}

bool has_probes(int fd)
{
    int       on     = 0;
    socklen_t length = sizeof on;
    return getsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, &length) == 0 && on != 0;
}

// Connections have what their listener had when they came, so most need no calls of their own. Those that came before it
// was switched are accepted first: once enough in a row are probed, all that follow are, too.
bool is_probed(uint32_t handle)
{
    if (t_probed_in_a_row == kProbedEnough)
        return true;
    const bool on     = has_probes(peek(g_netip_clients[handle].fd));
    t_probed_in_a_row = on ? t_probed_in_a_row + 1 : 0;
    return on;
}

bool has_connected(uint32_t handle)
{
    mqtt_client_t *const client = client_find_by_handle(handle);
    return client && peek(client->state) == CLIENT_LOGINED;
}

} // namespace

void probe_connections()
{
    const int listener = peek(g_netip_tcp_listen);
    // The switch is the last: who has it has the rest.
    (void)(set(listener, IPPROTO_TCP, TCP_KEEPIDLE, kProbeAfter_s) &&
           set(listener, IPPROTO_TCP, TCP_KEEPINTVL, kProbeEvery_s) &&
           set(listener, IPPROTO_TCP, TCP_KEEPCNT, kProbes) && set(listener, SOL_SOCKET, SO_KEEPALIVE, 1));
}

bool connection_opened(uint32_t handle, int64_t now_ms)
{
    if (handle >= g_opened_ms.size() || !is_open_tcp(handle))
        return false;
    if (!is_probed(handle))
        netip_set_tcp_keepalive(handle, kProbeAfter_s, kProbeEvery_s, kProbes);
    g_opened_ms[handle] = std::max<int64_t>(now_ms, 1);
    return true;
}

void connection_closed(uint32_t handle)
{
    if (handle < g_opened_ms.size())
        g_opened_ms[handle] = 0;
}

size_t close_silent_connections(int64_t now_ms, int64_t limit_ms)
{
    size_t closed = 0;
    for (uint32_t handle = 0; handle < g_opened_ms.size(); ++handle) {
        int64_t opened_ms = g_opened_ms[handle];
        if (opened_ms == 0 || now_ms - opened_ms < limit_ms)
            continue;
        if (!g_opened_ms[handle].compare_exchange_strong(opened_ms, 0) || has_connected(handle))
            continue;
        netip_close(handle);
        ++closed;
    }
    return closed;
}

HeldUdpPort::HeldUdpPort() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in any{};
    any.sin_family      = AF_INET;
    any.sin_port        = htons(NETIP_PORT);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    // Another program may hold it already, which is as good.
    (void)bind(fd_, reinterpret_cast<const sockaddr *>(&any), sizeof any);
}

HeldUdpPort::~HeldUdpPort()
{
    close(fd_);
}

} // namespace tarn::broker
