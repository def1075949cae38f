// saver.h - the saver thread, for the files of this folder. It has the queues of clients' files and the request to save
// the retained store.
#ifndef TARN_PERSIST_SAVER_H
#define TARN_PERSIST_SAVER_H

#include "../base/memory.h"
#include "../base/mutex.h"
#include "save_behind.h"

namespace tarn::persist {

// What is to be saved, and who waits for it. A leaf: nothing is written and nobody is told while it is held.
extern Mutex g_save_mutex;

extern std::atomic<size_t> g_unsaved_changes;

// Who waits for the changes of one file.
class SaveWaiters {
public:
    // One more change that `waiter` waits for. False without memory.
    [[nodiscard]] bool add(SaveWaiter &waiter) noexcept REQUIRES(g_save_mutex)
    {
        if (!waiters_.push(&waiter))
            return false;
        waiter.unsaved.fetch_add(1, std::memory_order_relaxed);
        g_unsaved_changes.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    void take(SaveWaiters &from) noexcept REQUIRES(g_save_mutex) { waiters_.swap(from.waiters_); }
    void tell() noexcept EXCLUDES(g_save_mutex)
    {
        g_unsaved_changes.fetch_sub(waiters_.size(), std::memory_order_relaxed);
        for (SaveWaiter *const waiter : waiters_)
            waiter->one_is_saved();
        waiters_.clear();
    }

private:
    GrowArray<SaveWaiter *> waiters_;
};

// False when there is no saver thread and none could be started.
[[nodiscard]] bool saver_runs() noexcept REQUIRES(g_save_mutex);
void               wake_saver() noexcept REQUIRES(g_save_mutex);
void               stop_saver() noexcept EXCLUDES(g_save_mutex);  // waits for it; none is started
void               allow_saver() noexcept EXCLUDES(g_save_mutex); // until this

// Waits for what another thread writes: until something under g_save_mutex has changed.
void await_saver() noexcept REQUIRES(g_save_mutex);
void saving_changed() noexcept REQUIRES(g_save_mutex); // wakes all of them

} // namespace tarn::persist

#endif
