// filter.cpp - which topic filters may be subscribed.
#include "sub_internal.h"

#include "../log/log.h"

#include <cstring>

namespace tarn::sub {
namespace {

constexpr FilterVerdict refuse(FilterFault fault, size_t at = 0) noexcept
{
    return {fault, static_cast<int>(at)};
}

constexpr bool stands_alone(std::string_view filter, size_t plus) noexcept
{
    const bool opens  = plus == 0 || filter[plus - 1] == '/';
    const bool closes = plus + 1 == filter.size() || filter[plus + 1] == '/';
    return opens && closes;
}

} // namespace

// QUIRK(filter-plus-then-hash): "+/#" and "a/+/#" are refused, although both wildcards may be combined [MQTT-4.7.1-1]
// [MQTT-4.7.1-2]. A filter with '#' thus fixes every level before it, and clients have been written against that.
//   standard profile: lifted (wildcards)
//   test: filter.refuses_plus_before_hash
FilterVerdict judge_filter(std::string_view filter) noexcept
{
    if (filter.empty())
        return refuse(FilterFault::Empty);

    const size_t hash = filter.find('#');
    if (hash != filter.npos && hash + 1 != filter.size())
        return refuse(FilterFault::HashNotLast, hash);
    if (hash != filter.npos && hash > 0 && filter[hash - 1] != '/')
        return refuse(FilterFault::HashNotAlone, hash);

    const size_t first_plus = filter.find('+');
    for (size_t plus = first_plus; plus != filter.npos; plus = filter.find('+', plus + 1))
        if (!stands_alone(filter, plus))
            return refuse(FilterFault::PlusNotAlone, plus);

    if (hash != filter.npos && first_plus != filter.npos)
        return refuse(FilterFault::PlusBeforeHash);
    return refuse(FilterFault::None);
}

bool is_valid_filter(const char *filter) noexcept
{
    const FilterVerdict verdict = judge_filter(filter);
    switch (verdict.fault) {
    case FilterFault::None:
        return true;
    case FilterFault::Empty:
        LOG_ERROR("[DEBUG] mqtt_filter_is_valid：空过滤器非法");
        break;
    case FilterFault::HashNotLast:
        LOG_ERROR("[DEBUG] mqtt_filter_is_valid：#必须是最后一个字符（filter=%s, #位置=%d）", filter, verdict.at);
        break;
    case FilterFault::HashNotAlone:
        LOG_ERROR("[DEBUG] mqtt_filter_is_valid：#前必须是/（filter=%s, #位置=%d）", filter, verdict.at);
        break;
    case FilterFault::PlusNotAlone:
        LOG_ERROR("[DEBUG] mqtt_filter_is_valid：+必须单独占一个层级（filter=%s, +位置=%d）", filter, verdict.at);
        break;
    case FilterFault::PlusBeforeHash:
        LOG_ERROR("[DEBUG] mqtt_filter_is_valid：#前不能有+（filter=%s）", filter);
        break;
    }
    return false;
}

} // namespace tarn::sub
