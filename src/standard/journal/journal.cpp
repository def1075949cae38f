// journal.cpp - see journal.h: opening, and what the engine calls. journal_thread.cpp has the thread.
#include "journal.h"

#include "../../base/thread.h"
#include "../../log/log.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace tarn::standard {
namespace {

constexpr mode_t kDirectoryMode = 0755; // less what the host's umask takes

// Each directory on the way, too.
bool make_directories(const char *path)
{
    char         text[PATH_MAX];
    const size_t length = strlen(path);
    if (length >= sizeof text) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(text, path, length + 1);
    for (size_t i = 1; i <= length; ++i) {
        if (path[i] != '/' && path[i] != '\0')
            continue;
        text[i] = '\0';
        if (mkdir(text, kDirectoryMode) != 0 && errno != EEXIST)
            return false;
        text[i] = path[i];
    }
    return true;
}

Opened failed(OpenStatus status, int error = 0)
{
    return {.status = status, .error = error};
}

// The descriptor is the lock.
Fd take_directory(const char *path, Opened &result)
{
    Fd directory;
    if (make_directories(path))
        directory.reset(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory && flock(directory.get(), LOCK_EX | LOCK_NB) == 0)
        return directory;
    result = errno == EWOULDBLOCK ? failed(OpenStatus::InUse) : failed(OpenStatus::Failed, errno);
    return {};
}

const char *reason_of(const Opened &result)
{
    switch (result.status) {
    case OpenStatus::InUse:
        return "in use";
    case OpenStatus::NotOurs:
        return "not a file of this broker";
    case OpenStatus::OtherVersion:
        return "of another version";
    case OpenStatus::Damaged:
        return "damaged";
    case OpenStatus::Missing:
        return "missing";
    case OpenStatus::Failed:
        return strerror(result.error);
    default:
        return "no memory";
    }
}

void log_opened(const char *path, const Opened &result)
{
    if (result.status != OpenStatus::Ok)
        LOG_ERROR("[journal] %s cannot be opened: %s: %s", path, result.file.text[0] ? result.file.text : path,
                  reason_of(result));
    else if (result.dropped_bytes > 0)
        LOG_WARN("[journal] %s/%s has no whole record at its end: %llu bytes dropped", path, result.file.text,
                 static_cast<unsigned long long>(result.dropped_bytes));
}

} // namespace

Opened Journal::open_files(const char *path, JournalVisitor &visitor) noexcept
{
    Opened result;
    Fd     directory = take_directory(path, result);
    if (!directory)
        return result;
    Replay replay(disk_, directory.get(), visitor);
    if (!replay.run() || !replay.repair())
        return replay.result();
    if (!files_.open(std::move(directory), replay.found()))
        return failed(OpenStatus::Failed, errno);
    go_on_after(replay.found());
    if (const int error = start())
        return failed(OpenStatus::Failed, error);
    return replay.result();
}

void Journal::go_on_after(const Found &found) noexcept
{
    ScopedLock lock(mutex_);
    open_              = true;
    journals_size_     = found.journals_size;
    checkpoint_beyond_ = std::max(limits_.least_checkpoint, 2 * found.state_size);
}

Opened Journal::open(const char *path, JournalVisitor &visitor) noexcept
{
    const Opened result = running_ ? failed(OpenStatus::InUse) : open_files(path, visitor);
    if (result.status != OpenStatus::Ok && !running_)
        close();
    log_opened(path, result);
    return result;
}

uint64_t Journal::close() noexcept
{
    {
        ScopedLock lock(mutex_);
        open_ = false;
        wake_thread();
    }
    if (swap_in(running_, false)) {
        retry_.wake();
        join_or_detach(thread_);
    }
    files_.close();
    return std::exchange(lost_, 0);
}

void Journal::wake_thread() noexcept
{
    if (!asleep_)
        return;
    asleep_ = false;
    pthread_cond_signal(&work_);
}

bool Journal::is_too_large(size_t size) const noexcept
{
    return size > limits_.most_unsynced || size > UINT32_MAX;
}

bool Journal::can_take(size_t size) noexcept
{
    ScopedLock lock(mutex_);
    return open_ && appended_ - synced_ + size <= limits_.most_unsynced;
}

Appended Journal::append(uint8_t type, RecordParts parts) noexcept
{
    const size_t size = record_size(parts);
    ScopedLock   lock(mutex_);
    if (!open_)
        return {AppendStatus::Closed, 0};
    if (is_too_large(size))
        return {AppendStatus::TooLarge, 0};
    if (appended_ - synced_ + size > limits_.most_unsynced)
        return {AppendStatus::Busy, 0};
    if (!gathered_waiters_.reserve(gathered_records_ + 1) || !put_record(gathered_, type, parts))
        return {AppendStatus::NoMemory, 0};
    ++gathered_records_;
    journals_size_ += size;
    appended_ += size;
    wake_thread();
    return {AppendStatus::Ok, appended_};
}

bool Journal::wait(uint64_t position, persist::SaveWaiter &waiter) noexcept
{
    ScopedLock lock(mutex_);
    if (position <= synced_)
        return true;
    Waiters &waiters = position <= taken_ ? batch_waiters_ : gathered_waiters_;
    if (!waiters.push(&waiter))
        return false;
    waiter.unsaved.fetch_add(1, std::memory_order_relaxed);
    return true;
}

size_t Journal::unsynced() noexcept
{
    ScopedLock lock(mutex_);
    return appended_ - synced_;
}

bool Journal::wants_checkpoint() noexcept
{
    ScopedLock lock(mutex_);
    return open_ && !checkpoint_.runs && journals_size_ > checkpoint_beyond_;
}

bool Journal::begin_checkpoint() noexcept
{
    ScopedLock lock(mutex_);
    if (!open_ || checkpoint_.runs)
        return false;
    checkpoint_.runs        = true;
    checkpoint_.is_to_begin = true;
    checkpoint_.replaces    = journals_size_;
    wake_thread();
    return true;
}

AppendStatus Journal::append_to_checkpoint(uint8_t type, RecordParts parts) noexcept
{
    const size_t size = record_size(parts);
    ScopedLock   lock(mutex_);
    Bytes       &bytes = checkpoint_.bytes;
    if (!open_ || !checkpoint_.runs || checkpoint_.is_complete)
        return AppendStatus::Closed;
    if (is_too_large(size))
        return AppendStatus::TooLarge;
    checkpoint_.is_full = !bytes.empty() && bytes.size() + size > limits_.most_of_state;
    if (!checkpoint_.is_full && !put_record(bytes, type, parts))
        return AppendStatus::NoMemory;
    if (is_piece_due())
        wake_thread();
    return checkpoint_.is_full ? AppendStatus::Busy : AppendStatus::Ok;
}

void Journal::finish_checkpoint() noexcept
{
    ScopedLock lock(mutex_);
    checkpoint_.is_complete = checkpoint_.runs;
    wake_thread();
}

} // namespace tarn::standard
