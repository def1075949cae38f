// retained_queue.cpp - see retained_queue.h.
#include "retained_queue.h"

#include "object.h"

namespace tarn::standard {
namespace {

// One key for the queues of all sessions: a key of its own would be a call of the kernel's for each that begins.
uint64_t hash_of(std::string_view filter)
{
    static const TextHash hash;
    return hash(filter);
}

} // namespace

RetainedQueue::~RetainedQueue()
{
    while (first_)
        drop_first();
}

RetainedWanted *RetainedQueue::find(std::string_view filter, uint64_t hash) const noexcept
{
    return table_.find(hash, [filter](const RetainedWanted &wanted) { return wanted.text == filter; });
}

bool RetainedQueue::add(std::string_view filter, const SubscriptionOptions &options, uint64_t latest) noexcept
{
    const uint64_t  hash   = hash_of(filter);
    RetainedWanted *wanted = find(filter, hash);
    if (!wanted) {
        wanted = make_with_text<RetainedWanted>(filter);
        if (!wanted)
            return false;
        wanted->previous               = last_;
        (last_ ? last_->next : first_) = wanted;
        last_                          = wanted;
        table_.insert(*wanted, hash);
    }
    wanted->options  = options;
    wanted->after    = latest;
    wanted->is_begun = false;
    return true;
}

void RetainedQueue::remove(std::string_view filter) noexcept
{
    if (RetainedWanted *const wanted = find(filter, hash_of(filter)))
        drop(*wanted);
}

void RetainedQueue::drop(RetainedWanted &wanted) noexcept
{
    (wanted.previous ? wanted.previous->next : first_) = wanted.next;
    (wanted.next ? wanted.next->previous : last_)      = wanted.previous;
    table_.remove(wanted);
    destroy_object(&wanted);
}

} // namespace tarn::standard
