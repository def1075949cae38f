// life.h - the edges of a client's life, as life.cpp draws them.
#ifndef TARN_CLIENT_LIFE_H
#define TARN_CLIENT_LIFE_H

#include "../net/net.hpp"
#include "client.hpp"

namespace tarn::client {

// The states an edge may leave, a bit each, and the one it leads to.
struct Edge {
    uint32_t from;
    uint32_t to;
};

constexpr uint32_t in(uint32_t state)
{
    return 1u << (state <= CLIENT_CLOSED ? state
                                         : CLIENT_CLOSED + 1); // the last for what a host may have written there
}

constexpr uint32_t kAnyState = UINT32_MAX;
constexpr Edge     kCreate{kAnyState, CLIENT_CONNECTED}; // who took the slot is alone with the record
constexpr Edge     kLogIn{in(CLIENT_UNUSED) | in(CLIENT_CONNECTED) | in(CLIENT_LOGINED), CLIENT_LOGINED};
constexpr Edge     kGoOffline{kAnyState & ~in(CLIENT_CLOSED), CLIENT_WILL_PENDING};
constexpr Edge     kEndWait{in(CLIENT_WILL_PENDING), CLIENT_CLOSED};
constexpr Edge     kRelease{in(CLIENT_WILL_PENDING) | in(CLIENT_CLOSED), CLIENT_CLOSED};
constexpr Edge     kTakeDown{kAnyState, CLIENT_CLOSED};

// Moves the record along the edge; false when its state is none that the edge leaves. Nobody else writes `state`.
bool step(mqtt_client_t &client, const Edge &edge) noexcept;

// True when another thread has taken the client out of the online states since its state was `before`.
[[nodiscard]] inline bool was_closed_since(mqtt_client_t &client, uint32_t before) noexcept
{
    const uint32_t now = client.state;
    return now != before && (now == CLIENT_CLOSED || now == CLIENT_WILL_PENDING);
}

// Makes a client, pinned. With a generation in `connection` the record is made only while that connection is open.
client_ref create_client(uint32_t handle, const char *ip, uint16_t port, broker_t *broker,
                         net::Connection connection) noexcept;
// Out of the tables and WILL_PENDING, its connection closed. The caller has the claim.
void go_offline(mqtt_client_t &client) noexcept;
void close_connection_of(mqtt_client_t &client) noexcept;
// True when the record was in use and is free now.
bool release_record(mqtt_client_t &client) noexcept;
// A record of a manager that goes down, whatever its state; the tables do not name it any more.
void take_down(mqtt_client_t &client) noexcept;
// Ring, will texts and id of a released record that nobody holds any more.
void wipe(mqtt_client_t &client) noexcept;
// Zeroes all but the locks of a record that nobody holds, where its memory cannot be given back.
void wipe_all(mqtt_client_t &client) noexcept;

} // namespace tarn::client

#endif
