// filters.h - the lists in SUBSCRIBE and UNSUBSCRIBE, read where they stand in the packet.
#ifndef TARN_CODEC_STANDARD_FILTERS_H
#define TARN_CODEC_STANDARD_FILTERS_H

#include "topic.h"
#include "types.h"

#include <iterator>

namespace tarn::codec::standard {

struct Subscription {
    std::string_view text;   // the filter as it was sent
    TopicFilter      filter; // in its parts
    uint8_t          qos                 = 0;
    bool             no_local            = false; // 5.0, as what follows
    bool             retain_as_published = false;
    uint8_t          retain_handling     = 0; // 0 send retained messages, 1 only if the subscription is new, 2 never
};

struct UnsubscribedFilter {
    std::string_view text;
    TopicFilter      filter;
};

// A list that a decoder has checked. `for (const Subscription &entry : subscribe.subscriptions)`
template <class Entry> class EntryList {
public:
    EntryList() = default;
    EntryList(Bytes entries, size_t count) noexcept : entries_(entries), count_(count) {}

    class Iterator {
    public:
        explicit Iterator(Bytes rest) noexcept : rest_(rest) { step(); }

        const Entry &operator*() const noexcept { return entry_; }
        const Entry *operator->() const noexcept { return &entry_; }
        Iterator    &operator++() noexcept
        {
            step();
            return *this;
        }
        bool operator==(std::default_sentinel_t /*end*/) const noexcept { return at_end_; }

    private:
        void step() noexcept;

        Bytes rest_;
        Entry entry_;
        bool  at_end_ = false;
    };

    [[nodiscard]] size_t                  size() const noexcept { return count_; }
    [[nodiscard]] Iterator                begin() const noexcept { return Iterator(entries_); }
    [[nodiscard]] std::default_sentinel_t end() const noexcept { return {}; }

private:
    Bytes  entries_;
    size_t count_ = 0;
};

using Subscriptions = EntryList<Subscription>;
using TopicFilters  = EntryList<UnsubscribedFilter>;

} // namespace tarn::codec::standard

#endif
