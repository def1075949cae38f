// filter_match.cpp - see filter_match.h.
#include "filter_match.h"

namespace tarn::standard {
namespace {

// Takes the first level off the text; `is_last` says that no "/" stood behind it.
std::string_view take_level(std::string_view &text, bool &is_last)
{
    const size_t           end   = text.find('/');
    const std::string_view level = text.substr(0, end);
    is_last                      = end == text.npos;
    text.remove_prefix(is_last ? text.size() : end + 1);
    return level;
}

} // namespace

bool matches(std::string_view filter, std::string_view topic) noexcept
{
    if (topic.starts_with('$') && (filter.starts_with('+') || filter.starts_with('#'))) // [MQTT-4.7.2-1]
        return false;
    for (bool filter_ends = false, topic_ends = false;;) {
        const std::string_view wanted = take_level(filter, filter_ends);
        if (wanted == "#")
            return true;
        if (topic_ends)
            return false;
        const std::string_view level = take_level(topic, topic_ends);
        if (wanted != "+" && wanted != level)
            return false;
        if (filter_ends)
            return topic_ends;
        if (topic_ends && filter != "#") // "a/#" matches "a"
            return false;
    }
}

} // namespace tarn::standard
