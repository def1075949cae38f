// client_c.cpp - client.h: what hosts call. Null pointers end here, and the record is pinned for the time of the call;
// everything else is client.hpp's. What the library hands on by address stands with what it does:
// mqtt_netip_event_cb and on_netip_send_ready in network_events.cpp, send_thread_proc in send_thread.cpp.
#include "../base/clock.h"
#include "../stats/counters.h"
#include "client_internal.h"

using namespace tarn;
using namespace tarn::client;

uint32_t client_mgr_init(int32_t max_clients)
{
    return init(max_clients) ? 0 : kFailed;
}

void client_mgr_deinit(void)
{
    deinit();
}

// ---- records

mqtt_client_t *client_create(uint32_t handle, const char *ip, uint16_t port, broker_t *broker)
{
    return create_client(handle, ip ? ip : "", port, broker, {}).get();
}

void pool_free(mqtt_client_t *client)
{
    if (client)
        (void)release_record(*client);
}

void client_set_cid(mqtt_client_t *client, const char *client_id)
{
    if (const client_ref pin(client); pin) {
        const uint32_t state = pin->state;
        take_id(*pin, client_id ? client_id : "");
        be_found(*pin, state);
    }
}

mqtt_client_t *client_find_by_handle(uint32_t handle)
{
    return find_client_by_handle(handle).get();
}

mqtt_client_t *client_find_by_cid(const char *client_id)
{
    return client_id ? find_client_by_id(client_id).get() : nullptr;
}

// ---- sending

uint32_t client_send(mqtt_client_t *client, const uint8_t *bytes, int32_t length)
{
    if (const client_ref pin(client); pin)
        return send_to(*pin, {{bytes, length < 1 ? 0 : static_cast<size_t>(length)}});
    stats::count(stats::Counter::drop_invalid_param);
    return kFailed;
}

void client_send_flush(mqtt_client_t *client)
{
    if (const client_ref pin(client); pin)
        flush_client(*pin);
}

void mqtt_start_send_thread(void)
{
    start_send_thread();
}

void mqtt_stop_send_thread(void)
{
    stop_send_thread();
}

// ---- closing and silence

void client_close(mqtt_client_t *client)
{
    if (const client_ref pin(client); pin)
        return close_seen(*pin, pin->state);
    LOG_DEBUG("[遗嘱调试][关闭客户端] 客户端为空，跳过");
}

uint32_t client_clean_timeout(uint32_t default_threshold_ms)
{
    return close_silent(mono_ms(), default_threshold_ms);
}

void client_set_keepalive(mqtt_client_t *client, uint16_t seconds)
{
    if (client)
        set_keepalive(*client, seconds);
    else
        log_wrong_keepalive(0, -1);
}

void client_update_active(mqtt_client_t *client)
{
    if (client)
        note_active(*client);
}

// ---- wills

void client_set_will_msg(mqtt_client_t *client, const char *topic, const uint8_t *payload, uint32_t payload_len,
                         uint8_t qos, uint8_t retain)
{
    const Will will{topic, payload, payload_len, qos, retain};
    if (!client || !topic)
        return log_wrong_will(client, will);
    const client_ref pin(client);
    set_will(*client, will);
}

void client_set_will_enhance(mqtt_client_t *client, uint32_t delay_s, uint32_t expiry_s, uint8_t payload_format,
                             const char *content_type, const char *response_topic, const uint8_t *correlation_data,
                             uint32_t correlation_len)
{
    const std::span correlation(correlation_data, correlation_data ? correlation_len : 0);
    if (const client_ref pin(client); pin)
        set_will_properties(*pin, {delay_s, expiry_s, payload_format, content_type, response_topic, correlation});
}

void client_will_delay_scan(void)
{
    publish_due_wills(mono_ms());
}

void client_clean_expired_sessions(void)
{
    delete_expired_sessions();
}

// ---- queries

int32_t client_fill_id_list(char *buf, int32_t size)
{
    return buf && size > 0 ? list_ids(buf, size) : -1;
}

uint32_t client_get_connected_count(void)
{
    return count_online();
}
