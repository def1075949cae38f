/*
 * export.h - brackets for everything that leaves the library, and checks of record layouts.
 *
 * Module headers are plain C (C11, C++17) so that a host may include them; what stands between the two brackets has C
 * linkage and default visibility. Everything else in the library is hidden. None of it goes or changes its
 * meaning within version 2; beyond that only the functions of tarn_sdk_mqtt_broker.h are meant to stay.
 */
#ifndef TARN_BASE_EXPORT_H
#define TARN_BASE_EXPORT_H

#ifdef __cplusplus
/* clang-format off */
#define TARN_API_BEGIN _Pragma("GCC visibility push(default)") extern "C" {
#define TARN_API_END } _Pragma("GCC visibility pop")
/* clang-format on */
#define TARN_LAYOUT_CHECK(cond) static_assert(cond, #cond)
#define TARN_LAYOUT_FIELD(type, field, bytes) TARN_LAYOUT_CHECK(sizeof(type::field) == (bytes))
#else
#define TARN_API_BEGIN _Pragma("GCC visibility push(default)")
#define TARN_API_END _Pragma("GCC visibility pop")
#define TARN_LAYOUT_CHECK(cond) _Static_assert(cond, #cond)
#define TARN_LAYOUT_FIELD(type, field, bytes) TARN_LAYOUT_CHECK(sizeof(((type *)0)->field) == (bytes))
#endif

/* Record layout is part of the binary interface: hosts allocate these records themselves. The sizes of arrays are
 * checked too, because padding behind one would hide that it grew. */
#define TARN_LAYOUT_SIZE(type, bytes) TARN_LAYOUT_CHECK(sizeof(type) == (bytes))
#define TARN_LAYOUT_OFFSET(type, field, byte) TARN_LAYOUT_CHECK(offsetof(type, field) == (byte))

/* Records that hold a mutex have a fixed size only where the mutex has one. */
#if defined(__SIZEOF_PTHREAD_MUTEX_T) && __SIZEOF_PTHREAD_MUTEX_T != 40
#define TARN_LAYOUT_HAS_MUTEX_SIZES 0
#elif defined(__x86_64__)
#define TARN_LAYOUT_HAS_MUTEX_SIZES 1
#else
#define TARN_LAYOUT_HAS_MUTEX_SIZES 0
#endif

#endif
