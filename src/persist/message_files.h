// message_files.h - the message files of clients that are away. They stay in memory when they are saved, so that a
// message is only appended, without a look at the client's files.
#ifndef TARN_PERSIST_MESSAGE_FILES_H
#define TARN_PERSIST_MESSAGE_FILES_H

#include "client_files.h"

namespace tarn::persist {

// How far a load would get in a text of ours: only what it finds is kept when a message is added.
struct Reread {
    size_t end      = 0;     // of the last message found; 0 = nobody knows
    int    count    = 0;     // messages up to there
    bool   is_empty = false; // the last comes back without its payload, which begins at `end`

    bool is_known() const { return end != 0; }
};

// What lies beside a client's message file, and the stamps of all three.
struct Surroundings {
    bool    known = false;
    Found   found;
    int32_t subscriptions = 0;
    Stamp   stamps[3];
};

void take_stamps(const char *client_id, Stamp (&stamps)[3]) noexcept;

// The session of a client that is away, as it was just read with files_mutex() held: the first message for it need not
// read it again.
void remember(const persist_session_t &record, const Surroundings &around) noexcept EXCLUDES(g_save_mutex);

// What is known of the client's files, if they are still as they were; not known otherwise.
Surroundings surroundings_of(const char *client_id) noexcept EXCLUDES(g_save_mutex);

// Another file of the client's has changed.
void forget_surroundings(const char *client_id) noexcept EXCLUDES(g_save_mutex);

// ---- changing: as in client_files.h

// The whole file. False: the caller lets go of files_mutex() and calls save_file().
[[nodiscard]] bool put_messages(const persist_session_t &record, const Surroundings *known) noexcept // may be null
    EXCLUDES(g_save_mutex);
// Appends to the messages that a load would find. False, and nothing is changed, when the file is not here, too much is
// in it, or nobody can save behind the thread.
[[nodiscard]] bool append_message(const char *client_id, const persist_msg_t &message) noexcept EXCLUDES(g_save_mutex);

} // namespace tarn::persist

#endif
