#include "filter.h"

#include "../text.h"

namespace tarn::broker {
namespace {

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

bool is_topic(std::string_view text)
{
    return !text.empty() && text.find('+') == text.npos && text.find('#') == text.npos && is_utf8(text);
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
