// client_files.h - the files of clients, in memory until the disk has them.
//
// Who changes a file puts its text here; the saver thread writes it, or the thread that waits for it. What is here and
// not saved yet is what a load of the file finds; of what is saved the disk may have something newer, from a hand or
// another program. Message files may stay here when they are saved (message_files.h).
// All of it is under g_save_mutex. files_mutex() of the client is held by those who put a whole text or remove it.
#ifndef TARN_PERSIST_CLIENT_FILES_H
#define TARN_PERSIST_CLIENT_FILES_H

#include "persist_internal.h"
#include "saver.h"

namespace tarn::persist {

enum class Kind : uint8_t { Session, Subscriptions, Messages };
constexpr Kind kKinds[] = {Kind::Session, Kind::Subscriptions, Kind::Messages};

void  client_path(Path &path, Kind kind, const char *client_id) noexcept;
Stamp stamp_of(const Path &path) noexcept;

// ---- reading

// False when a client certainly has none, neither here nor on the disk.
bool may_have_files(const char *client_id) noexcept EXCLUDES(g_save_mutex);

enum class Unsaved : uint8_t { No, Removed, Text };
// What a load finds in place of the file, if that is not what the disk has: up to `limit` bytes of it and zeroes, in
// `room` bytes, or null without memory.
Unsaved read_unsaved(Kind kind, const char *client_id, owned<char> &text, size_t limit, size_t room) noexcept
    EXCLUDES(g_save_mutex);

// ---- changing: saved behind the thread if it has a SaveBehind, or else when the call returns, but where it says more

// The whole text of a file. False: the caller lets go of files_mutex() and calls save_file().
[[nodiscard]] bool put_text(Kind kind, const char *client_id, Text &text) noexcept EXCLUDES(g_save_mutex);
// Deletes it; `path` is room for its name. Who waited for its changes is to be told. Where another thread writes it this
// very moment, it is deleted again after that, which save_file() waits for.
void remove_file(Kind kind, const char *client_id, Path &path, SaveWaiters &waiters) noexcept EXCLUDES(g_save_mutex);
// Returns when the disk has what is here.
void save_file(Kind kind, const char *client_id) noexcept EXCLUDES(g_save_mutex);
void forget_files() noexcept EXCLUDES(g_save_mutex); // but for what is not saved

// ---- the saver thread's part

// Writes the retained store, if that was asked for, and some of the files in the queue, those of a small packet first;
// false when there is nothing to write. A packet retains its message before it is kept for others, and so it comes to
// the disk: no file is ahead of the store. The lock is dropped meanwhile.
bool save_a_batch() noexcept REQUIRES(g_save_mutex);

} // namespace tarn::persist

#endif
