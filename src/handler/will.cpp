// will.cpp - a client's last will: published, put off, or called off.
//
// The will fields belong to will_lock. What is published is a copy taken under it, because a reconnect may replace the
// will meanwhile. Only a caller with the claim of the record publishes.
#include "../base/clock.h"
#include "../base/memory.h"
#include "../base/text.h"
#include "../persist/persist.hpp"
#include "../stats/stats.hpp"
#include "handler_internal.h"

#include <algorithm>

namespace tarn::handler {
namespace {

struct WillFlags {
    uint8_t  used;
    uint8_t  sent;
    uint32_t delay_s;
};

WillFlags flags_of(mqtt_client_t &client)
{
    ScopedLock lock(client.will_lock);
    return {client.will_msg_used, client.will_sent, client.will_delay_interval};
}

// False when there is no will, or it was published before.
bool copy_will(mqtt_client_t &client, mqtt_publish_para_t &will)
{
    ScopedLock lock(client.will_lock);
    if (!client.will_msg_used || client.will_sent)
        return false;
    if (client.will_topic)
        copy_text(will.topic, client.will_topic, CODEC_TOPIC_MAX);
    if (client.will_payload)
        memcpy(will.payload, client.will_payload, std::min<size_t>(client.will_payload_len, sizeof will.payload));
    will.payload_len         = client.will_payload_len; // too long a one is the encoder's to refuse
    will.qos                 = client.will_qos;
    will.retain              = client.will_retain;
    will.msg_expiry_interval = client.will_msg_expiry_interval;
    return true;
}

void log_sending(mqtt_client_t &client, const mqtt_publish_para_t &will)
{
    LOG_INFO("[WILL] Send will message: client=%s", id_of(client).text);
    LOG_INFO("[WILL] Topic: %s, QoS: %u, Retain: %u, PayloadLen: %u", will.topic, will.qos, will.retain,
             will.payload_len);
    LOG_HEXDUMP("[WILL] Payload", will.payload, std::min<size_t>(will.payload_len, sizeof will.payload));
}

void mark_will_sent(mqtt_client_t &client)
{
    ScopedLock lock(client.will_lock);
    client.will_sent = 1;
}

// QUIRK(will-saves-session): publishing the will of a kept session writes its subscriptions, also when the session was
// deleted a moment before because it ended with the connection: the next CONNECT finds a session present although it
// should find none [MQTT-3.2.2-3]. A close ends the session first and the will after it.
//   standard profile: lifted (sessions)
//   test: close_table.every_kind_of_client_every_way_and_every_will
void send_will(mqtt_client_t &client, const mqtt_publish_para_t &will, Packet packet)
{
    LOG_INFO("[WILL] 编码成功 | len=%d | 开始广播", static_cast<int>(packet.size()));
    broadcast(packet, true);
    stats::count(stats::Counter::will_sent);
    api::tell(client, BROKER_EVENT_WILL, will.topic, static_cast<int32_t>(will.qos));
    {
        ScopedLock lock(session_mutex(client));
        client.session.will_flag = 0;
    }
    mark_will_sent(client);
    LOG_INFO("[WILL] 广播完成 | will_sent=%d", 1);
    if (!client.clean_session) {
        ScopedLock lock(session_mutex(client));
        persist::save(client.session, PERSIST_SUBSCRIPTIONS);
    }
}

} // namespace

bool publish_will(mqtt_client_t &client) noexcept
{
    mqtt_publish_para_t will{};
    if (!copy_will(client, will))
        return false;
    log_sending(client, will);

    const owned<uint8_t> room = allocate_zeroed<uint8_t>(PACKET_WILL_BUFFER_SIZE);
    if (!room) {
        LOG_ERROR("[WILL] malloc failed");
        return false;
    }
    will.msg_id = draw_packet_id(); // receivers get others
    std::span<uint8_t>  packet(room.get(), PACKET_WILL_BUFFER_SIZE);
    const codec::Result result = codec::encode_publish(client.codec, will, packet);
    if (failed(result)) {
        LOG_ERROR("[WILL] 编码失败 | code=%d | len=%d", codec::code_of(result), static_cast<int>(packet.size()));
        return false;
    }
    send_will(client, will, packet);
    return true;
}

void start_will(mqtt_client_t &client) noexcept
{
    const WillFlags will = flags_of(client);
    LOG_INFO("[WILL] 准备启动遗嘱 | client=%s | will_msg_used=%d | will_sent=%d", id_of(client).text, will.used,
             will.sent);
    if (!will.used || will.sent) {
        LOG_WARN("[WILL] 不启动：条件不满足");
        return;
    }
    if (will.delay_s == 0) {
        LOG_INFO("[WILL] 延迟=0 → 立即发送");
        (void)publish_will(client);
        return;
    }
    {
        ScopedLock lock(client.will_lock);
        client.will_delay_deadline = mono_ms() + uint64_t{will.delay_s} * 1000;
        client.will_delay_pending  = 1;
    }
    LOG_INFO("[WILL] 启动延迟成功 | delay=%us", will.delay_s);
}

void call_off_will(mqtt_client_t &client) noexcept
{
    {
        ScopedLock lock(client.will_lock);
        client.will_delay_pending = 0;
    }
    LOG_INFO("[WILL-MQTT5] client=%s 取消遗嘱延迟", id_of(client).text);
}

} // namespace tarn::handler
