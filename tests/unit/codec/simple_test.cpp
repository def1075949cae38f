#include "calls.h"
#include "support/log_lines/codec.h"

#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

struct Simple {
    int              code;
    int              length; // *buf_len afterwards
    Bytes            buffer;
    mqtt_codec_ctx_t ctx;
    Log              log;
};

Simple encode(int type, uint32_t version, int capacity = 128, uint32_t log_level = 0)
{
    Simple     out{99, capacity, repeat(0xEE, static_cast<size_t>(capacity)), context(version), {}};
    LogCapture log(log_level);
    out.code = mqtt_codec_encode_simple(&out.ctx, type, out.buffer.data(), &out.length);
    out.log  = log.take();
    return out;
}

Simple decode(int type, const Bytes &bytes, uint32_t version = 4)
{
    Simple out{99, static_cast<int>(bytes.size()), bytes, context(version), {}};
    out.buffer.shrink_to_fit();
    LogCapture log(0);
    out.code = mqtt_codec_decode_simple(&out.ctx, type, out.buffer.data(), &out.length);
    out.log  = log.take();
    return out;
}
Simple decode(int type, const char *bytes, uint32_t version = 4)
{
    return decode(type, wire(bytes), version);
}

void expect_encoded(const Simple &s, int type, int version, const char *packet)
{
    Bytes expected = wire(packet);
    EXPECT_EQ(s.code, 0);
    EXPECT_EQ(s.length, static_cast<int>(expected.size()));
    EXPECT_EQ(s.log, Log{debug("Simple encode success: type=" + std::to_string(type) +
                               ", version=" + std::to_string(version) + ", len=" + std::to_string(expected.size()))});
    expected.resize(s.buffer.size()); // zeroes behind it
    EXPECT_EQ(s.buffer, expected);
    EXPECT_EQ(s.ctx.last_packet_type, static_cast<uint32_t>(type));
    EXPECT_EQ(s.ctx.last_packet_len, 78u);
}

void expect_decoded(const Simple &s, int type, uint32_t version, int consumed)
{
    EXPECT_EQ(s.code, 0);
    EXPECT_EQ(s.length, consumed);
    EXPECT_EQ(s.log, Log{debug("Simple decode success: type=" + std::to_string(type) +
                               ", version=" + std::to_string(version) + ", len=" + std::to_string(consumed))});
    EXPECT_EQ(s.ctx.version, version);
    EXPECT_EQ(s.ctx.last_packet_type, static_cast<uint32_t>(type));
    EXPECT_EQ(s.ctx.last_packet_len, static_cast<uint32_t>(consumed));
}

void expect_refused(const Simple &s, int code, const LogLine &line)
{
    EXPECT_EQ(s.code, code);
    EXPECT_EQ(s.log, Log{line});
    EXPECT_EQ(s.length, static_cast<int>(s.buffer.size()));
    EXPECT_TRUE(untouched(s.ctx));
}

std::string invalid(const char *call, const void *ctx, const void *buf, const void *buf_len, int len)
{
    return std::string(call) + ": invalid param (ctx=" + pointer(ctx) + ", buf=" + pointer(buf) +
           ", buf_len=" + pointer(buf_len) + ", len=" + std::to_string(len) + ")";
}

} // namespace

// ---- encoding

TEST(simple_encode, two_bytes)
{
    for (const int version : {4, 5}) {
        expect_encoded(encode(12, static_cast<uint32_t>(version)), 12, version, "C0 00");
        expect_encoded(encode(13, static_cast<uint32_t>(version)), 13, version, "D0 00");
    }
    expect_encoded(encode(14, 4), 14, 4, "E0 00");
}

TEST(simple_encode, disconnect_has_a_third_byte_at_5)
{
    expect_encoded(encode(14, 5), 14, 5, "E0 00 00");
}

TEST(simple_encode, refuses_missing_parameters)
{
    mqtt_codec_ctx_t ctx = context(4);
    uint8_t          buf[128];
    int              len = 128;
    LogCapture       log(0);
    EXPECT_EQ(mqtt_codec_encode_simple(nullptr, 12, buf, &len), -1);
    EXPECT_EQ(log.take(), Log{error(invalid("Simple encode", nullptr, buf, &len, 128))});
    EXPECT_EQ(mqtt_codec_encode_simple(&ctx, 12, nullptr, &len), -1);
    EXPECT_EQ(log.take(), Log{error(invalid("Simple encode", &ctx, nullptr, &len, 128))});
    EXPECT_EQ(mqtt_codec_encode_simple(&ctx, 12, buf, nullptr), -1);
    EXPECT_EQ(log.take(), Log{error(invalid("Simple encode", &ctx, buf, nullptr, -1))});
    for (const int small : {127, 0, -1}) {
        len = small;
        EXPECT_EQ(mqtt_codec_encode_simple(&ctx, 12, buf, &len), -1);
        EXPECT_EQ(log.take(), Log{error(invalid("Simple encode", &ctx, buf, &len, small))});
    }
    EXPECT_TRUE(untouched(ctx));
}

TEST(simple_encode, refuses_other_types)
{
    for (const int type : {0, 1, 11, 15, -1}) {
        const Simple s = encode(type, 3); // before the level
        expect_refused(s, -5, error("Simple encode: unsupported packet type " + std::to_string(type)));
        EXPECT_EQ(s.buffer, repeat(0xEE, 128));
    }
}

TEST(simple_encode, wants_level_4_or_5)
{
    for (const uint32_t version : {0u, 3u, 6u})
        expect_refused(encode(12, version), -2, error("Simple encode: unsupported version " + std::to_string(version)));
}

// ---- decoding

TEST(simple_decode, two_bytes_are_level_4)
{
    for (const uint32_t version : {4u, 5u}) {
        expect_decoded(decode(12, "C0 00", version), 12, 4, 2);
        expect_decoded(decode(13, "D0 00", version), 13, 4, 2);
        expect_decoded(decode(14, "E0 00", version), 14, 4, 2);
    }
    expect_decoded(decode(14, "E0 00 00"), 14, 4, 2); // the encoder's third byte is not read
}

TEST(simple_decode, content_means_5_and_may_be_incomplete)
{
    expect_decoded(decode(14, "E0 01 04"), 14, 5, 3);
    expect_decoded(decode(14, "E0 02 04 00"), 14, 5, 4);
    expect_decoded(decode(14, "E0 02 04 00 | C0 00"), 14, 5, 4);
    expect_decoded(decode(14, "E0 02 04"), 14, 5, 3);
    expect_decoded(decode(14, "E0 02"), 14, 5, 2);
    expect_decoded(decode(14, "E0 FF FF 7F 00"), 14, 5, 5);
}

TEST(simple_decode, any_type_and_flags)
{
    expect_decoded(decode(12, "CF 00"), 12, 4, 2);
    expect_decoded(decode(0, "00 00"), 0, 4, 2);
    expect_decoded(decode(3, "30 03 00 01 61"), 3, 5, 5);
    expect_decoded(decode(15, "F0 80 00"), 15, 4, 3); // a long form of length 0
}

TEST(simple_decode, refuses_missing_parameters)
{
    mqtt_codec_ctx_t ctx   = context(4);
    const Bytes      bytes = wire("C0 00");
    const uint8_t   *buf   = bytes.data();
    int              len   = 2;
    LogCapture       log(0);
    EXPECT_EQ(mqtt_codec_decode_simple(nullptr, 12, buf, &len), -1);
    EXPECT_EQ(log.take(), Log{error(invalid("Simple decode", nullptr, buf, &len, 2))});
    EXPECT_EQ(mqtt_codec_decode_simple(&ctx, 12, nullptr, &len), -1);
    EXPECT_EQ(log.take(), Log{error(invalid("Simple decode", &ctx, nullptr, &len, 2))});
    EXPECT_EQ(mqtt_codec_decode_simple(&ctx, 12, buf, nullptr), -1);
    EXPECT_EQ(log.take(), Log{error(invalid("Simple decode", &ctx, buf, nullptr, -1))});
    for (const int small : {1, 0, -1}) {
        len = small;
        EXPECT_EQ(mqtt_codec_decode_simple(&ctx, 12, buf, &len), -1);
        EXPECT_EQ(log.take(), Log{error(invalid("Simple decode", &ctx, buf, &len, small))});
    }
    EXPECT_TRUE(untouched(ctx));
}

TEST(simple_decode, refuses_another_type)
{
    expect_refused(decode(12, "D0 00"), -4, logged::simple_decode_wrong_type(12, 13));
    expect_refused(decode(28, "C0 00"), -4, logged::simple_decode_wrong_type(28, 12));
}

TEST(simple_decode, refuses_a_bad_remaining_length)
{
    for (const char *bytes : {"C0 80", "C0 80 80", "C0 80 80 80 00"}) {
        const Simple s = decode(12, bytes, 5);
        expect_refused(s, -4, error("Simple decode: invalid remaining length"));
        EXPECT_EQ(s.ctx.version, 5u);
    }
}

TEST(simple_decode, cut_at_every_byte)
{
    const Bytes whole   = wire("E0 81 00 04");
    const int   codes[] = {-1, -1, -4, 0, 0};
    for (size_t cut = 0; cut <= whole.size(); ++cut) {
        const Simple s = decode(14, Bytes(whole.begin(), whole.begin() + static_cast<long>(cut)));
        EXPECT_EQ(s.code, codes[cut]) << cut;
        EXPECT_EQ(s.length, static_cast<int>(cut));
    }
}

TEST(simple_decode, reads_back_what_the_encoder_wrote)
{
    for (const int type : {12, 13, 14})
        for (const uint32_t version : {4u, 5u}) {
            const Simple e = encode(type, version);
            expect_decoded(decode(type, Bytes(e.buffer.begin(), e.buffer.begin() + e.length)), type, 4, 2);
        }
}
