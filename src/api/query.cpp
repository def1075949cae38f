// query.cpp - what a host can ask of a running broker.
#include "../base/clock.h"
#include "../base/text.h"
#include "../client/client.hpp"
#include "../standard/standard.hpp"
#include "../stats/stats.hpp"
#include "../sub/sub.hpp"
#include "api_internal.h"

#include <cstring>

using namespace tarn;
using api::is_instance;

namespace {

// The two lists have one shape: an empty buffer is refused, a zeroed one filled.
int32_t fill_list(char *buf, int32_t size, int32_t (*fill)(char *buf, int32_t size))
{
    if (!buf || size <= 0)
        return TARN_E_PARAM;
    memset(buf, 0, static_cast<size_t>(size));
    return fill(buf, size) < 0 ? TARN_E_NOT_FOUND : TARN_OK;
}

int32_t list_of_standard(char *buf, int32_t size)
{
    if (standard::is_on())
        (void)standard::list_retained_topics({buf, static_cast<size_t>(size)});
    return 0;
}

struct Kept {
    size_t subscriptions, retained;
};

Kept kept_now()
{
    if (!standard::is_on())
        return {static_cast<uint32_t>(g_sub_mgr.sub_count), static_cast<uint32_t>(g_sub_mgr.retain_count)};
    const standard::Counts counts = standard::counts();
    return {counts.subscriptions, counts.retained};
}

void describe(mqtt_client_t &client, tarn_sdk_mqtt_client_info_t &info)
{
    memset(&info, 0, sizeof info);
    const client_id_text id = id_of(client);
    copy_text(info.client_id, id.text, sizeof id.text - 1);
    copy_text(info.ip, client.ip, sizeof info.ip - 1); // written once, before the record could be found
    info.port               = client.port;
    info.keepalive          = static_cast<uint16_t>(client.keepalive_ms / 1000);
    info.online             = is_online(client);
    const uint64_t since_ms = client.last_active; // read before the clock, which may not be older
    info.idle_seconds       = static_cast<uint32_t>(elapsed(mono_ms(), since_ms) / 1000);
}

} // namespace

void api::update_statistics() noexcept
{
    const Kept kept = kept_now();
    stats::take_over({.online        = client::count_online(),
                      .pool_capacity = static_cast<uint32_t>(g_client_mgr.capacity),
                      .pool_used     = static_cast<uint32_t>(g_client_mgr.used_count),
                      .retained      = static_cast<uint32_t>(kept.retained),
                      .subscriptions = static_cast<uint32_t>(kept.subscriptions)});
}

uint32_t tarn_sdk_mqtt_broker_get_online_count(broker_t * /*unused*/)
{
    return client::count_online();
}

int32_t tarn_sdk_mqtt_broker_get_client_id_list(broker_t * /*unused*/, char *buf, int32_t size)
{
    return fill_list(buf, size, client::list_ids);
}

int32_t tarn_sdk_mqtt_broker_get_retain_topic_list(broker_t * /*unused*/, char *buf, int32_t size)
{
    return fill_list(buf, size, api::standard_is_chosen() ? list_of_standard : sub::list_retained_topics);
}

int32_t tarn_sdk_mqtt_broker_get_client_info(broker_t *broker, const char *client_id, tarn_sdk_mqtt_client_info_t *info)
{
    if (!is_instance(broker) || !client_id || !info)
        return TARN_E_PARAM;
    const client_ref client = find_client_by_id(client_id);
    if (!client)
        return TARN_E_NOT_FOUND;
    if (client->broker != broker) {
        LOG_ERROR("[SDK] get_client_info rejected: client '%s' belongs to another broker", client_id);
        return TARN_E_DENIED;
    }
    describe(*client, *info);
    return TARN_OK;
}

int32_t tarn_sdk_mqtt_broker_get_session_info(broker_t * /*unused*/, const char *client_id,
                                              tarn_sdk_mqtt_session_info_t *info)
{
    if (!client_id || !info)
        return TARN_E_PARAM;
    if (!standard::is_on())
        return TARN_E_NOT_RUNNING;
    standard::SessionInfo session;
    if (!standard::describe_session(client_id, session))
        return TARN_E_NOT_FOUND;
    *info = {.subscriptions = static_cast<uint32_t>(session.subscriptions),
             .online        = session.is_online,
             .kept          = session.is_kept,
             .has_will      = session.has_will};
    return TARN_OK;
}

int32_t tarn_sdk_mqtt_broker_get_stats(broker_t * /*unused*/, tarn_sdk_mqtt_broker_stats_t *stats)
{
    if (!stats)
        return TARN_E_PARAM;
    const mqtt_stats_t &all = g_mqtt_stats;
    stats->online           = client::count_online();
    stats->messages         = static_cast<uint32_t>(all.qos0 + all.qos1 + all.qos2);
    stats->subscriptions    = all.subs;
    stats->uptime_seconds   = static_cast<uint32_t>(elapsed(mono_ms(), all.start_ms) / 1000);
    return TARN_OK;
}
