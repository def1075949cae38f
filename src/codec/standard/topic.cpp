// topic.cpp - where wildcards may stand.
#include "topic.h"

#include <cstdint>
#include <cstring>

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

namespace {

constexpr uint64_t kEachByte = 0x0101010101010101;

// Whether eight bytes are all from 0x01 to 0x7F and none is a wildcard.
bool is_plain(uint64_t bytes)
{
    const uint64_t plus = bytes ^ kEachByte * '+';
    const uint64_t rest = bytes ^ kEachByte * '#';
    // Without high bits, taking 1 off each byte sets a high bit only if a byte was 0.
    return ((bytes | (bytes - kEachByte) | (plus - kEachByte) | (rest - kEachByte)) & kEachByte * 0x80) == 0;
}

template <class Word> uint64_t load(const char *at)
{
    Word word;
    memcpy(&word, at, sizeof word);
    return word;
}

// All of one to seven bytes, some of them more than once.
uint64_t load_short(const char *at, size_t size)
{
    if (size >= sizeof(uint32_t))
        return load<uint32_t>(at) | load<uint32_t>(at + size - sizeof(uint32_t)) << 32;
    const uint64_t three = load<uint8_t>(at) | load<uint8_t>(at + size / 2) << 8 | load<uint8_t>(at + size - 1) << 16;
    return three << 40 | three << 16 | ('x' << 8 | 'x');
}

} // namespace

bool is_ascii_topic_name(std::string_view bytes) noexcept
{
    constexpr size_t kAtOnce = sizeof(uint64_t);
    if (bytes.size() < kAtOnce)
        return !bytes.empty() && is_plain(load_short(bytes.data(), bytes.size()));
    const char *const last = bytes.data() + bytes.size() - kAtOnce;
    for (const char *at = bytes.data(); at < last; at += kAtOnce)
        if (!is_plain(load<uint64_t>(at)))
            return false;
    return is_plain(load<uint64_t>(last));
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
