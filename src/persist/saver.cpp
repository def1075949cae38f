// saver.cpp - the saver thread: saves what was put down, as often as the disk can and never once a change more.
#include "saver.h"

#include "../base/relaxed.h"
#include "../base/thread.h"
#include "message_files.h"

namespace tarn::persist {

constinit Mutex g_save_mutex{};

constinit std::atomic<size_t> g_unsaved_changes{0};

namespace {

constinit pthread_cond_t g_work    = PTHREAD_COND_INITIALIZER; // with g_save_mutex
constinit pthread_cond_t g_changed = PTHREAD_COND_INITIALIZER; // likewise

constinit pthread_t g_thread GUARDED_BY(g_save_mutex){};
constinit bool g_runs        GUARDED_BY(g_save_mutex) = false;
constinit bool g_asleep      GUARDED_BY(g_save_mutex) = false;

constinit thread_local SaveBehind *t_behind = nullptr;

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
    if (!g_runs)
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

void stop_saver() noexcept
{
    pthread_t thread;
    {
        ScopedLock lock(g_save_mutex);
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

SaveBehind::SaveBehind(Ask ask, void *arg) noexcept : ask_(ask), arg_(arg)
{
    t_behind = this;
}

SaveBehind::~SaveBehind()
{
    t_behind = nullptr;
}

SaveBehind *SaveBehind::of_this_thread() noexcept
{
    return t_behind;
}

} // namespace tarn::persist
