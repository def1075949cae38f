// api.hpp - the host's callbacks, for packet handling. Hosts have the same as broker.h: api_c.cpp turns away null pointers
// and calls this.
//
// They are those of the instance that the client came in through. Without an instance, or without such a callback, the
// answer is yes and nobody is told. The caller holds no lock, because the host's code runs inside.
#ifndef TARN_API_API_HPP
#define TARN_API_API_HPP

#include <tarn_sdk_mqtt_broker.h>

namespace tarn::api {

// Whether a CONNECT is accepted. Texts as the client sent them, empty when absent.
bool accepts(mqtt_client_t &client, const char *client_id, const char *username, const char *password) noexcept;
// Whether the client may do this, BROKER_ACL_*, with this topic or filter.
bool allows(mqtt_client_t &client, const char *topic, uint8_t action) noexcept;
// Tells that something happened, BROKER_EVENT_*.
void tell(mqtt_client_t &client, uint32_t kind, const char *topic = "", int32_t qos = 0) noexcept;
// The same of a client without a record, such as one whose will was delayed.
void tell(broker_t &broker, const char *client_id, uint32_t kind, const char *topic, int32_t qos) noexcept;

// Whether allows() and accepts() ask anybody: else the answer is yes, and nobody need be kept waiting for it.
[[nodiscard]] bool asks_about_topics(mqtt_client_t &client) noexcept;
// Whether tell() reaches anybody.
[[nodiscard]] bool hears_events(mqtt_client_t &client) noexcept;
// Of an instance, null for none, before there is a record.
bool               accepts(broker_t *owner, const char *client_id, const char *username, const char *password) noexcept;
[[nodiscard]] bool asks_about_logins(broker_t *owner) noexcept;
// Whether a login keeps nobody waiting in the host's callbacks, as far as the host has said. Clients come in through the
// instance that serves.
[[nodiscard]] bool accepts_at_once() noexcept;

} // namespace tarn::api

#endif
