#include "filter_key.h"

#include "sub_internal.h"

namespace tarn::sub {
namespace {

constexpr uint64_t kPlusHash = hash_of("+");

uint64_t fold(const uint64_t *hashes, const Shape &shape) noexcept
{
    uint64_t key = kShapeBasis;
    for (int32_t level = 0; level < shape.levels; ++level)
        key = hash_mix(key, shape.pluses >> level & 1 ? kPlusHash : hashes[level]);
    return key;
}

} // namespace

LevelHashes::LevelHashes(std::string_view text) noexcept
{
    uint64_t level = kTextBasis;
    auto     close = [&] {
        if (count <= kShapeLevels)
            hash[count] = level;
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

uint64_t shape_key(const Shape &shape, const LevelHashes &topic) noexcept
{
    return fold(topic.hash, shape);
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
    if (compared[wildcard] == '#' || levels.count > kShapeLevels)
        return {hash_of(compared.substr(0, wildcard)), {}};
    Shape shape{0, levels.count};
    for (int32_t level = 0; level < levels.count; ++level)
        if (levels.hash[level] == kPlusHash)
            shape.pluses |= uint64_t{1} << level;
    return {fold(levels.hash, shape), shape};
}

} // namespace tarn::sub
