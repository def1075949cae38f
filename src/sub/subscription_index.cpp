#include "subscription_index.h"

#include "../base/clock.h"

#include <cstring>

namespace tarn::sub {
namespace {

// ---- hashes

// FNV-1a, byte by byte: a topic's running hash is also the hash of each of its prefixes.
constexpr uint64_t kTextBasis  = 0xCBF29CE484222325;
constexpr uint64_t kExactBasis = 0x9AE16A3B2F90404F; // keeps whole filters apart from the prefixes of wildcard filters

constexpr uint64_t step(uint64_t hash, char c) noexcept
{
    return (hash ^ static_cast<uint8_t>(c)) * 0x100000001B3;
}
constexpr uint64_t hash_of(std::string_view text, uint64_t hash = kTextBasis) noexcept
{
    for (const char c : text)
        hash = step(hash, c);
    return hash;
}
constexpr uint64_t mix(uint64_t a, uint64_t b) noexcept
{
    const uint64_t h = (a ^ std::rotl(b, 29)) * 0x9E3779B97F4A7C15;
    return h ^ h >> 32;
}
constexpr uint64_t pair_hash(uint64_t id_hash, std::string_view filter) noexcept
{
    return mix(id_hash, hash_of(filter));
}

// ---- the key under which an entry's filter is found

constexpr uint64_t kComplainKey = 1; // invalid filters: candidates for every topic

constexpr uint64_t exact_key(std::string_view topic) noexcept { return hash_of(topic, kExactBasis); }

// Filters without wildcards are found by all of their text, the others by what stands before the first wildcard: it is
// empty or ends in '/'.
uint64_t key_of(std::string_view filter) noexcept
{
    const std::string_view compared = compared_part(filter);
    if (judge_filter(compared).fault != FilterFault::None)
        return kComplainKey;
    const size_t wildcard = compared.find_first_of("+#");
    return wildcard == compared.npos ? exact_key(compared) : hash_of(compared.substr(0, wildcard));
}

// ---- stamps

// The id and the first characters of the filter lie in one stretch, read as words, whatever stands behind the
// terminators; the few longer filters add their rest.
constexpr size_t kStampBytes       = 112;
constexpr size_t kStampLastChar = kStampBytes - offsetof(sub_entry_t, topic_filter) - 1; // of the filter
static_assert(kStampBytes % 16 == 0);

uint64_t stamp_of(const sub_entry_t &entry) noexcept
{
    uint64_t words[kStampBytes / 8];
    memcpy(words, &entry, sizeof words);
    uint64_t even = 0;
    uint64_t odd  = 0;
    for (size_t i = 0; i < std::size(words); i += 2) {
        even = (even ^ words[i]) * 0x9E3779B97F4A7C15;
        odd  = (odd ^ words[i + 1]) * 0xD6E8FEB86659FD93;
        even ^= even >> 29;
        odd ^= odd >> 31;
    }
    uint64_t stamp = mix(even, odd);
    const char *rest = entry.topic_filter + kStampLastChar;
    if (*rest)
        stamp = mix(stamp, hash_of(cut(rest, kFilterChars - kStampLastChar)));
    return stamp;
}

// ---- chains

// A hash table of places, chained through a second array. A place is kept as place + 1, so that zeroed memory is empty.
struct Chains {
    static constexpr size_t kHeads = 16384;

    int32_t head[kHeads];
    int32_t next[SUB_CAPACITY];

    static size_t bucket(uint64_t hash) noexcept { return (hash * 0x9E3779B97F4A7C15) >> 50; }

    void clear() noexcept { memset(head, 0, sizeof head); }
    void link(int32_t i, uint64_t hash) noexcept
    {
        int32_t &first = head[bucket(hash)];
        next[i]        = first;
        first          = i + 1;
    }
    // Calls `visit` for every place that may have this hash.
    template <class Visit> void for_each(uint64_t hash, Visit visit) const noexcept
    {
        for (int32_t link = head[bucket(hash)]; link; link = next[link - 1])
            visit(link - 1);
    }
};
static_assert(Chains::kHeads == size_t{1} << (64 - 50));

// What is known of the entry at the same place.
struct Index {
    const sub_entry_t *subs; // the table it was built from
    int32_t            count;
    uint64_t           checked_at_ms;
    uint64_t           stamp[SUB_CAPACITY];
    uint64_t           id[SUB_CAPACITY];
    uint64_t           pair[SUB_CAPACITY]; // of id and filter
    uint64_t           key[SUB_CAPACITY];  // of the filter
    Chains             by_pair;
    Chains             by_key;
};
constinit Index g_index{}; // under g_sub_mgr.lock

void note_entry(int32_t i) noexcept
{
    const sub_entry_t     &entry  = g_index.subs[i];
    const std::string_view filter = text_of(entry.topic_filter);
    g_index.stamp[i]              = stamp_of(entry);
    g_index.id[i]                 = hash_of(text_of(entry.client_id));
    g_index.pair[i]               = pair_hash(g_index.id[i], filter);
    g_index.key[i]                = key_of(filter);
}

void link_entry(int32_t i) noexcept
{
    g_index.by_pair.link(i, g_index.pair[i]);
    g_index.by_key.link(i, g_index.key[i]);
}

void link_all() noexcept
{
    g_index.by_pair.clear();
    g_index.by_key.clear();
    for (int32_t i = 0; i < g_index.count; ++i)
        link_entry(i);
}

void rebuild(const sub_mgr_t &manager) noexcept REQUIRES(manager.lock)
{
    g_index.subs  = manager.subs;
    g_index.count = entries_in(manager);
    for (int32_t i = 0; i < g_index.count; ++i)
        note_entry(i);
    link_all();
}

bool stamps_fit() noexcept
{
    constexpr int32_t kAhead = 12; // entries are 2 KB apart: the hardware does not guess the next one

    uint64_t difference = 0;
    for (int32_t i = 0; i < g_index.count; ++i) {
        const char *later = reinterpret_cast<const char *>(g_index.subs + std::min(i + kAhead, g_index.count - 1));
        __builtin_prefetch(later);
        __builtin_prefetch(later + 64);
        difference |= stamp_of(g_index.subs[i]) ^ g_index.stamp[i];
    }
    return difference == 0;
}

} // namespace

void refresh_index(const sub_mgr_t &manager, Trust trust) noexcept
{
    const int32_t  count = entries_in(manager);
    const uint64_t now   = mono_ms();
    const bool     fits  = g_index.subs == manager.subs && g_index.count == count;
    if (fits && trust == Trust::Usual && count > kAlwaysCheckedEntries &&
        elapsed(now, g_index.checked_at_ms) < kIndexCheckPeriodMs)
        return;
    if (!fits || !stamps_fit())
        rebuild(manager);
    g_index.checked_at_ms = now;
}

void candidates_for(const sub_mgr_t &, std::string_view topic, EntrySet &found) noexcept
{
    auto add_all = [&](uint64_t key) {
        g_index.by_key.for_each(key, [&](int32_t i) {
            if (g_index.key[i] == key)
                found.add(i);
        });
    };
    if (g_index.count == 0)
        return;
    add_all(kComplainKey);
    add_all(exact_key(topic));

    uint64_t prefix = kTextBasis;
    add_all(prefix); // filters that begin with a wildcard
    for (const char c : topic) {
        prefix = step(prefix, c);
        if (c == '/')
            add_all(prefix);
    }
    add_all(step(prefix, '/')); // "a/#" matches "a"
}

void entries_of(const sub_mgr_t &manager, std::string_view id, const std::string_view *filter, EntrySet &found) noexcept
{
    const uint64_t id_hash = hash_of(id);
    auto           has_id  = [&](int32_t i) {
        return g_index.id[i] == id_hash && text_of(manager.subs[i].client_id) == id;
    };
    if (!filter) {
        for (int32_t i = 0; i < g_index.count; ++i)
            if (has_id(i))
                found.add(i);
        return;
    }
    g_index.by_pair.for_each(pair_hash(id_hash, *filter), [&](int32_t i) {
        if (has_id(i) && text_of(manager.subs[i].topic_filter) == *filter)
            found.add(i);
    });
}

void index_appended(const sub_mgr_t &) noexcept
{
    note_entry(g_index.count);
    link_entry(g_index.count++);
}

void index_removed(const sub_mgr_t &, const EntrySet &removed) noexcept
{
    int32_t kept = 0;
    for (int32_t i = 0; i < g_index.count; ++i) {
        if (removed.has(i))
            continue;
        g_index.stamp[kept] = g_index.stamp[i];
        g_index.id[kept]    = g_index.id[i];
        g_index.pair[kept]  = g_index.pair[i];
        g_index.key[kept]   = g_index.key[i];
        ++kept;
    }
    g_index.count = kept;
    link_all();
}

} // namespace tarn::sub
