// subscription_index.h - finds the subscriptions that match a topic without walking through the table.
//
// The table is the truth and hosts may edit it by hand; the index is a hint beside it, in static memory and under the
// same lock. It keeps a stamp of each filter: where one does not fit any more, the index is built anew. What it finds is
// still matched with the entry itself.
//
// Adding and removing ask it for pairs of id and filter, but only on the library's own threads, as kAlwaysCheckedEntries
// and kPauseNsPerEntry say; on a host's thread they walk through the table.
#ifndef TARN_SUB_SUBSCRIPTION_INDEX_H
#define TARN_SUB_SUBSCRIPTION_INDEX_H

#include "sub_internal.h"

#include <bit>
#include <span>

namespace tarn::sub {

// A set of places in the table, read in table order. Every message makes one and most have a place or two, so the words
// in use have a set of their own: the others are neither cleared nor read.
class EntrySet {
public:
    EntrySet() noexcept {} // leaves words_ as it is

    void add(int32_t i) noexcept
    {
        const int32_t  w    = i / 64;
        const uint64_t used = uint64_t{1} << (w % 64);
        if (!(used_[w / 64] & used)) {
            used_[w / 64] |= used;
            words_[w] = 0;
        }
        words_[w] |= uint64_t{1} << (i % 64);
    }
    bool has(int32_t i) const noexcept
    {
        const int32_t w = i / 64;
        return (used_[w / 64] >> (w % 64) & 1) && (words_[w] >> (i % 64) & 1);
    }

    int32_t count() const noexcept
    {
        int32_t count = 0;
        for_each_word([&](int32_t w) {
            count += std::popcount(words_[w]);
            return true;
        });
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
        for_each_word([&](int32_t w) {
            for (uint64_t rest = words_[w]; rest; rest &= rest - 1)
                if (!visit(w * 64 + std::countr_zero(rest)))
                    return false;
            return true;
        });
    }

private:
    static constexpr int32_t kWords = (SUB_CAPACITY + 63) / 64;
    static constexpr int32_t kUsed  = (kWords + 63) / 64;

    // Calls `visit` for each word in use until it returns false.
    template <class Visit> void for_each_word(Visit visit) const noexcept
    {
        for (int32_t u = 0; u < kUsed; ++u)
            for (uint64_t rest = used_[u]; rest; rest &= rest - 1)
                if (!visit(u * 64 + std::countr_zero(rest)))
                    return;
    }

    uint64_t used_[kUsed] = {};
    uint64_t words_[kWords];
};

// When stamps are compared. Sure: always, which takes some 6 ns an entry. Usual: always in a table of up to
// kAlwaysCheckedEntries, and in any table before it is believed that nothing matches; otherwise after a pause in
// proportion to what the comparison takes, so that it takes about a hundredth of the time at most. Until then, a filter
// that was written in by hand is not found beside others that match.
enum class Trust { Usual, Sure };

constexpr int32_t  kAlwaysCheckedEntries = 64;
constexpr uint64_t kPauseNsPerEntry      = 500;

// Makes the index follow the table's place and length. To be called before every change that it is told of.
void fit_index(const sub_mgr_t &manager) noexcept REQUIRES(manager.lock);
// The same, and compares stamps. To be called before every search.
void check_index(const sub_mgr_t &manager, Trust trust) noexcept REQUIRES(manager.lock);
// Asked when a search found nothing that matches: true when the index was wrong and is built anew.
[[nodiscard]] bool index_was_wrong(const sub_mgr_t &manager) noexcept REQUIRES(manager.lock);

// Another number whenever an entry came, left or was found to have another filter than the index knew.
[[nodiscard]] uint64_t index_edition() noexcept;
// After check_index: the filters at these places are those that the index knows, and were so when it was built.
[[nodiscard]] bool are_as_indexed(const sub_mgr_t &manager, std::span<const int32_t> places) noexcept
    REQUIRES(manager.lock);

// Adds every entry that could match the topic: those that do, and those whose filter is invalid, because matching them
// has to complain.
void candidates_for(const sub_mgr_t &manager, std::string_view topic, EntrySet &found) noexcept REQUIRES(manager.lock);

// As check_index, of what the two below search.
void check_pairs(const sub_mgr_t &manager) noexcept REQUIRES(manager.lock);
// Adds the entries that may be of this client, and with a filter those that may be of both.
void find_client(const sub_mgr_t &manager, std::string_view id, EntrySet &found) noexcept REQUIRES(manager.lock);
void find_pair(const sub_mgr_t &manager, std::string_view id, std::string_view filter, EntrySet &found) noexcept
    REQUIRES(manager.lock);

// To be told after the table changed: one entry was appended, or these were taken out and the rest moved up.
void index_appended(const sub_mgr_t &manager) noexcept REQUIRES(manager.lock);
void index_removed(const sub_mgr_t &manager, const EntrySet &removed) noexcept REQUIRES(manager.lock);

} // namespace tarn::sub

#endif
