// client_files.cpp - see client_files.h: reading, putting, removing and saving.
#include "client_files.h"

#include "../stats/stats.hpp"
#include "client_file.h"
#include "known_files.h"
#include "retain_file.h"

#include <algorithm>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace tarn::persist {

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

Stamp stamp_of(const Path &path) noexcept
{
    struct stat status;
    if (!path.usable || stat(path.text, &status) != 0)
        return {};
    return {status.st_dev, status.st_ino, status.st_size, status.st_mtim};
}

namespace {

bool is_to_be_saved(const char *client_id)
{
    ScopedLock lock(g_save_mutex);
    for (const Kind kind : kKinds)
        if (find(kind, client_id))
            return true;
    return false;
}

} // namespace

// In this order: what is saved meanwhile is on the disk by the time that is asked.
bool may_have_files(const char *client_id) noexcept
{
    return is_to_be_saved(client_id) || may_be_on_disk(client_id);
}

bool seems_to_have_files(const char *client_id) noexcept
{
    return is_to_be_saved(client_id) || seems_to_be_on_disk(client_id);
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

// ---- writing

namespace {

// The changes that a thread is writing, beside the NewFile that it writes.
struct Write {
    ClientFile     *file;
    GrowArray<char> text; // terminated
    SaveWaiters     waiters;
    uint32_t        changes;
};

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

} // namespace

void save_now(Kind kind, const char *client_id) noexcept
{
    const uint64_t change = changes_so_far();
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

bool save_behind(ClientFile &file, SaveBehind *behind, SaveWaiter *waiter) noexcept
{
    count_change(file);
    const bool urgent = behind && behind->next_is_urgent();
    enter_queue(file, urgent ? kUrgent : kBulk);
    if (!waiter || !saver_runs() || !file.waiters.add(*waiter))
        return false;
    wake_saver();
    return true;
}

void save_file(Kind kind, const char *client_id) noexcept
{
    ScopedLock lock(g_save_mutex);
    save_now(kind, client_id);
}

void save_everything() noexcept
{
    ScopedLock     lock(g_save_mutex);
    const uint64_t change = changes_so_far();
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
    for (int8_t queue = 0; queue < kQueues; ++queue) {
        ClientFile *next = first_in_queue(queue);
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

// ---- changing

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

void forget_files() noexcept
{
    ScopedLock lock(g_save_mutex);
    drop_all_saved();
}

} // namespace tarn::persist
