// activity.cpp - a client's keep-alive and the moment it was last heard of or sent to.
#include "../base/clock.h"
#include "client_internal.h"

namespace tarn::client {

void log_wrong_keepalive(uint32_t handle, int state) noexcept
{
    LOG_ERROR("client_set_keepalive: 无效客户端实例（handle=0x%08X, state=%d）", handle, state);
}

// QUIRK(keepalive-zero): a keep-alive of 0 becomes 60 s and the client is closed after 90 s of silence, where MQTT
// turns the mechanism off [MQTT 5.0 3.1.2.10]. Dead connections must not hold their record for ever.
//   standard profile: lifted (keep-alive)
//   test: keepalive.zero_becomes_sixty_seconds
void set_keepalive(mqtt_client_t &client, uint16_t seconds) noexcept
{
    const uint32_t handle = client.handle;
    const uint32_t state  = client.state;
    if (state == CLIENT_CLOSED || handle == NETIP_NO_HANDLE)
        return log_wrong_keepalive(handle, static_cast<int>(state));

    const uint32_t keepalive_ms = seconds != 0 ? seconds * 1000u : uint32_t{CLIENT_KEEPALIVE_0_MS};
    {
        ScopedLock lock(mutex_of_handle(handle));
        client.keepalive_ms = keepalive_ms;
        client.last_active  = mono_ms();
    }
    LOG_DEBUG("client_set_keepalive: handle=0x%08X, cid=%s, keepalive=%lu秒（超时阈值=%lu秒）", handle,
              id_of(client).text, static_cast<unsigned long>(seconds),
              static_cast<unsigned long>(keepalive_ms * 3 / 2000));
}

// QUIRK(sent-counts-as-life): a packet that is queued for a client is a sign of life like one that it sent, so a client
// that vanished without a word is not closed after its keep-alive [MQTT-3.1.2-22] while messages go on coming for it,
// and its will waits. It is closed when the messages pause, when its queue and its socket are full, or when TCP gives
// it up. A will that must come in time belongs to a client that subscribes to nothing, or to little.
//   standard profile: lifted (keep-alive)
//   test: client_send.counts_as_activity
void note_active(mqtt_client_t &client) noexcept
{
    if (client.state == CLIENT_CLOSED)
        return;
    if (client.timeout_closing)
        client.timeout_closing = 0;
    client.last_active = packet_ms();
}

} // namespace tarn::client
