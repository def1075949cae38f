// handler_c.cpp - packet_handler.h and shared_sub.h: what hosts call. Null pointers end here and clients are pinned;
// everything else is handler.hpp's.
#include "../base/text.h"
#include "../net/net.hpp"
#include "../stats/stats.hpp"
#include "../sub/share.h"
#include "handler_internal.h"
#include "shared_choice.h"
#include "shared_sub.h"

using namespace tarn;

int packet_handler_init(void)
{
    return handler::init() ? 0 : -1;
}

int packet_handler_deinit(void)
{
    handler::deinit();
    return 0;
}

int packet_dispatch(mqtt_client_t *client, const uint8_t *buf, uint32_t len)
{
    if (!client) {
        stats::count(stats::Counter::rx_pkt);
        LOG_ERROR("无效报文参数");
        return -1;
    }
    const client_ref        pin(client);
    const net::OutsideEvent synchronous; // all that the packet brings about is done when this returns
    return handler::dispatch(*client, {buf, len}) ? 0 : -1;
}

int packet_handler_broker_publish(const char *topic, const uint8_t *payload, int payload_len, uint8_t qos,
                                  uint8_t retain, uint32_t message_expiry)
{
    if (!topic || !payload || payload_len < 1 || qos > 2)
        return -1;
    const std::span bytes(payload, static_cast<size_t>(payload_len));
    return handler::publish_for_host({topic, bytes, qos, retain, message_expiry}) ? 0 : -1;
}

void packet_handler_broadcast_msg(const uint8_t *packet, uint32_t len, uint8_t is_will)
{
    handler::broadcast({packet, len}, is_will != 0);
}

void packet_handler_publish_test_msg(void)
{
    handler::publish_hello();
}

void send_retained_msg_to_client(mqtt_client_t *client, const char *filter)
{
    if (!client || !filter)
        return;
    const client_ref pin(client);
    handler::send_retained(*client, filter);
}

void packet_handler_restore_offline_msgs(mqtt_client_t *client)
{
    if (!client) {
        LOG_DEBUG("[packet_handler] 不补发：client 无效");
        return;
    }
    const client_ref pin(client);
    handler::requeue_kept(*client);
}

int packet_send_will_message(mqtt_client_t *client)
{
    if (!client)
        return -1;
    const client_ref pin(client);
    return handler::publish_will(*client) ? 0 : -1;
}

void packet_start_will_delay(mqtt_client_t *client)
{
    if (!client) {
        LOG_ERROR("[WILL] 启动失败：client == NULL");
        return;
    }
    const client_ref pin(client);
    handler::start_will(*client);
}

void packet_cancel_will(mqtt_client_t *client)
{
    if (!client)
        return;
    const client_ref pin(client);
    handler::call_off_will(*client);
}

void packet_handler_remove_client_subs(const char *client_id, uint8_t clean_session)
{
    if (client_id)
        handler::forget(client_id, clean_session);
}

void packet_handler_send_disconnect(mqtt_client_t *client, uint8_t reason_code)
{
    if (!client)
        return;
    const client_ref pin(client);
    handler::send_disconnect(*client, reason_code);
}

void shared_sub_mark_selected(const sub_entry_t *matches, int count, uint8_t *selected)
{
    if (matches && selected && count > 0)
        handler::mark_chosen({matches, static_cast<size_t>(count)}, selected);
}

bool shared_is_shared_subscription(const char *filter)
{
    return filter && sub::is_shared(filter);
}

const sub_entry_t *shared_select_client(const char *key, const sub_entry_t *candidates, int count)
{
    if (!key || !candidates || count < 1)
        return nullptr;
    uint32_t hash = 5381;
    for (; *key; key++)
        hash = hash * 33 + static_cast<uint8_t>(*key);
    return &candidates[hash % static_cast<uint32_t>(count)];
}
