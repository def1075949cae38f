// api_c.cpp - broker.h: what hosts call. Null pointers end here; everything else is api.hpp's.
#include "api_internal.h"

using namespace tarn;

bool broker_fire_auth(mqtt_client_t *client, const char *client_id, const char *username, const char *password)
{
    return !client || api::accepts(*client, client_id, username, password);
}

bool broker_fire_acl(mqtt_client_t *client, const char *topic, uint8_t action)
{
    return !client || api::allows(*client, topic, action);
}

void broker_fire_event(mqtt_client_t *client, uint32_t kind, const char *topic, int32_t qos)
{
    if (client)
        api::tell(*client, kind, topic ? topic : "", qos);
}

void *broker_thread_entry(void *broker)
{
    return api::housekeeping_thread(broker);
}
