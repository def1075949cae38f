// report.cpp - the two forms in which counters are shown: lines of the log, and JSON.
//
// A report is a set of single readings, not one moment's picture.
#include "../base/clock.h"
#include "../log/log.h"
#include "stats.hpp"

#include <charconv>
#include <cmath>
#include <string_view>

namespace tarn::stats {
namespace {

constexpr mqtt_stats_t &s = g_mqtt_stats;

using Stats = mqtt_stats_t;

// What take_over() fills.
constexpr Field kOnline = &Stats::online, kMaxOnline = &Stats::max_online, kPoolCap = &Stats::pool_cap,
                kPoolUsed = &Stats::pool_used, kRetained = &Stats::retain_msg, kSubs = &Stats::subs;

// A line of the report and the numbers in it.
struct Line {
    const char *text;
    Field       fields[6];
};

constexpr Line kLines[] = {
    {"[周期60s] 收包:%llu | 发包:%llu | 超时:%llu | 遗嘱:%llu | 持久写:%llu | 持久读:%llu",
     {&Stats::period_rx, &Stats::period_tx, &Stats::period_timeout, &Stats::period_will, &Stats::period_persist_write,
      &Stats::period_persist_read}},
    {"[周期丢包] 离线:%llu | 队列满:%llu | 超长:%llu | 非法参数:%llu | 发送失败:%llu",
     {&Stats::period_drop_offline, &Stats::period_drop_queue_full, &Stats::period_drop_too_big,
      &Stats::period_drop_invalid_param, &Stats::period_drop_send_failed}},
    {"收包总数: %llu | 发包总数: %llu", {&Stats::pkt_rx, &Stats::pkt_tx}},
    {"[总丢包] 离线:%llu | 队列满:%llu | 超长:%llu | 非法参数:%llu | 发送失败:%llu",
     {&Stats::drop_offline, &Stats::drop_queue_full, &Stats::drop_too_big, &Stats::drop_invalid_param,
      &Stats::drop_send_failed}},
    {"QoS0: %llu | QoS1: %llu | QoS2: %llu", {&Stats::qos0, &Stats::qos1, &Stats::qos2}},
    {"离线消息: %llu | Retain消息: %llu", {&Stats::offline_msg, kRetained}},
    {"总订阅数: %llu | 超时断开: %llu | 遗嘱发送: %llu", {kSubs, &Stats::timeout, &Stats::will_sent}},
    {"持久化写入: %llu | 读取: %llu", {&Stats::persist_write, &Stats::persist_read}},
};

// ---- what the lines must show

consteval int times_shown(Field field)
{
    int times = 0;
    for (const Line &line : kLines)
        for (const Field &shown : line.fields)
            times += shown.there() && shown == field;
    return times;
}

consteval bool each_counter_is_shown_once()
{
    for (const CounterRow &row : kCounters) {
        const int times = row.shown == Shown::Nowhere ? 0 : 1;
        if (times_shown(row.total) != times || (row.period.there() && times_shown(row.period) != times))
            return false;
    }
    return true;
}
static_assert(each_counter_is_shown_once(), "a counter of counters.h is missing in kLines, or stands there twice");

consteval bool each_number_has_its_place()
{
    for (const Line &line : kLines) {
        size_t places = 0, fields = 0;
        for (std::string_view text = line.text; text.find("%llu") != text.npos; ++places)
            text.remove_prefix(text.find("%llu") + 1);
        for (const Field &field : line.fields)
            fields += field.there();
        if (places != fields)
            return false;
    }
    return true;
}
static_assert(each_number_has_its_place(), "as many %llu in a line as fields");

void say(const Line &line) noexcept
{
    unsigned long long value[std::size(Line{}.fields)] = {};
    for (size_t i = 0; i < std::size(value) && line.fields[i].there(); ++i)
        value[i] = line.fields[i].read();
    LOG_WARN(line.text, value[0], value[1], value[2], value[3], value[4], value[5]);
}

// ---- the snapshot

// The usage as "%.1f" would show it, in two numbers: a host's locale may print a comma there, which is no JSON. The
// product is exact in a double, so the rounding is printf's.
struct Percent {
    long whole, tenths;
};
Percent usage() noexcept
{
    const long tenths = lrint(static_cast<double>(float{s.pool_usage}) * 10);
    return {tenths / 10, tenths % 10};
}

void raise(Shared<uint32_t> &highest, uint32_t value) noexcept
{
    for (uint32_t seen = highest; value > seen; seen = highest)
        if (swap_if(highest, seen, value))
            return;
}

void clear_snapshot() noexcept
{
    for (const Field &field : {kOnline, kMaxOnline, kPoolCap, kPoolUsed, kRetained, kSubs})
        field.clear();
    s.pool_usage = 0.0f;
}

// ---- JSON

// Writes as much as there is room for.
class Json {
public:
    explicit Json(std::span<char> buf) : at_(buf.data()), end_(at_ + buf.size() - 1) {}

    void add(const char *key, Field field)
    {
        add_key(key);
        put(field.read());
    }
    void add(const char *key, Percent share)
    {
        add_key(key);
        put(static_cast<unsigned long long>(share.whole));
        put(".");
        put(static_cast<unsigned long long>(share.tenths));
    }
    void end()
    {
        put("}");
        *at_ = '\0';
    }

private:
    void add_key(const char *key)
    {
        put(separator_);
        separator_ = ",";
        put("\"");
        put(key);
        put("\":");
    }
    void put(std::string_view text) { at_ += text.copy(at_, static_cast<size_t>(end_ - at_)); }
    void put(unsigned long long number) { at_ = std::to_chars(at_, end_, number).ptr; }

    char       *at_;
    char       *end_; // where the NUL has its place
    const char *separator_ = "{";
};

} // namespace

void init() noexcept
{
    clear_snapshot();
    for (const CounterRow &row : kCounters)
        row.total.clear();
    begin_period();
    s.start_ms = mono_ms();
    LOG_INFO("[MQTT-Stats] 维测统计模块初始化完成");
}

void deinit() noexcept {}

void take_over(const Snapshot &snapshot) noexcept
{
    s.online = snapshot.online;
    raise(s.max_online, snapshot.online);

    const uint32_t cap  = snapshot.pool_capacity;
    const uint32_t used = snapshot.pool_used;
    s.pool_cap          = cap;
    s.pool_used         = used;
    s.pool_usage        = cap ? static_cast<float>(used) / static_cast<float>(cap) * 100.0f : 0.0f;

    s.retain_msg = snapshot.retained;
    s.subs       = snapshot.subscriptions;
}

void begin_period() noexcept
{
    for (const CounterRow &row : kCounters)
        if (row.period.there())
            row.period.clear();
}

// At WARN, so that the report passes the broker's default level.
void report() noexcept
{
    const Percent used = usage();
    LOG_WARN("!!!>>>===================== MQTT Broker 维测统计 =====================");
    LOG_WARN("运行时长: %llu ms", static_cast<unsigned long long>(mono_ms() - s.start_ms));
    LOG_WARN("在线客户端: %u / 历史最高: %u", uint32_t{s.online}, uint32_t{s.max_online});
    LOG_WARN("内存池使用率: %u/%u (%ld.%ld%%)", uint32_t{s.pool_used}, uint32_t{s.pool_cap}, used.whole, used.tenths);
    for (const Line &line : kLines)
        say(line);
    LOG_WARN("!!!>>>================================================================");
}

void write_json(std::span<char> buf) noexcept
{
    Json json(buf);
    json.add("online", kOnline);
    json.add("max_online", kMaxOnline);
    json.add("pool_used", kPoolUsed);
    json.add("pool_cap", kPoolCap);
    json.add("pool_usage", usage());
    for (const CounterRow &row : kCounters) {
        if (row.total == Field(&Stats::timeout)) { // the two numbers of the subscription table stand before it
            json.add("retain_msg", kRetained);
            json.add("subs", kSubs);
        }
        if (row.shown == Shown::Everywhere)
            json.add(row.json, row.total);
    }
    json.end();
}

} // namespace tarn::stats
