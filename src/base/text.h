// text.h - fixed text arrays: copies that always terminate, lengths that never run past the array.
#ifndef TARN_BASE_TEXT_H
#define TARN_BASE_TEXT_H

#include <cstddef>
#include <cstring>
#include <string_view>

namespace tarn {

// Copies at most `limit` characters of `from` and terminates. `to` has room for limit + 1. Bytes behind the
// terminator keep what they held.
inline void copy_text(char *to, const char *from, size_t limit) noexcept
{
    const size_t length = strnlen(from, limit);
    memcpy(to, from, length);
    to[length] = '\0';
}

// The text in a fixed array, even when its terminator is missing.
template <size_t N> [[nodiscard]] inline std::string_view text_of(const char (&array)[N]) noexcept
{
    return {array, strnlen(array, N)};
}

// What a null text prints as in log lines.
[[nodiscard]] inline const char *or_null(const char *text) noexcept
{
    return text ? text : "(null)";
}

} // namespace tarn

#endif
