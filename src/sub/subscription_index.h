// subscription_index.h - finds entries of the subscription table without walking through it.
//
// The table is the truth and hosts may edit it by hand; the index is a hint beside it, in static memory and under the
// same lock. Every entry has a stamp of its two texts. Stamps are compared before the index is believed: all of them
// in a small table and for whoever asks to be sure, otherwise all of them every kIndexCheckPeriodMs. Where one is
// wrong, the index is built anew. What it finds is still compared with the entry itself.
#ifndef TARN_SUB_SUBSCRIPTION_INDEX_H
#define TARN_SUB_SUBSCRIPTION_INDEX_H

#include "sub_internal.h"

#include <bit>

namespace tarn::sub {

constexpr int32_t  kAlwaysCheckedEntries = 64;
constexpr uint32_t kIndexCheckPeriodMs   = 100;

// A set of places in the table, read in table order.
class EntrySet {
public:
    void add(int32_t i) noexcept { words_[i / 64] |= uint64_t{1} << (i % 64); }
    bool has(int32_t i) const noexcept { return words_[i / 64] >> (i % 64) & 1; }

    int32_t count() const noexcept
    {
        int32_t count = 0;
        for (const uint64_t word : words_)
            count += std::popcount(word);
        return count;
    }
    // The lowest place, or -1.
    int32_t first() const noexcept
    {
        int32_t lowest = -1;
        for_each([&](int32_t i) {
            lowest = i;
            return false;
        });
        return lowest;
    }
    // Calls `visit` for each place until it returns false.
    template <class Visit> void for_each(Visit visit) const noexcept
    {
        for (int32_t w = 0; w < kWords; ++w)
            for (uint64_t rest = words_[w]; rest; rest &= rest - 1)
                if (!visit(w * 64 + std::countr_zero(rest)))
                    return;
    }

private:
    static constexpr int32_t kWords = (SUB_CAPACITY + 63) / 64;

    uint64_t words_[kWords] = {};
};

enum class Trust { Usual, Sure };

// Makes the index fit the table. To be called before each of the three searches.
void refresh_index(const sub_mgr_t &manager, Trust trust) noexcept REQUIRES(manager.lock);

// Adds every entry that could match the topic: those that do, and those whose filter is invalid, because matching them
// has to complain.
void candidates_for(const sub_mgr_t &manager, std::string_view topic, EntrySet &found) noexcept REQUIRES(manager.lock);
// Adds the entries with this id, and with this filter unless that is null. Exact.
void entries_of(const sub_mgr_t &manager, std::string_view id, const std::string_view *filter, EntrySet &found) noexcept
    REQUIRES(manager.lock);

// Shapes of filters with '+' that a topic is looked up for. None is left behind by filters that are gone.
[[nodiscard]] int32_t shapes_in_use(const sub_mgr_t &manager) noexcept REQUIRES(manager.lock);

// To be told after the table changed: one entry was appended, or these were taken out and the rest moved up.
void index_appended(const sub_mgr_t &manager) noexcept REQUIRES(manager.lock);
void index_removed(const sub_mgr_t &manager, const EntrySet &removed) noexcept REQUIRES(manager.lock);

} // namespace tarn::sub

#endif
