/* Lets two users in, and nobody else, until Enter is pressed. */
#include <stdio.h>
#include <string.h>
#include <tarn_sdk_mqtt_broker.h>

/* A real host keeps hashes. */
static const struct {
    const char *name, *password;
} users[] = {{"alice", "wonderland"}, {"bob", "builder"}};

static bool is_user(broker_t *broker, const char *client_id, const char *username, const char *password)
{
    (void)broker, (void)client_id;
    for (size_t i = 0; i < sizeof users / sizeof *users; ++i)
        if (strcmp(username, users[i].name) == 0)
            return strcmp(password, users[i].password) == 0;
    return false;
}

/* The broker handles packets that come before a CONNECT, for which nobody was asked. Their client has no id yet. */
static bool has_connected(broker_t *broker, const char *client_id, const char *topic, uint8_t action,
                          mqtt_client_t *client)
{
    (void)broker, (void)topic, (void)action, (void)client;
    return *client_id != '\0';
}

int main(void)
{
    broker_t *broker = tarn_sdk_mqtt_broker_create();
    if (!broker || tarn_sdk_mqtt_broker_init(broker) != TARN_OK)
        return 1;
    tarn_sdk_mqtt_broker_register_auth_callback(broker, is_user);
    tarn_sdk_mqtt_broker_register_acl_callback(broker, has_connected);
    if (tarn_sdk_mqtt_broker_start(broker, 1883, 1000) == TARN_OK) {
        puts("Serving alice and bob, press Enter to end");
        getchar();
        tarn_sdk_mqtt_broker_stop(broker);
    }
    tarn_sdk_mqtt_broker_deinit(broker);
    tarn_sdk_mqtt_broker_destroy(broker);
    return 0;
}
