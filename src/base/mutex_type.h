/*
 * mutex_type.h - the type of every mutex that stands in an exported record or global.
 *
 * A host sees the plain POSIX mutex. Inside the library the same bytes carry the compiler's lock annotations, so
 * that "needs this lock" can be written down and checked.
 */
#ifndef TARN_BASE_MUTEX_TYPE_H
#define TARN_BASE_MUTEX_TYPE_H

#include <pthread.h>

#if defined(__cplusplus) && defined(TARN_BUILDING)
#include "mutex.h"
typedef tarn::Mutex tarn_mutex_t;
#else
typedef pthread_mutex_t tarn_mutex_t;
#endif

#endif
