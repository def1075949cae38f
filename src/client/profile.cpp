// profile.cpp - which profile serves the packets of connections, and the records of its clients. What a record goes
// through here are the edges of life.cpp, without what only the native profile has: session files, wills, deliveries.
#include "../base/clock.h"
#include "client_internal.h"

namespace tarn::client {
namespace {

constinit std::atomic<const Profile *> g_profile{nullptr};

} // namespace

void use_profile(const Profile *profile) noexcept
{
    g_profile.store(profile, std::memory_order_release);
    use_network_hooks();
}

const Profile *profile_in_use() noexcept
{
    return g_profile.load(std::memory_order_acquire);
}

client_ref make_record(net::Connection connection, broker_t *broker) noexcept
{
    return create_client_of(connection, broker);
}

void name_record(mqtt_client_t &client, const char *id, uint8_t level, bool clean_session) noexcept
{
    store_id(client, id);
    shared(client.codec.version) = level;
    client.clean_session         = clean_session ? 1 : 0;
}

bool log_in_record(mqtt_client_t &client, uint16_t keep_alive_s) noexcept
{
    {
        ScopedLock lock(mutex_of_handle(client.handle));
        client.keepalive_ms = keep_alive_s * 1000u;
        client.last_active  = mono_ms();
    }
    if (!mark_logged_in(client))
        return false;
    be_found(client, CLIENT_LOGINED);
    return true;
}

void end_record(mqtt_client_t &client) noexcept
{
    const Claim claim(client);
    if (!claim || client.state == CLIENT_CLOSED)
        return;
    leave_tables(client, kGoOffline);
    wait_for_flusher(client);
    (void)release_record(client);
}

} // namespace tarn::client
