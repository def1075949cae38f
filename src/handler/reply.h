// reply.h - short answers to a client: encoded into a zeroed 128-byte buffer, queued, freed.
#ifndef TARN_HANDLER_REPLY_H
#define TARN_HANDLER_REPLY_H

#include "../client/client_types.h"

namespace tarn::handler {

enum class Reply {
    Sent,       // handed to send_to, whose result nobody asks for
    NotEncoded, // the encoder refused; nothing was sent
    NoMemory    // errno says why
};

// PUBACK, PUBREC, PUBREL, PUBCOMP, SUBACK or UNSUBACK.
Reply send_ack(mqtt_client_t &client, int type, const mqtt_ack_para_t &ack) noexcept;
// One of the first four with nothing but this identifier, and its line: `no_memory` takes errno, `replied` the client's
// id and the identifier.
Reply answer(mqtt_client_t &client, int type, uint16_t id, const char *no_memory, const char *replied) noexcept;
// From this packet on the client is found by its id; without it (not Sent) the caller sees to that.
Reply send_connack(mqtt_client_t &client, const mqtt_connack_para_t &connack) noexcept;

// The same for a refusal: what the encoder left is sent, whether it succeeded or not.
Reply send_refusal(mqtt_client_t &client, const mqtt_connack_para_t &connack) noexcept;

// Gives a packet that was queued last 10 ms to leave, sends what is still queued and closes the client, which was seen
// in this state. On a thread of the network layer, which hands up this client's packet, it only sees to all that: the
// thread does not sleep, and nothing more of the connection is served. On others it is done when this returns.
void close_after_pause(mqtt_client_t &client, uint32_t seen_state) noexcept;

// send_disconnect() without the pause. False when the client has no connection.
bool queue_disconnect(mqtt_client_t &client, uint8_t reason_code) noexcept;

} // namespace tarn::handler

#endif
