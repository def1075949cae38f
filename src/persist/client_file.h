// client_file.h - one file of a client as memory knows it, the table of these, and the queues of those that wait for the
// saver thread. All of it is under g_save_mutex.
#ifndef TARN_PERSIST_CLIENT_FILE_H
#define TARN_PERSIST_CLIENT_FILE_H

#include "client_files.h"
#include "message_files.h"

namespace tarn::persist {

struct ClientFile {
    char            client_id[PERSIST_ID_CHARS + 1];
    Kind            kind;
    ClientFile     *next_in_bucket;
    GrowArray<char> text;
    Reread          reread; // of messages, like the next
    Surroundings    around;
    SaveWaiters     waiters; // for the changes that nobody has begun to write
    uint32_t        changes; // such changes
    uint64_t        changed; // number of the first of them, of all changes of all files
    uint64_t        written; // of the first that is being written
    bool            removed; // there is to be no file
    bool            writing; // a thread writes what the file was before those changes
    int8_t          queue;   // that the file is in, or kNone; with changes it is in one
    ClientFile     *next_queued;
    ClientFile     *previous_queued;
};

enum : int8_t { kNone = -1, kUrgent, kBulk, kQueues };

// ---- the table

ClientFile *find(Kind kind, const char *client_id) noexcept REQUIRES(g_save_mutex);
ClientFile *find_or_make(Kind kind, const char *client_id) noexcept REQUIRES(g_save_mutex); // null without memory
int         count_files() noexcept REQUIRES(g_save_mutex);
// Then memory knows nothing of it any more.
void drop_if_saved(Kind kind, const char *client_id) noexcept REQUIRES(g_save_mutex);
void drop_all_saved() noexcept REQUIRES(g_save_mutex);

// ---- its changes

inline bool is_saved(const ClientFile &file)
{
    return file.changes == 0 && !file.writing;
}
// Changes are numbered, so that nobody waits for those that are made meanwhile.
uint64_t    changes_so_far() noexcept REQUIRES(g_save_mutex);
void        count_change(ClientFile &file) noexcept REQUIRES(g_save_mutex);
inline bool is_saved_up_to(uint64_t change, const ClientFile &file)
{
    return (file.changes == 0 || file.changed > change) && (!file.writing || file.written > change);
}
bool are_all_saved_up_to(uint64_t change) noexcept REQUIRES(g_save_mutex);

// False, and nothing is changed, without memory.
[[nodiscard]] bool set_text(ClientFile &file, const GrowArray<char> &chars) noexcept REQUIRES(g_save_mutex);

// ---- the queues

void leave_queue(ClientFile &file) noexcept REQUIRES(g_save_mutex);
// A file that many changes are made to keeps its place, unless one of them is urgent.
void        enter_queue(ClientFile &file, int8_t number) noexcept REQUIRES(g_save_mutex);
ClientFile *first_in_queue(int8_t number) noexcept REQUIRES(g_save_mutex);

// ---- saving (client_files.cpp)

// One more change of the file's; false when it is not to be saved behind the thread, or cannot be.
bool save_behind(ClientFile &file, SaveBehind *behind, SaveWaiter *waiter) noexcept REQUIRES(g_save_mutex);
// Returns when all changes made so far are on the disk, written here or by another thread.
void save_now(Kind kind, const char *client_id) noexcept REQUIRES(g_save_mutex);

inline SaveWaiter *waiter_of(SaveBehind *behind)
{
    return behind ? behind->waiter() : nullptr;
}

} // namespace tarn::persist

#endif
