/*
 * mutex_type.h - the types of what threads share in exported records and globals: mutexes, what they guard, and fields
 * that are written and read without one.
 *
 * A host sees the plain POSIX mutex and plain fields. Inside the library the same bytes carry the compiler's lock
 * annotations, so that "needs this lock" can be written down and checked, and every access to a shared field is atomic.
 */
#ifndef TARN_BASE_MUTEX_TYPE_H
#define TARN_BASE_MUTEX_TYPE_H

#include <pthread.h>

#if defined(__cplusplus) && defined(TARN_BUILDING)
#include "mutex.h"
#include "relaxed.h"
typedef tarn::Mutex tarn_mutex_t;
#define TARN_SHARED(type) tarn::Shared<type>
#else
typedef pthread_mutex_t tarn_mutex_t;
/* A host that reads or writes such a field beside the library does so atomically too, relaxed. */
#define TARN_SHARED(type) type
#endif

/*
 * Behind a field or global: it changes only while this lock is held, and is read under it, or where one value is enough
 * with peek() of relaxed.h. clang checks that where the library itself is compiled (TARN_CHECK_GUARDS); to hosts, and
 * to tests that have a record for themselves, it is a comment.
 */
#if defined(__cplusplus) && defined(TARN_CHECK_GUARDS)
#define TARN_GUARDED_BY(lock) GUARDED_BY(lock)
#else
#define TARN_GUARDED_BY(lock)
#endif

#endif
