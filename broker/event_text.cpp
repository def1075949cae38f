#include "event_text.h"

#include <algorithm>

#include <tarn_sdk_mqtt_broker.h>

namespace tarn::broker {
namespace {

constexpr size_t           kTextMax = 255; // characters of the library's text
constexpr std::string_view kFront   = R"({"clientId":")";
constexpr std::string_view kMiddle  = R"(","topic":")";
constexpr std::string_view kBack    = R"(","qos":)"; // one digit and } follow

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

} // namespace

EventText read_event_text(uint32_t kind, std::string_view text)
{
    EventText result;
    result.cut = text.size() >= kTextMax;
    result.qos = take_qos(text);
    if (!result.qos && result.cut)
        take_cut_back(text);
    if (result.cut)
        result.qos.reset();
    if (!text.starts_with(kFront))
        return result;
    text.remove_prefix(kFront.size());

    // These two have no topic, so whatever their id contains, it ends at the last place.
    const bool                  has_topic = kind != BROKER_EVENT_CONNECTED && kind != BROKER_EVENT_DISCONNECTED;
    const std::optional<size_t> middle =
        has_topic ? only_middle(text)
                  : (text.ends_with(kMiddle) ? std::optional(text.size() - kMiddle.size()) : std::nullopt);
    if (middle) {
        result.client_id = text.substr(0, *middle);
        result.topic     = text.substr(*middle + kMiddle.size());
    }
    return result;
}

} // namespace tarn::broker
