#include "filter_key.h"

#include "sub_internal.h"

#include <bit>

namespace tarn::sub {
namespace {

constexpr uint64_t kPlusHash = hash_of("+");

} // namespace

LevelHashes::LevelHashes(std::string_view text) noexcept
{
    sum[0]         = 0;
    uint64_t level = kTextBasis;
    auto     close = [&] {
        if (count <= kShapeLevels) {
            const auto     place = kShapeBasis + static_cast<uint64_t>(count);
            const uint64_t own   = hash_mix(level, place);
            hash[count]          = level;
            sum[count + 1]       = sum[count] + own;
            plus_less[count]     = hash_mix(kPlusHash, place) - own;
        }
        ++count;
        level = kTextBasis;
    };
    for (const char c : text) {
        if (c == '/')
            close();
        else
            level = hash_step(level, c);
    }
    close();
}

// One client may use thousands of shapes, all of which every message looks for: so a shape costs its '+' only.
uint64_t shape_key(const Shape &shape, const LevelHashes &topic) noexcept
{
    uint64_t key = topic.sum[shape.levels];
    for (uint64_t pluses = shape.pluses; pluses; pluses &= pluses - 1)
        key += topic.plus_less[std::countr_zero(pluses)];
    return key;
}

FilterKey key_of(std::string_view filter) noexcept
{
    const std::string_view compared = compared_part(filter);
    if (judge_filter(compared).fault != FilterFault::None)
        return {kComplainKey, {}};
    const size_t wildcard = compared.find_first_of("+#");
    if (wildcard == compared.npos)
        return {exact_key(compared), {}};

    const LevelHashes levels(compared);
    if (compared[wildcard] == '#')
        return {hash_of(compared.substr(0, wildcard)), {}};
    if (levels.count > kShapeLevels)
        return {deep_key(levels.count), {}};
    Shape shape{0, levels.count};
    for (int32_t level = 0; level < levels.count; ++level)
        if (levels.hash[level] == kPlusHash)
            shape.pluses |= uint64_t{1} << level;
    return {shape_key(shape, levels), shape};
}

} // namespace tarn::sub
