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
Reply send_connack(mqtt_client_t &client, const mqtt_connack_para_t &connack) noexcept;

// The same for a refusal: what the encoder left is sent, whether it succeeded or not.
Reply send_refusal(mqtt_client_t &client, const mqtt_connack_para_t &connack) noexcept;

// Gives a packet that was queued last 10 ms to leave, then sends what is still queued: the caller closes next.
void flush_before_close(mqtt_client_t &client) noexcept;

} // namespace tarn::handler

#endif
