// storage.cpp - the data directory: where files lie, how one is replaced, and the module's start and stop.
#include "../base/text.h"
#include "../log/log.h"
#include "../stats/stats.hpp"
#include "client_files.h"
#include "known_files.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

char         g_persist_root_path[PERSIST_PATH_SIZE] = "./mqtt_data";
tarn_mutex_t g_persist_mutex{};

namespace tarn::persist {
namespace {

constexpr size_t kFileLocks = 64;
constexpr size_t kTmpChars  = 4; // ".tmp"

constinit Mutex g_file_mutexes[kFileLocks]{};

} // namespace

// QUIRK(slash-in-id): a client whose id has a '/' keeps no session over a restart, nor messages while it is away
// [MQTT-3.1.2-4, MQTT-4.5.0-1], because files are named by the id and must stay in their folder. Each attempt to write
// one is an ERROR line. Clients with sessions to be kept have ids without it.
//   standard profile: lifted (sessions): no file is named by an id
//   test: storage.every_id_stays_in_its_three_directories
void client_path(Path &path, const char *directory, const char *client_id) noexcept
{
    const int length =
        // cppcheck-suppress ctuuninitvar ; it is written here
        snprintf(path.text, sizeof path.text, "%s/%s/%s.json", g_persist_root_path, directory, client_id);
    path.usable = !strchr(client_id, '/') && static_cast<size_t>(length) + kTmpChars < PERSIST_PATH_SIZE;
}

void safe_write(const Path &path, const char *text) noexcept
{
    NewFile file{.path = path, .text = text};
    replace_files({&file, 1});
    if (file.replaced)
        stats::count(stats::Counter::persist_write);
}

Mutex &files_mutex(const char *client_id) noexcept
{
    uint32_t hash = 0;
    for (size_t i = 0; i < sizeof(persist_session_t::client_id) - 1 && client_id[i]; ++i) // as records cut it
        hash = hash * 31 + static_cast<unsigned char>(client_id[i]);
    return g_file_mutexes[hash % kFileLocks];
}

Path path_of(const char *text) noexcept
{
    Path      path;
    const int length = snprintf(path.text, sizeof path.text, "%s", text);
    path.usable      = static_cast<size_t>(length) + kTmpChars < PERSIST_PATH_SIZE;
    return path;
}

void make_directory(const char *path) noexcept
{
    struct stat status;
    if (stat(path, &status) == 0)
        return;
    mkdir(path, 0755);
    LOG_DEBUG("[persist] 目录创建成功: %s", path);
}

void init(const char *root_path) noexcept
{
    LOG_INFO("[persist] 持久化模块初始化中...");
    save_everything(); // under the root that it belongs to
    allow_saver();
    forget_files();
    if (root_path && *root_path && strcmp(root_path, g_persist_root_path) != 0) // clients of another instance read it
        copy_text(g_persist_root_path, root_path, sizeof g_persist_root_path - 1);
    make_directory(g_persist_root_path);
    for (const char *directory : {kSessionDirectory, kSubscriptionDirectory, kMessageDirectory}) {
        Path path;
        snprintf(path.text, sizeof path.text, "%s/%s", g_persist_root_path, directory);
        make_directory(path.text);
    }
    know_files();
    restore_subscriptions();
    load_retained();
    LOG_INFO("[persist] 持久化模块初始化完成，路径：%s", g_persist_root_path);
}

// The mutexes stay: clients may still close after this.
void destroy() noexcept
{
    LOG_INFO("[persist] 持久化模块销毁中...");
    stop_saver();
    save_everything();
    forget_files();
    stop_knowing_files();
}

void flush() noexcept
{
    LOG_DEBUG("[persist] 执行强制刷盘(无操作，已同步写入)");
}

bool remove_session(const char *client_id) noexcept
{
    const owned<Path> path = allocate<Path>(1);
    if (!path)
        return false;
    SaveWaiters waiters[std::size(kKinds)];
    {
        ScopedLock files(files_mutex(client_id)); // nobody puts one meanwhile
        if (!may_have_files(client_id))
            return true;
        const PersistLock lock;
        for (const Kind kind : kKinds)
            remove_file(kind, client_id, path[0], waiters[static_cast<int>(kind)]);
    }
    for (SaveWaiters &those : waiters)
        those.tell();
    if (!SaveBehind::of_this_thread())
        for (const Kind kind : kKinds)
            save_file(kind, client_id); // another thread may be putting back what it was writing
    return true;
}

} // namespace tarn::persist
