// topic.cpp - where wildcards may stand.
#include "topic.h"

namespace tarn::codec::standard {

namespace {

constexpr std::string_view kShare = "$share/";

// Where the next wildcard stands.
size_t find_wildcard(std::string_view text, size_t from = 0)
{
    while (from < text.size() && text[from] != '+' && text[from] != '#')
        ++from;
    return from < text.size() ? from : text.npos;
}

// "+" and "#" stand alone in their level, "#" only in the last.
bool is_filter(std::string_view filter)
{
    if (filter.empty())
        return false;
    for (size_t pos = find_wildcard(filter); pos != filter.npos; pos = find_wildcard(filter, pos + 1)) {
        const bool begins_level = pos == 0 || filter[pos - 1] == '/';
        const bool is_last      = pos + 1 == filter.size();
        const bool ends_level   = is_last || (filter[pos] == '+' && filter[pos + 1] == '/');
        if (!begins_level || !ends_level)
            return false;
    }
    return true;
}

} // namespace

bool is_topic_name(std::string_view topic) noexcept
{
    return !topic.empty() && find_wildcard(topic) == topic.npos;
}

bool parse_filter(std::string_view text, TopicFilter &parsed) noexcept
{
    parsed = {{}, text};
    if (!text.starts_with(kShare))
        return is_filter(text);
    const std::string_view behind = text.substr(kShare.size());
    const size_t           slash  = behind.find('/');
    if (slash == behind.npos)
        return false;
    parsed = {behind.substr(0, slash), behind.substr(slash + 1)};
    return is_topic_name(parsed.group) && is_filter(parsed.filter);
}

} // namespace tarn::codec::standard
