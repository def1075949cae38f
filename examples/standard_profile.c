/* A broker for MQTT clients of any make, such as Paho, MQTT.js or Mosquitto's: serves the standard profile on port 1883
 * until Enter is pressed. */
#include <stdio.h>
#include <tarn_sdk_mqtt_broker.h>

int main(void)
{
    broker_t *broker = tarn_sdk_mqtt_broker_create();
    if (!broker || tarn_sdk_mqtt_broker_init(broker) != TARN_OK)
        return 1;
    if (tarn_sdk_mqtt_broker_set_profile(broker, TARN_PROFILE_STANDARD) == TARN_OK &&
        tarn_sdk_mqtt_broker_start(broker, 1883, 1000) == TARN_OK) {
        puts("Serving, press Enter to end");
        getchar();
        tarn_sdk_mqtt_broker_stop(broker);
    }
    tarn_sdk_mqtt_broker_deinit(broker);
    tarn_sdk_mqtt_broker_destroy(broker);
    return 0;
}
