/*
 * failing_memory.c - preloaded into tarn-broker: from SIGUSR2 on every FAIL_EVERY-th allocation of the process fails,
 * until SIGUSR2 comes again.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <signal.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdlib.h>

extern void *__libc_malloc(size_t size);
extern void *__libc_calloc(size_t count, size_t size);
extern void *__libc_realloc(void *old, size_t size);

static atomic_bool failing;
static atomic_uint allocations;
static unsigned    every = 100;

static int fails(void)
{
    if (!atomic_load(&failing) || atomic_fetch_add(&allocations, 1) % every != every - 1)
        return 0;
    errno = ENOMEM;
    return 1;
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

static void turn(int number)
{
    (void)number;
    atomic_store(&failing, !atomic_load(&failing));
}

__attribute__((constructor)) static void begin(void)
{
    const char *text = getenv("FAIL_EVERY");
    if (text && atoi(text) > 0)
        every = (unsigned)atoi(text);
    signal(SIGUSR2, turn);
}
