// control.cpp - what a host can do to a running broker.
#include "../base/text.h"
#include "../client/client.hpp"
#include "../handler/handler.hpp"
#include "../standard/standard.hpp"
#include "../sub/sub.hpp"
#include "api_internal.h"

using namespace tarn;
using api::is_instance;

namespace {

constexpr uint8_t kAdministrativeAction = 0x98; // DISCONNECT reason code [MQTT-3.14.2.1]
constexpr size_t  kTextChars            = 1023; // more than a log line shows

void end(mqtt_client_t &client, uint32_t state)
{
    if (standard::is_on())
        return standard::kick(client, kAdministrativeAction);
    end_with_disconnect(client);
    handler::send_disconnect(client, kAdministrativeAction);
    close_seen(client, state);
}

int32_t publish_as_standard(const standard::HostMessage &message)
{
    if (!standard::is_on())
        return TARN_E_NOT_RUNNING;
    switch (standard::publish(message)) {
    case standard::Published::Done:
        return TARN_OK;
    case standard::Published::NoTopic:
        return TARN_E_PARAM;
    case standard::Published::NoRoom:
        break;
    }
    return TARN_E_RESOURCE;
}

} // namespace

int32_t tarn_sdk_mqtt_broker_kick_client(broker_t *broker, const char *client_id)
{
    if (!is_instance(broker) || !client_id || !*client_id)
        return TARN_E_PARAM;
    char id[kTextChars + 1]; // the caller's text may be one of the record, which the close frees
    copy_text(id, client_id, kTextChars);

    const client_ref client = find_client_by_id(id);
    if (!client) {
        LOG_WARN("[SDK] kick client not found: %s", id);
        return TARN_E_NOT_FOUND;
    }
    if (client->broker != broker) {
        LOG_ERROR("[SDK] kick rejected: client '%s' does not belong to this broker instance", id);
        return TARN_E_DENIED;
    }
    const uint32_t state = client->state;
    if (state == CLIENT_UNUSED || state == CLIENT_CLOSED) {
        LOG_WARN("[SDK] kick client '%s' already closed", id);
        return TARN_OK;
    }
    end(*client, state);
    LOG_INFO("[SDK] kick client success: %s", id);
    return TARN_OK;
}

int32_t tarn_sdk_mqtt_broker_publish(broker_t * /*unused*/, const char *topic, const void *payload, int32_t len,
                                     uint32_t qos, uint8_t retain, uint32_t expiry_s)
{
    if (!topic || !payload || len < 1 || qos > 2)
        return TARN_E_PARAM;
    const std::span bytes(static_cast<const uint8_t *>(payload), static_cast<size_t>(len));
    if (api::standard_is_chosen())
        return publish_as_standard({topic, bytes, static_cast<uint8_t>(qos), (retain & 1) != 0, expiry_s});
    (void)handler::publish_for_host({topic, bytes, static_cast<uint8_t>(qos), retain, expiry_s});
    return TARN_OK;
}

int32_t tarn_sdk_mqtt_broker_clear_retain(broker_t * /*unused*/, const char *topic)
{
    if (!topic)
        return TARN_E_PARAM;
    if (api::standard_is_chosen())
        return standard::is_on() && standard::clear_retained(topic) ? TARN_OK : TARN_E_NOT_FOUND;
    return sub::delete_retained(topic) ? TARN_OK : TARN_E_NOT_FOUND;
}
