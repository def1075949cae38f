// journal.h - what the standard profile keeps over restarts and kills: a file to which every change is appended, and
// from time to time a checkpoint, which is all state at once and replaces the changes before it.
//
// Changes gather in memory. A thread writes what gathered, syncs it once and tells all who waited for any of it; the
// slower the disk, the more of them share a sync. Nothing here but open() and close() waits for the disk.
//
// A checkpoint is written while state changes. It is right nevertheless, after a kill at any moment, if the engine
// keeps to this:
//
// * Under one hold of its mutex it changes state and appends the record of the change. Under one hold it copies a thing
//   into the checkpoint. It begins a checkpoint when no change is half done.
// * A record says what is so, not by how much it changed, and names the thing by a key that no other thing gets later
//   (a number that counts up): "session 7 has a/b at QoS 1", "session 7 is gone". For the records behind a checkpoint
//   are replayed over state that may hold them already, and what came after them.
// * A record about a thing that is not there is passed over: a record behind it took the thing away.
// * In a checkpoint a thing stands before those that refer to it: messages, sessions, what is to be delivered. What
//   refers to a thing that is not there is passed over, too.
// * Changes that make sense only together are one record: a message and the sessions that are to have it.
#ifndef TARN_STANDARD_JOURNAL_H
#define TARN_STANDARD_JOURNAL_H

#include "../../base/mutex.h"
#include "../../base/relaxed.h"
#include "../../base/wakeable_pause.h"
#include "../../persist/save_behind.h"
#include "journal_files.h"

namespace tarn::standard {

struct JournalLimits {
    size_t   most_unsynced    = size_t{64} << 20;  // bytes of records that are not on the disk, and of any one record
    size_t   most_of_state    = size_t{4} << 20;   // bytes of a checkpoint in memory; a larger record goes alone
    uint64_t least_checkpoint = uint64_t{4} << 20; // bytes of journals that are worth one
    uint32_t retry_ms         = 1000;              // after the disk failed
};

enum class AppendStatus : uint8_t {
    Ok,
    Busy,     // too much waits for the disk: another time
    TooLarge, // at any time
    NoMemory,
    Closed, // the journal; or the checkpoint, given up because the disk failed
};

struct Appended {
    AppendStatus status;
    uint64_t     position; // of Ok: where the record ends, in bytes appended to this object
};

class Journal {
public:
    explicit Journal(Disk &disk = system_disk(), const JournalLimits &limits = {}) noexcept
        : limits_(limits), disk_(disk), files_(disk)
    {
    }
    ~Journal() { close(); }
    Journal(const Journal &)            = delete;
    Journal &operator=(const Journal &) = delete;

    // Makes the directory if there is none, hands all that it keeps to the visitor, and starts the thread. After a
    // failure, of which a line tells, it is closed. What cannot be read or is not taken leaves the files as they are.
    Opened open(const char *directory, JournalVisitor &visitor) noexcept;

    // Writes what there is, a finished checkpoint too, and tells all who wait, even where the disk fails: then a line
    // says how much is lost. So no client is left who would be answered. The engine's mutex is not held: those who are
    // told may take it. Returns the bytes lost.
    uint64_t close() noexcept;

    // Copies a record, of type 1 to 255, behind the others.
    [[nodiscard]] Appended append(uint8_t type, RecordParts parts) noexcept;

    // Whether a record with `size` bytes of parts would be taken now, if there is memory.
    [[nodiscard]] bool can_take(size_t size) noexcept;

    // The waiter is told once when all records up to `position` are on the disk: by the journal's thread, without a
    // lock, in the order in which they began to wait for rising positions. What is there already is not waited for.
    // False without memory, which does not come while each record has one waiter at most.
    [[nodiscard]] bool wait(uint64_t position, persist::SaveWaiter &waiter) noexcept;

    // The journals are larger than `least_checkpoint` and twice the newest checkpoint, and none is under way.
    bool wants_checkpoint() noexcept;
    // What changes from here on stands in the journal behind the checkpoint. False: one is under way, or it is closed.
    bool begin_checkpoint() noexcept;
    // A piece of state. Closed: that checkpoint is over; wants_checkpoint() asks for another when it is time.
    [[nodiscard]] AppendStatus append_to_checkpoint(uint8_t type, RecordParts parts) noexcept;
    // That was all state. The thread puts the checkpoint in the place of what it replaces.
    void finish_checkpoint() noexcept;

    bool   is_failing() const noexcept { return failing_; } // the journal could not be written at the last attempt
    size_t unsynced() noexcept;                             // bytes that are not on the disk

private:
    using Bytes   = GrowArray<uint8_t>;
    using Waiters = GrowArray<persist::SaveWaiter *>;

    // What the engine does with a checkpoint, and the thread has not yet followed.
    struct Checkpoint {
        bool     runs        = false;
        bool     is_to_begin = false;
        bool     is_full     = false; // a record did not fit
        bool     is_complete = false;
        uint64_t replaces    = 0; // bytes of journals
        Bytes    bytes;
    };
    // What the thread took to do, beside batch_ and piece_.
    struct Work {
        bool begins_checkpoint;
        bool completes_checkpoint;
    };

    Opened open_files(const char *directory, JournalVisitor &visitor) noexcept;
    void   go_on_after(const Found &found) noexcept;
    bool   is_too_large(size_t size) const noexcept;
    void   wake_thread() noexcept REQUIRES(mutex_);

    // journal_thread.cpp
    int          start() noexcept;
    static void *run(void *journal) noexcept;
    bool         is_piece_due() noexcept REQUIRES(mutex_);
    bool         has_work() noexcept REQUIRES(mutex_);
    bool         take_work(Work &work) noexcept;
    void         do_work(const Work &work) noexcept;
    void         save_batch() noexcept;
    void         pause_after_failure() noexcept;
    void         drop_batch() noexcept;
    void         log_failure(int error) noexcept;
    void         log_recovery() noexcept;
    void         notify_waiters() noexcept;
    void         write_piece(const Work &work) noexcept;
    void         give_up_checkpoint(int error) noexcept;
    void         drop_checkpoint() noexcept;
    void         end_checkpoint() noexcept REQUIRES(mutex_);

    const JournalLimits limits_;

    // A leaf: no disk is waited for and nobody is told while it is held.
    Mutex          mutex_{};
    pthread_cond_t work_ = PTHREAD_COND_INITIALIZER; // with mutex_

    bool open_                  GUARDED_BY(mutex_) = false;
    bool asleep_                GUARDED_BY(mutex_) = false; // the thread
    Bytes gathered_             GUARDED_BY(mutex_);         // records without checksums
    Waiters gathered_waiters_   GUARDED_BY(mutex_);
    size_t gathered_records_    GUARDED_BY(mutex_) = 0;
    Waiters batch_waiters_      GUARDED_BY(mutex_);
    uint64_t appended_          GUARDED_BY(mutex_) = 0; // positions: of all records, behind the batch, on the disk
    uint64_t taken_             GUARDED_BY(mutex_) = 0;
    uint64_t synced_            GUARDED_BY(mutex_) = 0;
    Checkpoint checkpoint_      GUARDED_BY(mutex_);
    uint64_t journals_size_     GUARDED_BY(mutex_) = 0; // bytes since the newest checkpoint, those to be written too
    uint64_t checkpoint_beyond_ GUARDED_BY(mutex_) = 0; // likewise: when one is wanted

    // Of the thread, or of open() and close() while there is none.
    Disk        &disk_;
    JournalFiles files_;
    Bytes        batch_; // the records that are being written
    Bytes        piece_; // likewise of a checkpoint
    Waiters      told_;
    uint64_t     lost_ = 0; // bytes that close() could not write

    pthread_t     thread_{};
    Shared<bool>  running_ = false; // cleared to end the thread
    Shared<bool>  failing_ = false;
    WakeablePause retry_;
};

} // namespace tarn::standard

#endif
