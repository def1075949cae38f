// saver.cpp - the saver thread: saves what was put down, as often as the disk can and never once a change more.
#include "saver.h"

#include "../base/relaxed.h"
#include "../base/thread.h"
#include "client_files.h"

#include <new>

namespace tarn::persist {

constinit Mutex g_save_mutex{};

constinit std::atomic<size_t> g_unsaved_changes{0};

namespace {

constinit pthread_cond_t g_work    = PTHREAD_COND_INITIALIZER; // with g_save_mutex
constinit pthread_cond_t g_changed = PTHREAD_COND_INITIALIZER; // likewise

constinit pthread_t g_thread GUARDED_BY(g_save_mutex){};
constinit bool g_runs        GUARDED_BY(g_save_mutex) = false;
constinit bool g_is_over     GUARDED_BY(g_save_mutex) = false; // from stop_saver() to allow_saver()
constinit bool g_asleep      GUARDED_BY(g_save_mutex) = false;

constinit thread_local SaveBehind *t_behind  = nullptr;
constinit thread_local int         t_at_once = 0; // SaveAtOnces on this thread

void sleep_until_woken() REQUIRES(g_save_mutex)
{
    for (g_asleep = true; g_asleep && g_runs;)
        pthread_cond_wait(&g_work, &g_save_mutex.raw);
}

void *saver_thread(void *) noexcept
{
    ScopedLock lock(g_save_mutex);
    while (g_runs) {
        if (!save_a_batch())
            sleep_until_woken();
    }
    return nullptr;
}

} // namespace

bool saver_runs() noexcept
{
    if (!g_runs && !g_is_over)
        g_runs = start_thread(&g_thread, "tarn-save", saver_thread, nullptr) == 0;
    return g_runs;
}

void wake_saver() noexcept
{
    if (!g_asleep)
        return;
    g_asleep = false;
    pthread_cond_signal(&g_work);
}

void allow_saver() noexcept
{
    ScopedLock lock(g_save_mutex);
    g_is_over = false;
}

void stop_saver() noexcept
{
    pthread_t thread;
    {
        ScopedLock lock(g_save_mutex);
        g_is_over = true;
        if (!g_runs)
            return;
        thread = g_thread;
        g_runs = false;
        pthread_cond_signal(&g_work);
    }
    join_or_detach(thread);
}

void await_saver() noexcept
{
    pthread_cond_wait(&g_changed, &g_save_mutex.raw);
}

void saving_changed() noexcept
{
    pthread_cond_broadcast(&g_changed);
}

size_t unsaved_changes() noexcept
{
    return g_unsaved_changes.load(std::memory_order_relaxed);
}

SaveBehind::SaveBehind(Ask ask, void *arg) noexcept : ask_(ask), arg_(arg), outer_(t_behind)
{
    t_behind = this;
}

SaveBehind::~SaveBehind()
{
    t_behind = outer_;
}

SaveBehind *SaveBehind::of_this_thread() noexcept
{
    return t_at_once ? nullptr : t_behind;
}

SaveUnawaited::~SaveUnawaited()
{
    if (nobody_)
        nobody_->one_is_saved();
}

SaveWaiter *SaveUnawaited::ask(void *self) noexcept
{
    SaveWaiter *&nobody = static_cast<SaveUnawaited *>(self)->nobody_;
    if (nobody)
        return nobody;
    nobody = new (std::nothrow) SaveWaiter;
    if (nobody)
        nobody->saved = [](SaveWaiter &waiter) noexcept { delete &waiter; };
    return nobody;
}

SaveAtOnce::SaveAtOnce() noexcept
{
    ++t_at_once;
}

SaveAtOnce::~SaveAtOnce()
{
    --t_at_once;
}

} // namespace tarn::persist
