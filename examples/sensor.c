/* Publishes a value from the host's own thread, twice a second, until Enter is pressed. */
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <tarn_sdk_mqtt_broker.h>
#include <unistd.h>

static double temperature(void)
{
    static int step;
    return 20 + step++ % 10 / 10.0;
}

static bool enter_within_ms(int ms)
{
    struct pollfd input = {.fd = STDIN_FILENO, .events = POLLIN};
    return poll(&input, 1, ms) != 0;
}

int main(void)
{
    broker_t *broker = tarn_sdk_mqtt_broker_create();
    if (!broker || tarn_sdk_mqtt_broker_init(broker) != TARN_OK)
        return 1;
    if (tarn_sdk_mqtt_broker_start(broker, 1883, 1000) == TARN_OK) {
        puts("Serving sensors/temperature, press Enter to end");
        do { /* at QoS 1, and kept for a minute: who subscribes later gets the last value at once */
            char text[16];
            snprintf(text, sizeof text, "%.1f", temperature());
            tarn_sdk_mqtt_broker_publish(broker, "sensors/temperature", text, (int32_t)strlen(text), 1, 1, 60);
        } while (!enter_within_ms(500));
        tarn_sdk_mqtt_broker_stop(broker);
    }
    tarn_sdk_mqtt_broker_deinit(broker);
    tarn_sdk_mqtt_broker_destroy(broker);
    return 0;
}
