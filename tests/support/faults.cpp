#include "faults.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <pthread.h>
#include <shared_mutex>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace tarn::test {
namespace {

struct Plan {
    std::atomic<int> skip{0};
    std::atomic<int> times{0};
    std::atomic<int> error{0};
    std::atomic<int> failed{0};
};
Plan             g_plans[static_cast<int>(Call::Count_)];
thread_local int t_allocation_skip   = 0;
thread_local int t_allocation_times  = 0;
thread_local int t_allocation_failed = 0;

std::atomic<int> g_calls_to_live{0}; // of those that change files; 0 = for ever

std::atomic<bool>     g_unsynced{false};
std::shared_mutex     g_on_file_mutex; // held while it is called
std::function<void()> g_on_file_call;

std::atomic<bool>    g_clock_held{false};
std::atomic<int64_t> g_mono_ms{0};
std::atomic<int64_t> g_wall_ms{0};

bool allocation_fails()
{
    if (t_allocation_times == 0)
        return false;
    if (t_allocation_skip > 0) {
        --t_allocation_skip;
        return false;
    }
    --t_allocation_times;
    ++t_allocation_failed;
    errno = ENOMEM;
    return true;
}

// 0, or the errno value this call is to fail with.
int failure_of(Call call)
{
    Plan &plan = g_plans[static_cast<int>(call)];
    if (plan.times.load() == 0)
        return 0;
    if (plan.skip.load() > 0 && plan.skip.fetch_sub(1) > 0)
        return 0;
    if (plan.times.fetch_sub(1) <= 0) {
        plan.times.store(0);
        return 0;
    }
    plan.failed.fetch_add(1);
    errno = plan.error.load();
    return plan.error.load();
}

int failure_of_file(Call call)
{
    {
        const std::shared_lock lock(g_on_file_mutex);
        if (g_on_file_call)
            g_on_file_call();
    }
    if (g_calls_to_live.load() > 0 && g_calls_to_live.fetch_sub(1) == 1)
        _exit(KillAt::kStatus);
    return failure_of(call);
}

} // namespace

Fail::Fail(Call call, int nth, int error, int times) : call_(call)
{
    if (call == Call::Allocate) {
        t_allocation_skip   = nth - 1;
        t_allocation_times  = times;
        t_allocation_failed = 0;
        return;
    }
    Plan &plan = g_plans[static_cast<int>(call)];
    plan.skip.store(nth - 1);
    plan.error.store(error);
    plan.failed.store(0);
    plan.times.store(times);
}

Fail::~Fail()
{
    if (call_ == Call::Allocate)
        t_allocation_times = 0;
    else
        g_plans[static_cast<int>(call_)].times.store(0);
}

int Fail::failed() const
{
    return call_ == Call::Allocate ? t_allocation_failed : g_plans[static_cast<int>(call_)].failed.load();
}

KillAt::KillAt(int nth)
{
    g_calls_to_live.store(nth);
}
KillAt::~KillAt()
{
    g_calls_to_live.store(0);
}

OnFileCall::OnFileCall(std::function<void()> act)
{
    const std::unique_lock lock(g_on_file_mutex);
    g_on_file_call = std::move(act);
}
OnFileCall::~OnFileCall()
{
    const std::unique_lock lock(g_on_file_mutex); // no thread is inside it any more
    g_on_file_call = nullptr;
}

UnsyncedFiles::UnsyncedFiles()
{
    g_unsynced.store(true);
}
UnsyncedFiles::~UnsyncedFiles()
{
    g_unsynced.store(false);
}

ManualClock::ManualClock()
{
    g_mono_ms.store(1000000);
    g_wall_ms.store(int64_t{1800000000} * 1000);
    g_clock_held.store(true);
}
ManualClock::~ManualClock()
{
    g_clock_held.store(false);
}
void ManualClock::advance_ms(int64_t ms)
{
    g_mono_ms.fetch_add(ms);
    g_wall_ms.fetch_add(ms);
}
void ManualClock::advance_wall_ms(int64_t ms)
{
    g_wall_ms.fetch_add(ms);
}
uint64_t ManualClock::mono_ms() const
{
    return static_cast<uint64_t>(g_mono_ms.load());
}
int64_t ManualClock::wall_s() const
{
    return g_wall_ms.load() / 1000;
}

} // namespace tarn::test

using namespace tarn::test;

extern "C" {
void  *__real_malloc(size_t size);
void  *__real_calloc(size_t count, size_t size);
void  *__real_realloc(void *old, size_t size);
int    __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
int    __real_socket(int, int, int);
int    __real_bind(int, const sockaddr *, socklen_t);
int    __real_listen(int, int);
int    __real_accept4(int, sockaddr *, socklen_t *, int);
int    __real_epoll_create1(int);
int    __real_epoll_ctl(int, int, int, epoll_event *);
int    __real_epoll_wait(int, epoll_event *, int, int);
int    __real_clock_gettime(clockid_t, timespec *);
int    __real_gettimeofday(timeval *, void *);
time_t __real_time(time_t *);
FILE  *__real_fopen(const char *, const char *);
int    __real_fseek(FILE *, long, int);
size_t __real_fwrite(const void *, size_t, size_t, FILE *);
int    __real_fputs(const char *, FILE *);
int    __real_fflush(FILE *);
int    __real_fsync(int);
int    __real_fclose(FILE *);
int    __real_rename(const char *, const char *);
int    __real_unlink(const char *);

void *__wrap_malloc(size_t size)
{
    return allocation_fails() ? nullptr : __real_malloc(size);
}
void *__wrap_calloc(size_t count, size_t size)
{
    return allocation_fails() ? nullptr : __real_calloc(count, size);
}
void *__wrap_realloc(void *old, size_t size)
{
    return allocation_fails() ? nullptr : __real_realloc(old, size);
}

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *), void *arg)
{
    if (const int error = failure_of(Call::ThreadCreate))
        return error;
    return __real_pthread_create(thread, attributes, body, arg);
}
int __wrap_socket(int domain, int type, int protocol)
{
    return failure_of(Call::Socket) ? -1 : __real_socket(domain, type, protocol);
}
int __wrap_bind(int fd, const sockaddr *address, socklen_t length)
{
    return failure_of(Call::Bind) ? -1 : __real_bind(fd, address, length);
}
int __wrap_listen(int fd, int backlog)
{
    return failure_of(Call::Listen) ? -1 : __real_listen(fd, backlog);
}
int __wrap_accept4(int fd, sockaddr *address, socklen_t *length, int flags)
{
    return failure_of(Call::Accept) ? -1 : __real_accept4(fd, address, length, flags);
}
int __wrap_epoll_create1(int flags)
{
    return failure_of(Call::EpollCreate) ? -1 : __real_epoll_create1(flags);
}
int __wrap_epoll_ctl(int epoll, int operation, int fd, epoll_event *event)
{
    return failure_of(Call::EpollCtl) ? -1 : __real_epoll_ctl(epoll, operation, fd, event);
}
int __wrap_epoll_wait(int epoll, epoll_event *events, int room, int timeout)
{
    return failure_of(Call::EpollWait) ? -1 : __real_epoll_wait(epoll, events, room, timeout);
}
int __wrap_clock_gettime(clockid_t clock, timespec *now)
{
    const bool is_known = clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_COARSE || clock == CLOCK_REALTIME;
    if (!g_clock_held.load() || !is_known)
        return __real_clock_gettime(clock, now);
    int64_t ms = clock == CLOCK_REALTIME ? g_wall_ms.load() : g_mono_ms.load();
    if (clock == CLOCK_MONOTONIC_COARSE)
        ms -= ms % ManualClock::kTick_ms;
    now->tv_sec  = ms / 1000;
    now->tv_nsec = ms % 1000 * 1000000;
    return 0;
}
int __wrap_gettimeofday(timeval *now, void *zone)
{
    if (!g_clock_held.load())
        return __real_gettimeofday(now, zone);
    now->tv_sec  = g_wall_ms.load() / 1000;
    now->tv_usec = g_wall_ms.load() % 1000 * 1000;
    return 0;
}
time_t __wrap_time(time_t *now)
{
    const time_t value = g_clock_held.load() ? static_cast<time_t>(g_wall_ms.load() / 1000) : __real_time(nullptr);
    if (now)
        *now = value;
    return value;
}
FILE *__wrap_fopen(const char *path, const char *mode)
{
    return failure_of_file(Call::FileOpen) ? nullptr : __real_fopen(path, mode);
}
size_t __wrap_fwrite(const void *data, size_t size, size_t count, FILE *file)
{
    return failure_of_file(Call::FileWrite) ? 0 : __real_fwrite(data, size, count, file);
}
int __wrap_fputs(const char *text, FILE *file)
{
    return failure_of_file(Call::FileWrite) ? EOF : __real_fputs(text, file);
}
int __wrap_fflush(FILE *file)
{
    return failure_of_file(Call::FileFlush) ? EOF : __real_fflush(file);
}
int __wrap_fsync(int fd)
{
    if (failure_of_file(Call::FileSync))
        return -1;
    return g_unsynced.load() ? 0 : __real_fsync(fd);
}
int __wrap_fclose(FILE *file)
{
    const int error  = failure_of_file(Call::FileClose);
    const int result = __real_fclose(file);
    errno            = error ? error : errno;
    return error ? EOF : result;
}
int __wrap_rename(const char *from, const char *to)
{
    return failure_of_file(Call::Rename) ? -1 : __real_rename(from, to);
}
int __wrap_unlink(const char *path)
{
    return failure_of_file(Call::Unlink) ? -1 : __real_unlink(path);
}
int __wrap_fseek(FILE *file, long offset, int whence)
{
    return failure_of(Call::FileSeek) ? -1 : __real_fseek(file, offset, whence);
}
}
