// retain_file.cpp - the whole retained store in "retain.dat": count:u32, then that many retain_msg_t as they lie in
// memory, in the host's byte order.
#include "../base/relaxed.h"
#include "../log/log.h"
#include "../stats/stats.hpp"
#include "../sub/sub.hpp"
#include "persist_internal.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace tarn::persist {
namespace {

// A copy of the store as it is now: the file is written from it while others go on storing.
struct Snapshot {
    owned<retain_msg_t> records;
    uint32_t            count = 0;
};

bool take_snapshot(Snapshot &snapshot) REQUIRES(g_sub_mgr.lock)
{
    const int32_t count = g_sub_mgr.retains ? std::clamp<int32_t>(g_sub_mgr.retain_count, 0, RETAIN_CAPACITY) : 0;
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
bool write_snapshot(const Snapshot &snapshot) REQUIRES(g_persist_mutex)
{
    char path[PERSIST_PATH_SIZE + 16];
    char tmp[sizeof path + 4];
    snprintf(path, sizeof path, "%s/retain.dat", g_persist_root_path);
    snprintf(tmp, sizeof tmp, "%s.tmp", path);
    FILE *const file = fopen(tmp, "wbe");
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

// The newer of two copies must be the one that stays on the disk. So the file's lock is taken while the store's is
// still held for the copy, and only then is the store's given back.
bool save_retained() noexcept NO_LOCK_ANALYSIS
{
    Snapshot snapshot;
    g_sub_mgr.lock.lock();
    g_persist_mutex.lock();
    const bool copied = take_snapshot(snapshot);
    g_sub_mgr.lock.unlock();
    const bool opened = copied && write_snapshot(snapshot);
    g_persist_mutex.unlock();

    if (!opened) {
        LOG_ERROR("[persist] retain save failed");
        return false;
    }
    stats::count(stats::Counter::persist_write);
    LOG_DEBUG("[persist] retain saved: %d entries", static_cast<int>(snapshot.count));
    return true;
}

bool load_retained() noexcept
{
    // Shorter than the name it is saved under may be: a root of more than 244 characters is saved but never loaded.
    char        path[PERSIST_RETAIN_READ_SIZE];
    const int   length = snprintf(path, sizeof path, "%s/retain.dat", g_persist_root_path);
    FILE *const file   = length < static_cast<int>(sizeof path) ? fopen(path, "rbe") : nullptr;
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
