// utf8.cpp - eight ASCII characters at a time, then one at a time, everything else one sequence at a time.
#include "utf8.h"

#include <cstdint>
#include <cstring>

namespace tarn::codec::standard {

namespace {

// Whether the next eight bytes are all from 0x01 to 0x7F.
bool starts_with_8_ascii(const char *at)
{
    uint64_t word = 0;
    memcpy(&word, at, sizeof word);
    // Without high bits, taking 1 off each byte sets a high bit only if a byte was 0.
    return ((word | (word - 0x0101010101010101U)) & 0x8080808080808080U) == 0;
}

// From 0x01 to 0x7F, too.
bool is_ascii(uint8_t byte)
{
    return byte != 0 && byte < 0x80;
}

// The length of a sequence of two bytes or more at the front, 0 if it is none. The second byte's range keeps out longer
// forms than needed, surrogates, and all above U+10FFFF.
size_t sequence_length(const uint8_t *at, size_t left)
{
    const uint8_t lead = at[0];
    if (lead < 0xC2 || lead > 0xF4)
        return 0;
    const size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (length > left)
        return 0;
    const uint8_t least = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const uint8_t most  = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (at[1] < least || at[1] > most)
        return 0;
    for (size_t i = 2; i < length; ++i)
        if ((at[i] & 0xC0) != 0x80)
            return 0;
    return length;
}

} // namespace

bool is_utf8(std::string_view text) noexcept
{
    for (size_t pos = 0; pos < text.size();) {
        const size_t left = text.size() - pos;
        if (left >= 8 && starts_with_8_ascii(text.data() + pos)) {
            pos += 8;
            continue;
        }
        if (is_ascii(static_cast<uint8_t>(text[pos]))) {
            ++pos;
            continue;
        }
        const size_t length = sequence_length(reinterpret_cast<const uint8_t *>(text.data()) + pos, left);
        if (length == 0)
            return false;
        pos += length;
    }
    return true;
}

} // namespace tarn::codec::standard
