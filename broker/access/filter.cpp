#include "filter.h"

#include <algorithm>
#include <cstdint>

namespace tarn::broker {
namespace {

struct Utf8Row { // a first byte, what may follow it, and how many bytes do
    uint8_t first_low, first_high;
    uint8_t second_low, second_high;
    int     more;
};
constexpr Utf8Row kUtf8[] = {
    {0x00, 0x7F, 0, 0, 0},       {0xC2, 0xDF, 0x80, 0xBF, 1}, {0xE0, 0xE0, 0xA0, 0xBF, 2}, {0xE1, 0xEC, 0x80, 0xBF, 2},
    {0xED, 0xED, 0x80, 0x9F, 2}, // no surrogates
    {0xEE, 0xEF, 0x80, 0xBF, 2}, {0xF0, 0xF0, 0x90, 0xBF, 3}, {0xF1, 0xF3, 0x80, 0xBF, 3}, {0xF4, 0xF4, 0x80, 0x8F, 3},
};

bool within(char c, uint8_t low, uint8_t high)
{
    return static_cast<uint8_t>(c) >= low && static_cast<uint8_t>(c) <= high;
}

// Length of the character at the front, 0 when it is none.
size_t utf8_length(std::string_view text)
{
    for (const Utf8Row &row : kUtf8) {
        if (!within(text[0], row.first_low, row.first_high))
            continue;
        const size_t length = 1 + static_cast<size_t>(row.more);
        if (text.size() < length || (row.more > 0 && !within(text[1], row.second_low, row.second_high)))
            return 0;
        for (size_t i = 2; i < length; ++i)
            if (!within(text[i], 0x80, 0xBF))
                return 0;
        return length;
    }
    return 0;
}

// Takes the first level off, and the '/' behind it; false when none is left. "a/" has two levels, "" has one.
class Levels {
public:
    explicit Levels(std::string_view text) : rest_(text) {}
    bool next(std::string_view &level)
    {
        if (ended_)
            return false;
        const size_t slash = rest_.find('/');
        ended_             = slash == rest_.npos;
        level              = rest_.substr(0, slash);
        if (!ended_)
            rest_.remove_prefix(slash + 1);
        return true;
    }

private:
    std::string_view rest_;
    bool             ended_ = false;
};

} // namespace

bool is_utf8(std::string_view text)
{
    while (!text.empty()) {
        const size_t length = utf8_length(text);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

bool is_topic(std::string_view text)
{
    return !text.empty() && text.find_first_of("+#") == text.npos && is_utf8(text);
}

std::string filter_mistake(std::string_view filter)
{
    if (filter.empty())
        return "the filter is missing";
    if (!is_utf8(filter))
        return "the filter is not UTF-8";
    Levels           levels(filter);
    std::string_view level;
    for (bool ended = false; levels.next(level);) {
        if (ended || (level.size() > 1 && level.find('#') != level.npos))
            return "'#' can only be the last level of a filter, as in a/#";
        if (level.size() > 1 && level.find('+') != level.npos)
            return "'+' can only be a whole level of a filter, as in a/+/b";
        ended = level == "#";
    }
    return {};
}

std::string_view without_group(std::string_view filter)
{
    constexpr std::string_view kShare = "$share/";
    if (!filter.starts_with(kShare))
        return filter;
    const size_t slash = filter.find('/', kShare.size());
    return slash == filter.npos ? filter : filter.substr(slash + 1);
}

bool covers(std::string_view rule, std::string_view filter)
{
    Levels           allowed(rule), asked(filter);
    std::string_view may, wants;
    while (allowed.next(may)) {
        if (may == "#")
            return true; // also when nothing is left: "a/#" matches "a"
        if (!asked.next(wants) || wants == "#")
            return false;
        if (may != "+" && may != wants)
            return false;
    }
    return !asked.next(wants);
}

} // namespace tarn::broker
