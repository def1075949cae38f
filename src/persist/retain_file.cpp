// retain_file.cpp - the whole retained store in "retain.dat": count:u32, then that many retain_msg_t as they lie in
// memory, in the host's byte order.
#include "../base/relaxed.h"
#include "../log/log.h"
#include "../stats/stats.hpp"
#include "../sub/sub.hpp"
#include "persist_internal.h"
#include "retain_file.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace tarn::persist {
namespace {

constinit Mutex g_file_mutex{}; // one writer, whose copy is newer than that of the writer before

// A copy of the store as it is now: the file is written from it while others go on storing.
struct Snapshot {
    owned<retain_msg_t> records;
    uint32_t            count = 0;
};

int32_t store_count() REQUIRES(g_sub_mgr.lock)
{
    return g_sub_mgr.retains ? std::clamp<int32_t>(g_sub_mgr.retain_count, 0, RETAIN_CAPACITY) : 0;
}

bool take_snapshot(Snapshot &snapshot)
{
    ScopedLock    store(g_sub_mgr.lock);
    const int32_t count = store_count();
    snapshot.count      = static_cast<uint32_t>(count);
    snapshot.records    = allocate<retain_msg_t>(snapshot.count);
    if (!snapshot.records)
        return false;
    if (count > 0)
        memcpy(snapshot.records.get(), g_sub_mgr.retains, sizeof(retain_msg_t) * snapshot.count);
    return true;
}

// Under a name of its own and renamed, so that a kill leaves the old file or the new one. A full disk keeps the old
// one, and nobody is told. False when the file cannot be opened or its place cannot be taken.
bool write_snapshot(const Snapshot &snapshot) REQUIRES(g_file_mutex)
{
    char path[PERSIST_PATH_SIZE + 16];
    char tmp[sizeof path + 4];
    snprintf(path, sizeof path, "%s/retain.dat", g_persist_root_path);
    snprintf(tmp, sizeof tmp, "%s.tmp", path);
    FILE *const file = open_stream(tmp, "wbe");
    if (!file)
        return false;
    bool written = fwrite(&snapshot.count, sizeof snapshot.count, 1, file) == 1;
    written = fwrite(snapshot.records.get(), sizeof(retain_msg_t), snapshot.count, file) == snapshot.count && written;
    written = fclose(file) == 0 && written;
    if (written && rename(tmp, path) == 0)
        return true;
    unlink(tmp);
    return !written;
}

bool write_store(uint32_t &count)
{
    ScopedLock lock(g_file_mutex);
    Snapshot   snapshot;
    if (!take_snapshot(snapshot) || !write_snapshot(snapshot))
        return false;
    count = snapshot.count;
    return true;
}

void log_failure()
{
    LOG_ERROR("[persist] retain save failed");
}

void log_success(uint32_t count)
{
    LOG_DEBUG("[persist] retain saved: %d entries", static_cast<int>(count));
}

// ---- saved behind the thread that changed the store

struct Request {
    uint32_t    changes = 0; // since the last save began
    uint64_t    asked   = 0; // changes in all
    uint64_t    saved   = 0; // of these the first so many
    SaveWaiters waiters;
};
constinit Undestroyed<Request> g_request GUARDED_BY(g_save_mutex);

// True when the saver thread will do it. The line comes before the file then, in the order of the packet's lines.
bool save_behind()
{
    SaveBehind *const behind = SaveBehind::of_this_thread();
    SaveWaiter *const waiter = behind ? behind->waiter() : nullptr;
    {
        ScopedLock lock(g_save_mutex);
        if (!waiter || !saver_runs() || !g_request.value.waiters.add(*waiter))
            return false;
        g_request.value.changes++;
        g_request.value.asked++;
        wake_saver();
    }
    if (log_passes(AGENT_LOG_DEBUG)) {
        ScopedLock store(g_sub_mgr.lock);
        log_success(static_cast<uint32_t>(store_count()));
    }
    return true;
}

bool read_records(FILE *file, owned<retain_msg_t> &records, uint32_t &count)
{
    if (fread(&count, sizeof count, 1, file) != 1 || count < 1 || count > RETAIN_CAPACITY)
        return false;
    records = allocate<retain_msg_t>(count);
    return records && fread(records.get(), sizeof(retain_msg_t), count, file) == count;
}

// Whatever the file holds, the store holds terminated topics and lengths within their arrays.
void make_safe(retain_msg_t &record)
{
    record.topic[sizeof record.topic - 1] = '\0';
    record.payload_len                    = std::min<uint32_t>(record.payload_len, sizeof record.payload);
}

} // namespace

bool save_retained() noexcept
{
    if (save_behind())
        return true;
    uint32_t count = 0;
    if (!write_store(count)) {
        log_failure();
        return false;
    }
    stats::count(stats::Counter::persist_write);
    log_success(count);
    return true;
}

bool save_store_if_asked() noexcept
{
    Request request;
    if (g_request.value.changes == 0)
        return false;
    request.changes = std::exchange(g_request.value.changes, 0u);
    request.waiters.take(g_request.value.waiters);
    request.asked = g_request.value.asked;
    g_save_mutex.unlock();
    uint32_t   count   = 0;
    const bool written = write_store(count);
    if (!written)
        log_failure();
    for (uint32_t i = 0; i < request.changes && written; ++i)
        stats::count(stats::Counter::persist_write);
    request.waiters.tell();
    g_save_mutex.lock();
    g_request.value.saved = std::max(g_request.value.saved, request.asked);
    saving_changed();
    return true;
}

uint64_t store_changes() noexcept
{
    return g_request.value.asked;
}

bool is_store_saved_up_to(uint64_t change) noexcept
{
    return g_request.value.saved >= change;
}

bool load_retained() noexcept
{
    // Shorter than the name it is saved under may be: a root of more than 244 characters is saved but never loaded.
    char        path[PERSIST_RETAIN_READ_SIZE];
    const int   length = snprintf(path, sizeof path, "%s/retain.dat", g_persist_root_path);
    FILE *const file   = length < static_cast<int>(sizeof path) ? open_stream(path, "rbe") : nullptr;
    if (!file) {
        LOG_WARN("[persist] no retain file");
        return false;
    }
    {
        ScopedLock          store(g_sub_mgr.lock);
        ScopedLock          lock(g_persist_mutex);
        owned<retain_msg_t> records;
        uint32_t            count = 0;
        if (g_sub_mgr.retains && read_records(file, records, count)) {
            std::for_each(records.get(), records.get() + count, make_safe);
            memcpy(g_sub_mgr.retains, records.get(), sizeof(retain_msg_t) * count);
            g_sub_mgr.retain_count = static_cast<int32_t>(count);
            LOG_INFO("[persist] retain loaded: %d entries", static_cast<int>(count));
        }
    }
    fclose(file);
    stats::count(stats::Counter::persist_read);
    return true;
}

} // namespace tarn::persist
