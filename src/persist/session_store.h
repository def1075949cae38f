// session_store.h - saved sessions for the packet handler: loading with the answer to "was there one?", a session held
// while it is read and changed, and a record to load into that does not need 150 KB of stack.
#ifndef TARN_PERSIST_SESSION_STORE_H
#define TARN_PERSIST_SESSION_STORE_H

#include "persist.h"
#include "../base/mutex.h"

#include <ctime>
#include <sys/types.h>

namespace tarn::persist {

// Tells one state of a file from another.
struct Stamp {
    dev_t    device = 0;
    ino_t    inode  = 0;
    off_t    size   = -1; // of no file
    timespec changed{};

    bool operator==(const Stamp &other) const noexcept;
};

// What lay where a client's three files would be.
struct Found {
    enum class Messages : uint8_t { NoFile, NoMemory, NoList, Taken };

    bool     certainly_none    = false; // no file, readable or not
    bool     session_file      = false;
    bool     subscription_file = false;
    bool     subscription_list = false; // in that file
    Messages messages          = Messages::NoFile;
    bool     messages_unread   = false; // messages may be there: reading failed, and not because there is no file

    // A saved session exists when this is not 0.
    int files() const { return session_file + subscription_file + (messages != Messages::NoFile); }
};

enum class Loaded : uint8_t { Yes, NoId, NoMemory }; // Yes also when there is nothing

// Fills the record from its client's three files, and tells what was there.
Loaded load_session(persist_session_t &record, Found &found) noexcept;

// The calling thread's own scratch record with this id (127 characters) and everything else empty; null when memory
// ran out. Valid until the thread's next call.
persist_session_t *scratch_session(const char *client_id) noexcept;

// A client's saved session, read once into the thread's scratch record and held: until it is let go, no other thread
// writes this client's files. One at a time on each thread.
class LockedSession {
public:
    enum Load { CountAndLog, Quietly };
    explicit LockedSession(const char *client_id, Load load = CountAndLog) noexcept NO_LOCK_ANALYSIS;
    ~LockedSession() noexcept NO_LOCK_ANALYSIS;
    LockedSession(const LockedSession &)            = delete;
    LockedSession &operator=(const LockedSession &) = delete;

    bool is_loaded() const noexcept { return loaded_ == Loaded::Yes; }
    bool has_files() const noexcept { return found_.files() > 0; }

    // False when memory ran out on the way: what is in the files is not known then, and must not be overwritten.
    bool is_known() const noexcept
    {
        return record_ && loaded_ != Loaded::NoMemory && found_.messages != Found::Messages::NoMemory;
    }

    persist_session_t &record() noexcept { return *record_; } // of a known or loaded session

    // Counts the load and logs its lines once more, for callers that ask first and store then.
    void count_and_log_again() const noexcept;

    // Appends a message, in place of the oldest when there are too many, and writes the messages. Longer payloads
    // are cut. False, and nothing is written, when the session is not known. Where messages lie unread, their file
    // stays and the log says that it cannot be written.
    bool add_message(const char *topic, const uint8_t *payload, uint32_t payload_len, uint8_t qos) noexcept;
    // Removes the messages with this identifier, of which there may be none, and writes the file. False, and nothing is
    // written, when the session is not loaded or not known.
    bool remove_message(uint16_t msgid) noexcept;
    // Saved when the session is let go, if it is not saved behind the thread.
    void write_messages() noexcept;

private:
    Mutex             &files_;
    bool               saves_ = false; // when it is let go
    persist_session_t *record_;
    Stamp              stamps_[3]; // of the three files as they were read
    Found              found_;
    Loaded             loaded_ = Loaded::NoId;
};

} // namespace tarn::persist

#endif
