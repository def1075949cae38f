// client_files.cpp - see client_files.h.
#include "client_files.h"

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

struct Queue {
    ClientFile *first;
    ClientFile *last;
};
enum : int8_t { kNone = -1, kUrgent, kBulk, kQueues };

constexpr size_t kBuckets = 1024;

constinit ClientFile        *g_buckets[kBuckets] GUARDED_BY(g_save_mutex){};
constinit int g_count        GUARDED_BY(g_save_mutex) = 0;
constinit Queue              g_queues[kQueues] GUARDED_BY(g_save_mutex){};
constinit uint64_t g_changes GUARDED_BY(g_save_mutex) = 0; // so far

// ---- the table

ClientFile *&bucket_of(const char *client_id) REQUIRES(g_save_mutex)
{
    return g_buckets[std::hash<std::string_view>{}(client_id) % kBuckets];
}

// Where the file is, or the null behind the last.
ClientFile *&link_of(Kind kind, const char *client_id) REQUIRES(g_save_mutex)
{
    ClientFile **link = &bucket_of(client_id);
    while (*link && ((*link)->kind != kind || strcmp((*link)->client_id, client_id) != 0))
        link = &(*link)->next_in_bucket;
    return *link;
}

ClientFile *find(Kind kind, const char *client_id) REQUIRES(g_save_mutex)
{
    return link_of(kind, client_id);
}

ClientFile *find_or_make(Kind kind, const char *client_id) REQUIRES(g_save_mutex)
{
    if (ClientFile *const file = find(kind, client_id))
        return file;
    auto *const file = new (std::nothrow) ClientFile{};
    if (!file)
        return nullptr;
    copy_text(file->client_id, client_id, sizeof file->client_id - 1);
    file->kind           = kind;
    file->queue          = kNone;
    ClientFile *&bucket  = bucket_of(client_id);
    file->next_in_bucket = bucket;
    bucket               = file;
    ++g_count;
    return file;
}

bool is_saved(const ClientFile &file)
{
    return file.changes == 0 && !file.writing;
}

// So that nobody waits for changes that are made meanwhile.
bool is_saved_up_to(uint64_t change, const ClientFile &file)
{
    return (file.changes == 0 || file.changed > change) && (!file.writing || file.written > change);
}

void count_change(ClientFile &file) REQUIRES(g_save_mutex)
{
    const uint64_t number = ++g_changes;
    if (file.changes++ == 0)
        file.changed = number;
}

// Of a saved file: memory knows nothing of it any more.
void drop(ClientFile *&link) REQUIRES(g_save_mutex)
{
    ClientFile *const file = link;
    link                   = file->next_in_bucket;
    delete file;
    --g_count;
}

void drop_if_saved(Kind kind, const char *client_id) REQUIRES(g_save_mutex)
{
    ClientFile *&link = link_of(kind, client_id);
    if (link && is_saved(*link))
        drop(link);
}

// ---- the queues

void leave_queue(ClientFile &file) REQUIRES(g_save_mutex)
{
    if (file.queue == kNone)
        return;
    Queue &queue                                                             = g_queues[file.queue];
    (file.previous_queued ? file.previous_queued->next_queued : queue.first) = file.next_queued;
    (file.next_queued ? file.next_queued->previous_queued : queue.last)      = file.previous_queued;
    file.queue                                                               = kNone;
}

// A file that many changes are made to keeps its place, unless one of them is urgent.
void enter_queue(ClientFile &file, int8_t number) REQUIRES(g_save_mutex)
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
    ClientFile     *file;
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
void begin_write(ClientFile &file, Write &write, NewFile &target) REQUIRES(g_save_mutex)
{
    leave_queue(file);
    file.writing  = true;
    file.written  = file.changed;
    write.file    = &file;
    write.changes = std::exchange(file.changes, 0u);
    write.waiters.take(file.waiters);
    client_path(target.path, file.kind, file.client_id);
    if (file.removed)
        return;
    const bool copied  = write.text.append(file.text.data(), file.text.size()) && write.text.push('\0');
    target.text        = copied ? write.text.data() : "";
    target.path.usable = target.path.usable && copied;
}

// A text that could not be written is forgotten: what the disk has counts.
void end_write(const Write &write, const NewFile &target, const Stamp &stamp) REQUIRES(g_save_mutex)
{
    ClientFile &file = *write.file;
    file.writing     = false;
    if (ClientFile *const messages = find(Kind::Messages, file.client_id)) // the file itself, or one beside it
        messages->around.stamps[static_cast<int>(file.kind)] = stamp;
    if (file.kind == Kind::Messages)
        file.around.found.messages = target.text ? Found::Messages::Taken : Found::Messages::NoFile;
    if (file.changes > 0)
        wake_saver();
    else if (file.kind != Kind::Messages || !target.text || !target.replaced)
        drop_if_saved(file.kind, file.client_id);
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
void save_now(Kind kind, const char *client_id) REQUIRES(g_save_mutex)
{
    const uint64_t change = g_changes;
    for (;;) {
        ClientFile *const file = find(kind, client_id);
        if (!file || is_saved_up_to(change, *file))
            return;
        if (file->writing) {
            await_saver();
            continue;
        }
        Write   write{};
        NewFile target{};
        begin_write(*file, write, target);
        save({&write, 1}, {&target, 1});
    }
}

bool are_all_saved_up_to(uint64_t change) REQUIRES(g_save_mutex)
{
    for (const ClientFile *file : g_buckets)
        for (; file; file = file->next_in_bucket)
            if (!is_saved_up_to(change, *file))
                return false;
    return true;
}

// One more change of the file's; false when it is not to be saved behind the thread, or cannot be.
bool save_behind(ClientFile &file, SaveBehind *behind, SaveWaiter *waiter) REQUIRES(g_save_mutex)
{
    count_change(file);
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
bool set_text(ClientFile &file, const GrowArray<char> &chars) REQUIRES(g_save_mutex)
{
    if (!file.text.reserve(chars.size()))
        return false;
    file.text.clear();
    (void)file.text.append(chars.data(), chars.size());
    file.removed = false;
    return true;
}

bool set_messages(ClientFile &file, const MessageText &text, const Surroundings *around) REQUIRES(g_save_mutex)
{
    if (!set_text(file, text.chars()))
        return false;
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
    if (!text.ok() || find(Kind::Messages, record.client_id) || g_count >= SUB_CAPACITY) // so many can expect messages
        return;
    if (ClientFile *const file = find_or_make(Kind::Messages, record.client_id);
        file && set_messages(*file, text, &around))
        file->around.found.messages = found.messages;
}

void client_path(Path &path, Kind kind, const char *client_id) noexcept
{
    constexpr const char *kDirectories[] = {kSessionDirectory, kSubscriptionDirectory, kMessageDirectory};
    client_path(path, kDirectories[static_cast<int>(kind)], client_id);
}

bool Stamp::operator==(const Stamp &other) const noexcept
{
    return device == other.device && inode == other.inode && size == other.size &&
           changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
}

void take_stamps(const char *client_id, Stamp (&stamps)[3]) noexcept
{
    Path path;
    for (const Kind kind : kKinds) {
        client_path(path, kind, client_id);
        stamps[static_cast<int>(kind)] = stamp_of(path);
    }
}

Unsaved read_unsaved(Kind kind, const char *client_id, owned<char> &text, size_t limit, size_t room) noexcept
{
    ScopedLock        lock(g_save_mutex);
    const ClientFile *file = find(kind, client_id);
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
        ScopedLock        lock(g_save_mutex);
        const ClientFile *file = find(Kind::Messages, client_id);
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

bool put_text(Kind kind, const char *client_id, Text &text) noexcept
{
    Path path;
    client_path(path, kind, client_id);
    SaveBehind *const behind = SaveBehind::of_this_thread();
    SaveWaiter *const waiter = path.usable ? waiter_of(behind) : nullptr;
    if (path.usable) {
        ScopedLock        lock(g_save_mutex);
        ClientFile *const file = find_or_make(kind, client_id);
        if (file && set_text(*file, text.chars()))
            return save_behind(*file, behind, waiter);
        save_now(kind, client_id); // without memory the text goes straight to the disk, behind an older one
        drop_if_saved(kind, client_id);
    }
    if (const char *const whole = text.c_str())
        safe_write(path, whole);
    return true;
}

bool put_messages(const persist_session_t &record, const Surroundings *known) noexcept
{
    MessageText text;
    text.set(record);
    Path path;
    client_path(path, Kind::Messages, record.client_id);
    if (!text.ok())
        return true;
    SaveBehind *const behind = SaveBehind::of_this_thread();
    SaveWaiter *const waiter = path.usable ? waiter_of(behind) : nullptr;
    {
        ScopedLock        lock(g_save_mutex);
        ClientFile *const file =
            waiter ? find_or_make(Kind::Messages, record.client_id) : find(Kind::Messages, record.client_id);
        if (file)
            return !set_messages(*file, text, known) || save_behind(*file, behind, waiter);
    }
    if (const char *const whole = text.c_str())
        safe_write(path, whole);
    return true;
}

bool append_message(const char *client_id, const persist_msg_t &message) noexcept
{
    SaveBehind *const behind = SaveBehind::of_this_thread();
    SaveWaiter *const waiter = waiter_of(behind);
    const LastMessage last(message);
    ScopedLock        lock(g_save_mutex);
    ClientFile *const file = find(Kind::Messages, client_id);
    if (!waiter || !file || file->removed || !last.append_to(file->text, file->reread))
        return false;
    if (!save_behind(*file, behind, waiter))
        save_now(Kind::Messages, client_id);
    return true;
}

void remove_file(Kind kind, const char *client_id, Path &path, SaveWaiters &waiters) noexcept
{
    {
        ScopedLock        lock(g_save_mutex);
        ClientFile *const file = find(kind, client_id);
        if (file) {
            waiters.take(file->waiters);
            leave_queue(*file);
            file->text.clear();
            file->reread  = {};
            file->around  = {};
            file->removed = true;
            file->changes = 0;
            if (file->writing) {
                count_change(*file);
                enter_queue(*file, kUrgent);
            }
            drop_if_saved(kind, client_id);
        }
    }
    client_path(path, kind, client_id);
    if (path.usable)
        unlink(path.text);
}

void forget_surroundings(const char *client_id) noexcept
{
    ScopedLock lock(g_save_mutex);
    if (ClientFile *const file = find(Kind::Messages, client_id))
        file->around = {};
    drop_if_saved(Kind::Messages, client_id);
}

void save_file(Kind kind, const char *client_id) noexcept
{
    ScopedLock lock(g_save_mutex);
    save_now(kind, client_id);
}

void save_everything() noexcept
{
    ScopedLock     lock(g_save_mutex);
    const uint64_t change = g_changes;
    const uint64_t store  = store_changes();
    while (!are_all_saved_up_to(change) || !is_store_saved_up_to(store))
        if (!save_a_batch())
            await_saver();
}

bool save_a_batch() noexcept
{
    constexpr size_t kOfEach = 32;
    Write            writes[kQueues * kOfEach]{};
    NewFile          targets[kQueues * kOfEach]{};
    size_t           count = 0;
    for (Queue &queue : g_queues) {
        ClientFile *next = queue.first;
        for (size_t taken = 0; next && taken < kOfEach;) {
            ClientFile &file = *std::exchange(next, next->next_queued);
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

bool keeps_messages_for(const char *client_id) noexcept
{
    ScopedLock              lock(g_save_mutex);
    const ClientFile *const file = find(Kind::Messages, client_id);
    return file && !file->removed && file->reread.count > 0;
}

void forget_files() noexcept
{
    ScopedLock lock(g_save_mutex);
    for (ClientFile *&first : g_buckets)
        for (ClientFile **link = &first; *link;)
            if (is_saved(**link))
                drop(*link);
            else
                link = &(*link)->next_in_bucket;
}

} // namespace tarn::persist
