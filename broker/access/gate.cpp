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
WillJudge        g_judge;
netip_event_cb_t g_library; // who had the place before

std::atomic<bool> g_installed;

struct Packet {
    uint32_t           handle  = NETIP_NO_HANDLE;
    const DroppedWill *dropped = nullptr;
};
thread_local Packet t_packet; // under way on this thread

class UnderWay {
public:
    explicit UnderWay(uint32_t handle) { t_packet = {handle, nullptr}; }
    ~UnderWay() { t_packet = {}; }
    UnderWay(const UnderWay &)            = delete;
    UnderWay &operator=(const UnderWay &) = delete;
};

std::optional<DroppedWill> judge(std::span<const uint8_t> packet)
{
    std::optional<ConnectWill> will = find_will(packet);
    const char *const          why  = will ? g_judge(*will) : nullptr;
    if (!why)
        return {};
    return DroppedWill{std::move(*will), why};
}

uint8_t on_network_event(uint32_t handle, uint32_t event, const uint8_t *data, uint32_t length, uint32_t reason,
                         uint32_t error, void *broker)
{
    if (event != NETIP_EVENT_DATA || !data)
        return g_library(handle, event, data, length, reason, error, broker);
    const UnderWay       packet(handle);
    std::vector<uint8_t> stripped;
    const auto           dropped = judge({data, length});
    if (dropped) {
        stripped         = without_will({data, length}, dropped->will);
        data             = stripped.data();
        length           = static_cast<uint32_t>(stripped.size());
        t_packet.dropped = &*dropped;
    }
    return g_library(handle, event, data, length, reason, error, broker);
}

// A CONNECT whose will nobody could look at ends its connection.
uint8_t end_connection(uint32_t handle, uint32_t /*event*/, const uint8_t * /*data*/, uint32_t /*length*/,
                       uint32_t /*reason*/, uint32_t /*error*/, void * /*broker*/)
{
    netip_close(handle);
    return 1;
}

} // namespace

void install_gate(WillJudge judge)
{
    g_judge = judge;
    pthread_mutex_lock(&g_netip_lock);
    g_library = g_netip_cb;
    if (g_library) // else start has failed
        std::atomic_ref(g_netip_cb).store(CCallback<on_network_event, end_connection>::call, std::memory_order_relaxed);
    pthread_mutex_unlock(&g_netip_lock);
    g_installed = true;
}

bool passed_gate()
{
    const auto give_up = std::chrono::steady_clock::now() + kStartMax;
    while (!g_installed && std::chrono::steady_clock::now() < give_up)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return t_packet.handle != NETIP_NO_HANDLE;
}

const DroppedWill *dropped_will()
{
    return t_packet.dropped;
}

std::string peer_ip()
{
    char           ip[64] = "";
    const uint32_t handle = t_packet.handle;
    if (handle == NETIP_NO_HANDLE || !netip_get_client_ip(handle, ip, sizeof ip))
        return "";
    return ip;
}

std::string peer_address()
{
    const std::string ip = peer_ip();
    return ip.empty() ? ip : ip + ':' + std::to_string(netip_get_client_port(t_packet.handle));
}

} // namespace tarn::broker
