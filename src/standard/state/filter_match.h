// filter_match.h - whether one filter matches one topic (4.7). For many filters there is a tree (subscription_tree.h).
#ifndef TARN_STANDARD_FILTER_MATCH_H
#define TARN_STANDARD_FILTER_MATCH_H

#include <string_view>

namespace tarn::standard {

[[nodiscard]] inline bool has_wildcard(std::string_view filter) noexcept
{
    return filter.find_first_of("+#") != filter.npos;
}

// Of a text that was checked to be a filter, without "$share/group/".
[[nodiscard]] bool matches(std::string_view filter, std::string_view topic) noexcept;

} // namespace tarn::standard

#endif
