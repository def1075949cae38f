// retained_queue.h - subscriptions of one session that are still to be given their retained messages.
//
// A filter may match a hundred thousand, so they are given piece by piece, as the client takes them.
#ifndef TARN_STANDARD_RETAINED_QUEUE_H
#define TARN_STANDARD_RETAINED_QUEUE_H

#include "retained_store.h"
#include "subscription_tree.h"

namespace tarn::standard {

struct RetainedWanted : InTable<RetainedWanted> {
    std::string_view    text; // the filter
    SubscriptionOptions options;
    RetainedWanted     *next     = nullptr;
    RetainedWanted     *previous = nullptr;
    uint64_t            after    = 0; // the latest message when it was wanted: later ones have come live
    bool                is_begun = false;
    RetainedInPieces    walk;
};

// In the order of subscribing. A filter stands in it once.
class RetainedQueue {
public:
    RetainedQueue()                                 = default;
    RetainedQueue(const RetainedQueue &)            = delete;
    RetainedQueue &operator=(const RetainedQueue &) = delete;
    ~RetainedQueue();

    // Also of a filter that is in it already, with other options: it begins again. False without memory.
    [[nodiscard]] bool add(std::string_view filter, const SubscriptionOptions &options, uint64_t latest) noexcept;
    void               remove(std::string_view filter) noexcept; // it is not subscribed to any more
    RetainedWanted    *first() const noexcept { return first_; }
    void               drop_first() noexcept { drop(*first_); }

private:
    void            drop(RetainedWanted &wanted) noexcept;
    RetainedWanted *find(std::string_view filter, uint64_t hash) const noexcept;

    HashTable<RetainedWanted> table_;
    RetainedWanted           *first_ = nullptr;
    RetainedWanted           *last_  = nullptr;
};

} // namespace tarn::standard

#endif
