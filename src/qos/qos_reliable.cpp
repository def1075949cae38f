// qos_reliable.cpp - what packet handling does with pending deliveries: adding, acknowledging, expiring, dropping.
//
// The first transmission is always the caller's; from then on the delivery is tracked here until the client
// acknowledges it, its retries or its life end, or the client is released.
#include "../base/clock.h"
#include "../base/text.h"
#include "../client/client.hpp"
#include "../codec/codec.hpp"
#include "../log/log.h"
#include "qos_internal.h"

using namespace tarn;
using qos::Acknowledged;
using qos::Added;

namespace {

const char *name_of(uint8_t packet_type)
{
    static constexpr const char *kNames[] = {"PUBACK", "PUBREC", "PUBREL", "PUBCOMP"};
    return packet_type >= PUBACK && packet_type <= PUBCOMP ? kNames[packet_type - PUBACK] : "未知";
}

// QUIRK(empty-unrepeated): a message without a payload is sent once and not repeated, whatever its QoS, so a receiver
// that lost it never gets it [MQTT-4.3.2-1, MQTT-4.3.3-1]; an ERROR line tells. Send a byte where it matters.
//   standard profile: lifted (delivery)
//   test: publish.an_empty_message_at_qos_1_is_sent_but_not_tracked
//
// What is wrong with the arguments, or Added::Yes.
Added check(uint8_t qos, const char *topic, std::span<const uint8_t> payload)
{
    if (!topic || !*topic)
        return Added::NoTopic;
    if (payload.empty())
        return Added::NoPayload;
    if (payload.size() > QOS_PAYLOAD_MAX)
        return Added::TooLong;
    return qos == 1 || qos == 2 ? Added::Yes : Added::BadQos;
}

void fill(qos_packet_t &entry, const qos::Delivery &delivery, uint64_t now_ms) REQUIRES(g_queue_mutex)
{
    entry.msg_id = delivery.msg_id;
    entry.qos    = delivery.qos;
    copy_text(entry.topic, delivery.topic, sizeof entry.topic - 1);
    entry.last_send_ms      = now_ms;
    entry.retry_interval_ms = QOS_FIRST_RETRY_MS;
    entry.qos2_state        = delivery.qos == 2 ? qos::QOS2_AWAITS_PUBREC : qos::QOS2_NONE;
    entry.client            = &delivery.client;
    entry.create_ms         = now_ms;
}

Added add(const qos::Delivery &delivery, int &count) REQUIRES(g_queue_mutex)
{
    mqtt_client_t  &client = delivery.client;
    const std::span payload(delivery.payload);
    if (const Added wrong = check(delivery.qos, delivery.topic, payload); wrong != Added::Yes)
        return wrong;
    if (is_released(&client))
        return Added::Yes; // its entries were dropped a moment ago, and this one with them
    count = qos::count_of(&client);
    if (count >= QOS_PENDING_MAX)
        return Added::Full;
    qos_packet_t *const entry = qos::make_entry(count);
    if (!entry)
        return Added::NoEntry;
    if (!qos::put_payload(*entry, payload, delivery.copy, count)) {
        qos::free_entry(entry);
        return Added::NoPayloadMemory;
    }
    fill(*entry, delivery, packet_ms());
    qos::link_entry(entry);
    qos::note_due(entry->last_send_ms + QOS_FIRST_RETRY_MS + 1);
    return Added::Yes;
}

void log_added(mqtt_client_t &client, uint16_t msg_id, uint8_t qos, uint32_t payload_len, Added added, int count)
{
    switch (added) {
    case Added::NoTopic:
        LOG_ERROR("[QoS] 添加报文参数错误：主题为空");
        return;
    case Added::NoPayload:
        LOG_ERROR("[QoS] 添加报文参数错误：payload为空");
        return;
    case Added::TooLong:
        LOG_ERROR("[QoS] 添加报文参数错误：payload长度超限（最大%d字节，当前%d字节）", QOS_PAYLOAD_MAX,
                  static_cast<int>(payload_len));
        return;
    case Added::BadQos:
        LOG_ERROR("[QoS] 添加报文参数错误：QoS非法（仅支持1/2，当前%d）", qos);
        return;
    case Added::Full:
        LOG_ERROR("[QoS] 客户端未完成队列已满(client=%s)，最大支持%d条，当前%d条", id_of(client).text, QOS_PENDING_MAX,
                  count);
        return;
    case Added::NoEntry:
        LOG_ERROR("[QoS] 添加报文失败：分配报文节点内存失败");
        return;
    case Added::NoPayloadMemory:
        LOG_ERROR("[QoS] 添加报文失败：分配payload内存失败（需要%d字节）", static_cast<int>(payload_len));
        return;
    case Added::Yes:
        break;
    }
    LOG_DEBUG("[QoS] 添加QoS%d报文到队列成功(msg_id=%d, client=%s, 载荷长度=%d)", qos, msg_id, id_of(client).text,
              static_cast<int>(payload_len));
}

// Sends the next packet of the QoS 2 handshake. False when it could not be encoded.
bool send_reply(mqtt_client_t *client, int type, uint16_t msg_id)
{
    mqtt_ack_para_t reply{};
    reply.msg_id = msg_id;
    uint8_t            room[PACKET_REPLY_SIZE];
    std::span<uint8_t> packet(room);
    if (failed(codec::encode_ack(client->codec, type, reply, packet)))
        return false;
    const client_ref pin(client);
    (void)answer_client(*client, packet);
    return true;
}

// Unlinks and frees an acknowledged entry.
void remove_acknowledged(mqtt_client_t *client, qos_packet_t *entry) REQUIRES(g_queue_mutex)
{
    const uint16_t msg_id = entry->msg_id;
    LOG_DEBUG("[QoS_REMOVE] msg_id=%d, client=%s", msg_id, id_of(*client).text);
    qos::remove_entry(entry);
    LOG_DEBUG("[QoS] 移除已确认报文(msg_id=%d, client=%s)，完全删除", msg_id, id_of(*client).text);
}

// QUIRK(puback-ends-qos-2): PUBACK completes a QoS 2 delivery, which waits for PUBREC by the standard [MQTT-4.3.3-3]: a
// client that took the message for one of QoS 1 has it.
//   standard profile: lifted (delivery): PUBACK for QoS 2 is a protocol error, which ends the connection
//   test: ack.puback_completes_qos_2_in_any_state_with_a_warning
Acknowledged on_puback(mqtt_client_t *client, qos_packet_t *entry) REQUIRES(g_queue_mutex)
{
    const uint16_t msg_id = entry->msg_id;
    switch (entry->qos) {
    case 1:
        remove_acknowledged(client, entry);
        LOG_INFO("[QoS] QoS1 %s 完成: msg_id=%d", name_of(PUBACK), msg_id);
        return Acknowledged::Taken;
    case 2:
        remove_acknowledged(client, entry);
        LOG_WARN("[QoS] QoS2 报文收到PUBACK(客户端降级)，强制完成: msg_id=%d", msg_id);
        return Acknowledged::Taken;
    default:
        LOG_ERROR("[QoS] %s 不匹配: msg_id=%d QoS=%d", name_of(PUBACK), msg_id, entry->qos);
        return Acknowledged::Failed;
    }
}

Acknowledged on_pubrec(mqtt_client_t *client, qos_packet_t *entry) REQUIRES(g_queue_mutex)
{
    if (entry->qos != 2 || entry->qos2_state != qos::QOS2_AWAITS_PUBREC)
        return Acknowledged::Taken;
    entry->qos2_state = qos::QOS2_PUBREL_SENT;
    if (!send_reply(client, PUBREL, entry->msg_id)) {
        LOG_ERROR("[QoS] PUBREL编码失败: msg_id=%d", entry->msg_id);
        return Acknowledged::Failed;
    }
    LOG_INFO("[QoS] ✅ 收到PUBREC -> 发送PUBREL: msg_id=%d", entry->msg_id);
    return Acknowledged::Taken;
}

Acknowledged on_pubrel(mqtt_client_t *client, qos_packet_t *entry) REQUIRES(g_queue_mutex)
{
    if (entry->qos != 2 || entry->qos2_state != qos::QOS2_PUBREL_SENT)
        return Acknowledged::Taken;
    entry->qos2_state = qos::QOS2_PUBCOMP_SENT;
    if (!send_reply(client, PUBCOMP, entry->msg_id)) {
        LOG_ERROR("[QoS] PUBCOMP编码失败: msg_id=%d", entry->msg_id);
        return Acknowledged::Failed;
    }
    LOG_INFO("[QoS] ✅ 收到PUBREL -> 发送PUBCOMP: msg_id=%d", entry->msg_id);
    return Acknowledged::Taken;
}

Acknowledged on_pubcomp(mqtt_client_t *client, qos_packet_t *entry) REQUIRES(g_queue_mutex)
{
    if (entry->qos != 2)
        return Acknowledged::Taken;
    const uint16_t msg_id   = entry->msg_id;
    const bool     in_order = entry->qos2_state == qos::QOS2_PUBCOMP_SENT;
    remove_acknowledged(client, entry);
    if (in_order)
        LOG_INFO("[QoS] ✅ QoS2 完成: msg_id=%d", msg_id);
    return Acknowledged::Taken;
}

} // namespace

qos::FirstSend qos::send_and_track(const Delivery &delivery, std::span<const uint8_t> head) noexcept
{
    mqtt_client_t    &client = delivery.client;
    const PacketParts packet{head, delivery.payload};
    // Most messages are neither tracked nor remembered and need not wait for the lock of the pending deliveries.
    if (!delivery.tracked && !delivery.remembered)
        return {send_to(client, packet)};
    FirstSend first;
    {
        QueueLock lock;
        first.result = queue_packet(client, packet);
        if (first.result != 0)
            return first;
        if (delivery.tracked)
            first.added = add(delivery, first.count);
        if (delivery.remembered)
            client.qos1_pending_msg_id = delivery.msg_id;
    }
    see_to_sending(client);
    return first;
}

void qos::log_tracking(const Delivery &delivery, const FirstSend &first) noexcept
{
    log_added(delivery.client, delivery.msg_id, delivery.qos, static_cast<uint32_t>(delivery.payload.size()),
              first.added, first.count);
}

Added qos::track(mqtt_client_t &client, uint16_t msg_id, uint8_t qos, const char *topic,
                 std::span<const uint8_t> payload, PayloadCopy *copy) noexcept
{
    const Delivery delivery{.client     = client,
                            .msg_id     = msg_id,
                            .qos        = qos,
                            .topic      = topic,
                            .payload    = payload,
                            .tracked    = true,
                            .remembered = false,
                            .copy       = copy};
    int            count = 0;
    Added          added;
    {
        QueueLock lock;
        added = add(delivery, count);
    }
    log_added(client, msg_id, qos, static_cast<uint32_t>(payload.size()), added, count);
    return added;
}

Acknowledged qos::acknowledge(mqtt_client_t &client, uint16_t msg_id, uint8_t packet_type) noexcept
{
    if (msg_id == 0) {
        LOG_ERROR("[QoS] 处理ACK参数错误：客户端为空");
        return Acknowledged::Unknown;
    }
    QueueLock           lock;
    qos_packet_t *const entry = find_entry(&client, msg_id);
    if (!entry) {
        LOG_DEBUG("[QoS] 收到无效ACK报文(msg_id=%d, client=%s, 类型=%d)：未找到对应报文", msg_id, id_of(client).text,
                  packet_type);
        return Acknowledged::Unknown;
    }
    LOG_DEBUG("[QoS追踪] ACK: %s | msg_id=%d | QoS=%d | state=%d", name_of(packet_type), msg_id, entry->qos,
              static_cast<int>(entry->qos2_state));
    switch (packet_type) {
    case PUBACK:
        return on_puback(&client, entry);
    case PUBREC:
        return on_pubrec(&client, entry);
    case PUBREL:
        return on_pubrel(&client, entry);
    case PUBCOMP:
        return on_pubcomp(&client, entry);
    default:
        LOG_ERROR("[QoS] 不支持的ACK类型: msg_id=%d", msg_id);
        return Acknowledged::Failed;
    }
}

void qos::set_expiry(mqtt_client_t &client, uint16_t msg_id, uint32_t seconds) noexcept
{
    if (msg_id == 0)
        return;
    {
        QueueLock           lock;
        qos_packet_t *const entry = find_entry(&client, msg_id);
        if (!entry)
            return;
        entry->expiry_s = seconds;
        note_due(entry->create_ms + uint64_t{seconds} * 1000);
    }
    LOG_INFO("[QoS/Expiry] 设置消息过期: msg_id=%u, 过期时间=%u 秒", msg_id, seconds);
}

void qos::drop_deliveries_of(mqtt_client_t &client) noexcept
{
    const client_id_text id        = id_of(client);
    const bool           is_native = !client::profile_in_use(); // another profile's clients have none, and no lines
    if (is_native)
        LOG_WARN("[QoS_CLEAN] 清理客户端: %s", id.text);
    int removed;
    {
        QueueLock lock;
        removed = remove_all_of(&client);
    }
    if (is_native)
        LOG_INFO("[QoS] 清理客户端报文完成(client=%s)：共清理%d条", id.text, removed);
}
