// One broker after another in one process: each Enter ends one and begins the next, the third is the last. Clients have
// to connect again; those that do so in between wait for the next broker. What was retained stays.
#include <cstdio>
#include <tarn_sdk_mqtt_broker.hpp>

int main()
{
    for (int life = 1; life <= 3; ++life) {
        tarn_sdk::Broker broker;
        if (failed(broker.init()))
            return 1;
        if (const auto result = broker.start(); failed(result)) {
            std::fprintf(stderr, "life %d: %s\n", life, to_text(result));
            return 1;
        }
        char topics[1000];
        broker.retain_topic_list(topics, sizeof topics);
        std::printf("Life %d, press Enter to end it; retained:\n%s", life, topics);
        std::fflush(stdout);
        std::getchar();
    }
}
