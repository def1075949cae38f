// client_file.cpp - see client_file.h.
#include "client_file.h"

#include "../base/text.h"

#include <cstring>
#include <functional>
#include <new>

namespace tarn::persist {
namespace {

struct Queue {
    ClientFile *first;
    ClientFile *last;
};
constexpr size_t kBuckets = 1024;

constinit ClientFile        *g_buckets[kBuckets] GUARDED_BY(g_save_mutex){};
constinit int g_count        GUARDED_BY(g_save_mutex) = 0;
constinit Queue              g_queues[kQueues] GUARDED_BY(g_save_mutex){};
constinit uint64_t g_changes GUARDED_BY(g_save_mutex) = 0; // so far

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

// Of a saved file: memory knows nothing of it any more.
void drop(ClientFile *&link) REQUIRES(g_save_mutex)
{
    ClientFile *const file = link;
    link                   = file->next_in_bucket;
    delete file;
    --g_count;
}

} // namespace

ClientFile *find(Kind kind, const char *client_id) noexcept
{
    return link_of(kind, client_id);
}

ClientFile *find_or_make(Kind kind, const char *client_id) noexcept
{
    if (ClientFile *const known = find(kind, client_id))
        return known;
    // cppcheck-suppress legacyUninitvar ; all of it is zero
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

int count_files() noexcept
{
    return g_count;
}

void drop_if_saved(Kind kind, const char *client_id) noexcept
{
    ClientFile *&link = link_of(kind, client_id);
    if (link && is_saved(*link))
        drop(link);
}

void drop_all_saved() noexcept
{
    for (ClientFile *&first : g_buckets)
        for (ClientFile **link = &first; *link;)
            if (is_saved(**link))
                drop(*link);
            else
                link = &(*link)->next_in_bucket;
}

uint64_t changes_so_far() noexcept
{
    return g_changes;
}

void count_change(ClientFile &file) noexcept
{
    const uint64_t number = ++g_changes;
    if (file.changes++ == 0)
        file.changed = number;
}

bool are_all_saved_up_to(uint64_t change) noexcept
{
    for (const ClientFile *file : g_buckets)
        for (; file; file = file->next_in_bucket)
            if (!is_saved_up_to(change, *file))
                return false;
    return true;
}

bool set_text(ClientFile &file, const GrowArray<char> &chars) noexcept
{
    if (!file.text.reserve(chars.size()))
        return false;
    file.text.clear();
    (void)file.text.append(chars.data(), chars.size());
    file.removed = false;
    return true;
}

// ---- the queues

void leave_queue(ClientFile &file) noexcept
{
    if (file.queue == kNone)
        return;
    Queue &queue                                                             = g_queues[file.queue];
    (file.previous_queued ? file.previous_queued->next_queued : queue.first) = file.next_queued;
    (file.next_queued ? file.next_queued->previous_queued : queue.last)      = file.previous_queued;
    file.queue                                                               = kNone;
}

void enter_queue(ClientFile &file, int8_t number) noexcept
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

ClientFile *first_in_queue(int8_t number) noexcept
{
    return g_queues[number].first;
}

} // namespace tarn::persist
