#include "calls.h"
#include "support/log_lines/codec.h"

#include <climits>
#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

std::string encoded(uint32_t value)
{
    uint8_t        field[6] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    const uint32_t bytes    = codec_encode_remaining_length(field, value);
    EXPECT_EQ(field[bytes], 0xEE) << "wrote more than it said";
    return hex(field, bytes);
}

struct Value {
    int      value;
    uint32_t consumed;
    bool     operator==(const Value &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Value &v)
{
    return out << v.value << " in " << v.consumed;
}

constexpr uint32_t kUnwritten = 12345;

Value decoded(const char *text, int avail = -1)
{
    const Bytes bytes = wire(text);
    Value       out   = {0, kUnwritten};
    out.value =
        codec_decode_remaining_length(bytes.data(), avail < 0 ? static_cast<int>(bytes.size()) : avail, &out.consumed);
    return out;
}
constexpr Value kFailed = {-1, kUnwritten};

} // namespace

TEST(encode_remaining_length, one_to_four_bytes)
{
    EXPECT_EQ(encoded(0), "00");
    EXPECT_EQ(encoded(1), "01");
    EXPECT_EQ(encoded(127), "7F");
    EXPECT_EQ(encoded(128), "80 01");
    EXPECT_EQ(encoded(129), "81 01");
    EXPECT_EQ(encoded(16383), "FF 7F");
    EXPECT_EQ(encoded(16384), "80 80 01");
    EXPECT_EQ(encoded(2097151), "FF FF 7F");
    EXPECT_EQ(encoded(2097152), "80 80 80 01");
    EXPECT_EQ(encoded(268435455), "FF FF FF 7F");
}

TEST(encode_remaining_length, above_the_maximum)
{
    uint8_t    field[6] = {};
    LogCapture log;
    EXPECT_EQ(codec_encode_remaining_length(field, 268435455), 4u);
    EXPECT_EQ(log.take(), Log{});
    EXPECT_EQ(codec_encode_remaining_length(field, 268435456), 0u);
    EXPECT_EQ(log.take(), Log{logged::remaining_length_too_large(268435456)});
    EXPECT_EQ(codec_encode_remaining_length(field, UINT_MAX), 0u);
    EXPECT_EQ(log.take(), Log{logged::remaining_length_too_large(4294967295u)});
}

TEST(encode_remaining_length, without_a_buffer)
{
    LogCapture log;
    EXPECT_EQ(codec_encode_remaining_length(nullptr, 5), 0u);
    EXPECT_EQ(codec_encode_remaining_length(nullptr, 268435456), 0u);
    EXPECT_EQ(log.take(), (Log{logged::remaining_length_no_buffer(), logged::remaining_length_no_buffer()}));
}

TEST(decode_remaining_length, one_to_three_bytes)
{
    EXPECT_EQ(decoded("00"), (Value{0, 1}));
    EXPECT_EQ(decoded("7F"), (Value{127, 1}));
    EXPECT_EQ(decoded("80 01"), (Value{128, 2}));
    EXPECT_EQ(decoded("FF 7F"), (Value{16383, 2}));
    EXPECT_EQ(decoded("80 80 01"), (Value{16384, 3}));
    EXPECT_EQ(decoded("FF FF 7F"), (Value{2097151, 3}));
    EXPECT_EQ(decoded("05 FF FF"), (Value{5, 1})) << "stops at its last byte";
    EXPECT_EQ(decoded("81 80 00"), (Value{1, 3})) << "longer forms pass";
}

TEST(decode_remaining_length, a_fourth_byte_is_refused)
{
    LogCapture log;
    EXPECT_EQ(decoded("80 80 80 01"), kFailed);
    EXPECT_EQ(decoded("FF FF FF 7F"), kFailed);
    EXPECT_EQ(decoded("FF FF FF FF"), kFailed);
    EXPECT_EQ(log.take(), Log{}) << "its callers speak";
}

TEST(decode_remaining_length, a_missing_byte)
{
    EXPECT_EQ(decoded("80"), kFailed);
    EXPECT_EQ(decoded("80 01", 1), kFailed);
    EXPECT_EQ(decoded("80 80"), kFailed);
    EXPECT_EQ(decoded("80 80 80"), kFailed);
    EXPECT_EQ(decoded("80 80 01", 2), kFailed);
}

TEST(decode_remaining_length, nothing_to_read)
{
    uint32_t      consumed = kUnwritten;
    const uint8_t byte     = 5;
    EXPECT_EQ(codec_decode_remaining_length(nullptr, 1, &consumed), -1);
    EXPECT_EQ(codec_decode_remaining_length(&byte, 0, &consumed), -1);
    EXPECT_EQ(codec_decode_remaining_length(&byte, -1, &consumed), -1);
    EXPECT_EQ(codec_decode_remaining_length(&byte, INT_MIN, &consumed), -1);
    EXPECT_EQ(consumed, kUnwritten);
    EXPECT_EQ(codec_decode_remaining_length(&byte, 1, nullptr), -1) << "nowhere to store the count";
}

TEST(decode_remaining_length, reads_back_what_was_encoded)
{
    for (uint32_t value = 0; value <= 2097151; value += value < 20000 ? 1 : 977) {
        uint8_t        field[4];
        const uint32_t bytes    = codec_encode_remaining_length(field, value);
        uint32_t       consumed = 0;
        ASSERT_EQ(codec_decode_remaining_length(field, static_cast<int>(bytes), &consumed), static_cast<int>(value));
        ASSERT_EQ(consumed, bytes);
    }
}
