// text.cpp - building the three kinds of JSON files and taking their values apart.
//
// Escapes keep one client's text from becoming another field: a quote or a backslash gets a backslash, control
// characters become \u00xx, and in message files, whose objects are found by their braces, so do { and }. These are
// decoded again, and nothing else.
#include "persist_internal.h"

#include <cstdio>
#include <cstring>

namespace tarn::persist {
namespace {

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Whether append_escaped writes this byte as \u00xx.
bool is_written_by_number(int byte)
{
    return (byte > 0 && byte < 0x20) || byte == '{' || byte == '}';
}

// The value of a digit as append_escaped writes it, or -1.
int lower_hex_digit(char c)
{
    return c >= 'A' && c <= 'F' ? -1 : hex_digit(c);
}

// The character that the escape at the front of `raw` stands for, and its length; 0 when it is none of those that
// append_escaped writes. Earlier versions wrote texts raw, so any other backslash is one.
size_t decode_escape(std::string_view raw, char &decoded)
{
    if (raw.size() >= 2 && (raw[1] == '"' || raw[1] == '\\')) {
        decoded = raw[1];
        return 2;
    }
    if (raw.size() < 6 || !raw.starts_with("\\u00"))
        return 0;
    const int high = lower_hex_digit(raw[4]);
    const int low  = lower_hex_digit(raw[5]);
    if (high < 0 || low < 0 || !is_written_by_number(high * 16 + low))
        return 0;
    decoded = static_cast<char>(high * 16 + low);
    return 6;
}

} // namespace

void Text::append(std::string_view piece) noexcept
{
    ok_ = ok_ && chars_.append(piece.data(), piece.size());
}

void Text::append_format(const char *format, ...) noexcept
{
    char    piece[256]; // numbers and key names only
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(piece, sizeof piece, format, arguments);
    va_end(arguments);
    append(piece);
}

void Text::append_escaped(std::string_view value, bool braces_too) noexcept
{
    for (const char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\')
            append_format("\\%c", c);
        else if (byte < 0x20 || (braces_too && (c == '{' || c == '}')))
            append_format("\\u00%02x", byte);
        else
            append({&c, 1});
    }
}

void Text::append_hex(const uint8_t *bytes, size_t count) noexcept
{
    constexpr char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i < count; ++i) {
        const char pair[] = {kDigits[bytes[i] >> 4], kDigits[bytes[i] & 15]};
        append({pair, 2});
    }
}

void Text::cut(size_t characters) noexcept
{
    chars_.resize_down(characters);
}

const char *Text::c_str() noexcept
{
    ok_ = ok_ && chars_.push('\0');
    if (!ok_)
        return nullptr;
    chars_.resize_down(chars_.size() - 1);
    return chars_.data();
}

void unescape(char *to, size_t limit, std::string_view raw) noexcept
{
    size_t length = 0;
    for (size_t i = 0; i < raw.size() && length < limit;) {
        char   c    = raw[i];
        size_t took = 1;
        if (c == '\\') {
            char decoded = 0;
            if (const size_t escape = decode_escape(raw.substr(i), decoded)) {
                c    = decoded;
                took = escape;
            }
        }
        to[length++] = c;
        i += took;
    }
    to[length] = '\0';
}

size_t unhex(uint8_t *to, size_t limit, std::string_view pairs) noexcept
{
    size_t count = 0;
    for (; count < limit && count * 2 + 1 < pairs.size(); ++count) {
        const int high = hex_digit(pairs[count * 2]);
        const int low  = hex_digit(pairs[count * 2 + 1]);
        if (high < 0 || low < 0)
            break;
        to[count] = static_cast<uint8_t>(high * 16 + low);
    }
    return count;
}

} // namespace tarn::persist
