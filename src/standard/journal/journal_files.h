// journal_files.h - the files of a directory that are written: the journal, and at times a checkpoint. For one thread.
#ifndef TARN_STANDARD_JOURNAL_FILES_H
#define TARN_STANDARD_JOURNAL_FILES_H

#include "replay.h"

namespace tarn::standard {

// What fails says so by false and errno.
class JournalFiles {
public:
    explicit JournalFiles(Disk &disk) noexcept : disk_(disk) {}

    // Goes on where a replay ended. The directory is locked for as long as its descriptor is open.
    bool open(Fd directory, const Found &found) noexcept;
    void close() noexcept;

    // Appends sealed records to the journal and syncs them. After a failure the same are given again.
    bool commit(std::span<const uint8_t> records) noexcept;

    // From here on another journal is written, and a checkpoint under its temporary name. After a failure there is no
    // checkpoint under way; the journal goes on, in one file or the other.
    bool begin_checkpoint() noexcept;
    bool has_checkpoint() const noexcept { return static_cast<bool>(state_); }
    bool write_state(std::span<const uint8_t> records) noexcept;
    bool finish_checkpoint() noexcept;
    void give_up_checkpoint() noexcept;

    FileName journal_name() const noexcept { return name_of(FileKind::Journal, number_); }
    uint64_t state_size() const noexcept { return state_size_; } // of the newest that is in place

private:
    bool     create_next_journal() noexcept;
    bool     sync_directory() noexcept;
    void     remove_unfinished(const FileName &temporary) noexcept;
    void     remove_replaced() noexcept;
    FileName temporary_state() const noexcept { return temporary_name_of(FileKind::State, number_); }

    Disk       &disk_;
    Fd          directory_;
    GrowingFile journal_;
    GrowingFile state_;                      // under its temporary name, numbered as the journal
    uint64_t    number_             = 0;     // of the journal
    uint64_t    oldest_             = 0;     // number of any file
    uint64_t    state_size_         = 0;     // bytes
    bool        directory_unsynced_ = false; // the journal may not be found after a loss of power
};

} // namespace tarn::standard

#endif
