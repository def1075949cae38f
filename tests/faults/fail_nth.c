/*
 * fail_nth.c - preloaded into a program, it makes the n-th of its calls of one kind fail, and counts.
 *
 *     TARN_FAIL=KIND:N[:TIMES]    the N-th call (1 = the first) and TIMES - 1 more fail; 0 of them: none
 *     TARN_FAIL_REPORT=FILE       when the program ends: each kind with the number of its calls, and what it still has,
 *                                 as "live BLOCKS" and "descriptors N"
 *
 * Where a call fails, and where a fatal signal ends the program, standard error gets the call chain. Nothing here
 * allocates, and what it writes is not counted.
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

enum kind { MEMORY, MAP, SOCKET, ACCEPT, EPOLL, THREAD, OPEN, WRITE, SYNC, RENAME, KINDS };

static const char *const kind_names[KINDS] = {"memory", "map",  "socket", "accept", "epoll",
                                              "thread", "open", "write",  "sync",   "rename"};
static const int         errors[KINDS]     = {ENOMEM, ENOMEM, EMFILE, EMFILE, ENOSPC, EAGAIN, EMFILE, ENOSPC, EIO, EIO};

static atomic_long calls[KINDS], live_blocks;
static int         failing_kind = -1;
static long        first_failing, last_failing;

static void print(int fd, const char *format, ...)
{
    char    text[256];
    va_list values;
    va_start(values, format);
    const int length = vsnprintf(text, sizeof text, format, values);
    va_end(values);
    if (length > 0)
        syscall(SYS_write, fd, text, (size_t)length < sizeof text ? (size_t)length : sizeof text - 1);
}

static void print_chain(const char *what, const char *which, long n)
{
    void     *frames[40];
    const int count = backtrace(frames, 40);
    print(STDERR_FILENO, "fail_nth: %s %s %ld\n", what, which, n);
    backtrace_symbols_fd(frames, count, STDERR_FILENO);
}

/* Counts the call; whether it is to fail, with errno set. */
static int fails(enum kind kind)
{
    const long n = atomic_fetch_add(&calls[kind], 1) + 1;
    if ((int)kind != failing_kind || n < first_failing || n > last_failing)
        return 0;
    if (n == first_failing)
        print_chain("failing", kind_names[kind], n);
    errno = errors[kind];
    return 1;
}

static void end_by_signal(int number)
{
    signal(number, SIG_DFL);
    print_chain("ended by", "signal", number);
    raise(number);
}

/* What the loader allocates for a thread stays with the thread's stack, which the C library keeps for later threads: how
 * many there are depends on how many ran at once. */
static uintptr_t loader_begin, loader_end;

static int find_loader(struct dl_phdr_info *object, size_t size, void *unused)
{
    (void)size, (void)unused;
    if (!strstr(object->dlpi_name, "/ld-linux"))
        return 0;
    loader_begin = loader_end = object->dlpi_addr;
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const uintptr_t end = object->dlpi_addr + object->dlpi_phdr[i].p_vaddr + object->dlpi_phdr[i].p_memsz;
        loader_end          = end > loader_end ? end : loader_end;
    }
    return 1;
}

__attribute__((constructor)) static void read_settings(void)
{
    static char stack[65536]; /* for a signal after a stack overflow */
    void       *frame;
    char        kind[16];
    long        first = 0, times = 1;
    const char *setting = getenv("TARN_FAIL");

    dl_iterate_phdr(find_loader, NULL);
    backtrace(&frame, 1); /* loads what it needs */
    sigaltstack(&(stack_t){.ss_sp = stack, .ss_size = sizeof stack}, NULL);
    const int fatal[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
    for (size_t i = 0; i < sizeof fatal / sizeof *fatal; ++i)
        sigaction(fatal[i], &(struct sigaction){.sa_handler = end_by_signal, .sa_flags = SA_ONSTACK | SA_NODEFER},
                  NULL);
    for (int i = 0; i < KINDS; ++i)
        atomic_store(&calls[i], 0);
    if (!setting || sscanf(setting, "%15[a-z]:%ld:%ld", kind, &first, &times) < 2)
        return;
    first_failing = first;
    last_failing  = first + times - 1;
    for (int i = 0; i < KINDS; ++i)
        if (strcmp(kind, kind_names[i]) == 0)
            failing_kind = i;
}

static int open_descriptors(void)
{
    int  count = 0;
    char name[64];
    for (int fd = 0; fd < 1024; ++fd) {
        snprintf(name, sizeof name, "/proc/self/fd/%d", fd);
        count += syscall(SYS_faccessat, AT_FDCWD, name, F_OK) == 0 || fcntl(fd, F_GETFD) >= 0;
    }
    return count;
}

/* A program may call it when it has given everything back; else it is called at its end. */
__attribute__((destructor)) void fail_nth_report(void)
{
    static int  done;
    const char *name = getenv("TARN_FAIL_REPORT");
    if (!name || done++)
        return;
    const int descriptors = open_descriptors();
    const int fd          = (int)syscall(SYS_openat, AT_FDCWD, name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    for (int i = 0; i < KINDS; ++i)
        print(fd, "%s %ld\n", kind_names[i], atomic_load(&calls[i]));
    print(fd, "live %ld\ndescriptors %d\n", atomic_load(&live_blocks), descriptors);
    syscall(SYS_close, fd);
}

/* ------------------------------------------------------------------------------------------------------ memory */

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *old, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void  __libc_free(void *block);

static int is_loader(const void *caller)
{
    return (uintptr_t)caller >= loader_begin && (uintptr_t)caller < loader_end;
}

static void count_live(const void *caller, long blocks)
{
    if (!is_loader(caller))
        atomic_fetch_add(&live_blocks, blocks);
}

#define counted(block) counted_for(__builtin_return_address(0), (block))
static void *counted_for(const void *caller, void *block)
{
    count_live(caller, block != NULL);
    return block;
}

void *malloc(size_t size)
{
    return fails(MEMORY) ? NULL : counted(__libc_malloc(size));
}

void *calloc(size_t count, size_t size)
{
    return fails(MEMORY) ? NULL : counted(__libc_calloc(count, size));
}

void *realloc(void *old, size_t size)
{
    if (fails(MEMORY))
        return NULL;
    void *const block = __libc_realloc(old, size);
    count_live(__builtin_return_address(0), (block != NULL) - (old != NULL && (block != NULL || size == 0)));
    return block;
}

void *aligned_alloc(size_t alignment, size_t size)
{
    return fails(MEMORY) ? NULL : counted(__libc_memalign(alignment, size));
}

int posix_memalign(void **block, size_t alignment, size_t size)
{
    if (fails(MEMORY))
        return ENOMEM;
    *block = counted(__libc_memalign(alignment, size));
    return *block ? 0 : ENOMEM;
}

void free(void *block)
{
    count_live(__builtin_return_address(0), -(block != NULL));
    __libc_free(block);
}

/* ------------------------------------------------------------------------------------------------------- calls */

/* The function of this name that comes behind this one. */
#define NEXT(name, result, ...)                                                                                        \
    static _Atomic(uintptr_t) next_address;                                                                            \
    if (!atomic_load(&next_address))                                                                                   \
        atomic_store(&next_address, (uintptr_t)dlsym(RTLD_NEXT, name));                                                \
    result (*const next)(__VA_ARGS__) = (result(*)(__VA_ARGS__))atomic_load(&next_address)

#define WRAP(kind, failed, result, name, types, parameters, arguments)                                                 \
    result name parameters                                                                                             \
    {                                                                                                                  \
        if (fails(kind))                                                                                               \
            return failed;                                                                                             \
        NEXT(#name, result, TYPES types);                                                                              \
        return next arguments;                                                                                         \
    }
#define TYPES(...) __VA_ARGS__

WRAP(MAP, MAP_FAILED, void *, mmap, (void *, size_t, int, int, int, off_t),
     (void *at, size_t size, int protection, int flags, int fd, off_t offset),
     (at, size, protection, flags, fd, offset))

WRAP(SOCKET, -1, int, socket, (int, int, int), (int domain, int type, int protocol), (domain, type, protocol))
WRAP(SOCKET, -1, int, bind, (int, const struct sockaddr *, socklen_t),
     (int fd, const struct sockaddr *address, socklen_t size), (fd, address, size))
WRAP(SOCKET, -1, int, listen, (int, int), (int fd, int backlog), (fd, backlog))
WRAP(ACCEPT, -1, int, accept4, (int, struct sockaddr *, socklen_t *, int),
     (int fd, struct sockaddr *address, socklen_t *size, int flags), (fd, address, size, flags))

WRAP(EPOLL, -1, int, epoll_create1, (int), (int flags), (flags))
WRAP(EPOLL, -1, int, epoll_ctl, (int, int, int, struct epoll_event *),
     (int epoll, int operation, int fd, struct epoll_event *event), (epoll, operation, fd, event))
WRAP(EPOLL, -1, int, eventfd, (unsigned, int), (unsigned value, int flags), (value, flags))

WRAP(THREAD, EAGAIN, int, pthread_create, (pthread_t *, const pthread_attr_t *, void *(*)(void *), void *),
     (pthread_t * thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument),
     (thread, attributes, body, argument))

int open(const char *path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    if (fails(OPEN))
        return -1;
    NEXT("open", int, const char *, int, ...);
    return next(path, flags, mode);
}
WRAP(OPEN, NULL, FILE *, fopen, (const char *, const char *), (const char *path, const char *mode), (path, mode))
WRAP(OPEN, NULL, DIR *, opendir, (const char *), (const char *path), (path))
WRAP(OPEN, -1, int, mkdir, (const char *, mode_t), (const char *path, mode_t mode), (path, mode))

WRAP(WRITE, -1, ssize_t, write, (int, const void *, size_t), (int fd, const void *data, size_t size), (fd, data, size))
WRAP(WRITE, 0, size_t, fwrite, (const void *, size_t, size_t, FILE *),
     (const void *data, size_t size, size_t count, FILE *file), (data, size, count, file))
WRAP(WRITE, EOF, int, fputs, (const char *, FILE *), (const char *text, FILE *file), (text, file))
WRAP(WRITE, EOF, int, fflush, (FILE *), (FILE * file), (file))
int fclose(FILE *file)
{
    NEXT("fclose", int, FILE *);
    const int failed = fails(WRITE), result = next(file);
    errno = failed ? ENOSPC : errno;
    return failed ? EOF : result; /* the file is closed all the same */
}

WRAP(SYNC, -1, int, fsync, (int), (int fd), (fd))
WRAP(SYNC, -1, int, fdatasync, (int), (int fd), (fd))

WRAP(RENAME, -1, int, rename, (const char *, const char *), (const char *from, const char *to), (from, to))
WRAP(RENAME, -1, int, unlink, (const char *), (const char *path), (path))
