// decoded.h - packets as tests write them, decoded in memory of exactly their size.
#ifndef TARN_TESTS_CODEC_STANDARD_DECODED_H
#define TARN_TESTS_CODEC_STANDARD_DECODED_H

#include "support/standard_packets.h"
#include "support/wire.h"

#include <gtest/gtest.h>
#include <utility>

namespace tarn::test {

using standard::Level;
using standard::Reason;

constexpr Level k311 = Level::Mqtt311;
constexpr Level k5   = Level::Mqtt5;

// A packet and what a decoder made of it, which points into it.
template <class Struct> struct Decoded {
    Packet            packet;
    Struct            value;
    standard::Verdict verdict;
};

// Refused is also every packet that ends before this one.
template <class Struct, class Decode> Decoded<Struct> decoded(const Bytes &bytes, Decode decode)
{
    Decoded<Struct> out = {bytes, {}, {}};
    out.packet.shrink_to_fit();
    out.verdict = decode(standard::Bytes(out.packet), out.value);
    if (!out.verdict.ok())
        return out;
    for (size_t length = 0; length < bytes.size() && length < 300; ++length) {
        Packet cut(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(length));
        Struct ignored;
        EXPECT_FALSE(decode(standard::Bytes(cut), ignored).ok()) << "cut to " << length << ": " << hex(cut);
    }
    return out;
}

#define EXPECT_OK(decoded)                                                                                             \
    EXPECT_EQ(standard::name_of((decoded).verdict.reason), std::string("Success")) << (decoded).verdict.text
#define EXPECT_REFUSED(decoded, expected)                                                                              \
    do {                                                                                                               \
        const standard::Verdict verdict_ = (decoded).verdict;                                                          \
        EXPECT_EQ(standard::name_of(verdict_.reason), std::string(standard::name_of(expected))) << verdict_.text;      \
        EXPECT_STRNE(verdict_.text, "");                                                                               \
    } while (0)

inline std::string text_of(standard::Bytes bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

inline standard::Bytes bytes_of(std::string_view text)
{
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

// A User Property as it stands in a block.
inline Bytes user_property(std::string_view name, std::string_view value)
{
    return wire("26") + prefixed(name) + prefixed(value);
}

} // namespace tarn::test

#endif
