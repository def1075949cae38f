// retained_queue.cpp - see retained_queue.h.
#include "retained_queue.h"

#include "object.h"

namespace tarn::standard {

RetainedQueue::~RetainedQueue()
{
    while (first_)
        drop_first();
}

RetainedWanted *RetainedQueue::find(std::string_view filter, uint64_t hash) const noexcept
{
    return table_.find(hash, [filter](const RetainedWanted &wanted) { return wanted.text == filter; });
}

void RetainedQueue::cancel(std::string_view filter) noexcept
{
    if (RetainedWanted *const there = find(filter, hash_(filter)))
        there->is_cancelled = true;
}

bool RetainedQueue::add(std::string_view filter, const SubscriptionOptions &options) noexcept
{
    const uint64_t hash = hash_(filter);
    if (RetainedWanted *const there = find(filter, hash)) {
        there->options      = options;
        there->is_begun     = false;
        there->is_cancelled = false;
        return true;
    }
    auto *const made = make_with_text<RetainedWanted>(filter);
    if (!made)
        return false;
    made->options                  = options;
    (last_ ? last_->next : first_) = made;
    last_                          = made;
    table_.insert(*made, hash);
    return true;
}

void RetainedQueue::drop_first() noexcept
{
    RetainedWanted *const dropped = first_;
    first_                        = dropped->next;
    if (!first_)
        last_ = nullptr;
    table_.remove(*dropped);
    destroy_object(dropped);
}

} // namespace tarn::standard
