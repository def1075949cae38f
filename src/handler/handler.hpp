// handler.hpp - what the broker does with MQTT packets, and the routes a message can take, for the other modules of the
// library. Hosts have the same as packet_handler.h and shared_sub.h: handler_c.cpp turns away null pointers, pins the
// client, calls this, and makes plain numbers of the results.
//
// Clients are pinned by the caller, who holds no lock: these functions run the host's callbacks, write files, look up,
// send to and close clients. No pointer may be null.
#ifndef TARN_HANDLER_HANDLER_HPP
#define TARN_HANDLER_HANDLER_HPP

#include "../client/client_types.h"

#include <span>

namespace tarn::handler {

using Packet = std::span<const uint8_t>; // exactly one packet, fixed header first

// Prepares subscriptions, retained messages and pending deliveries; false when one of them failed, with its line.
bool init() noexcept;
void deinit() noexcept; // ends pending deliveries and persistence

// Whether a CONNECT waits for nothing: the host answers at once, and there is neither a session to be kept nor, as it
// seems, a file of an earlier one.
[[nodiscard]] bool is_quick_connect(const char *client_id, bool is_clean) noexcept;

// A packet that a client sent, of any length. False when it was not handled: see packet_dispatch.
bool dispatch(mqtt_client_t &client, Packet packet) noexcept;

// ---- messages of the broker's own

struct HostMessage {
    const char              *topic;
    std::span<const uint8_t> payload; // 1 byte or more; cut at CODEC_PAYLOAD_MAX
    uint8_t                  qos;     // 0..2
    uint8_t                  retain;
    uint32_t                 expiry_s;
};
bool publish_for_host(const HostMessage &message) noexcept; // false: too little memory
void broadcast(Packet publish, bool is_will) noexcept;      // an encoded PUBLISH, to all who are online
void publish_hello() noexcept;                              // at most one in ten seconds

void send_retained(mqtt_client_t &client, const char *filter) noexcept; // all that match; holds g_sub_mgr.lock
void requeue_kept(mqtt_client_t &client) noexcept;                      // the messages kept in its files
void requeue_if_back(const char *client_id) noexcept;                   // the client of a message that was just kept

// ---- wills

bool publish_will(mqtt_client_t &client) noexcept; // now; false when there is none, or it failed
void start_will(mqtt_client_t &client) noexcept;   // now, or after its delay
void call_off_will(mqtt_client_t &client) noexcept;

// ---- the end of a connection

// Drops the pending deliveries of the client with this id and, with a clean session, its subscriptions.
void forget(const char *client_id, uint8_t clean_session) noexcept;
// DISCONNECT, and the time to leave; the caller closes the client next.
void send_disconnect(mqtt_client_t &client, uint8_t reason_code) noexcept;

} // namespace tarn::handler

#endif
