// field_count.h - how many fields a plain struct has, so that a table can be held to name every one of them.
#ifndef TARN_BASE_FIELD_COUNT_H
#define TARN_BASE_FIELD_COUNT_H

#include "relaxed.h"

#include <cstddef>
#include <type_traits>
#include <utility>

namespace tarn {
namespace detail {

template <class T> inline constexpr bool is_shared            = false;
template <class T> inline constexpr bool is_shared<Shared<T>> = true;

// Initialises any scalar, shared or not, and with one in braces the first scalar of anything else.
struct AnyScalar {
    template <class T>
    requires(std::is_scalar_v<T> || std::is_union_v<T> || is_shared<T>) operator T() const noexcept;
};

template <class T, size_t... at> consteval bool takes(std::index_sequence<at...>)
{
    return requires
    {
        T{{(static_cast<void>(at), AnyScalar{})}...};
    };
}

} // namespace detail

template <class T, size_t count = 1> consteval size_t field_count()
{
    if constexpr (detail::takes<T>(std::make_index_sequence<count>{}))
        return field_count<T, count + 1>();
    else
        return count - 1;
}

} // namespace tarn

#endif
