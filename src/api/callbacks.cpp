// callbacks.cpp - the host's three callbacks: registering them, and how packet handling reaches them.
//
// They belong to the instance that owns the client. No lock is held while one runs, so it may call the API.
#include "../base/clock.h"
#include "../client/client.hpp"
#include "../persist/persist.hpp"
#include "api_internal.h"

#include <atomic>
#include <cstdio>

using namespace tarn;

namespace {

constexpr size_t kEventTextSize = 256;

// The authentication callback that answers at once, of whichever instances.
constinit std::atomic<broker_auth_cb_t> g_quick_auth{nullptr};

constinit thread_local int t_callbacks = 0; // one inside the other, when a callback kicks a client

class CallbackScope {
public:
    CallbackScope() { ++t_callbacks; }
    ~CallbackScope()
    {
        --t_callbacks;
        renew_packet_time();
    }
    CallbackScope(const CallbackScope &)            = delete;
    CallbackScope &operator=(const CallbackScope &) = delete;

private:
    persist::SaveAtOnce at_once_; // what a host calls has left its files when it returns
};

broker_t *owner_of(mqtt_client_t &client)
{
    return client.broker;
}

} // namespace

bool api::in_callback() noexcept
{
    return t_callbacks > 0;
}

void tarn_sdk_mqtt_broker_register_event_callback(broker_t *broker, broker_event_cb_t cb)
{
    if (broker)
        poke_release(broker->event_cb, cb);
}

void tarn_sdk_mqtt_broker_register_auth_callback(broker_t *broker, broker_auth_cb_t cb)
{
    if (!broker)
        return;
    broker_auth_cb_t no_longer = cb;
    (void)g_quick_auth.compare_exchange_strong(no_longer, nullptr);
    poke_release(broker->auth_cb, cb);
}

void tarn_sdk_mqtt_broker_register_quick_auth_callback(broker_t *broker, broker_auth_cb_t cb)
{
    if (!broker)
        return;
    g_quick_auth = cb;
    poke_release(broker->auth_cb, cb);
}

void tarn_sdk_mqtt_broker_register_acl_callback(broker_t *broker, broker_acl_cb_t cb)
{
    if (broker)
        poke_release(broker->acl_cb, cb);
}

bool api::accepts(mqtt_client_t &client, const char *client_id, const char *username, const char *password) noexcept
{
    return accepts(owner_of(client), client_id, username, password);
}

bool api::accepts(broker_t *owner, const char *client_id, const char *username, const char *password) noexcept
{
    if (!owner)
        return true;
    const broker_auth_cb_t ask = peek_acquire(owner->auth_cb);
    const CallbackScope    scope;
    return !ask || ask(owner, client_id, username, password);
}

bool api::allows(mqtt_client_t &client, const char *topic, uint8_t action) noexcept
{
    broker_t *const owner = owner_of(client);
    if (!owner)
        return true;
    const broker_acl_cb_t ask = peek_acquire(owner->acl_cb);
    const CallbackScope   scope;
    return !ask || ask(owner, client.client_id, topic, action, &client);
}

void api::tell(mqtt_client_t &client, uint32_t kind, const char *topic, int32_t qos) noexcept
{
    broker_t *const owner = owner_of(client);
    if (!owner || !peek_acquire(owner->event_cb))
        return;
    // The id is copied, because a will's event comes on any thread and its client's own may be taking a new id.
    api::tell(*owner, id_of(client).text, kind, topic, qos);
}

void api::tell(broker_t &broker, const char *client_id, uint32_t kind, const char *topic, int32_t qos) noexcept
{
    const broker_event_cb_t tell = peek_acquire(broker.event_cb);
    if (!tell)
        return;
    // Texts stand as they are, unescaped, and the whole is cut at 255 characters.
    char text[kEventTextSize];
    snprintf(text, sizeof text, "{\"clientId\":\"%s\",\"topic\":\"%s\",\"qos\":%d}", client_id, topic, qos);
    const CallbackScope scope;
    tell(&broker, kind, text);
}

bool api::asks_about_topics(mqtt_client_t &client) noexcept
{
    const broker_t *const owner = owner_of(client);
    return owner && peek_acquire(owner->acl_cb);
}

bool api::hears_events(mqtt_client_t &client) noexcept
{
    const broker_t *const owner = owner_of(client);
    return owner && peek_acquire(owner->event_cb);
}

bool api::asks_about_logins(broker_t *owner) noexcept
{
    return owner && peek_acquire(owner->auth_cb);
}

bool api::accepts_at_once() noexcept
{
    broker_t *const owner = owner_of_layer();
    if (!owner) // a host that drives the modules itself
        return false;
    const broker_auth_cb_t ask = peek_acquire(owner->auth_cb);
    return ask ? ask == g_quick_auth : !peek_acquire(owner->event_cb);
}
