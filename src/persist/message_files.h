// message_files.h - the message files of clients that are away, in memory until the disk has them.
//
// A message that is kept only changes the text here, and the saver thread writes it. What is here and not saved yet is
// what a load of the file finds; of what is saved the disk may have something newer, from a hand or another program.
// All of it is under g_save_mutex. files_mutex() of the client is held by those who put a whole text or remove it.
#ifndef TARN_PERSIST_MESSAGE_FILES_H
#define TARN_PERSIST_MESSAGE_FILES_H

#include "persist_internal.h"
#include "saver.h"

namespace tarn::persist {

// How far a load would get in a text of ours: only what it finds is kept when a message is added.
struct Reread {
    size_t end   = 0; // of the last message found; 0 = nobody knows
    int    count = 0; // messages up to there

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

// ---- reading

enum class Unsaved : uint8_t { No, Removed, Text };
// What a load finds in place of the file, if that is not what the disk has: up to `limit` bytes of it and zeroes, in
// `room` bytes, or null without memory.
Unsaved read_unsaved(const char *client_id, owned<char> &text, size_t limit, size_t room) noexcept
    EXCLUDES(g_save_mutex);

// What is known of the client's files, if they are still as they were; not known otherwise.
Surroundings surroundings_of(const char *client_id) noexcept EXCLUDES(g_save_mutex);

// ---- changing: saved behind the thread if it has a SaveBehind, or else when the call returns

// The whole file. `known` may be null.
void put_messages(const persist_session_t &record, const Surroundings *known) noexcept EXCLUDES(g_save_mutex);
// Appends to the messages that a load would find. False, and nothing is changed, when the file is not here, too much is
// in it, or nobody can save behind the thread.
[[nodiscard]] bool append_message(const char *client_id, const persist_msg_t &message) noexcept EXCLUDES(g_save_mutex);
// Deletes it. Where the saver writes it this very moment, it is deleted again after that.
void remove_messages(const char *client_id) noexcept EXCLUDES(g_save_mutex);
// Another file of the client's has changed.
void forget_surroundings(const char *client_id) noexcept EXCLUDES(g_save_mutex);

// Returns when the disk has what is here.
void save_messages_of(const char *client_id) noexcept EXCLUDES(g_save_mutex);
void save_everything() noexcept EXCLUDES(g_save_mutex); // the retained store too, if that was asked for
void forget_messages() noexcept EXCLUDES(g_save_mutex); // but for what is not saved

// ---- the saver thread's part

// Writes the retained store, if that was asked for, and some of the files in the queue, those of a small packet first;
// false when there is nothing to write. A packet retains its message before it is kept for others, and so it comes to
// the disk: no file is ahead of the store. The lock is dropped meanwhile.
bool save_a_batch() noexcept REQUIRES(g_save_mutex);

} // namespace tarn::persist

#endif
