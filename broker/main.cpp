#include <tarn_sdk_mqtt_broker.h>

int main()
{
    return tarn_sdk_mqtt_broker_create() ? 0 : 1;
}
