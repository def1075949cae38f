#include "host.h"

#include "base/mutex.h"
#include "handler/packet_handler.h"
#include "qos/qos_reliable.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <mutex>

namespace tarn::test {
namespace {

std::mutex               g_hooks_mutex; // guards the rest; the broker's threads call in
std::vector<std::string> g_seen;
std::string              g_refused_user, g_refused_topic;

void on_event(broker_t *, uint32_t kind, const char *text)
{
    const std::lock_guard lock(g_hooks_mutex);
    g_seen.push_back("event " + std::to_string(kind) + " " + text);
}

bool on_auth(broker_t *, const char *client_id, const char *username, const char *password)
{
    const std::lock_guard lock(g_hooks_mutex);
    g_seen.push_back(std::string("auth ") + client_id + " " + username + " " + password);
    return g_refused_user.empty() || g_refused_user != username;
}

bool on_acl(broker_t *, const char *client_id, const char *topic, uint8_t action, mqtt_client_t *)
{
    const std::lock_guard lock(g_hooks_mutex);
    g_seen.push_back(std::string("acl ") + client_id + (action == BROKER_ACL_PUBLISH ? " publish " : " subscribe ") +
                     topic);
    return g_refused_topic.empty() || g_refused_topic != topic;
}

} // namespace

Host::Host(int max_clients) : broker_(tarn_sdk_mqtt_broker_create())
{
    EXPECT_NE(broker_, nullptr);
    EXPECT_EQ(tarn_sdk_mqtt_broker_init(broker_), 0);
    EXPECT_EQ(tarn_sdk_mqtt_broker_start(broker_, 1883, max_clients), 0);
    seed_identifiers(164); // none of the first hundred thousand is 0, which would lose its delivery
}

Host::~Host()
{
    EXPECT_EQ(tarn_sdk_mqtt_broker_stop(broker_), 0);
    tarn_sdk_mqtt_broker_deinit(broker_);
    tarn_sdk_mqtt_broker_destroy(broker_);
}

int32_t Host::publish(std::string_view topic, std::string_view payload, unsigned qos, bool retain, uint32_t expiry_s)
{
    return tarn_sdk_mqtt_broker_publish(broker_, std::string(topic).c_str(), payload.data(),
                                        static_cast<int32_t>(payload.size()), qos, retain, expiry_s);
}

std::string Host::client_ids()
{
    std::vector<char> text(1 << 20);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_id_list(broker_, text.data(), static_cast<int32_t>(text.size())), 0);
    return text.data();
}

std::string Host::retained_topics()
{
    std::vector<char> text(1 << 18);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(broker_, text.data(), static_cast<int32_t>(text.size())), 0);
    return text.data();
}

void seed_identifiers(uint32_t seed)
{
    const ScopedLock lock(msgid_mutex);
    msgid_seed = seed;
}

std::vector<Pending> pending_deliveries()
{
    std::vector<Pending> all;
    const ScopedLock     lock(g_queue_mutex);
    for (const qos_packet_t *entry = g_pending_queue; entry; entry = entry->next)
        all.push_back({entry->msg_id, entry->qos, entry->qos2_state});
    return all;
}

void Hooks::listen(broker_t *broker)
{
    tarn_sdk_mqtt_broker_register_event_callback(broker, on_event);
    tarn_sdk_mqtt_broker_register_auth_callback(broker, on_auth);
    tarn_sdk_mqtt_broker_register_acl_callback(broker, on_acl);
}

std::vector<std::string> Hooks::take()
{
    const std::lock_guard lock(g_hooks_mutex);
    return std::exchange(g_seen, {});
}

void Hooks::refuse_user(std::string_view name)
{
    const std::lock_guard lock(g_hooks_mutex);
    g_refused_user = name;
}

void Hooks::refuse_topic(std::string_view topic)
{
    const std::lock_guard lock(g_hooks_mutex);
    g_refused_topic = topic;
}

} // namespace tarn::test
