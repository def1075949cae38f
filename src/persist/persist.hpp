// persist.hpp - what outlives the process, for the other modules of the library. Hosts have the same as persist.h:
// persist_c.cpp turns away null pointers, calls this, and makes plain numbers of the results.
//
// A thread with a SaveBehind (save_behind.h) waits for no write. It reads a client's files where memory does not know
// them, which is at its first message if nobody expected it. A session that is read to be changed is a LockedSession
// (session_store.h): while there is one, nobody else changes its client's files. No pointer may be null where nothing
// else is said.
#ifndef TARN_PERSIST_PERSIST_HPP
#define TARN_PERSIST_PERSIST_HPP

#include "absent_session.h"
#include "save_behind.h"

namespace tarn::persist {

// Makes the directories and loads subscriptions and retained messages. Null or empty: the root stays as it is.
void init(const char *root_path) noexcept;
void destroy() noexcept;
void flush() noexcept;           // its line: what its packet changed is saved, or will be without it
void save_everything() noexcept; // returns when all changes made so far are on the disk

// Writes those of the client's files that `what` names; nothing without an id or for a clean session. The caller holds
// the record's lock, if others may write to it.
void save(persist_session_t &record, uint8_t what) noexcept;
// The client is away from here on: what its files say is read now, so that the first message for it finds it.
void expect_messages_for(const char *client_id) noexcept;
// Whether messages for the client were kept since it was last away, as far as memory tells.
bool keeps_messages_for(const char *client_id) noexcept;
// Whether the client has files, as far as memory tells: what was changed by hand a moment ago may not be noticed yet.
[[nodiscard]] bool seems_to_have_files(const char *client_id) noexcept;
// Deletes all files of the client's; false when memory for the paths ran out.
bool remove_session(const char *client_id) noexcept;

// The whole retained store. False when it cannot be written, and when there is no file to read.
bool save_retained() noexcept;
bool load_retained() noexcept;

} // namespace tarn::persist

#endif
