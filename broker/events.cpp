#include "events.h"

#include "event_hub.h"
#include "text.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <optional>

#include <tarn_sdk_mqtt_broker.h>

namespace tarn::broker {
namespace {

constexpr size_t           kTextMax = 255; // characters of the library's text
constexpr std::string_view kFront   = R"({"clientId":")";
constexpr std::string_view kMiddle  = R"(","topic":")";
constexpr std::string_view kBack    = R"(","qos":)"; // one digit and } follow

constexpr const char *kNames[] = {"connected", "disconnected", "publish", "subscribe", "unsubscribe", "will"};
static_assert(BROKER_EVENT_WILL + 1 == std::size(kNames));

constexpr const char *kWhat[] = {"login", "publish", "subscribe", "will"};
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

struct Reading {
    std::optional<std::string_view> client_id;
    std::optional<std::string_view> topic;
    std::optional<char>             qos; // its digit
    bool                            cut = false;
};

// Takes `","qos":N}` off the end; nothing when the text does not end so.
std::optional<char> take_qos(std::string_view &text)
{
    const size_t size = kBack.size() + 2;
    if (text.size() < size || text.back() != '}' || !text.substr(text.size() - size).starts_with(kBack))
        return {};
    const char digit = text[text.size() - 2];
    if (digit < '0' || digit > '9')
        return {};
    text.remove_suffix(size);
    return digit;
}

// Takes off what may be the beginning of `","qos":N}`, so that what stays is the topic's in any case.
void take_cut_back(std::string_view &text)
{
    for (size_t size = std::min(kBack.size() + 1, text.size()); size > 0; --size) {
        const std::string_view end = text.substr(text.size() - size);
        if (end.substr(0, kBack.size()) == kBack.substr(0, size)) {
            text.remove_suffix(size);
            return;
        }
    }
}

// Between id and topic, if that can be in one place only. Two such places may share a quote, hence + 1.
std::optional<size_t> only_middle(std::string_view text)
{
    const size_t at = text.find(kMiddle);
    if (at == text.npos || text.find(kMiddle, at + 1) != text.npos)
        return {};
    return at;
}

Reading read(uint32_t kind, std::string_view text)
{
    Reading reading;
    reading.cut = text.size() >= kTextMax;
    reading.qos = take_qos(text);
    if (!reading.qos && reading.cut)
        take_cut_back(text);
    if (reading.cut)
        reading.qos.reset();
    if (!text.starts_with(kFront))
        return reading;
    text.remove_prefix(kFront.size());

    // These two have no topic, so whatever their id contains, it ends at the last place.
    const bool                  has_topic = kind != BROKER_EVENT_CONNECTED && kind != BROKER_EVENT_DISCONNECTED;
    const std::optional<size_t> middle =
        has_topic ? only_middle(text)
                  : (text.ends_with(kMiddle) ? std::optional(text.size() - kMiddle.size()) : std::nullopt);
    if (middle) {
        reading.client_id = text.substr(0, *middle);
        reading.topic     = text.substr(*middle + kMiddle.size());
    }
    return reading;
}

std::string string_or_null(const std::optional<std::string_view> &text)
{
    return text ? json_string(*text) : "null";
}

void on_event(broker_t * /*broker*/, uint32_t kind, const char *text)
{
    g_writer.load()->write(event_line(wall_ms(), kind, text));
}

} // namespace

std::string event_line(int64_t time_ms, uint32_t kind, std::string_view text)
{
    const Reading reading = read(kind, text);
    std::string   line    = line_start(time_ms, kind < std::size(kNames) ? kNames[kind] : "unknown");
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
    if (LineWriter *const writer = g_writer.load())
        writer->write(refused_line(wall_ms(), refusal));
}

void write_events(broker_t *broker, LineWriter &writer)
{
    g_writer = &writer;
    listen_to_events(broker, on_event);
}

} // namespace tarn::broker
