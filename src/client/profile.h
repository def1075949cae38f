// profile.h - who serves the packets of connections, a part of client.hpp. By itself packet handling does: the native
// profile. Another one takes its place while the layer is down.
#ifndef TARN_CLIENT_PROFILE_H
#define TARN_CLIENT_PROFILE_H

#include "../net/hooks_types.h"
#include "client.h"

#include <span>

namespace tarn {

class client_ref;

namespace client {

// What the network tells, and asks. No lock is held in any call. opened(), packet() and closed() of a connection come one
// after another, its closed() perhaps on another thread, and before its handle names the next connection. A host that
// feeds the exported callback itself may name a handle that was never opened, with generation 0.
struct Profile {
    void (*opened)(net::Connection connection, broker_t *broker) noexcept; // TCP only
    void (*packet)(net::Connection connection, std::span<const uint8_t> packet) noexcept;
    void (*closed)(uint32_t handle) noexcept; // closes nothing itself
    void (*writable)(uint32_t handle) noexcept;
    net::RoundHooks  rounds;
    net::WayHook     way;
    net::MeasureHook measure;
};

// While the network layer is down. Null: the native profile. The hooks of the network layer are this one's from now on,
// and init() of the manager leaves them so. `profile` stays for as long as it is used.
void                         use_profile(const Profile *profile) noexcept;
[[nodiscard]] const Profile *profile_in_use() noexcept; // null: the native one

// ---- records of a profile's clients: so hosts see, count and find them as they do natively. A client that has an id is
// found by it, whatever the ids of others hash to. A caller holds a pin of the record from make_record() on.

// CONNECTED, and pinned; empty if there is no place for one, which an ERROR line tells, or the connection is closed
// already.
client_ref make_record(net::Connection connection, broker_t *broker) noexcept;
// Before CONNECT is answered: what the callbacks are asked with. CLIENT_ID_CHARS of `id` at most.
void name_record(mqtt_client_t &client, const char *id, uint8_t level, bool clean_session) noexcept;
// LOGINED, and found by its id. A keep-alive of 0 shows as 0. False: it was closed meanwhile.
[[nodiscard]] bool log_in_record(mqtt_client_t &client, uint16_t keep_alive_s) noexcept;
// CLOSED, released, and found no more. Neither session nor will, no line, and the connection stays. Once is enough.
void end_record(mqtt_client_t &client) noexcept;

} // namespace client
} // namespace tarn

#endif
