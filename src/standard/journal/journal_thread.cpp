// journal_thread.cpp - the thread of a Journal: writes what gathered, a batch at a time, and between them pieces of a
// checkpoint.
#include "journal.h"

#include "../../base/clock.h"
#include "../../base/thread.h"
#include "../../log/log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tarn::standard {
namespace {

constexpr size_t   kPiecesInMemory  = 4; // of a checkpoint: what fills its memory is written in so many pieces
constexpr int      kAttemptsAtClose = 3;
constexpr uint32_t kPauseAtClose_ms = 10;
constexpr size_t   kKeptEntries     = size_t{1} << 20; // of an array; what a burst needed beyond it is given back

template <class T> void empty(GrowArray<T> &array)
{
    if (array.size() > kKeptEntries)
        GrowArray<T>().swap(array);
    array.clear();
}

template <class T> std::span<T> all_of(GrowArray<T> &array)
{
    return {array.data(), array.size()};
}

} // namespace

int Journal::start() noexcept
{
    running_        = true;
    failing_        = false;
    const int error = start_thread(&thread_, "tarn-journal", run, this);
    if (error)
        running_ = false;
    return error;
}

void *Journal::run(void *journal) noexcept
{
    Journal &self = *static_cast<Journal *>(journal);
    Work     work;
    while (self.take_work(work))
        self.do_work(work);
    self.drop_checkpoint(); // one that was not completed
    return nullptr;
}

bool Journal::is_piece_due() noexcept
{
    return checkpoint_.is_complete || checkpoint_.is_full ||
           checkpoint_.bytes.size() > limits_.most_of_state / kPiecesInMemory;
}

bool Journal::has_work() noexcept
{
    return !gathered_.empty() || checkpoint_.is_to_begin || is_piece_due();
}

// Waits for work. False when there is none and the journal is being closed.
bool Journal::take_work(Work &work) noexcept
{
    ScopedLock lock(mutex_);
    while (!has_work()) {
        if (!open_)
            return false;
        for (asleep_ = true; asleep_;)
            pthread_cond_wait(&work_, &mutex_.raw);
    }
    batch_.swap(gathered_);
    batch_waiters_.swap(gathered_waiters_);
    gathered_records_ = 0;
    taken_            = appended_;
    work              = {checkpoint_.is_to_begin, checkpoint_.is_complete};
    if (is_piece_due())
        piece_.swap(checkpoint_.bytes);
    checkpoint_.is_to_begin = false;
    checkpoint_.is_full     = false;
    return true;
}

// The batch is written before a checkpoint is put in place that was complete when the batch was taken: so a checkpoint
// never has what the journal behind it lacks.
void Journal::do_work(const Work &work) noexcept
{
    if (work.begins_checkpoint && !files_.begin_checkpoint())
        give_up_checkpoint(errno);
    save_batch();
    if (files_.has_checkpoint())
        write_piece(work);
    empty(piece_);
}

void Journal::save_batch() noexcept
{
    if (lost_ > 0) // nothing follows a gap
        return drop_batch();
    seal_records(all_of(batch_));
    for (int attempts = 1; !batch_.empty() && !files_.commit(all_of(batch_)); ++attempts) {
        const int error = errno;
        log_failure(error);
        if (files_.has_checkpoint())
            give_up_checkpoint(error); // a full disk may need no more than its bytes
        if (running_)
            attempts = 0;
        else if (attempts == kAttemptsAtClose)
            return drop_batch();
        pause_after_failure();
    }
    log_recovery();
    empty(batch_);
    notify_waiters();
}

void Journal::pause_after_failure() noexcept
{
    if (running_)
        retry_.pause_while(running_, limits_.retry_ms);
    else
        pause_ms(kPauseAtClose_ms);
}

void Journal::drop_batch() noexcept
{
    LOG_ERROR("[journal] %s could not be written to the end: %llu bytes lost", files_.journal_name().text,
              static_cast<unsigned long long>(batch_.size()));
    lost_ += batch_.size();
    empty(batch_);
    notify_waiters();
}

// Once for all attempts until one succeeds.
void Journal::log_failure(int error) noexcept
{
    if (!failing_)
        LOG_ERROR("[journal] %s cannot be written: %s: what is to be kept waits, and so do acknowledgements",
                  files_.journal_name().text, strerror(error));
    failing_ = true;
}

void Journal::log_recovery() noexcept
{
    if (failing_)
        LOG_WARN("[journal] %s is written again", files_.journal_name().text);
    failing_ = false;
}

void Journal::notify_waiters() noexcept
{
    {
        ScopedLock lock(mutex_);
        synced_ = taken_;
        told_.swap(batch_waiters_);
    }
    for (persist::SaveWaiter *const waiter : told_)
        waiter->one_is_saved();
    empty(told_);
}

void Journal::write_piece(const Work &work) noexcept
{
    if (!piece_.empty()) {
        seal_records(all_of(piece_));
        if (!files_.write_state(all_of(piece_)))
            return give_up_checkpoint(errno);
    }
    if (!work.completes_checkpoint)
        return;
    if (!files_.finish_checkpoint())
        return give_up_checkpoint(errno);
    ScopedLock lock(mutex_);
    journals_size_ -= checkpoint_.replaces;
    checkpoint_beyond_ = std::max(limits_.least_checkpoint, 2 * files_.state_size());
    end_checkpoint();
}

// The next one is tried when the journals have grown by what a small one needs.
void Journal::give_up_checkpoint(int error) noexcept
{
    LOG_ERROR("[journal] checkpoint behind %s is given up: %s", files_.journal_name().text, strerror(error));
    {
        ScopedLock lock(mutex_);
        checkpoint_beyond_ = journals_size_ + limits_.least_checkpoint;
    }
    drop_checkpoint();
}

void Journal::drop_checkpoint() noexcept
{
    files_.give_up_checkpoint();
    ScopedLock lock(mutex_);
    end_checkpoint();
}

void Journal::end_checkpoint() noexcept
{
    checkpoint_.runs        = false;
    checkpoint_.is_to_begin = false;
    checkpoint_.is_full     = false;
    checkpoint_.is_complete = false;
    empty(checkpoint_.bytes);
}

} // namespace tarn::standard
