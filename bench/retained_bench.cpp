// retained_bench - what a full store of retained messages costs traffic that has nothing to do with it.
//
//     retained_bench [--messages N] [--rounds N]
//
// The broker runs in this process. The same closed loop of a publisher and a subscriber meets an empty and a full store
// in turn, round after round, and the best round of each counts, so that what else the machine does falls on both. The
// last column is the pace with the full store over that with the empty one. Each comparison is made in silence and
// beside a host that publishes, too: ordinary messages or ones that a full store refuses, a thousand a second, or ones
// that replace what the store holds, a hundred a second, for each of which the whole file is written.
#include "base/relaxed.h"
#include "log/agent_log.h"
#include "sub/sub.h"
#include "support/isolation.h"
#include "support/message_loop.h"
#include <tarn_sdk_mqtt_broker.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>

using namespace tarn::test;

namespace {

struct Settings {
    unsigned messages = 50000;
    unsigned rounds   = 15;
};

bool read_arguments(int argc, char **argv, Settings &settings)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string word   = argv[i];
        const auto        number = static_cast<unsigned>(strtoul(argv[i + 1], nullptr, 10));
        if (word == "--messages")
            settings.messages = number;
        else if (word == "--rounds")
            settings.rounds = number;
        else
            return false;
    }
    return argc % 2 == 1 && settings.messages > 0 && settings.rounds > 0;
}

constexpr char kFirstTopic[] = "plant/7/line/0/temperature";

void fill_store()
{
    const tarn::ScopedLock lock(g_sub_mgr.lock);
    for (int i = 0; i < RETAIN_CAPACITY; ++i) {
        retain_msg_t &entry = g_sub_mgr.retains[i];
        snprintf(entry.topic, sizeof entry.topic, "plant/7/line/%d/temperature", i);
        memset(entry.payload, 'x', sizeof entry.payload);
        entry.payload_len = sizeof entry.payload;
        entry.store_time  = time(nullptr);
    }
}

void show_store(bool full)
{
    const tarn::ScopedLock lock(g_sub_mgr.lock);
    g_sub_mgr.retain_count = full ? int32_t{RETAIN_CAPACITY} : 0;
}

enum class Host { Silent, Publishes, IsRefused, Replaces };

// Publishes all the while it lives.
class BusyHost {
public:
    BusyHost(broker_t *broker, Host what, bool full)
    {
        if (what == Host::Silent)
            return;
        const bool        retain = what == Host::Replaces || (what == Host::IsRefused && full);
        const char *const topic  = what == Host::Replaces ? kFirstTopic : "one/too/many";
        const int         pause  = what == Host::Replaces ? 10 : 1;
        thread_                  = std::thread([=, this] {
            for (; !over_; std::this_thread::sleep_for(std::chrono::milliseconds(pause)))
                tarn_sdk_mqtt_broker_publish(broker, topic, "x", 1, 0, retain, 0);
        });
    }
    ~BusyHost()
    {
        over_ = true;
        if (thread_.joinable())
            thread_.join();
    }

private:
    std::atomic<bool> over_ = false;
    std::thread       thread_;
};

bool compare(broker_t *broker, const Settings &settings, const char *name, unsigned qos, Host host)
{
    double best[2] = {};
    for (unsigned round = 0; round < settings.rounds; ++round)
        for (const bool full : {false, true}) {
            show_store(full);
            const BusyHost   beside(broker, host, full);
            const LoopResult result = run_message_loop({.qos = qos, .messages = settings.messages});
            if (!result.error.empty()) {
                printf("QoS %u, %s: %s\n", qos, name, result.error.c_str());
                return false;
            }
            best[full] = std::max(best[full], result.deliveries_per_s());
        }
    printf("QoS %u, %-34s empty %8.0f/s  full %8.0f/s  x %.2f\n", qos, name, best[0], best[1], best[1] / best[0]);
    fflush(stdout);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    Settings settings;
    if (!read_arguments(argc, argv, settings)) {
        fprintf(stderr, "usage: retained_bench [--messages N] [--rounds N]\n");
        return 2;
    }
    isolate_process();
    broker_t *const broker = tarn_sdk_mqtt_broker_create();
    if (tarn_sdk_mqtt_broker_init(broker) != 0 || tarn_sdk_mqtt_broker_start(broker, 1883, 100) != 0)
        return 1;
    tarn_sdk_mqtt_broker_set_log_level(broker, AGENT_LOG_FATAL);
    fill_store();
    bool well = true;
    for (const unsigned qos : {0u, 1u}) {
        well &= compare(broker, settings, "in silence:", qos, Host::Silent);
        well &= compare(broker, settings, "beside a host that publishes:", qos, Host::Publishes);
        well &= compare(broker, settings, "beside a host that is refused:", qos, Host::IsRefused);
        well &= compare(broker, settings, "beside a host that replaces:", qos, Host::Replaces);
    }
    show_store(false);
    tarn_sdk_mqtt_broker_stop(broker);
    tarn_sdk_mqtt_broker_deinit(broker);
    tarn_sdk_mqtt_broker_destroy(broker);
    return well ? 0 : 1;
}
