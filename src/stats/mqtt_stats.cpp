// mqtt_stats.cpp - counting, and the two forms in which the counts are shown.
//
// Every field is a relaxed atomic: any thread counts, any thread reads, and nobody waits. A report is therefore a
// set of single readings, not one moment's picture.
#include "mqtt_stats.h"

#include "../base/clock.h"
#include "../client/client.h"
#include "../log/log.h"
#include "../sub/sub.h"

#include <cmath>
#include <cstdio>

constinit mqtt_stats_t g_mqtt_stats{};

using namespace tarn;

namespace {

constexpr mqtt_stats_t &s = g_mqtt_stats;

// As printf's %llu takes it.
unsigned long long read(const uint64_t &counter) noexcept
{
    return peek(counter);
}
uint32_t read(const uint32_t &counter) noexcept
{
    return peek(counter);
}

template <class... Field> void clear(Field &...fields) noexcept
{
    (poke(fields, 0), ...);
}

template <class Total, class Period> void count(Total &total, Period &period) noexcept
{
    bump(total);
    bump(period);
}

// The usage as "%.1f" would show it, in two numbers: a host's locale may print a comma there, which is no JSON. The
// product is exact in a double, so the rounding is printf's.
struct Percent {
    long whole, tenths;
};
Percent usage() noexcept
{
    const long tenths = lrint(static_cast<double>(peek(s.pool_usage)) * 10);
    return {tenths / 10, tenths % 10};
}

void raise(uint32_t &highest, uint32_t value) noexcept
{
    for (uint32_t seen = peek(highest); value > seen; seen = peek(highest))
        if (swap_if(highest, seen, value))
            return;
}

void report_period() noexcept
{
    LOG_WARN("[周期60s] 收包:%llu | 发包:%llu | 超时:%u | 遗嘱:%u | 持久写:%llu | 持久读:%llu", read(s.period_rx),
             read(s.period_tx), read(s.period_timeout), read(s.period_will), read(s.period_persist_write),
             read(s.period_persist_read));
    LOG_WARN("[周期丢包] 离线:%llu | 队列满:%llu | 超长:%llu | 非法参数:%llu | 发送失败:%llu",
             read(s.period_drop_offline), read(s.period_drop_queue_full), read(s.period_drop_too_big),
             read(s.period_drop_invalid_param), read(s.period_drop_send_failed));
}

void report_totals() noexcept
{
    LOG_WARN("收包总数: %llu | 发包总数: %llu", read(s.pkt_rx), read(s.pkt_tx));
    LOG_WARN("[总丢包] 离线:%llu | 队列满:%llu | 超长:%llu | 非法参数:%llu | 发送失败:%llu", read(s.drop_offline),
             read(s.drop_queue_full), read(s.drop_too_big), read(s.drop_invalid_param), read(s.drop_send_failed));
    LOG_WARN("QoS0: %llu | QoS1: %llu | QoS2: %llu", read(s.qos0), read(s.qos1), read(s.qos2));
    LOG_WARN("离线消息: %llu | Retain消息: %u", read(s.offline_msg), read(s.retain_msg));
    LOG_WARN("总订阅数: %u | 超时断开: %u | 遗嘱发送: %u", read(s.subs), read(s.timeout), read(s.will_sent));
    LOG_WARN("持久化写入: %llu | 读取: %llu", read(s.persist_write), read(s.persist_read));
}

} // namespace

extern "C" void mqtt_stats_init(void)
{
    clear(s.online, s.max_online, s.pkt_rx, s.pkt_tx, s.drop_offline, s.drop_queue_full, s.drop_too_big,
          s.drop_invalid_param, s.drop_send_failed, s.qos0, s.qos1, s.qos2, s.offline_msg, s.retain_msg, s.subs,
          s.timeout, s.will_sent, s.parse_error, s.persist_write, s.persist_read, s.pool_cap, s.pool_used,
          s.pool_usage);
    mqtt_stats_reset_period();
    poke(s.start_ms, mono_ms());
    LOG_INFO("[MQTT-Stats] 维测统计模块初始化完成");
}

extern "C" void mqtt_stats_deinit(void) {}

extern "C" void mqtt_stats_update(void)
{
    const uint32_t online = client_get_connected_count();
    poke(s.online, online);
    raise(s.max_online, online);

    const auto cap  = static_cast<uint32_t>(peek(g_client_mgr.capacity));
    const auto used = static_cast<uint32_t>(peek(g_client_mgr.used_count));
    poke(s.pool_cap, cap);
    poke(s.pool_used, used);
    poke(s.pool_usage, cap ? static_cast<float>(used) / static_cast<float>(cap) * 100.0f : 0.0f);

    poke(s.retain_msg, static_cast<uint32_t>(peek(g_sub_mgr.retain_count)));
    poke(s.subs, static_cast<uint32_t>(peek(g_sub_mgr.sub_count)));
}

extern "C" void mqtt_stats_reset_period(void)
{
    clear(s.period_rx, s.period_tx, s.period_drop_offline, s.period_drop_queue_full, s.period_drop_too_big,
          s.period_drop_invalid_param, s.period_drop_send_failed, s.period_timeout, s.period_will,
          s.period_persist_write, s.period_persist_read);
}

// At WARN, so that the report passes the broker's default level.
extern "C" void mqtt_stats_print(void)
{
    mqtt_stats_update();
    const Percent used = usage();
    LOG_WARN("!!!>>>===================== MQTT Broker 维测统计 =====================");
    LOG_WARN("运行时长: %llu ms", mono_ms() - read(s.start_ms));
    LOG_WARN("在线客户端: %u / 历史最高: %u", read(s.online), read(s.max_online));
    LOG_WARN("内存池使用率: %u/%u (%ld.%ld%%)", read(s.pool_used), read(s.pool_cap), used.whole, used.tenths);
    report_period();
    report_totals();
    LOG_WARN("!!!>>>================================================================");
}

extern "C" int mqtt_stats_to_json(char *buf, int32_t size)
{
    if (!buf || size < 1024)
        return -1;
    mqtt_stats_update();
    const Percent used = usage();
    snprintf(buf, static_cast<size_t>(size),
             "{\"online\":%u,\"max_online\":%u,\"pool_used\":%u,\"pool_cap\":%u,\"pool_usage\":%ld.%ld,"
             "\"pkt_rx\":%llu,\"pkt_tx\":%llu,"
             "\"drop_offline\":%llu,\"drop_queue_full\":%llu,\"drop_too_big\":%llu,\"drop_invalid_param\":%llu,"
             "\"drop_send_failed\":%llu,"
             "\"qos0\":%llu,\"qos1\":%llu,\"qos2\":%llu,"
             "\"offline_msg\":%llu,\"retain_msg\":%u,\"subs\":%u,\"timeout\":%u,\"will_sent\":%u}",
             read(s.online), read(s.max_online), read(s.pool_used), read(s.pool_cap), used.whole, used.tenths,
             read(s.pkt_rx), read(s.pkt_tx), read(s.drop_offline), read(s.drop_queue_full), read(s.drop_too_big),
             read(s.drop_invalid_param), read(s.drop_send_failed), read(s.qos0), read(s.qos1), read(s.qos2),
             read(s.offline_msg), read(s.retain_msg), read(s.subs), read(s.timeout), read(s.will_sent));
    return 0;
}

extern "C" void mqtt_stats_inc_qos(uint8_t qos)
{
    uint64_t *const totals[] = {&s.qos0, &s.qos1, &s.qos2};
    if (qos < std::size(totals))
        bump(*totals[qos]);
}

extern "C" void mqtt_stats_inc_rx_pkt(void)
{
    count(s.pkt_rx, s.period_rx);
}
extern "C" void mqtt_stats_inc_tx_pkt(void)
{
    count(s.pkt_tx, s.period_tx);
}
extern "C" void mqtt_stats_inc_drop_offline(void)
{
    count(s.drop_offline, s.period_drop_offline);
}
extern "C" void mqtt_stats_inc_drop_queue_full(void)
{
    count(s.drop_queue_full, s.period_drop_queue_full);
}
extern "C" void mqtt_stats_inc_drop_too_big(void)
{
    count(s.drop_too_big, s.period_drop_too_big);
}
extern "C" void mqtt_stats_inc_drop_invalid_param(void)
{
    count(s.drop_invalid_param, s.period_drop_invalid_param);
}
extern "C" void mqtt_stats_inc_drop_send_failed(void)
{
    count(s.drop_send_failed, s.period_drop_send_failed);
}
extern "C" void mqtt_stats_inc_offline_msg(void)
{
    bump(s.offline_msg);
}
extern "C" void mqtt_stats_inc_will_sent(void)
{
    count(s.will_sent, s.period_will);
}
extern "C" void mqtt_stats_inc_timeout(void)
{
    count(s.timeout, s.period_timeout);
}
extern "C" void mqtt_stats_inc_persist_write(void)
{
    count(s.persist_write, s.period_persist_write);
}
extern "C" void mqtt_stats_inc_persist_read(void)
{
    count(s.persist_read, s.period_persist_read);
}
extern "C" void mqtt_stats_inc_parse_error(void)
{
    bump(s.parse_error);
}
