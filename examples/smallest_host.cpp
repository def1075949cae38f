// A program with a broker in it: serves MQTT on port 1883 until Enter is pressed.
#include <cstdio>
#include <tarn_sdk_mqtt_broker.hpp>

int main()
{
    tarn_sdk::Broker broker;
    if (failed(broker.init()) || failed(broker.start()))
        return 1;
    std::puts("Serving, press Enter to end");
    std::getchar();
}
