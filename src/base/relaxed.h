// relaxed.h - access to plain fields that threads share.
//
// The fields keep their plain type and place, because hosts read the records; only the access is atomic. Relaxed
// order is enough where a field stands alone. Where it publishes other data, the _acquire/_release forms say so.
//
// Reading like this needs no lock, so the lock analysis lets both peeks pass. Everything that writes is checked: who
// changes a guarded field (TARN_GUARDED_BY) holds its lock.
#ifndef TARN_BASE_RELAXED_H
#define TARN_BASE_RELAXED_H

#include "mutex.h"

#include <atomic>
#include <type_traits>

namespace tarn {

template <class T> using value_of = std::remove_cv_t<T>;

template <class T> [[nodiscard]] inline value_of<T> peek(T &shared) noexcept NO_LOCK_ANALYSIS
{
    return std::atomic_ref<value_of<T>>(const_cast<value_of<T> &>(shared)).load(std::memory_order_relaxed);
}

template <class T> inline void poke(T &shared, std::type_identity_t<value_of<T>> value) noexcept
{
    std::atomic_ref<value_of<T>>(const_cast<value_of<T> &>(shared)).store(value, std::memory_order_relaxed);
}

template <class T> [[nodiscard]] inline value_of<T> peek_acquire(T &shared) noexcept NO_LOCK_ANALYSIS
{
    return std::atomic_ref<value_of<T>>(const_cast<value_of<T> &>(shared)).load(std::memory_order_acquire);
}

template <class T> inline void poke_release(T &shared, std::type_identity_t<value_of<T>> value) noexcept
{
    std::atomic_ref<value_of<T>>(const_cast<value_of<T> &>(shared)).store(value, std::memory_order_release);
}

// Adds and returns the value before.
template <class T> inline value_of<T> bump(T &shared, std::type_identity_t<value_of<T>> by = 1) noexcept
{
    return std::atomic_ref<value_of<T>>(const_cast<value_of<T> &>(shared)).fetch_add(by, std::memory_order_relaxed);
}

// Swaps with acquire and release: whoever sees the old value saw everything before the last swap.
template <class T> [[nodiscard]] inline value_of<T> swap_in(T &shared, std::type_identity_t<value_of<T>> value) noexcept
{
    return std::atomic_ref<value_of<T>>(const_cast<value_of<T> &>(shared)).exchange(value, std::memory_order_acq_rel);
}

template <class T>
[[nodiscard]] inline bool swap_if(T &shared, std::type_identity_t<value_of<T>> expected,
                                  std::type_identity_t<value_of<T>> value) noexcept
{
    return std::atomic_ref<value_of<T>>(const_cast<value_of<T> &>(shared))
        .compare_exchange_strong(expected, value, std::memory_order_acq_rel);
}

} // namespace tarn

#endif
