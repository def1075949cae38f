#include "subscription_index.h"

#include "../base/clock.h"
#include "filter_key.h"

#include <array>
#include <cstring>

namespace tarn::sub {
namespace {

// ---- stamps

// The first characters of a filter lie in one stretch, read as words, whatever stands behind the terminator; the few
// longer filters add their rest.
constexpr size_t kStampFrom     = 64; // of an entry; the byte before its filter is the end of its id
constexpr size_t kStampBytes    = 48;
constexpr size_t kStampLastChar = kStampFrom + kStampBytes - offsetof(sub_entry_t, topic_filter) - 1; // of the filter
constexpr size_t kStampWords    = kStampBytes / 8;

constexpr std::array<uint64_t, kStampWords> kSalts = [] {
    std::array<uint64_t, kStampWords> salts{};
    uint64_t                          salt = 0x9E3779B97F4A7C15;
    for (uint64_t &each : salts)
        each = salt = salt * 0xD1342543DE82EF95 + 2;
    return salts;
}();

// Both halves of the product, so that each bit of either word changes bits all over.
uint64_t folded_product(uint64_t a, uint64_t b) noexcept
{
    __extension__ using Wide = unsigned __int128;
    const Wide product       = static_cast<Wide>(a) * b;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

uint64_t stamp_of(const sub_entry_t &entry) noexcept
{
    const char *const text   = reinterpret_cast<const char *>(&entry) + kStampFrom;
    const auto        salted = [&](size_t i) { return word_at(text + 8 * i) ^ kSalts[i]; };
    uint64_t          stamp  = 0;
    for (size_t i = 0; i < kStampWords; i += 2) // products that do not wait for each other
        stamp += folded_product(salted(i), salted(i + 1));
    const char *rest = entry.topic_filter + kStampLastChar;
    return *rest ? hash_mix(stamp, hash_of(cut(rest, kFilterChars - kStampLastChar))) : stamp;
}

// Of a short table the stretches themselves are kept as well: it is compared with each message, and comparing them takes
// a fifth of what stamps take.
struct Stretch {
    using Part = uint64_t __attribute__((vector_size(16)));
    static_assert(kStampBytes % sizeof(Part) == 0);
    static constexpr size_t kParts = kStampBytes / sizeof(Part);

    Part parts[kParts];

    void take(const sub_entry_t &entry) noexcept
    {
        memcpy(parts, reinterpret_cast<const char *>(&entry) + kStampFrom, kStampBytes);
    }
    template <size_t kFirst> void add_difference(const sub_entry_t &entry, Part &difference) const noexcept
    {
        Part now[kFirst];
        memcpy(now, reinterpret_cast<const char *>(&entry) + kStampFrom, sizeof now);
        for (size_t i = 0; i < kFirst; ++i)
            difference |= now[i] ^ parts[i];
    }
    // Up to the one with the end of the filter: what stands behind it means nothing. A long filter has no end here.
    size_t used_parts() const noexcept
    {
        const char *const text = reinterpret_cast<const char *>(parts) + 1;
        return std::min(kParts, (1 + strnlen(text, kStampBytes - 1)) / sizeof(Part) + 1);
    }
};

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
    uint64_t           edition;
    uint64_t           checked_at_us;
    uint64_t           pairs_checked_at_us;
    uint64_t           stamp[SUB_CAPACITY];
    uint64_t           id[SUB_CAPACITY];    // hash of the client id
    uint64_t           pair[SUB_CAPACITY];  // hash of client id and filter
    uint64_t           key[SUB_CAPACITY];   // of the filter
    int32_t            shape[SUB_CAPACITY]; // its place among the shapes, or -1
    Chains             by_key;

    // Shapes that filters have. A place with no uses is free.
    Shape   shapes[SUB_CAPACITY];
    int32_t shape_uses[SUB_CAPACITY];
    int32_t shape_count;

    Stretch stretch[kAlwaysCheckedEntries];
    size_t  used_parts; // of any of them, at most
    int32_t stretches;  // those of so many entries are kept; others than `count` are not of the table as it is
};
constinit Index g_index{}; // under g_sub_mgr.lock

// There are as many places as entries, so one is always found.
int32_t use_shape(const Shape &shape) noexcept
{
    int32_t place = g_index.shape_count;
    for (int32_t i = 0; i < g_index.shape_count; ++i) {
        if (g_index.shape_uses[i] == 0) {
            place = i;
        } else if (g_index.shapes[i] == shape) {
            place = i;
            break;
        }
    }
    g_index.shape_count   = std::max(g_index.shape_count, place + 1);
    g_index.shapes[place] = shape;
    ++g_index.shape_uses[place];
    return place;
}

void drop_shape(int32_t place) noexcept
{
    if (place >= 0)
        --g_index.shape_uses[place];
    while (g_index.shape_count > 0 && g_index.shape_uses[g_index.shape_count - 1] == 0)
        --g_index.shape_count;
}

uint64_t id_hash(std::string_view id) noexcept
{
    return hash_of(id);
}

uint64_t pair_hash(std::string_view id, std::string_view filter) noexcept
{
    return hash_mix(id_hash(id), hash_of(filter));
}

void note_entry(int32_t i) noexcept
{
    const sub_entry_t &entry  = g_index.subs[i];
    const auto         id     = text_of(entry.client_id);
    const auto         filter = text_of(entry.topic_filter);
    const FilterKey    key    = key_of(filter);
    g_index.stamp[i]          = stamp_of(entry);
    g_index.id[i]             = id_hash(id);
    g_index.pair[i]           = pair_hash(id, filter);
    g_index.key[i]            = key.key;
    g_index.shape[i]          = key.shape.levels ? use_shape(key.shape) : -1;
}

void link_all() noexcept
{
    g_index.by_key.clear();
    for (int32_t i = 0; i < g_index.count; ++i)
        g_index.by_key.link(i, g_index.key[i]);
}

void rebuild(const sub_mgr_t &manager) noexcept REQUIRES(manager.lock)
{
    g_index.subs  = manager.subs;
    g_index.count = entries_in(manager);
    memset(g_index.shape_uses, 0, sizeof(int32_t) * static_cast<size_t>(g_index.shape_count));
    g_index.shape_count = 0;
    g_index.stretches   = 0;
    for (int32_t i = 0; i < g_index.count; ++i)
        note_entry(i);
    link_all();
    ++g_index.edition;
}

bool fits(const sub_mgr_t &manager) noexcept REQUIRES(manager.lock)
{
    return g_index.subs == manager.subs && g_index.count == entries_in(manager);
}

bool stamps_fit() noexcept
{
    uint64_t difference = 0;
    for (int32_t i = 0; i < g_index.count; ++i) {
        const sub_entry_t &entry = g_index.subs[i];
        fetch_ahead(entry.topic_filter);
        fetch_ahead(entry.topic_filter + kStampLastChar);
        difference |= stamp_of(entry) ^ g_index.stamp[i];
    }
    return difference == 0;
}

void keep_stretches() noexcept
{
    g_index.used_parts = 1;
    for (int32_t i = 0; i < g_index.count; ++i) {
        g_index.stretch[i].take(g_index.subs[i]);
        g_index.used_parts = std::max(g_index.used_parts, g_index.stretch[i].used_parts());
    }
    g_index.stretches = g_index.count;
}

// A filter that becomes longer differs where it ended.
template <size_t kParts> bool stretches_fit() noexcept
{
    Stretch::Part difference = {};
    uint64_t      of_long    = 0;
    for (int32_t i = 0; i < g_index.count; ++i) {
        const sub_entry_t &entry = g_index.subs[i];
        g_index.stretch[i].add_difference<kParts>(entry, difference);
        if (kParts == Stretch::kParts && entry.topic_filter[kStampLastChar] != '\0')
            of_long |= stamp_of(entry) ^ g_index.stamp[i];
    }
    return (difference[0] | difference[1] | of_long) == 0;
}

bool stretches_fit() noexcept
{
    switch (g_index.used_parts) {
    case 1:
        return stretches_fit<1>();
    case 2:
        return stretches_fit<2>();
    default:
        return stretches_fit<Stretch::kParts>();
    }
}

// Whether the filters are those that the index knows.
bool filters_fit() noexcept
{
    if (g_index.count > kAlwaysCheckedEntries)
        return stamps_fit();
    if (g_index.stretches == g_index.count)
        return stretches_fit();
    if (!stamps_fit())
        return false;
    keep_stretches();
    return true;
}

bool ids_fit() noexcept
{
    uint64_t difference = 0;
    for (int32_t i = 0; i < g_index.count; ++i) {
        const sub_entry_t &entry = g_index.subs[i];
        fetch_ahead(entry.client_id);
        difference |= id_hash(text_of(entry.client_id)) ^ g_index.id[i];
    }
    return difference == 0;
}

// True when stamps are to be compared now, which begins a new pause.
bool is_due(uint64_t &checked_at_us) noexcept
{
    const uint64_t now   = packet_us();
    const uint64_t pause = static_cast<uint64_t>(g_index.count) * kPauseNsPerEntry / 1000;
    if (elapsed(now, checked_at_us) < pause)
        return false;
    checked_at_us = now;
    return true;
}

void add_equal(const uint64_t (&hashes)[SUB_CAPACITY], uint64_t hash, EntrySet &found) noexcept
{
    for (int32_t i = 0; i < g_index.count; ++i)
        if (hashes[i] == hash)
            found.add(i);
}

bool is_always_checked(Trust trust) noexcept
{
    return trust == Trust::Sure || g_index.count <= kAlwaysCheckedEntries;
}

} // namespace

void fit_index(const sub_mgr_t &manager) noexcept
{
    if (!fits(manager))
        rebuild(manager);
}

void check_index(const sub_mgr_t &manager, Trust trust) noexcept
{
    if (!fits(manager) || ((is_always_checked(trust) || is_due(g_index.checked_at_us)) && !filters_fit()))
        rebuild(manager);
}

bool index_was_wrong(const sub_mgr_t &manager) noexcept
{
    if (is_always_checked(Trust::Usual) || filters_fit())
        return false;
    rebuild(manager);
    return true;
}

uint64_t index_edition() noexcept
{
    return g_index.edition;
}

// Of a small table all were compared a moment ago.
bool are_as_indexed(const sub_mgr_t &manager, std::span<const int32_t> places) noexcept
{
    if (is_always_checked(Trust::Usual))
        return true;
    uint64_t difference = 0;
    for (const int32_t i : places)
        difference |= stamp_of(manager.subs[i]) ^ g_index.stamp[i];
    return difference == 0;
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
    for_each_key(topic, add_all);
    if (g_index.shape_count == 0)
        return;
    const LevelHashes levels(topic);
    for (int32_t i = 0; i < g_index.shape_count; ++i)
        if (g_index.shape_uses[i] && g_index.shapes[i].may_match(levels.count))
            add_all(shape_key(g_index.shapes[i], levels));
}

void check_pairs(const sub_mgr_t &manager) noexcept
{
    if (!fits(manager) ||
        ((is_always_checked(Trust::Usual) || is_due(g_index.pairs_checked_at_us)) && !(filters_fit() && ids_fit())))
        rebuild(manager);
}

void find_client(const sub_mgr_t &, std::string_view id, EntrySet &found) noexcept
{
    add_equal(g_index.id, id_hash(id), found);
}

void find_pair(const sub_mgr_t &, std::string_view id, std::string_view filter, EntrySet &found) noexcept
{
    add_equal(g_index.pair, pair_hash(id, filter), found);
}

void index_appended(const sub_mgr_t &) noexcept
{
    const int32_t place = g_index.count++;
    note_entry(place);
    g_index.by_key.link(place, g_index.key[place]);
    ++g_index.edition;
}

void index_removed(const sub_mgr_t &, const EntrySet &removed) noexcept
{
    int32_t kept = 0;
    for (int32_t i = 0; i < g_index.count; ++i) {
        if (removed.has(i)) {
            drop_shape(g_index.shape[i]);
            continue;
        }
        g_index.stamp[kept] = g_index.stamp[i];
        g_index.id[kept]    = g_index.id[i];
        g_index.pair[kept]  = g_index.pair[i];
        g_index.key[kept]   = g_index.key[i];
        g_index.shape[kept] = g_index.shape[i];
        ++kept;
    }
    g_index.count     = kept;
    g_index.stretches = 0;
    link_all();
    ++g_index.edition;
}

} // namespace tarn::sub
