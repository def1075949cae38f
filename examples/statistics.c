/* Tells how many clients are online and what they sent, whenever that changes, until Enter is pressed. */
#include <poll.h>
#include <stdio.h>
#include <tarn_sdk_mqtt_broker.h>
#include <unistd.h>

static bool enter_within_ms(int ms)
{
    struct pollfd input = {.fd = STDIN_FILENO, .events = POLLIN};
    return poll(&input, 1, ms) != 0;
}

static void watch(broker_t *broker)
{
    char                         ids[64 * 1000]; /* what 1000 clients need */
    tarn_sdk_mqtt_broker_stats_t now, last = {.online = UINT32_MAX};
    do {
        tarn_sdk_mqtt_broker_get_stats(broker, &now);
        if (now.online == last.online && now.messages == last.messages)
            continue;
        tarn_sdk_mqtt_broker_get_client_id_list(broker, ids, sizeof ids);
        printf("%u online (%s), %u messages\n", now.online, ids, now.messages);
        fflush(stdout);
        last = now;
    } while (!enter_within_ms(100));
}

int main(void)
{
    broker_t *broker = tarn_sdk_mqtt_broker_create();
    if (!broker || tarn_sdk_mqtt_broker_init(broker) != TARN_OK)
        return 1;
    if (tarn_sdk_mqtt_broker_start(broker, 1883, 1000) == TARN_OK) {
        puts("Serving, press Enter to end");
        watch(broker);
        tarn_sdk_mqtt_broker_stop(broker);
    }
    tarn_sdk_mqtt_broker_deinit(broker);
    tarn_sdk_mqtt_broker_destroy(broker);
    return 0;
}
