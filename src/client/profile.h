// profile.h - who serves the packets of connections, a part of client.hpp. By itself packet handling does: the native
// profile. Another one takes its place while the layer is down.
#ifndef TARN_CLIENT_PROFILE_H
#define TARN_CLIENT_PROFILE_H

#include "../net/net.hpp"

struct broker;

namespace tarn::client {

// What the network tells, and asks. No lock is held in any call; a connection's opened(), packet() and closed() come one
// after another, its closed() perhaps on a thread that closes it meanwhile.
struct Profile {
    void (*opened)(net::Connection connection, broker_t *broker) noexcept;
    void (*packet)(net::Connection connection, std::span<const uint8_t> packet) noexcept;
    void (*closed)(uint32_t handle) noexcept; // closes nothing itself
    void (*writable)(uint32_t handle) noexcept;
    net::RoundHooks  rounds;
    net::WayHook     way;
    net::MeasureHook measure;
};

// Null: the native profile. Before init() of the manager, which sets the hooks of the network layer.
void use_profile(const Profile *profile) noexcept;

// ---- records of a profile's clients: so hosts see, count and find them as they do natively

// CONNECTED, and pinned; empty if there is no place for one, or the connection is closed already.
client_ref make_record(net::Connection connection, broker_t *broker) noexcept;
// Before CONNECT is answered: what the callbacks are asked with. `id` has CLIENT_ID_CHARS at most.
void name_record(mqtt_client_t &client, const char *id, uint8_t level, bool clean_session) noexcept;
// LOGINED, and found by its id. False: it was closed meanwhile.
[[nodiscard]] bool log_in_record(mqtt_client_t &client, uint16_t keep_alive_s) noexcept;
// CLOSED, released, and found no more. Neither session nor will, no line, and the connection stays.
void retire_record(mqtt_client_t &client) noexcept;

} // namespace tarn::client

#endif
