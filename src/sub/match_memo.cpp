#include "match_memo.h"

#include "filter_key.h"

#include <cstring>

namespace tarn::sub {
namespace {

struct Memo {
    uint64_t edition; // of the index
    uint8_t  length;
    uint8_t  count;
    char     topic[62];
    int32_t  places[14];
};
static_assert(sizeof(Memo) == 128, "two lines of the processor's caches");

constexpr size_t kMemos = 1024;
constinit Memo   g_memos[kMemos]{}; // under g_sub_mgr.lock

// Reads words, the last of which may overlap the one before; a shorter text goes byte by byte.
uint64_t quick_hash(std::string_view text) noexcept
{
    constexpr size_t kWord = sizeof(uint64_t);
    if (text.size() < kWord)
        return hash_mix(hash_of(text), text.size());
    uint64_t hash = text.size();
    for (size_t at = 0; at + kWord < text.size(); at += kWord)
        hash = hash_mix(hash, word_at(text.data() + at));
    return hash_mix(hash, word_at(text.data() + text.size() - kWord));
}

Memo &memo_of(std::string_view topic) noexcept
{
    return g_memos[quick_hash(topic) % kMemos];
}

} // namespace

std::span<const int32_t> remembered_matches(const sub_mgr_t &manager, std::string_view topic) noexcept
{
    const Memo &memo = memo_of(topic);
    if (memo.edition != index_edition() || memo.length != topic.size() ||
        memcmp(memo.topic, topic.data(), topic.size()) != 0)
        return {};
    const std::span places(memo.places, memo.count);
    return are_as_indexed(manager, places) ? places : std::span<const int32_t>();
}

// What was edited by hand since the index was compared is not remembered: the stamp that it would be compared with is not
// its own.
void remember_matches(const sub_mgr_t &manager, std::string_view topic, const EntrySet &candidates) noexcept
{
    Memo &memo = memo_of(topic);
    if (topic.size() > sizeof memo.topic || candidates.count() > static_cast<int32_t>(std::size(memo.places)))
        return;
    memo.edition = index_edition();
    memo.length  = static_cast<uint8_t>(topic.size());
    memcpy(memo.topic, topic.data(), topic.size());
    memo.count = 0;
    candidates.for_each([&](int32_t i) {
        memo.places[memo.count++] = i;
        return true;
    });
    if (!are_as_indexed(manager, {memo.places, memo.count}))
        memo.count = 0;
}

} // namespace tarn::sub
