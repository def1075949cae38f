/*
 * failing_memory.c - preloaded into tarn-broker, it makes allocations of the process fail.
 *
 *     FAIL_EVERY=N    while it is on, every N-th fails; 1 = all of them
 *     FAIL_FROM=N     it turns on with the N-th allocation
 *     FAIL_TIMES=N    it turns itself off when so many have failed
 *
 * SIGRTMIN turns it on, SIGRTMIN + 1 off, whatever FAIL_FROM says. Standard error is told: "failing: on", "off", or
 * "begins", "ends" where it was no signal.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern void *__libc_malloc(size_t size);
extern void *__libc_calloc(size_t count, size_t size);
extern void *__libc_realloc(void *old, size_t size);

static atomic_bool   failing;
static atomic_ulong  from;                /* 0 = no such number, or a signal has come */
static atomic_ulong  allocations, failed; /* the first counts while `from` is set or memory fails */
static unsigned long every = 100, times;

/* From any thread, also in a signal handler. */
static void turn(bool on, const char *line)
{
    const int error = errno;
    atomic_store(&failing, on);
    if (write(STDERR_FILENO, line, strlen(line)) < 0)
        abort();
    errno = error;
}

static bool fails(void)
{
    const unsigned long first = atomic_load(&from);
    if (!first && !atomic_load(&failing))
        return false;
    const unsigned long n = atomic_fetch_add(&allocations, 1) + 1;
    if (first && n == first)
        turn(true, "failing: begins\n");
    if (!atomic_load(&failing) || (n - first) % every != 0)
        return false;
    if (times && atomic_fetch_add(&failed, 1) + 1 == times)
        turn(false, "failing: ends\n");
    errno = ENOMEM;
    return true;
}

void *malloc(size_t size)
{
    return fails() ? NULL : __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    return fails() ? NULL : __libc_calloc(count, size);
}

void *realloc(void *old, size_t size)
{
    return fails() ? NULL : __libc_realloc(old, size);
}

static void on_signal(int number)
{
    atomic_store(&from, 0);
    turn(number == SIGRTMIN, number == SIGRTMIN ? "failing: on\n" : "failing: off\n");
}

static unsigned long setting(const char *name, unsigned long otherwise)
{
    const char *const text = getenv(name);
    return text && atol(text) > 0 ? (unsigned long)atol(text) : otherwise;
}

__attribute__((constructor)) static void begin(void)
{
    every = setting("FAIL_EVERY", every);
    times = setting("FAIL_TIMES", 0);
    atomic_store(&from, setting("FAIL_FROM", 0));
    signal(SIGRTMIN, on_signal);
    signal(SIGRTMIN + 1, on_signal);
}
