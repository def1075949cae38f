// share.h - the one place that takes the filter of a shared subscription apart:  $share/<group>/<filter>
#ifndef TARN_SUB_SHARE_H
#define TARN_SUB_SHARE_H

#include <optional>
#include <string_view>

namespace tarn::sub {

[[nodiscard]] constexpr bool is_shared(std::string_view filter) noexcept
{
    return filter.starts_with("$share/");
}

struct Share {
    std::string_view group;
    std::string_view filter; // what topics are compared with
};

// Empty for a filter that is not shared, and for one without a second slash, which belongs to no group.
[[nodiscard]] constexpr std::optional<Share> share_of(std::string_view filter) noexcept
{
    if (!is_shared(filter))
        return std::nullopt;
    const size_t group = filter.find('/') + 1;
    const size_t slash = filter.find('/', group);
    if (slash == filter.npos)
        return std::nullopt;
    return Share{filter.substr(group, slash - group), filter.substr(slash + 1)};
}

} // namespace tarn::sub

#endif
