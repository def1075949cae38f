// message_files.cpp - see message_files.h.
#include "message_files.h"

#include "../base/text.h"
#include "../stats/stats.hpp"
#include "message_text.h"
#include "retain_file.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace tarn::persist {
namespace {

struct MessageFile {
    char            client_id[PERSIST_ID_CHARS + 1];
    MessageFile    *next_in_bucket;
    GrowArray<char> text;
    Reread          reread;
    Surroundings    around;
    SaveWaiters     waiters; // for the changes that nobody has begun to write
    uint32_t        changes; // such changes
    bool            removed; // there is to be no file
    bool            writing; // a thread writes what the file was before those changes
    int8_t          queue;   // that the file is in, or kNone; with changes it is in one
    MessageFile    *next_queued;
    MessageFile    *previous_queued;
};

struct Queue {
    MessageFile *first;
    MessageFile *last;
};
enum : int8_t { kNone = -1, kUrgent, kBulk, kQueues };

constexpr size_t kBuckets = 1024;

constinit MessageFile *g_buckets[kBuckets] GUARDED_BY(g_save_mutex){};
constinit int g_count  GUARDED_BY(g_save_mutex) = 0;
constinit Queue        g_queues[kQueues] GUARDED_BY(g_save_mutex){};

// ---- the table

MessageFile *&bucket_of(const char *client_id) REQUIRES(g_save_mutex)
{
    return g_buckets[std::hash<std::string_view>{}(client_id) % kBuckets];
}

MessageFile *find(const char *client_id) REQUIRES(g_save_mutex)
{
    MessageFile *file = bucket_of(client_id);
    while (file && strcmp(file->client_id, client_id) != 0)
        file = file->next_in_bucket;
    return file;
}

MessageFile *find_or_make(const char *client_id) REQUIRES(g_save_mutex)
{
    if (MessageFile *const file = find(client_id))
        return file;
    auto *const file = new (std::nothrow) MessageFile{};
    if (!file)
        return nullptr;
    copy_text(file->client_id, client_id, sizeof file->client_id - 1);
    file->queue          = kNone;
    MessageFile *&bucket = bucket_of(client_id);
    file->next_in_bucket = bucket;
    bucket               = file;
    ++g_count;
    return file;
}

bool is_saved(const MessageFile &file)
{
    return file.changes == 0 && !file.writing;
}

// Of a saved file: memory knows nothing of it any more.
void drop(MessageFile *&link) REQUIRES(g_save_mutex)
{
    MessageFile *const file = link;
    link                    = file->next_in_bucket;
    delete file;
    --g_count;
}

void drop_if_saved(const char *client_id) REQUIRES(g_save_mutex)
{
    MessageFile **link = &bucket_of(client_id);
    while (*link && strcmp((*link)->client_id, client_id) != 0)
        link = &(*link)->next_in_bucket;
    if (*link && is_saved(**link))
        drop(*link);
}

// ---- the queues

void leave_queue(MessageFile &file) REQUIRES(g_save_mutex)
{
    if (file.queue == kNone)
        return;
    Queue &queue                                                             = g_queues[file.queue];
    (file.previous_queued ? file.previous_queued->next_queued : queue.first) = file.next_queued;
    (file.next_queued ? file.next_queued->previous_queued : queue.last)      = file.previous_queued;
    file.queue                                                               = kNone;
}

// A file that many changes are made to keeps its place, unless one of them is urgent.
void enter_queue(MessageFile &file, int8_t number) REQUIRES(g_save_mutex)
{
    if (file.queue != kNone && file.queue <= number)
        return;
    leave_queue(file);
    Queue &queue                                         = g_queues[number];
    file.queue                                           = number;
    file.next_queued                                     = nullptr;
    file.previous_queued                                 = queue.last;
    (queue.last ? queue.last->next_queued : queue.first) = &file;
    queue.last                                           = &file;
}

// ---- writing

// The changes that a thread is writing, beside the NewFile that it writes.
struct Write {
    MessageFile    *file;
    GrowArray<char> text; // terminated
    SaveWaiters     waiters;
    uint32_t        changes;
};

Stamp stamp_of(const Path &path)
{
    struct stat status;
    if (!path.usable || stat(path.text, &status) != 0)
        return {};
    return {status.st_dev, status.st_ino, status.st_size, status.st_mtim};
}

// What the file is now is to be written by the calling thread.
void begin_write(MessageFile &file, Write &write, NewFile &target) REQUIRES(g_save_mutex)
{
    leave_queue(file);
    file.writing  = true;
    write.file    = &file;
    write.changes = std::exchange(file.changes, 0u);
    write.waiters.take(file.waiters);
    client_path(target.path, kMessageDirectory, file.client_id);
    if (file.removed)
        return;
    const bool copied  = write.text.append(file.text.data(), file.text.size()) && write.text.push('\0');
    target.text        = copied ? write.text.data() : "";
    target.path.usable = target.path.usable && copied;
}

// A text that could not be written is forgotten: what the disk has counts.
void end_write(const Write &write, const NewFile &target, const Stamp &stamp) REQUIRES(g_save_mutex)
{
    MessageFile &file          = *write.file;
    file.writing               = false;
    file.around.stamps[2]      = stamp;
    file.around.found.messages = target.text ? Found::Messages::Taken : Found::Messages::NoFile;
    if (file.changes > 0)
        wake_saver();
    else if (!target.text || !target.replaced)
        drop_if_saved(file.client_id);
}

void count_and_tell(Write &write, const NewFile &target) EXCLUDES(g_save_mutex)
{
    for (uint32_t i = 0; i < write.changes && target.text && target.replaced; ++i)
        stats::count(stats::Counter::persist_write);
    write.waiters.tell();
}

// The lock is dropped while the disk is busy.
void save(std::span<Write> writes, std::span<NewFile> targets) REQUIRES(g_save_mutex)
{
    g_save_mutex.unlock();
    replace_files(targets);
    for (size_t i = 0; i < writes.size(); ++i) {
        const Stamp stamp = stamp_of(targets[i].path);
        ScopedLock  lock(g_save_mutex);
        end_write(writes[i], targets[i], stamp);
    }
    for (size_t i = 0; i < writes.size(); ++i)
        count_and_tell(writes[i], targets[i]);
    g_save_mutex.lock();
    saving_changed();
}

// Returns when all changes made so far are on the disk, written here or by another thread.
void save_now(const char *client_id) REQUIRES(g_save_mutex)
{
    MessageFile *file;
    while ((file = find(client_id)) && file->writing)
        await_saver();
    if (!file || file->changes == 0)
        return;
    Write   write{};
    NewFile target{};
    begin_write(*file, write, target);
    save({&write, 1}, {&target, 1});
}

bool is_any_written() REQUIRES(g_save_mutex)
{
    for (const MessageFile *file : g_buckets)
        for (; file; file = file->next_in_bucket)
            if (file->writing)
                return true;
    return false;
}

// One more change of the file's; false when it is not to be saved behind the thread, or cannot be.
bool save_behind(MessageFile &file, SaveBehind *behind, SaveWaiter *waiter) REQUIRES(g_save_mutex)
{
    file.changes++;
    const bool urgent = behind && behind->next_is_urgent();
    enter_queue(file, urgent ? kUrgent : kBulk);
    if (!waiter || !saver_runs() || !file.waiters.add(*waiter))
        return false;
    wake_saver();
    return true;
}

SaveWaiter *waiter_of(SaveBehind *behind)
{
    return behind ? behind->waiter() : nullptr;
}

// False, and nothing is changed, without memory.
bool fill(MessageFile &file, const MessageText &text, const Surroundings *around) REQUIRES(g_save_mutex)
{
    if (!file.text.reserve(text.chars().size()))
        return false;
    file.text.clear();
    (void)file.text.append(text.chars().data(), text.chars().size());
    file.removed               = false;
    file.reread                = text.reread();
    file.around                = around ? *around : Surroundings{};
    file.around.found.messages = Found::Messages::Taken;
    return true;
}

} // namespace

void remember(const persist_session_t &record, const Surroundings &around) noexcept
{
    const Found &found = around.found;
    if (found.files() == 0 || found.messages_unread || // without files there is nothing to read
        (found.messages != Found::Messages::NoFile && found.messages != Found::Messages::Taken))
        return;
    MessageText text;
    text.set(record);
    ScopedLock lock(g_save_mutex);
    if (!text.ok() || find(record.client_id) || g_count >= SUB_CAPACITY) // so many can expect messages
        return;
    if (MessageFile *const file = find_or_make(record.client_id); file && fill(*file, text, &around))
        file->around.found.messages = found.messages;
}

bool Stamp::operator==(const Stamp &other) const noexcept
{
    return device == other.device && inode == other.inode && size == other.size &&
           changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
}

void take_stamps(const char *client_id, Stamp (&stamps)[3]) noexcept
{
    Path path;
    int  at = 0;
    for (const char *directory : {kSessionDirectory, kSubscriptionDirectory, kMessageDirectory}) {
        client_path(path, directory, client_id);
        stamps[at++] = stamp_of(path);
    }
}

Unsaved read_unsaved(const char *client_id, owned<char> &text, size_t limit, size_t room) noexcept
{
    ScopedLock         lock(g_save_mutex);
    const MessageFile *file = find(client_id);
    if (!file || is_saved(*file))
        return Unsaved::No;
    if (file->removed)
        return Unsaved::Removed;
    text = allocate_zeroed<char>(room);
    if (text)
        memcpy(text.get(), file->text.data(), std::min(limit, file->text.size()));
    return Unsaved::Text;
}

Surroundings surroundings_of(const char *client_id) noexcept
{
    Surroundings around;
    {
        ScopedLock         lock(g_save_mutex);
        const MessageFile *file = find(client_id);
        if (!file || !file->reread.is_known() || !file->around.known)
            return {};
        around = file->around;
        if (!is_saved(*file))
            return around;
    }
    Stamp on_disk[3];
    take_stamps(client_id, on_disk);
    around.known = std::equal(on_disk, on_disk + 3, around.stamps);
    return around;
}

void put_messages(const persist_session_t &record, const Surroundings *known) noexcept
{
    MessageText text;
    text.set(record);
    Path path;
    client_path(path, kMessageDirectory, record.client_id);
    if (!text.ok())
        return;
    SaveBehind *const behind = SaveBehind::of_this_thread();
    SaveWaiter *const waiter = path.usable ? waiter_of(behind) : nullptr;
    {
        ScopedLock         lock(g_save_mutex);
        MessageFile *const file = waiter ? find_or_make(record.client_id) : find(record.client_id);
        if (file) {
            if (fill(*file, text, known) && !save_behind(*file, behind, waiter))
                save_now(record.client_id);
            return;
        }
    }
    safe_write(path, text.c_str());
}

bool append_message(const char *client_id, const persist_msg_t &message) noexcept
{
    SaveBehind *const  behind = SaveBehind::of_this_thread();
    SaveWaiter *const  waiter = waiter_of(behind);
    const LastMessage  last(message);
    ScopedLock         lock(g_save_mutex);
    MessageFile *const file = find(client_id);
    if (!waiter || !file || file->removed || !last.append_to(file->text, file->reread))
        return false;
    if (!save_behind(*file, behind, waiter))
        save_now(client_id);
    return true;
}

void remove_messages(const char *client_id) noexcept
{
    SaveWaiters waiters;
    {
        ScopedLock         lock(g_save_mutex);
        MessageFile *const file = find(client_id);
        if (file) {
            waiters.take(file->waiters);
            leave_queue(*file);
            file->text.clear();
            file->reread  = {};
            file->around  = {};
            file->removed = true;
            file->changes = file->writing;
            if (file->writing)
                enter_queue(*file, kUrgent);
            drop_if_saved(client_id);
        }
    }
    waiters.tell();
    Path path;
    client_path(path, kMessageDirectory, client_id);
    if (path.usable)
        unlink(path.text);
}

void forget_surroundings(const char *client_id) noexcept
{
    ScopedLock lock(g_save_mutex);
    if (MessageFile *const file = find(client_id))
        file->around = {};
    drop_if_saved(client_id);
}

void save_messages_of(const char *client_id) noexcept
{
    ScopedLock lock(g_save_mutex);
    save_now(client_id);
}

void save_everything() noexcept
{
    ScopedLock lock(g_save_mutex);
    for (;;) {
        if (save_a_batch())
            continue;
        if (!is_any_written() && !is_store_written())
            return;
        await_saver();
    }
}

bool save_a_batch() noexcept
{
    constexpr size_t kOfEach = 32;
    Write            writes[kQueues * kOfEach]{};
    NewFile          targets[kQueues * kOfEach]{};
    size_t           count = 0;
    for (Queue &queue : g_queues) {
        MessageFile *next = queue.first;
        for (size_t taken = 0; next && taken < kOfEach;) {
            MessageFile &file = *std::exchange(next, next->next_queued);
            if (file.writing)
                continue; // another thread's; it is looked at again when that one is done
            begin_write(file, writes[count], targets[count]);
            ++count;
            ++taken;
        }
    }
    const bool store = save_store_if_asked(); // behind the choice of the files
    if (count > 0)
        save({writes, count}, {targets, count});
    return store || count > 0;
}

void forget_messages() noexcept
{
    ScopedLock lock(g_save_mutex);
    for (MessageFile *&first : g_buckets)
        for (MessageFile **link = &first; *link;)
            if (is_saved(**link))
                drop(*link);
            else
                link = &(*link)->next_in_bucket;
}

} // namespace tarn::persist
