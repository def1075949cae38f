// relaxed.h - what threads share without a lock.
//
// A field that threads share is a Shared<T>: it reads and is written like a T, but each access is atomic, so that none
// can be forgotten. In exported records it stands as TARN_SHARED(T), which hosts see as the plain T (mutex_type.h).
// Relaxed order is enough where a field stands alone. Where it publishes other data, the _acquire/_release forms say so.
//
// A field with a lock of its own (TARN_GUARDED_BY) is read plainly under it. peek() reads one value of it without; the
// lock analysis lets that pass, so it marks the places that do so on purpose. Everything that writes is checked.
#ifndef TARN_BASE_RELAXED_H
#define TARN_BASE_RELAXED_H

#include "mutex.h"

#include <atomic>
#include <cstdint>
#include <type_traits>

namespace tarn {

template <class T> class Shared {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    // Leaves the value as it is: a record of zero bytes stays a trivial one.
    // cppcheck-suppress uninitMemberVar
    Shared() = default;
    constexpr Shared(T value) noexcept : value_(value) {}

    // Not atomic, and needed so that records which nobody else sees yet may be copied whole. Being explicit, it never
    // stands for reading: `auto copy = field` reads through T.
    explicit Shared(const Shared &) = default;

    // Not read first: no ++ or |=. bump() adds.
    Shared &operator=(const Shared &) = delete;
    Shared &operator=(T value) noexcept
    {
        std::atomic_ref<T>(value_).store(value, std::memory_order_relaxed);
        return *this;
    }

    operator T() const noexcept { return std::atomic_ref<T>(const_cast<T &>(value_)).load(std::memory_order_relaxed); }
    T operator->() const noexcept requires std::is_pointer_v<T> { return *this; }

    // For the functions below.
    T &plain() noexcept { return value_; }

private:
    alignas(std::atomic_ref<T>::required_alignment) T value_;
};
static_assert(sizeof(Shared<uint8_t>) == 1 && sizeof(Shared<uint64_t>) == 8, "a Shared<T> replaces a T in records");
static_assert(std::is_trivial_v<Shared<void *>>, "zero bytes are a valid one");

// Both kinds of field: T itself, and Shared<T>.
template <class T> struct PlainOf {
    using type = std::remove_cv_t<T>;
    static type &of(T &field) noexcept { return const_cast<type &>(field); }
};
template <class T> struct PlainOf<Shared<T>> {
    using type = T;
    static type &of(Shared<T> &field) noexcept { return field.plain(); }
};
template <class T> struct PlainOf<const Shared<T>> {
    using type = T;
    static type &of(const Shared<T> &field) noexcept { return const_cast<Shared<T> &>(field).plain(); }
};
template <class T> using value_of = typename PlainOf<T>::type;

// A field that stays a plain T, since hosts copy its record whole or it stands in their own header, used as a Shared<T>.
template <class T> class SharedRef {
public:
    explicit SharedRef(T &field) noexcept : field_(PlainOf<T>::of(field)) {}

    SharedRef &operator=(value_of<T> value) noexcept requires(!std::is_const_v<T>)
    {
        field_.store(value, std::memory_order_relaxed);
        return *this;
    }
    operator value_of<T>() const noexcept { return field_.load(std::memory_order_relaxed); }

private:
    std::atomic_ref<value_of<T>> field_;
};
template <class T> [[nodiscard]] SharedRef<T> shared(T &field) noexcept
{
    return SharedRef<T>(field);
}

template <class T> [[nodiscard]] inline value_of<T> peek(T &shared) noexcept NO_LOCK_ANALYSIS
{
    return std::atomic_ref(PlainOf<T>::of(shared)).load(std::memory_order_relaxed);
}

template <class T> [[nodiscard]] inline value_of<T> peek_acquire(T &shared) noexcept NO_LOCK_ANALYSIS
{
    return std::atomic_ref(PlainOf<T>::of(shared)).load(std::memory_order_acquire);
}

template <class T> inline void poke_release(T &shared, std::type_identity_t<value_of<T>> value) noexcept
{
    std::atomic_ref(PlainOf<T>::of(shared)).store(value, std::memory_order_release);
}

// Adds and returns the value before.
template <class T> inline value_of<T> bump(T &shared, std::type_identity_t<value_of<T>> by = 1) noexcept
{
    return std::atomic_ref(PlainOf<T>::of(shared)).fetch_add(by, std::memory_order_relaxed);
}

// Swaps with acquire and release: a thread that gets the old value sees everything that was done before it was set.
template <class T> [[nodiscard]] inline value_of<T> swap_in(T &shared, std::type_identity_t<value_of<T>> value) noexcept
{
    return std::atomic_ref(PlainOf<T>::of(shared)).exchange(value, std::memory_order_acq_rel);
}

template <class T>
[[nodiscard]] inline bool swap_if(T &shared, std::type_identity_t<value_of<T>> expected,
                                  std::type_identity_t<value_of<T>> value) noexcept
{
    return std::atomic_ref(PlainOf<T>::of(shared)).compare_exchange_strong(expected, value, std::memory_order_acq_rel);
}

} // namespace tarn

#endif
