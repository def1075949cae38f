#include "gate.h"

#include "../shortage.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <pthread.h>
#include <thread>
#include <utility>

#include <tarn_sdk_mqtt_broker/net/netip.h>

namespace tarn::broker {
namespace {

constexpr auto kStartMax = std::chrono::seconds(5); // that a callback waits for start to return

// Set before the gate is installed.
GateKeeper       g_keeper;
netip_event_cb_t g_library; // who had the place before

std::atomic<bool> g_installed;

struct Packet {
    uint32_t           handle        = NETIP_NO_HANDLE;
    const DroppedWill *dropped       = nullptr;
    bool               leaves_will   = false;
    bool               keeps_session = false;
    bool               is_retained   = false;
};
thread_local Packet t_packet; // under way on this thread

class UnderWay {
public:
    explicit UnderWay(uint32_t handle) { t_packet = {.handle = handle}; }
    ~UnderWay() { t_packet = {}; }
    UnderWay(const UnderWay &)            = delete;
    UnderWay &operator=(const UnderWay &) = delete;
};

constexpr uint8_t kPublish = 0x30, kRetain = 0x01, kTypeBits = 0xF0;

std::optional<DroppedWill> judge(uint32_t handle, std::span<const uint8_t> packet)
{
    if (!has_will_flag(packet))
        return {};
    if (!g_keeper.judge_will) {
        t_packet.leaves_will = true;
        return {};
    }
    std::optional<ConnectWill> will = find_will(packet);
    const char *const          why  = will ? g_keeper.judge_will(handle, *will) : nullptr;
    t_packet.leaves_will            = will && !why;
    if (!why)
        return {};
    return DroppedWill{std::move(*will), why};
}

// The library is always told, whatever becomes of what stands around it.
uint8_t on_connection_event(uint32_t handle, uint32_t event, uint32_t reason, uint32_t error, void *broker)
{
    if (event == NETIP_EVENT_DISCONNECTED)
        unless_short([&] { g_keeper.closed(handle); });
    const uint8_t result = g_library(handle, event, nullptr, 0, reason, error, broker);
    if (event == NETIP_EVENT_CONNECTED)
        g_keeper.opened(handle);
    return result;
}

uint8_t on_connect(uint32_t handle, std::span<const uint8_t> packet, uint32_t reason, uint32_t error, void *broker)
{
    std::vector<uint8_t> stripped;
    const auto           dropped = judge(handle, packet);
    t_packet.keeps_session       = g_keeper.judge_will ? keeps_session(packet) : keeps_standard_session(packet);
    if (dropped) {
        stripped         = without_will(packet, dropped->will);
        packet           = stripped;
        t_packet.dropped = &*dropped;
    }
    return g_library(handle, NETIP_EVENT_DATA, packet.data(), static_cast<uint32_t>(packet.size()), reason, error,
                     broker);
}

uint8_t on_network_event(uint32_t handle, uint32_t event, const uint8_t *data, uint32_t length, uint32_t reason,
                         uint32_t error, void *broker)
{
    if (event != NETIP_EVENT_DATA || !data)
        return on_connection_event(handle, event, reason, error, broker);
    const UnderWay packet(handle);
    if (is_connect({data, length}))
        return on_connect(handle, {data, length}, reason, error, broker);
    t_packet.is_retained = (data[0] & (kTypeBits | kRetain)) == (kPublish | kRetain);
    return g_library(handle, event, data, length, reason, error, broker);
}

void await_installation()
{
    const auto give_up = std::chrono::steady_clock::now() + kStartMax;
    while (!g_installed && std::chrono::steady_clock::now() < give_up)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// A connection that could not be counted, and a CONNECT whose will nobody could look at, end.
uint8_t end_connection(uint32_t handle, uint32_t /*event*/, const uint8_t * /*data*/, uint32_t /*length*/,
                       uint32_t /*reason*/, uint32_t /*error*/, void * /*broker*/)
{
    netip_close(handle);
    return 1;
}

} // namespace

void install_gate(const GateKeeper &keeper)
{
    g_keeper = keeper;
    pthread_mutex_lock(&g_netip_lock);
    g_library            = g_netip_cb;
    const uint32_t given = std::atomic_ref(g_last_handle).load(std::memory_order_relaxed);
    if (g_library) // else start has failed
        std::atomic_ref(g_netip_cb).store(CCallback<on_network_event, end_connection>::call, std::memory_order_relaxed);
    pthread_mutex_unlock(&g_netip_lock);
    g_installed = true;
    // Who came before. Handles are given one after another; a look at a slot that nobody had would cost a page fault,
    // and another one later.
    for (uint32_t handle = 0; g_library && handle < given; ++handle)
        if (std::atomic_ref(g_netip_clients[handle].in_use).load(std::memory_order_acquire) != 0)
            unless_short([&] { g_keeper.opened(handle); });
}

bool passed_gate()
{
    if (!g_installed)
        await_installation();
    return t_packet.handle != NETIP_NO_HANDLE;
}

const DroppedWill *dropped_will()
{
    return t_packet.dropped;
}

uint32_t packet_handle()
{
    return t_packet.handle;
}

bool packet_leaves_will()
{
    return t_packet.leaves_will;
}

bool packet_keeps_session()
{
    return t_packet.keeps_session;
}

bool packet_is_retained()
{
    return t_packet.is_retained;
}

std::string address_of(uint32_t handle)
{
    char ip[64] = "";
    return handle != NETIP_NO_HANDLE && netip_get_client_ip(handle, ip, sizeof ip) ? ip : "";
}

std::string peer_ip()
{
    return address_of(t_packet.handle);
}

std::string peer_address()
{
    const std::string ip = peer_ip();
    return ip.empty() ? ip : ip + ':' + std::to_string(netip_get_client_port(t_packet.handle));
}

} // namespace tarn::broker
