// will_store.cpp - the will message in a client's record. All of it is written under will_lock.
#include "../base/memory.h"
#include "../base/text.h"
#include "client_internal.h"

#include <cstring>
#include <utility>

namespace tarn::client {
namespace {

// What the record holds after the call, for the line that tells it, and what it held before: the caller may have handed
// us the record's own texts.
struct StoredWill {
    owned<char>    old_topic;
    owned<uint8_t> old_payload;
    const char    *topic;
    uint32_t       payload_len;
    uint8_t        qos;
    uint8_t        retain;
    uint8_t        used;
};

owned<char> copy_of(const char *text)
{
    const size_t size = strlen(text) + 1;
    owned<char>  copy = allocate<char>(size);
    if (copy)
        memcpy(copy.get(), text, size);
    return copy;
}

owned<uint8_t> copy_of(const uint8_t *bytes, uint32_t count)
{
    owned<uint8_t> copy = allocate<uint8_t>(count);
    if (copy && count > 0)
        memcpy(copy.get(), bytes, count);
    return copy;
}

// Without memory for both texts the client has no will.
StoredWill store(mqtt_client_t &client, const Will &will)
{
    ScopedLock     lock(client.will_lock);
    owned<char>    topic_copy   = copy_of(will.topic);
    owned<uint8_t> payload_copy = copy_of(will.payload, will.payload_len);
    owned<char>    old_topic(static_cast<char *>(client.will_topic));
    owned<uint8_t> old_payload(static_cast<uint8_t *>(client.will_payload));
    if (topic_copy && payload_copy) {
        client.will_topic       = topic_copy.release();
        client.will_payload     = payload_copy.release();
        client.will_payload_len = will.payload_len;
        client.will_qos         = will.qos;
        client.will_retain      = will.retain;
        client.will_sent        = 0;
        client.will_msg_used    = 1;
    } else {
        client.will_topic    = nullptr;
        client.will_payload  = nullptr;
        client.will_msg_used = 0;
    }
    return {std::move(old_topic),    std::move(old_payload), client.will_topic ? will.topic : nullptr,
            client.will_payload_len, client.will_qos,        client.will_retain,
            client.will_msg_used};
}

} // namespace

void free_will_texts(mqtt_client_t &client) noexcept
{
    free(client.will_topic);
    free(client.will_payload);
    client.will_topic   = nullptr;
    client.will_payload = nullptr;
}

// The last line is the same whether the will was stored or memory ran out; will_msg_used tells.

// QUIRK(will-qos-3): a will QoS of 3 becomes 0 instead of ending the connection [MQTT-3.1.2-14 of 3.1.1, MQTT-3.1.2-12
// of 5.0]. The will of such a device is worth more than its refusal.
//   standard profile: lifted (strictness)
//   test: set_will.lowers_a_qos_above_2_to_0

// QUIRK(will-too-large): a will of more than 2048 bytes is left out and the client connected without it
// [MQTT-3.1.2-7]. Records have a fixed size, and the line tells.
//   standard profile: lifted (sizes)
//   test: set_will.takes_2048_bytes_and_no_more
void set_will(mqtt_client_t &client, const Will &asked) noexcept
{
    if (asked.payload_len > CLIENT_WILL_MAX)
        return log_wrong_will(&client, asked);
    const client_id_text id = id_of(client);
    LOG_DEBUG("[遗嘱调试][设置开始] ClientID=%s, 原始入参：topic=%s, payload_len=%d, qos=%d, retain=%d", id.text,
              asked.topic, static_cast<int>(asked.payload_len), asked.qos, asked.retain);
    Will taken = asked;
    if (!asked.payload)
        taken.payload_len = 0;
    if (asked.qos > 2) {
        taken.qos = 0;
        LOG_WARN("[遗嘱调试][QoS降级] ClientID=%s, 原始QoS=%d超出范围（0-2），自动降级为QoS0", id.text, asked.qos);
    }
    const StoredWill will = store(client, taken);
    LOG_INFO(
        "[遗嘱调试][设置成功] ClientID=%s, 最终存储：topic=%s, payload_len=%d, qos=%d, retain=%d, will_msg_used=%d",
        id.text, or_null(will.topic), static_cast<int>(will.payload_len), will.qos, will.retain, will.used);
}

void log_wrong_will(const mqtt_client_t *client, const Will &asked) noexcept
{
    LOG_ERROR("[遗嘱调试][设置失败] 参数无效：client=%p, topic=%s, payload_len=%d（上限=%d）, qos=%d",
              static_cast<const void *>(client), asked.topic ? asked.topic : "NULL",
              static_cast<int>(asked.payload_len), CLIENT_WILL_MAX, asked.qos);
}

void set_will_properties(mqtt_client_t &client, const WillProperties &properties) noexcept
{
    const std::span correlation = properties.correlation_data;
    {
        ScopedLock lock(client.will_lock);
        client.will_delay_interval      = properties.delay_s;
        client.will_msg_expiry_interval = properties.expiry_s;
        client.will_payload_format      = properties.payload_format;
        if (properties.content_type)
            copy_text(client.will_content_type, properties.content_type, sizeof client.will_content_type - 1);
        if (properties.response_topic)
            copy_text(client.will_response_topic, properties.response_topic, sizeof client.will_response_topic - 1);
        if (correlation.data() && correlation.size() < sizeof client.will_correlation_data) {
            memcpy(client.will_correlation_data, correlation.data(), correlation.size());
            client.will_correlation_len = static_cast<uint32_t>(correlation.size());
        }
    }
    LOG_INFO("[遗嘱增强] ClientID=%s 设置完成：延迟=%ds, 过期=%ds", id_of(client).text,
             static_cast<int>(properties.delay_s), static_cast<int>(properties.expiry_s));
}

} // namespace tarn::client
