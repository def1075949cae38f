// network_events.cpp - network events become client actions: the first packet of a connection makes its client record,
// every packet goes to packet handling, a disconnect closes the client. Where a profile is in use, it gets them instead.
#include "../codec/packet_type.h"
#include "../handler/handler.hpp"
#include "client_internal.h"
#include "packet_scope.h"

#include <optional>
#include <utility>

namespace tarn::client {
namespace {

constexpr uint32_t kOverTcp = 0; // reason of NETIP_EVENT_CONNECTED

uint8_t on_connected(uint32_t handle, uint32_t reason, broker_t *broker)
{
    char ip[NETIP_IP_CHARS + 1] = {};
    if (!net::copy_ip(handle, ip)) {
        LOG_ERROR("Get client IP failed: handle=%u", handle);
        return 0;
    }
    LOG_INFO("Client connected: handle=%u, ip=%s:%d", handle, ip, net::port_of(handle));
    if (const Profile *const profile = profile_in_use(); profile && reason == kOverTcp)
        profile->opened({handle, net::generation_of(handle)}, broker);
    return 1;
}

// A lane waits for the disk itself. A host that hands in a packet finds its files written and its answer queued.
bool is_saved_behind()
{
    return io_round() != 0 && !net::on_lane();
}

// QUIRK(end-of-old-connection): a client that comes back before the end of its old connection was seen, which over a
// wireless link is the ordinary case (FIN or RST come late), loses state of its new connection when that end is seen:
// the subscriptions if the old session was a clean one, the unacknowledged deliveries always, and the files of a kept
// session if it is of 3.1.1 or has no expiry interval. They belong to the client that is connected [MQTT-3.1.3-2,
// MQTT-4.1.0-1]. A new connection without its subscriptions stays, gets its PINGRESP and hears nothing. A client helps
// itself by subscribing again a while after each connect, and from time to time. A host ends the old connection first:
// its authentication callback, once it accepts the client, calls tarn_sdk_mqtt_broker_kick_client() with the id, which
// at that moment is still the old connection's; in the event callback it would be the new one's. That publishes the old
// connection's will and ends a saved 3.1.1 session.
//   standard profile: lifted (ids): the old connection is closed before the new one is answered, and its end touches
//   nothing more
//   test: reconnect.the_old_connections_end_takes_the_subscriptions_of_the_new_one,
//   reconnect.the_old_connections_end_takes_the_deliveries_of_the_new_one,
//   reconnect.the_old_connections_end_takes_the_files_of_the_new_one,
//   reconnect.a_host_that_kicks_the_id_when_it_logs_in_again_keeps_the_new_connection_whole
void on_disconnected(uint32_t handle, uint32_t reason, uint32_t error)
{
    if (handle == NETIP_NO_HANDLE)
        return;
    LOG_INFO("Client disconnected: handle=%u, reason=%d, error=%u", handle, static_cast<int>(reason), error);
    if (const Profile *const profile = profile_in_use())
        return profile->closed(handle);
    drop_round_clients(); // it may be one of them, and is to leave its record at once
    const client_ref client = find_client_by_handle(handle);
    if (!client)
        return; // never sent a packet, or closed from above: then this is its own netip_close
    std::optional<PacketScope> scope;
    if (is_saved_behind())
        scope.emplace(client);
    const uint32_t state = client->state;
    if (state == CLIENT_LOGINED)
        handler::forget(id_of(*client).text, client->clean_session);
    close_seen(*client, state);
}

// The connection that the calling thread delivers an event of, if it is this one.
net::Connection connection_of(uint32_t handle)
{
    const net::Connection current = net::current_connection();
    return current.handle == handle ? current : net::Connection{handle, 0};
}

client_ref make_client(uint32_t handle, broker_t *broker)
{
    const net::Connection connection = connection_of(handle);
    client_ref            client     = create_client_of(connection, broker);
    if (client || (connection.generation != 0 && !net::is_open(connection)))
        return client; // or closed from elsewhere while its packet was on the way
    LOG_ERROR("Create client failed, close handle=%u", handle);
    net::close_connection(handle, connection.generation);
    return client;
}

void handle_packet(uint32_t handle, std::span<const uint8_t> packet, broker_t *broker)
{
    if (const Profile *const profile = profile_in_use())
        return profile->packet(connection_of(handle), packet);
    RoundClient client(handle);
    if (!client)
        client = make_client(handle, broker); // with the first packet of its connection
    if (!client)
        return;
    std::optional<PacketScope> scope;
    if (is_saved_behind())
        scope.emplace(client.ref());
    (void)handler::dispatch(*client, packet);
}

} // namespace

client_ref create_client_of(net::Connection connection, broker_t *broker) noexcept
{
    char ip[NETIP_IP_CHARS + 1] = {};
    (void)net::copy_ip(connection.handle, ip);
    return create_client(connection.handle, ip, net::port_of(connection.handle), broker, connection);
}

} // namespace tarn::client

using namespace tarn::client;

// Only "connected" can be answered with 0; a disconnect is always left to the network layer to finish.
uint8_t mqtt_netip_event_cb(uint32_t handle, uint32_t event, const uint8_t *data, uint32_t len, uint32_t reason,
                            uint32_t error, void *arg)
{
    switch (event) {
    case NETIP_EVENT_CONNECTED:
        return on_connected(handle, reason, static_cast<broker_t *>(arg));
    case NETIP_EVENT_DISCONNECTED:
        on_disconnected(handle, reason, error);
        return 1;
    case NETIP_EVENT_DATA:
        if (len != 0 && data)
            handle_packet(handle, {data, len}, static_cast<broker_t *>(arg));
        return 1;
    default:
        LOG_WARN("Unknown NetIP event type: %d", static_cast<int>(event));
        return 1;
    }
}

void on_netip_send_ready(uint32_t) {}
