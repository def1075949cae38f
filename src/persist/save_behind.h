// save_behind.h - changes that a thread does not wait for: the files of clients and the retained store, saved by the saver
// thread soon after, many changes of a file at once.
#ifndef TARN_PERSIST_SAVE_BEHIND_H
#define TARN_PERSIST_SAVE_BEHIND_H

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace tarn::persist {

// What waits for changes to be on the disk.
struct SaveWaiter {
    // The changes, and 1 for as long as more may come. The thread that takes away the last calls saved(), with no lock
    // held.
    std::atomic<uint32_t> unsaved{1};
    void (*saved)(SaveWaiter &waiter) noexcept;

    void one_is_saved() noexcept
    {
        if (unsaved.fetch_sub(1, std::memory_order_acq_rel) == 1)
            saved(*this);
    }
};

// Changes that wait for the disk, each once for every SaveWaiter.
size_t unsaved_changes() noexcept;

// While one exists on a thread, its changes are saved behind it, if a saver thread can be had; of several the inmost
// counts. What was not saved because the disk failed is not waited for: a line tells.
class SaveBehind {
public:
    // At its first change the thread is asked who waits for that one and those that follow; null, which is no memory:
    // the change is saved at once.
    using Ask = SaveWaiter *(*)(void *arg) noexcept;

    SaveBehind(Ask ask, void *arg) noexcept;
    ~SaveBehind();
    SaveBehind(const SaveBehind &)            = delete;
    SaveBehind &operator=(const SaveBehind &) = delete;

    static SaveBehind *of_this_thread() noexcept;

    SaveWaiter *waiter() noexcept { return ask_(arg_); }
    // The first few changes of a packet go before those of packets that change many files.
    bool next_is_urgent() noexcept { return changes_++ < kUrgent; }

private:
    static constexpr uint32_t kUrgent = 8;

    Ask         ask_;
    void       *arg_;
    SaveBehind *outer_;
    uint32_t    changes_ = 0;
};

// A SaveBehind whose changes nobody waits for: of a will, which may be kept for thousands.
class SaveUnawaited {
public:
    SaveUnawaited() noexcept : behind_(ask, this) {}
    ~SaveUnawaited();
    SaveUnawaited(const SaveUnawaited &)            = delete;
    SaveUnawaited &operator=(const SaveUnawaited &) = delete;

private:
    static SaveWaiter *ask(void *self) noexcept;

    SaveWaiter *nobody_ = nullptr; // made with the first change; goes when the last is saved
    SaveBehind  behind_;
};

// While one exists on a thread, its changes are saved when the call that makes them returns, SaveBehind or not.
class SaveAtOnce {
public:
    SaveAtOnce() noexcept;
    ~SaveAtOnce();
    SaveAtOnce(const SaveAtOnce &)            = delete;
    SaveAtOnce &operator=(const SaveAtOnce &) = delete;
};

} // namespace tarn::persist

#endif
