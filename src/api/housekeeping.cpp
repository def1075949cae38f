// housekeeping.cpp - the thread behind every periodic task but sending and retransmission.
#include "../base/clock.h"
#include "../base/relaxed.h"
#include "../base/thread.h"
#include "../client/client.hpp"
#include "../persist/persist.hpp"
#include "../standard/standard.hpp"
#include "../stats/stats.hpp"
#include "../sub/sub.hpp"
#include "api_internal.h"

namespace tarn::api {
namespace {

constexpr int64_t  kCleanPeriod_s  = 10;
constexpr int64_t  kReportPeriod_s = 60;
constexpr int64_t  kRetainPeriod_s = 5;
constexpr int64_t  kMemoryPeriod_s = 5;
constexpr uint32_t kTurn_ms        = 10;

// Wall clock, s; 0 = never. Kept for the life of the process, shared by the threads of all instances.
constinit Shared<int64_t> last_clean        = 0;
constinit Shared<int64_t> last_stats_print  = 0;
constinit Shared<int64_t> last_retain_clean = 0;
constinit Shared<int64_t> last_memory_look  = 0;

bool due(const Shared<int64_t> &last_s, int64_t now_s, int64_t period_s)
{
    return now_s - last_s >= period_s;
}

void report_when_due(int64_t now_s)
{
    if (!due(last_stats_print, now_s, kReportPeriod_s))
        return;
    update_statistics();
    stats::report();
    stats::begin_period();
    last_stats_print = now_s;
}

void give_back_memory_when_due(int64_t now_s)
{
    if (!due(last_memory_look, now_s, kMemoryPeriod_s))
        return;
    give_back_memory();
    last_memory_look = now_s;
}

} // namespace

void housekeeping_turn(broker_t &broker, int64_t now_s)
{
    if (standard::is_on()) {
        standard::turn();
        report_when_due(now_s);
        return give_back_memory_when_due(now_s);
    }
    if (due(last_clean, now_s, kCleanPeriod_s)) {
        client::close_silent(mono_ms(), static_cast<uint32_t>(shared(broker.keepalive_timeout)) * 1000);
        last_clean = now_s;
    }
    report_when_due(now_s);
    if (due(last_retain_clean, now_s, kRetainPeriod_s)) {
        sub::discard_expired_retained();
        last_retain_clean = now_s;
    }
    give_back_memory_when_due(now_s);
    if (will_delays_running()) {
        const persist::SaveUnawaited behind;
        client::publish_due_wills(mono_ms());
    }
}

void start_housekeeping(broker_t &broker)
{
    if (shared(broker.thread) != 0)
        return;
    pthread_t thread = 0;
    if (start_thread(&thread, "tarn-house", housekeeping_thread, &broker, WakesUp::ToWait) == 0)
        shared(broker.thread) = thread;
}

bool stop_housekeeping(broker_t &broker)
{
    const pthread_t thread = shared(broker.thread);
    if (thread == 0)
        return true;
    if (pthread_equal(thread, pthread_self()))
        return false;
    join_or_detach(thread);
    shared(broker.thread) = 0;
    return true;
}

void *housekeeping_thread(void *arg)
{
    auto &broker = *static_cast<broker_t *>(arg);
    while (shared(broker.running)) {
        housekeeping_turn(broker, wall_s());
        pause_ms(kTurn_ms);
    }
    return nullptr;
}

} // namespace tarn::api
