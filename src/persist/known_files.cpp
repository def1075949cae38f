// known_files.cpp - see known_files.h.
#include "known_files.h"

#include "../base/fd.h"
#include "persist_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <linux/fs.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace tarn::persist {
namespace {

constexpr const char *kFolders[]   = {kSessionDirectory, kSubscriptionDirectory, kMessageDirectory};
constexpr size_t      kFolderCount = std::size(kFolders);
constexpr int         kNotWatched  = -1;

constexpr uint32_t kNames  = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr uint32_t kFolder = IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// A client that has files, and in which of the folders.
struct Owner {
    Owner  *next_in_bucket;
    uint8_t folders; // a bit for each
    char    client_id[];
};
constexpr size_t kBuckets = 4096;

struct Identity {
    dev_t device;
    ino_t inode;

    bool operator==(const Identity &) const = default;
};

constinit Mutex g_known_mutex{}; // a leaf; no call under it waits for the disk but those of know_files()

constinit int g_told       GUARDED_BY(g_known_mutex) = -1; // inotify; -1: nothing is known
constinit int              g_watches[kFolderCount] GUARDED_BY(g_known_mutex){};
constinit int g_root_watch GUARDED_BY(g_known_mutex) = kNotWatched;
constinit Identity g_root  GUARDED_BY(g_known_mutex){};
constinit Identity         g_folders[kFolderCount] GUARDED_BY(g_known_mutex){};
constinit int g_mounts     GUARDED_BY(g_known_mutex) = -1; // the kernel's list of mounts, which tells of a change
constinit Owner           *g_owners[kBuckets] GUARDED_BY(g_known_mutex){};

// ---- the owners

Owner *&link_of(std::string_view client_id) REQUIRES(g_known_mutex)
{
    Owner **link = &g_owners[std::hash<std::string_view>{}(client_id) % kBuckets];
    while (*link && client_id != (*link)->client_id)
        link = &(*link)->next_in_bucket;
    return *link;
}

// False without memory.
bool add(std::string_view client_id, size_t folder) REQUIRES(g_known_mutex)
{
    Owner *&link = link_of(client_id);
    if (!link) {
        link = static_cast<Owner *>(calloc(1, sizeof(Owner) + client_id.size() + 1));
        if (!link)
            return false;
        memcpy(link->client_id, client_id.data(), client_id.size());
    }
    link->folders |= static_cast<uint8_t>(1u << folder);
    return true;
}

void remove(std::string_view client_id, size_t folder) REQUIRES(g_known_mutex)
{
    Owner *&link = link_of(client_id);
    if (!link)
        return;
    link->folders &= static_cast<uint8_t>(~(1u << folder));
    if (link->folders == 0)
        free(std::exchange(link, link->next_in_bucket));
}

void forget_all() REQUIRES(g_known_mutex)
{
    Fd(std::exchange(g_told, -1)).reset();
    Fd(std::exchange(g_mounts, -1)).reset();
    for (Owner *&first : g_owners)
        while (first)
            free(std::exchange(first, first->next_in_bucket));
}

// The client whose file has this name; empty for any other name, and for a file that belongs to an empty id.
std::string_view owner_of(std::string_view name)
{
    constexpr std::string_view kSuffix = ".json";
    return name.ends_with(kSuffix) ? name.substr(0, name.size() - kSuffix.size()) : std::string_view();
}

// ---- what the kernel tells

size_t folder_of(int watch) REQUIRES(g_known_mutex)
{
    size_t folder = 0;
    while (folder < kFolderCount && g_watches[folder] != watch)
        ++folder;
    return folder;
}

bool is_folder(const char *name)
{
    for (const char *const folder : kFolders)
        if (strcmp(name, folder) == 0)
            return true;
    return false;
}

// False when what is known is not sure any more: a change was missed, or a folder is another one.
bool note(const inotify_event &event) REQUIRES(g_known_mutex)
{
    const std::string_view name = event.len > 0 ? event.name : "";
    if (event.wd == g_root_watch)
        return (event.mask & kNames) != 0 && !is_folder(name.data());
    const size_t folder = folder_of(event.wd);
    if ((event.mask & kNames) == 0 || folder == kFolderCount)
        return false;
    const std::string_view owner = owner_of(name);
    if (owner.empty())
        return true;
    if (event.mask & (IN_CREATE | IN_MOVED_TO))
        return add(owner, folder);
    remove(owner, folder);
    return true;
}

// Likewise. What is read holds whole events only.
bool note_names() REQUIRES(g_known_mutex)
{
    alignas(inotify_event) char told[4096];
    for (;;) {
        const ssize_t got = read(g_told, told, sizeof told);
        if (got <= 0)
            return got < 0 && errno == EAGAIN;
        for (ssize_t at = 0; at < got;) {
            const auto &event = *reinterpret_cast<const inotify_event *>(told + at);
            if (!note(event))
                return false;
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    }
}

Identity identity_of(const char *path)
{
    struct stat status;
    return stat(path, &status) == 0 ? Identity{status.st_dev, status.st_ino} : Identity{};
}

// Of the folder that the path names now: the program may have changed its directory, or the folder its name.
Identity root_now()
{
    return identity_of(g_persist_root_path);
}

Path path_of(size_t folder)
{
    Path path;
    snprintf(path.text, sizeof path.text, "%s/%s", g_persist_root_path, kFolders[folder]);
    return path;
}

// What is mounted over a folder hides it, and no watch tells.
bool are_folders_those_of_the_start() REQUIRES(g_known_mutex)
{
    for (size_t folder = 0; folder < kFolderCount; ++folder)
        if (identity_of(path_of(folder).text) != g_folders[folder])
            return false;
    return true;
}

bool note_all() REQUIRES(g_known_mutex)
{
    pollfd told[] = {{g_told, POLLIN, 0}, {g_mounts, POLLPRI, 0}};
    if (poll(told, std::size(told), 0) < 0)
        return false;
    return (told[1].revents == 0 || are_folders_those_of_the_start()) && (told[0].revents == 0 || note_names());
}

bool is_up_to_date(const Identity &root) REQUIRES(g_known_mutex)
{
    if (g_told < 0)
        return false;
    if (root == g_root && note_all())
        return true;
    forget_all();
    return false;
}

// ---- the start

// On these every change passes this kernel, and a name is found as it is written and in no other case.
bool tells_all(int folder)
{
    struct statfs status;
    if (fstatfs(folder, &status) != 0)
        return false;
    constexpr uint32_t kUbifs = 0x24051905;
    switch (static_cast<uint32_t>(status.f_type)) {
    case EXT4_SUPER_MAGIC:
    case BTRFS_SUPER_MAGIC:
    case F2FS_SUPER_MAGIC:
    case OVERLAYFS_SUPER_MAGIC:
    case TMPFS_MAGIC:
    case XFS_SUPER_MAGIC:
    case JFFS2_SUPER_MAGIC:
    case kUbifs:
        break;
    default:
        return false;
    }
    int flags = 0; // stays so where there are none
    (void)ioctl(folder, FS_IOC_GETFLAGS, &flags);
    return (flags & FS_CASEFOLD_FL) == 0;
}

bool list(DIR *directory, size_t folder) REQUIRES(g_known_mutex)
{
    for (;;) {
        errno                     = 0;
        const dirent *const entry = readdir(directory);
        if (!entry)
            return errno == 0;
        const std::string_view owner = owner_of(entry->d_name);
        if (!owner.empty() && !add(owner, folder))
            return false;
    }
}

// Watched before it is listed, so that no change is missed between the two.
bool watch_and_list(size_t folder) REQUIRES(g_known_mutex)
{
    const Path path  = path_of(folder);
    const int  watch = inotify_add_watch(g_told, path.text, kNames | kFolder | IN_DONT_FOLLOW);
    if (watch < 0 || watch == g_root_watch || folder_of(watch) < folder) // two mounts of one folder
        return false;
    g_watches[folder]    = watch;
    g_folders[folder]    = identity_of(path.text);
    DIR *const directory = opendir(path.text);
    if (!directory)
        return false;
    const bool listed = tells_all(dirfd(directory)) && list(directory, folder);
    closedir(directory);
    return listed;
}

bool begin() REQUIRES(g_known_mutex)
{
    g_told   = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    g_mounts = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    if (g_told < 0 || g_mounts < 0)
        return false;
    g_root = root_now();
    std::ranges::fill(g_watches, kNotWatched);
    g_root_watch = inotify_add_watch(g_told, g_persist_root_path, kNames | kFolder);
    if (g_root_watch < 0)
        return false;
    for (size_t folder = 0; folder < kFolderCount; ++folder)
        if (!watch_and_list(folder))
            return false;
    return root_now() == g_root;
}

} // namespace

void know_files() noexcept
{
    ScopedLock lock(g_known_mutex);
    forget_all();
    if (!begin())
        forget_all();
}

void stop_knowing_files() noexcept
{
    ScopedLock lock(g_known_mutex);
    forget_all();
}

// An empty id's files are not kept account of.
bool may_be_on_disk(const char *client_id) noexcept
{
    const Identity root = root_now();
    ScopedLock     lock(g_known_mutex);
    return !*client_id || !is_up_to_date(root) || link_of(client_id);
}

bool seems_to_be_on_disk(const char *client_id) noexcept
{
    ScopedLock lock(g_known_mutex);
    return !*client_id || g_told < 0 || link_of(client_id);
}

void note_told_changes() noexcept
{
    ScopedLock lock(g_known_mutex);
    if (g_told >= 0 && !note_all())
        forget_all();
}

} // namespace tarn::persist
