// handler_internal.h - what the packet handlers share: one handler a packet type, and the words they use for them.
//
// A handler runs on the thread that read the packet, with its client pinned for the whole call and no lock held. It
// returns 0, or -1 when the packet was not handled; whatever a client is to notice happens inside.
#ifndef TARN_HANDLER_HANDLER_INTERNAL_H
#define TARN_HANDLER_HANDLER_INTERNAL_H

#include "../api/api.hpp"
#include "../base/relaxed.h"
#include "../client/client.hpp"
#include "../codec/codec.hpp"
#include "../log/log.h"
#include "handler.hpp"
#include "packet_handler.h"

namespace tarn::handler {

int handle_connect(mqtt_client_t &client, Packet packet) noexcept;
int handle_publish(mqtt_client_t &client, Packet packet) noexcept;
int handle_subscribe(mqtt_client_t &client, Packet packet) noexcept;
int handle_unsubscribe(mqtt_client_t &client, Packet packet) noexcept;
int handle_acknowledgement(mqtt_client_t &client, Packet packet) noexcept; // PUBACK, PUBREC, PUBREL, PUBCOMP
int handle_ping(mqtt_client_t &client, Packet packet) noexcept;
int handle_disconnect(mqtt_client_t &client, Packet packet) noexcept;

// A packet that does not decode: one line of the form "解码X失败：ClientID=%s, 错误码=%d", counted, not answered.
int refuse_undecodable(const mqtt_client_t &client, const char *line, codec::Result why) noexcept;

[[nodiscard]] inline bool speaks_v5(const mqtt_client_t &client) noexcept
{
    return codec::level_of(client.codec) == 5;
}

// The first hello is due ten seconds from now (hello_publish.cpp).
void begin_hello_period() noexcept;

// Draws of the identifier generator (packet_id.cpp).
uint16_t draw_packet_id() noexcept;   // 1..65533, one draw
uint16_t draw_delivery_id() noexcept; // 0..65535, two draws

} // namespace tarn::handler

#endif
