// events.cpp - the upward direction: the one event callback, the connection a thread is delivering for, and the hooks
// around a round. No lock is held in any of these calls.
#include "netip_internal.h"

namespace tarn::net {
namespace {

constinit thread_local Connection t_current{};

constinit std::atomic<void (*)()>         g_round_begin{nullptr};
constinit std::atomic<void (*)()>         g_round_end{nullptr};
constinit std::atomic<bool (*)()>         g_round_send{nullptr};
constinit std::atomic<void (*)(uint32_t)> g_writable{nullptr};

} // namespace

// The two change together only while the layer is down, and a host that puts itself in the callback's place leaves the
// argument: so no lock is needed, which every round and every accepted connection would wait for.
EventSink event_sink() noexcept
{
    const netip_event_cb_t call = peek_acquire(g_netip_cb);
    return {call, peek(g_netip_cb_arg)};
}

void EventSink::connected(uint32_t handle, uint32_t reason) const noexcept
{
    if (call)
        (void)call(handle, NETIP_EVENT_CONNECTED, nullptr, 0, reason, 0, arg);
}

bool EventSink::disconnected(uint32_t handle, uint32_t reason) const noexcept
{
    return !call || call(handle, NETIP_EVENT_DISCONNECTED, nullptr, 0, reason, 0, arg) != 0;
}

void EventSink::data(Connection connection, const uint8_t *bytes, uint32_t length) const noexcept
{
    if (!call)
        return;
    const Connection outer = t_current;
    t_current              = connection;
    (void)call(connection.handle, NETIP_EVENT_DATA, bytes, length, REASON_DATA, 0, arg);
    t_current = outer;
}

Connection current_connection() noexcept
{
    return t_current;
}

OutsideEvent::OutsideEvent() noexcept : outer_(t_current)
{
    t_current = {};
}
OutsideEvent::~OutsideEvent()
{
    t_current = outer_;
}

void set_round_hooks(RoundHooks hooks) noexcept
{
    g_round_begin.store(hooks.begin, std::memory_order_release);
    g_round_end.store(hooks.end, std::memory_order_release);
    g_round_send.store(hooks.send, std::memory_order_release);
}

void set_writable_hook(void (*writable)(uint32_t handle)) noexcept
{
    g_writable.store(writable, std::memory_order_release);
}

void call_round_begin() noexcept
{
    if (void (*const hook)() = g_round_begin.load(std::memory_order_acquire))
        hook();
}
void call_round_end() noexcept
{
    if (void (*const hook)() = g_round_end.load(std::memory_order_acquire))
        hook();
}
bool call_round_send() noexcept
{
    bool (*const hook)() = g_round_send.load(std::memory_order_acquire);
    return hook && hook();
}
void call_writable_hook(uint32_t handle) noexcept
{
    if (void (*const hook)(uint32_t) = g_writable.load(std::memory_order_acquire))
        hook(handle);
}

} // namespace tarn::net
