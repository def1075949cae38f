// journal_files.cpp - see journal_files.h.
#include "journal_files.h"

#include <cerrno>
#include <fcntl.h>

namespace tarn::standard {

bool JournalFiles::open(Fd directory, const Found &found) noexcept
{
    directory_          = std::move(directory);
    number_             = found.last_journal;
    oldest_             = found.state;
    state_size_         = found.state_size;
    directory_unsynced_ = false;
    journal_            = {disk_.open(directory_.get(), journal_name().text, O_RDWR), found.last_size};
    return static_cast<bool>(journal_);
}

void JournalFiles::close() noexcept
{
    give_up_checkpoint();
    journal_ = {};
    directory_.reset();
}

bool JournalFiles::sync_directory() noexcept
{
    directory_unsynced_ = !disk_.sync_directory(directory_.get());
    return !directory_unsynced_;
}

bool JournalFiles::commit(std::span<const uint8_t> records) noexcept
{
    return (!directory_unsynced_ || sync_directory()) && journal_.commit(disk_, records);
}

// Leaves errno as it is.
void JournalFiles::remove_unfinished(const FileName &temporary) noexcept
{
    const int error = errno;
    disk_.remove(directory_.get(), temporary.text);
    errno = error;
}

bool JournalFiles::create_next_journal() noexcept
{
    const FileName temporary = temporary_name_of(FileKind::Journal, number_ + 1);
    GrowingFile    next      = GrowingFile::create(disk_, directory_.get(), temporary, FileKind::Journal);
    const FileName name      = name_of(FileKind::Journal, number_ + 1);
    if (!next || !next.sync(disk_) || !disk_.rename(directory_.get(), temporary.text, name.text)) {
        remove_unfinished(temporary);
        return false;
    }
    journal_            = std::move(next);
    directory_unsynced_ = true; // commit() syncs it
    ++number_;
    return true;
}

bool JournalFiles::begin_checkpoint() noexcept
{
    if (!create_next_journal())
        return false;
    state_ = GrowingFile::create(disk_, directory_.get(), temporary_state(), FileKind::State);
    if (!has_checkpoint())
        remove_unfinished(temporary_state());
    return has_checkpoint();
}

bool JournalFiles::write_state(std::span<const uint8_t> records) noexcept
{
    return state_.commit(disk_, records);
}

bool JournalFiles::finish_checkpoint() noexcept
{
    const FileName name = name_of(FileKind::State, number_);
    if (!state_.commit(disk_, end_of_state()) || !disk_.rename(directory_.get(), temporary_state().text, name.text))
        return false;
    state_size_ = state_.size();
    state_      = {};
    if (sync_directory()) // else they stay until the next checkpoint is in place
        remove_replaced();
    return true;
}

void JournalFiles::remove_replaced() noexcept
{
    for (; oldest_ < number_; ++oldest_) {
        disk_.remove(directory_.get(), name_of(FileKind::State, oldest_).text);
        disk_.remove(directory_.get(), name_of(FileKind::Journal, oldest_).text);
    }
}

void JournalFiles::give_up_checkpoint() noexcept
{
    if (!has_checkpoint())
        return;
    state_ = {};
    remove_unfinished(temporary_state());
}

} // namespace tarn::standard
