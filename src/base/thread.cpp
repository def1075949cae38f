#include "thread.h"

#include "memory.h"

#include <cerrno>
#include <initializer_list>
#include <sched.h>
#include <signal.h>

namespace tarn {
namespace {

constexpr size_t kStackBytes = 1024 * 1024;

constinit thread_local bool    t_library_thread = false;
constinit thread_local WakesUp t_wakes_up       = WakesUp::ToPreempt;

struct Launch {
    const char *name;
    void *(*body)(void *);
    void   *arg;
    WakesUp wakes_up, creator_wakes_up; // a new thread inherits its creator's policy
};

void change_policy(int from, int to)
{
    const sched_param none{};
    if (sched_getscheduler(0) == from)
        (void)sched_setscheduler(0, to, &none);
}

void *run(void *arg)
{
    const Launch launch = *static_cast<Launch *>(arg);
    free(arg);
    t_library_thread = true;
    pthread_setname_np(pthread_self(), launch.name);
    t_wakes_up = launch.wakes_up;
    if (launch.wakes_up == WakesUp::ToWait)
        change_policy(SCHED_OTHER, SCHED_BATCH);
    else if (launch.creator_wakes_up == WakesUp::ToWait)
        change_policy(SCHED_BATCH, SCHED_OTHER);
    return launch.body(launch.arg);
}

// Everything but the faults of the thread itself.
sigset_t asynchronous_signals() noexcept
{
    sigset_t set;
    sigfillset(&set);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL})
        sigdelset(&set, fault);
    return set;
}

} // namespace

int start_thread(pthread_t *handle, const char *name, void *(*body)(void *), void *arg, WakesUp wakes_up) noexcept
{
    owned<Launch> launch = allocate<Launch>(1);
    if (!launch)
        return ENOMEM;
    launch[0] = {name, body, arg, wakes_up, t_wakes_up};

    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStackBytes);

    // A new thread inherits the mask of its creator.
    const sigset_t blocked = asynchronous_signals();
    sigset_t       before;
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const int error = pthread_create(handle, &attributes, run, launch.get());
    pthread_sigmask(SIG_SETMASK, &before, nullptr);

    pthread_attr_destroy(&attributes);
    if (error == 0)
        launch.release(); // the new thread frees it
    return error;
}

bool on_library_thread() noexcept
{
    return t_library_thread;
}

void join_or_detach(pthread_t handle) noexcept
{
    if (pthread_equal(handle, pthread_self()))
        pthread_detach(handle);
    else
        pthread_join(handle, nullptr);
}

} // namespace tarn
