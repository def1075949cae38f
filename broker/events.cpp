#include "events.h"

#include "event_hub.h"
#include "event_text.h"
#include "shortage.h"
#include "text.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <optional>

#include <tarn_sdk_mqtt_broker.h>

namespace tarn::broker {
namespace {

constexpr const char *kNames[] = {"connected", "disconnected", "publish", "subscribe", "unsubscribe", "will"};
static_assert(BROKER_EVENT_WILL + 1 == std::size(kNames));

constexpr const char *kWhat[] = {"login", "publish", "subscribe", "will", "connect"};
static_assert(Refusal::kKinds == std::size(kWhat));

std::atomic<LineWriter *> g_writer; // the callback gets nothing but the instance

int64_t wall_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string time_text(int64_t time_ms)
{
    const time_t seconds = time_ms / 1000;
    tm           parts{};
    gmtime_r(&seconds, &parts);
    char         text[48];
    const size_t end = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(text + end, sizeof text - end, ".%03dZ", static_cast<int>(time_ms % 1000));
    return text;
}

std::string line_start(int64_t time_ms, const char *event)
{
    return R"({"time":")" + time_text(time_ms) + R"(","event":")" + event + '"';
}

std::string string_or_null(const std::optional<std::string_view> &text)
{
    return text ? json_string(*text) : "null";
}

// A line for which there is no memory is lost as one is that finds no room: the reader is told how many.
template <class Make> void write_or_lose(Make make)
{
    LineWriter *const writer = g_writer.load();
    if (writer && !unless_short([&] { writer->write(make()); }))
        writer->lose();
}

void on_event(broker_t * /*broker*/, uint32_t kind, const char *text)
{
    write_or_lose([&] { return event_line(wall_ms(), kind, text); });
}

} // namespace

std::string event_line(int64_t time_ms, uint32_t kind, std::string_view text)
{
    const EventText reading = read_event_text(kind, text);
    std::string     line    = line_start(time_ms, kind < std::size(kNames) ? kNames[kind] : "unknown");
    line += R"(,"clientId":)" + string_or_null(reading.client_id);
    line += R"(,"topic":)" + string_or_null(reading.topic);
    line += R"(,"qos":)" + (reading.qos ? std::string(1, *reading.qos) : "null");
    if (reading.cut)
        line += R"(,"cut":true)";
    if (!reading.client_id)
        line += R"(,"text":)" + json_string(text);
    return line + '}';
}

std::string refused_line(int64_t time_ms, const Refusal &refusal)
{
    return line_start(time_ms, "refused") + R"(,"clientId":)" + json_string(refusal.client_id) + R"(,"topic":)" +
           json_string(refusal.topic) + R"(,"qos":null,"what":")" + kWhat[refusal.kind] + R"(","user":)" +
           json_string(refusal.user) + R"(,"address":)" + json_string(refusal.address) + R"(,"reason":)" +
           json_string(refusal.reason) + '}';
}

std::string used_records_line(int64_t time_ms, size_t used, size_t records)
{
    return line_start(time_ms, "records") + R"(,"used":)" + std::to_string(used) + R"(,"of":)" +
           std::to_string(records) + '}';
}

std::string lost_line(int64_t time_ms, uint64_t count)
{
    return line_start(time_ms, "lost") + R"(,"count":)" + std::to_string(count) + '}';
}

std::string tell_lost_events(uint64_t count)
{
    return lost_line(wall_ms(), count);
}

void write_refusal(const Refusal &refusal)
{
    write_or_lose([&] { return refused_line(wall_ms(), refusal); });
}

void write_used_records(size_t used, size_t records)
{
    write_or_lose([&] { return used_records_line(wall_ms(), used, records); });
}

void write_events(broker_t *broker, LineWriter &writer)
{
    g_writer = &writer;
    listen_to_events(broker, on_event);
}

} // namespace tarn::broker
