// filter_key.h - hashes under which filters are found for a topic.
//
//   a/b      by the hash of its text, which is the topic's.
//   a/b/#    by the hash of "a/b/". A topic's running hash passes all its prefixes that end in '/'.
//   a/+/c    by its levels' hashes and its shape: how many levels, and which of them are '+'. A topic is looked up once
//            for each shape that is in use, with its own levels at these places taken for '+'.
//
// Keys only narrow the search down: what they find is still matched.
#ifndef TARN_SUB_FILTER_KEY_H
#define TARN_SUB_FILTER_KEY_H

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace tarn::sub {

// ---- hashes

// FNV-1a, byte by byte.
constexpr uint64_t kTextBasis = 0xCBF29CE484222325;

constexpr uint64_t hash_step(uint64_t hash, char c) noexcept
{
    return (hash ^ static_cast<uint8_t>(c)) * 0x100000001B3;
}
constexpr uint64_t hash_of(std::string_view text, uint64_t hash = kTextBasis) noexcept
{
    for (const char c : text)
        hash = hash_step(hash, c);
    return hash;
}
inline uint64_t word_at(const char *text) noexcept
{
    uint64_t word;
    memcpy(&word, text, sizeof word);
    return word;
}
constexpr uint64_t hash_mix(uint64_t a, uint64_t b) noexcept
{
    const uint64_t h = (a ^ std::rotl(b, 29)) * 0x9E3779B97F4A7C15;
    return h ^ h >> 32;
}

// ---- shapes

constexpr int kShapeLevels = 64; // filters with more levels have none

struct Shape {
    uint64_t pluses = 0; // bit n: level n is '+'
    int32_t  levels = 0;

    bool operator==(const Shape &) const = default;
    // A final '+' also takes a slash behind its level.
    constexpr bool may_match(int32_t topic_levels) const noexcept
    {
        return topic_levels == levels || (topic_levels == levels + 1 && pluses >> (levels - 1) & 1);
    }
};

// The hash of each level of a text, and what the levels add to the key of a shape. Of a text with more levels than any
// shape has, only their number is of use.
struct LevelHashes {
    int32_t  count = 0;
    uint64_t hash[kShapeLevels + 1];
    uint64_t sum[kShapeLevels + 2];       // key of the shape without '+' that has so many levels
    uint64_t plus_less[kShapeLevels + 1]; // to be added where the shape has '+' instead

    explicit LevelHashes(std::string_view text) noexcept;
};

// ---- keys

constexpr uint64_t kExactBasis = 0x9AE16A3B2F90404F;
constexpr uint64_t kShapeBasis = 0x3C79AC492BA7B653;
constexpr uint64_t kDeepBasis  = 0x1B873593CC9E2D51;

constexpr uint64_t exact_key(std::string_view topic) noexcept
{
    return hash_of(topic, kExactBasis);
}

// Invalid filters are found by every topic, because matching them has to complain.
constexpr uint64_t kComplainKey = 1;

// Filters with '+' that have more levels than any shape.
constexpr uint64_t deep_key(int32_t levels) noexcept
{
    return hash_mix(kDeepBasis, static_cast<uint64_t>(levels));
}

uint64_t shape_key(const Shape &shape, const LevelHashes &topic) noexcept;

struct FilterKey {
    uint64_t key;
    Shape    shape; // 0 levels where the key does not depend on one
};
FilterKey key_of(std::string_view filter) noexcept;

// Calls `visit` with every key that does not depend on a shape and under which filters that match may be found.
template <class Visit> void for_each_key(std::string_view topic, Visit visit)
{
    visit(kComplainKey);
    visit(exact_key(topic));
    uint64_t prefix = kTextBasis;
    visit(prefix); // filters that begin with '#'
    int32_t levels = 1;
    for (const char c : topic) {
        prefix = hash_step(prefix, c);
        if (c != '/')
            continue;
        visit(prefix);
        ++levels;
    }
    visit(hash_step(prefix, '/')); // "a/#" matches "a"
    if (levels <= kShapeLevels)
        return;
    visit(deep_key(levels));
    visit(deep_key(levels - 1)); // a final '+' also takes a slash behind its level
}

} // namespace tarn::sub

#endif
