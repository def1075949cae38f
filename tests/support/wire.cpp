#include "wire.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace tarn::test {

Bytes wire(std::string_view text)
{
    Bytes out;
    for (size_t i = 0; i < text.size();) {
        const char c = text[i];
        if (c == ' ' || c == '|' || c == '\n') {
            ++i;
        } else if (c == '\'') {
            const size_t end = text.find('\'', i + 1);
            if (end == std::string_view::npos)
                break;
            out.insert(out.end(), text.begin() + static_cast<long>(i) + 1, text.begin() + static_cast<long>(end));
            i = end + 1;
        } else if (i + 1 < text.size() && isxdigit(c) && isxdigit(text[i + 1])) {
            out.push_back(static_cast<uint8_t>(strtoul(std::string(text.substr(i, 2)).c_str(), nullptr, 16)));
            i += 2;
        } else {
            fprintf(stderr, "not a packet: %.*s\n", static_cast<int>(text.size()), text.data());
            abort();
        }
    }
    return out;
}

std::string hex(const uint8_t *bytes, size_t count)
{
    std::string out;
    char        pair[4];
    for (size_t i = 0; i < count; ++i) {
        snprintf(pair, sizeof pair, i ? " %02X" : "%02X", bytes[i]);
        out += pair;
    }
    return out;
}
std::string hex(const Bytes &bytes)
{
    return hex(bytes.data(), bytes.size());
}

Bytes operator+(Bytes left, const Bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}
Bytes text(std::string_view value)
{
    return {value.begin(), value.end()};
}
Bytes u16(unsigned value)
{
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}
Bytes prefixed(std::string_view value)
{
    return u16(static_cast<unsigned>(value.size())) + text(value);
}
Bytes repeat(uint8_t value, size_t count)
{
    return Bytes(count, value);
}

Bytes packet(uint8_t first, const Bytes &body)
{
    Bytes  out  = {first};
    size_t left = body.size();
    do {
        const auto seven = static_cast<uint8_t>(left & 0x7F);
        left >>= 7;
        out.push_back(left ? seven | 0x80 : seven);
    } while (left);
    return out + body;
}

} // namespace tarn::test
