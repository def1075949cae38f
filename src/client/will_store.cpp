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
struct Stored {
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
Stored store(mqtt_client_t &client, const char *topic, const uint8_t *payload, uint32_t payload_len, uint8_t qos,
             uint8_t retain)
{
    ScopedLock     lock(client.will_lock);
    owned<char>    topic_copy   = copy_of(topic);
    owned<uint8_t> payload_copy = copy_of(payload, payload_len);
    owned<char>    old_topic(static_cast<char *>(client.will_topic));
    owned<uint8_t> old_payload(static_cast<uint8_t *>(client.will_payload));
    if (topic_copy && payload_copy) {
        client.will_topic       = topic_copy.release();
        client.will_payload     = payload_copy.release();
        client.will_payload_len = payload_len;
        client.will_qos         = qos;
        client.will_retain      = retain;
        client.will_sent        = 0;
        client.will_msg_used    = 1;
    } else {
        client.will_topic    = nullptr;
        client.will_payload  = nullptr;
        client.will_msg_used = 0;
    }
    return {std::move(old_topic),    std::move(old_payload), client.will_topic ? topic : nullptr,
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

} // namespace tarn::client

using namespace tarn;
using namespace tarn::client;

// The last line is the same whether the will was stored or memory ran out; will_msg_used tells.

// QUIRK(will-qos-3): a will QoS of 3 becomes 0 instead of ending the connection [MQTT-3.1.2-14 of 3.1.1, MQTT-3.1.2-12
// of 5.0]. The will of such a device is worth more than its refusal.
//   test: set_will.lowers_a_qos_above_2_to_0

// QUIRK(will-too-large): a will of more than 2048 bytes is left out and the client connected without it
// [MQTT-3.1.2-7]. Records have a fixed size, and the line tells.
//   test: set_will.takes_2048_bytes_and_no_more
void client_set_will_msg(mqtt_client_t *client, const char *topic, const uint8_t *payload, uint32_t payload_len,
                         uint8_t qos, uint8_t retain)
{
    if (!client || !topic || payload_len > CLIENT_WILL_MAX) {
        LOG_ERROR("[遗嘱调试][设置失败] 参数无效：client=%p, topic=%s, payload_len=%d（上限=%d）, qos=%d",
                  static_cast<void *>(client), topic ? topic : "NULL", static_cast<int>(payload_len), CLIENT_WILL_MAX,
                  qos);
        return;
    }
    const client_ref     pin(client);
    const client_id_text id = id_of(*client);
    LOG_DEBUG("[遗嘱调试][设置开始] ClientID=%s, 原始入参：topic=%s, payload_len=%d, qos=%d, retain=%d", id.text, topic,
              static_cast<int>(payload_len), qos, retain);
    uint8_t stored_qos = qos;
    if (qos > 2) {
        stored_qos = 0;
        LOG_WARN("[遗嘱调试][QoS降级] ClientID=%s, 原始QoS=%d超出范围（0-2），自动降级为QoS0", id.text, qos);
    }
    const Stored will = store(*client, topic, payload, payload ? payload_len : 0, stored_qos, retain);
    LOG_INFO(
        "[遗嘱调试][设置成功] ClientID=%s, 最终存储：topic=%s, payload_len=%d, qos=%d, retain=%d, will_msg_used=%d",
        id.text, or_null(will.topic), static_cast<int>(will.payload_len), will.qos, will.retain, will.used);
}

void client_set_will_enhance(mqtt_client_t *client, uint32_t delay_s, uint32_t expiry_s, uint8_t payload_format,
                             const char *content_type, const char *response_topic, const uint8_t *correlation_data,
                             uint32_t correlation_len)
{
    if (!client)
        return;
    const client_ref pin(client);
    {
        ScopedLock lock(client->will_lock);
        client->will_delay_interval      = delay_s;
        client->will_msg_expiry_interval = expiry_s;
        client->will_payload_format      = payload_format;
        if (content_type)
            copy_text(client->will_content_type, content_type, sizeof client->will_content_type - 1);
        if (response_topic)
            copy_text(client->will_response_topic, response_topic, sizeof client->will_response_topic - 1);
        if (correlation_data && correlation_len < sizeof client->will_correlation_data) {
            memcpy(client->will_correlation_data, correlation_data, correlation_len);
            client->will_correlation_len = correlation_len;
        }
    }
    LOG_INFO("[遗嘱增强] ClientID=%s 设置完成：延迟=%ds, 过期=%ds", id_of(*client).text, static_cast<int>(delay_s),
             static_cast<int>(expiry_s));
}
