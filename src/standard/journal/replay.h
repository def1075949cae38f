// replay.h - reads back what a directory keeps: the newest checkpoint, then the journals since. Changes nothing on the
// disk but where it says so.
#ifndef TARN_STANDARD_REPLAY_H
#define TARN_STANDARD_REPLAY_H

#include "journal_file.h"

namespace tarn::standard {

class JournalVisitor {
public:
    // The records in order. False, for want of memory, ends the replay; nothing on the disk has changed then.
    virtual bool record(uint8_t type, std::span<const uint8_t> bytes) noexcept = 0;

protected:
    ~JournalVisitor() = default;
};

enum class OpenStatus : uint8_t {
    Ok,
    InUse,        // another process, or another journal of this one, has the directory
    NotOurs,      // a file has the name of ours and is something else
    OtherVersion, // a file is of another version
    Damaged,      // a file that was whole once is not
    Missing,      // a file that belongs to the others is not there
    Refused,      // by the visitor
    NoMemory,
    Failed, // a call of the system: `error` says why
};

struct Opened {
    OpenStatus status        = OpenStatus::Ok;
    int        error         = 0;  // errno
    FileName   file          = {}; // the one that the status is about, or whose end was cut
    uint64_t   records       = 0;  // that were visited
    uint64_t   dropped_bytes = 0;  // of an unfinished or damaged end of the last journal, where reading ended
};

// What is there, once it was read.
struct Found {
    uint64_t state         = 0; // number of the newest checkpoint; 0: the directory is new
    uint64_t last_journal  = 0;
    uint64_t state_size    = 0; // bytes
    uint64_t journals_size = 0; // of all since, without a dropped end
    uint64_t last_size     = 0; // of the last journal, likewise
};

class Replay {
public:
    Replay(Disk &disk, int directory, JournalVisitor &visitor) noexcept
        : disk_(disk), directory_(directory), visitor_(visitor)
    {
    }

    // Reads all of it.
    bool run() noexcept;
    // Makes the directory one to go on in: cuts a dropped end, makes the first pair of files, removes what is left of
    // unfinished or earlier checkpoints.
    bool repair() noexcept;

    const Opened &result() const noexcept { return result_; }
    const Found  &found() const noexcept { return found_; }

private:
    bool       fail(OpenStatus status, const FileName &file) noexcept;
    bool       fail_to_read(ReadStatus status, const FileName &file) noexcept;
    bool       list_files() noexcept;
    bool       see_that_it_is_new() noexcept;
    bool       read_state() noexcept;
    bool       read_journal(uint64_t number) noexcept;
    ReadStatus visit_records(RecordReader &reader, Record &last) noexcept;
    bool       cut_last_journal() noexcept;
    bool       make_file(FileKind kind) noexcept;
    bool       make_first_pair() noexcept;
    void       remove_leftovers() const noexcept;

    Disk           &disk_;
    int             directory_;
    JournalVisitor &visitor_;
    Opened          result_;
    Found           found_;
};

} // namespace tarn::standard

#endif
