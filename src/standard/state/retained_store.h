// retained_store.h - the last retained message of each topic.
//
// No locks: the engine's mutex is held around every call. match() takes no memory, and what it calls must not change
// the store.
#ifndef TARN_STANDARD_RETAINED_STORE_H
#define TARN_STANDARD_RETAINED_STORE_H

#include "due_heap.h"
#include "level_tree.h"
#include "message.h"

#include <cstdint>
#include <iterator>
#include <string_view>

namespace tarn::standard {

struct RetainedBounds {
    size_t messages = 0;
    size_t bytes    = 0; // of memory, with the nodes that lead to them
};

// Since the store was made.
struct RetainedCounters {
    uint64_t stored   = 0; // under a topic that had none
    uint64_t replaced = 0;
    uint64_t removed  = 0; // asked for
    uint64_t expired  = 0;
    uint64_t refused  = 0; // bounds, or no memory
};

struct RetainedEntry : InTable<RetainedEntry>, InDueHeap {
    using Node = LevelTree<RetainedEntry>::Node;

    MessageRef     message;
    Node          *node     = nullptr;
    RetainedEntry *next     = nullptr; // in the order in which their topics came
    RetainedEntry *previous = nullptr;
};

// A walk in pieces through all of a store, in the order in which their topics came, while they come and go.
class RetainedInPieces {
public:
    RetainedInPieces()                                    = default;
    RetainedInPieces(const RetainedInPieces &)            = delete;
    RetainedInPieces &operator=(const RetainedInPieces &) = delete;
    ~RetainedInPieces() { end(); }

    const RetainedEntry *at() const noexcept { return at_; } // null: at the end
    void                 go_on() noexcept { at_ = at_->next; }

private:
    friend class RetainedStore;
    void end() noexcept;

    RetainedEntry     *at_       = nullptr;
    RetainedInPieces **list_     = nullptr; // of the store's walks; null: not begun
    RetainedInPieces  *next_     = nullptr;
    RetainedInPieces  *previous_ = nullptr;
};

class RetainedStore {
public:
    enum class Set { Stored, Replaced, Full, NoMemory };

    explicit RetainedStore(const RetainedBounds &bounds) noexcept : bounds_(bounds) {}
    ~RetainedStore();
    RetainedStore(const RetainedStore &)            = delete;
    RetainedStore &operator=(const RetainedStore &) = delete;

    // Under the message's topic. Full and NoMemory change nothing: an earlier message of the topic stays.
    Set        set(const MessageRef &message) noexcept;
    bool       remove(std::string_view topic) noexcept;     // false: there was none
    MessageRef find(std::string_view topic) const noexcept; // empty: there is none; it may have expired

    // Calls sink(const MessageRef &) for each message whose topic the filter matches, in no order; messages that
    // expired and were not discarded are among them. The filter was checked to be one; "$share/group/" is no part of
    // it. Of one with wildcards and more than kMaxLevels levels, which nobody can subscribe to, what stands beyond is
    // compared as it is.
    template <class Sink> void match(std::string_view filter, Sink &&sink) const
    {
        auto give = [&sink](const RetainedEntry &entry) { sink(entry.message); };
        match_entries(filter, Visitor<const RetainedEntry>(give));
    }

    // From a file: bounds do not hold, and nothing is counted.
    Set  restore(const MessageRef &message) noexcept;
    void restore_removal(std::string_view topic) noexcept;

    // At most `budget` of them, those first that expired first; the result says how many.
    size_t discard_expired(uint64_t now_ms, size_t budget) noexcept;

    size_t                  count() const noexcept { return entries_.size(); }
    size_t                  bytes() const noexcept;
    const RetainedCounters &counters() const noexcept { return counters_; }

    // for (const MessageRef &message : store), in the order in which their topics came; it is not changed meanwhile.
    class Iterator {
    public:
        explicit Iterator(const RetainedEntry *at) : at_(at) {}
        const MessageRef &operator*() const { return at_->message; }
        Iterator         &operator++()
        {
            at_ = at_->next;
            return *this;
        }
        bool operator==(std::default_sentinel_t /*end*/) const { return at_ == nullptr; }

    private:
        const RetainedEntry *at_;
    };
    void begin(RetainedInPieces &walk) noexcept;

    Iterator                begin() const { return Iterator(first_); }
    std::default_sentinel_t end() const { return {}; }

private:
    RetainedEntry *find_entry(std::string_view topic) const noexcept;
    void           match_entries(std::string_view filter, const Visitor<const RetainedEntry> &found) const;

    Set  set_within_bounds(const MessageRef &message) noexcept;
    Set  store(const MessageRef &message) noexcept;
    Set  replace(RetainedEntry &entry, const MessageRef &message) noexcept;
    bool fill(RetainedEntry &entry, const MessageRef &message) noexcept;
    bool set_due(RetainedEntry &entry, uint64_t due_ms) noexcept;
    void link(RetainedEntry &entry) noexcept;
    void unlink(RetainedEntry &entry) noexcept;
    void discard(RetainedEntry &entry) noexcept;

    RetainedBounds           bounds_;
    RetainedCounters         counters_;
    LevelTree<RetainedEntry> tree_;
    TextHash                 hash_;
    HashTable<RetainedEntry> entries_; // by topic
    DueHeap<RetainedEntry>   expiring_;
    RetainedEntry           *first_         = nullptr;
    RetainedEntry           *last_          = nullptr;
    RetainedInPieces        *walks_         = nullptr;
    size_t                   message_bytes_ = 0;
};

} // namespace tarn::standard

#endif
