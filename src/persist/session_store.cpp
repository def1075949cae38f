// session_store.cpp - a record to load a session into that is not on the stack, and a session held while it is changed.
#include "message_files.h"

#include "../base/memory.h"
#include "../base/text.h"

#include <cstring>
#include <pthread.h>

namespace tarn::persist {
namespace {

constinit pthread_once_t g_once    = PTHREAD_ONCE_INIT;
constinit pthread_key_t  g_key     = 0;     // each thread's record, freed when it ends
constinit bool           g_has_key = false; // a process has 1024 of them

void make_key()
{
    g_has_key = pthread_key_create(&g_key, free) == 0;
}

} // namespace

persist_session_t *scratch_session(const char *client_id) noexcept
{
    pthread_once(&g_once, make_key);
    if (!g_has_key)
        return nullptr;
    auto *record = static_cast<persist_session_t *>(pthread_getspecific(g_key));
    if (!record) {
        record = allocate_zeroed<persist_session_t>(1).release();
        if (!record || pthread_setspecific(g_key, record) != 0) {
            free(record);
            return nullptr;
        }
    } else {
        memset(record, 0, sizeof *record);
    }
    copy_text(record->client_id, client_id, sizeof record->client_id - 1);
    return record;
}

LockedSession::LockedSession(const char *client_id, Load load) noexcept
    : files_(files_mutex(client_id)), record_(scratch_session(client_id))
{
    files_.lock();
    if (!record_)
        return;
    if (SaveBehind::of_this_thread())
        take_stamps(client_id, stamps_); // before the files are read: what changes in between is noticed later
    loaded_ = read_session(*record_, found_);
    if (loaded_ == Loaded::Yes && load == CountAndLog)
        count_and_log_again();
}

LockedSession::~LockedSession() noexcept
{
    files_.unlock();
    if (saves_)
        save_file(Kind::Messages, record_->client_id);
}

void LockedSession::count_and_log_again() const noexcept
{
    count_and_log(record_->client_id, record_->sub_count, found_);
}

} // namespace tarn::persist
