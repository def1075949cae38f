// known_files.h - which clients have files, so that nobody looks for files that are not there.
//
// Most clients that come and go have none, and yet each connection would open three and unlink six. So the three folders
// are listed at the start, and from then on the kernel tells of every name that comes or goes in them, by this program,
// a hand or another one (inotify). What it has told is read before each answer; a change is told before the call that
// makes it returns. Where the kernel cannot tell of all changes, as when a folder is a symbolic link, or one was missed,
// or the folders are not those of the start any more, every client may have files until the next start.
#ifndef TARN_PERSIST_KNOWN_FILES_H
#define TARN_PERSIST_KNOWN_FILES_H

namespace tarn::persist {

// From now on, for the folders below g_persist_root_path.
void know_files() noexcept;
void stop_knowing_files() noexcept;

// As far as the kernel had told when that was last looked at; true when nothing is known.
bool seems_to_be_on_disk(const char *client_id) noexcept;
// False only when the disk certainly has none of this client. Asks the file system nothing about the client.
bool may_be_on_disk(const char *client_id) noexcept;

// Reads what the kernel has told, before that is more than the kernel keeps. Behind files that were written.
void note_told_changes() noexcept;

} // namespace tarn::persist

#endif
