// qos_c.cpp - qos_reliable.h: what hosts call. Null pointers end here; everything else is qos.hpp's.
#include "../base/clock.h"
#include "../log/log.h"
#include "qos_internal.h"

using namespace tarn;

int qos_reliable_init(void)
{
    return qos::init() ? 0 : -1;
}

void qos_reliable_destroy(void)
{
    qos::destroy();
}

// A text or payload that is not there is refused like an empty one.
int qos_reliable_add_packet(mqtt_client_t *client, uint16_t msg_id, uint8_t qos, const char *topic, const void *payload,
                            uint32_t payload_len)
{
    if (!client) {
        LOG_ERROR("[QoS] 添加报文参数错误：客户端为空");
        return -1;
    }
    const std::span bytes(static_cast<const uint8_t *>(payload), payload ? payload_len : 0);
    return qos::track(*client, msg_id, qos, topic ? topic : "", bytes) == qos::Added::Yes ? 0 : -1;
}

int qos_reliable_handle_ack(mqtt_client_t *client, uint16_t msg_id, uint8_t packet_type)
{
    if (!client) {
        LOG_ERROR("[QoS] 处理ACK参数错误：客户端为空");
        return -1;
    }
    return qos::acknowledge(*client, msg_id, packet_type) == qos::Acknowledged::Taken ? 0 : -1;
}

void qos_reliable_set_packet_expiry(mqtt_client_t *client, uint16_t msg_id, uint32_t seconds)
{
    if (client)
        qos::set_expiry(*client, msg_id, seconds);
}

void qos_reliable_clean_client_packets(mqtt_client_t *client)
{
    if (client)
        return qos::drop_deliveries_of(*client);
    LOG_WARN("[QoS_CLEAN] 清理客户端: %s", "null");
    LOG_WARN("[QoS] 清理客户端报文失败：客户端为空");
}

void qos_reliable_scan_queue(void)
{
    qos::scan(mono_ms());
}
