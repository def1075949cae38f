#include "calls.h"
#include "support/log_lines/codec.h"

#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

constexpr int kPuback = 4, kPubrec = 5, kPubrel = 6, kPubcomp = 7, kSuback = 9, kUnsuback = 11;

using Ack = Decoded<mqtt_ack_para_t>;

template <int Type> int decode_type(mqtt_codec_ctx_t *ctx, const uint8_t *buf, int *buf_len, mqtt_ack_para_t *para)
{
    return mqtt_codec_decode_ack(ctx, Type, buf, buf_len, para);
}
template <int Type> Ack decode(const Bytes &bytes, uint32_t version = 4, uint32_t log_level = 0)
{
    return decode_with(decode_type<Type>, bytes, version, log_level);
}
template <int Type> Ack decode(const char *bytes, uint32_t version = 4)
{
    return decode<Type>(wire(bytes), version);
}

void expect_success(const Ack &d, uint32_t type, uint32_t version, int id, int reason, int consumed)
{
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(d.all, Log{debug("ACK decode success: type=" + std::to_string(type) + ", msg_id=" + std::to_string(id) +
                               ", version=" + std::to_string(version) + ", len=" + std::to_string(consumed))});
    EXPECT_EQ(d.consumed, consumed);
    EXPECT_EQ(d.para.msg_id, id);
    EXPECT_EQ(d.para.reason_code, reason);
    EXPECT_EQ(d.ctx.version, version);
    EXPECT_EQ(d.ctx.last_packet_type, type);
    EXPECT_EQ(d.ctx.last_packet_len, static_cast<uint32_t>(consumed));
}

std::vector<uint32_t> codes_of(const Ack &d)
{
    return {d.para.return_codes, d.para.return_codes + d.para.return_code_count};
}
using Codes = std::vector<uint32_t>;

template <int Type> void expect_refused(const char *bytes, const LogLine &line)
{
    const Ack d = decode<Type>(bytes, 5);
    EXPECT_EQ(d.code, -4);
    EXPECT_EQ(d.all, Log{line});
    EXPECT_EQ(d.consumed, static_cast<int>(wire(bytes).size()));
    EXPECT_TRUE(untouched(d.ctx));
    EXPECT_EQ(d.ctx.version, 5u);
}

} // namespace

TEST(ack_decode, the_length_tells_the_level)
{
    for (const uint32_t version : {4u, 5u}) {
        expect_success(decode<kPuback>("40 02 00 07", version), 4, 4, 7, 0, 4);
        expect_success(decode<kPuback>("40 03 00 07 10", version), 4, 5, 7, 0x10, 5);
    }
    const Ack d = decode<kSuback>("90 04 00 07 01 02", 4); // a 3.1.1 SUBACK with codes reads as 5.0
    EXPECT_EQ(d.ctx.version, 5u);
    EXPECT_EQ(d.para.reason_code, 1);
    EXPECT_EQ(d.consumed, 6);
}

TEST(ack_decode, all_types)
{
    expect_success(decode<kPubrec>("50 02 12 34"), 5, 4, 0x1234, 0, 4);
    expect_success(decode<kPubrel>("62 02 12 34"), 6, 4, 0x1234, 0, 4);
    expect_success(decode<kPubcomp>("70 03 12 34 92"), 7, 5, 0x1234, 0x92, 5);
    expect_success(decode<kSuback>("90 02 12 34"), 9, 4, 0x1234, 0, 4);
    expect_success(decode<kUnsuback>("B0 03 12 34 11"), 11, 5, 0x1234, 0x11, 5);
    expect_success(decode<kPuback>("40 02 00 00"), 4, 4, 0, 0, 4); // identifier 0 is not judged
}

TEST(ack_decode, any_type_may_be_expected)
{
    expect_success(decode<12>("C0 02 00 07"), 12, 4, 7, 0, 4);
}

TEST(ack_decode, clears_the_record)
{
    mqtt_ack_para_t expected;
    memset(&expected, 0, sizeof expected);
    expected.msg_id = 7;
    const Ack d     = decode<kPuback>("40 02 00 07");
    EXPECT_EQ(memcmp(&d.para, &expected, sizeof expected), 0);
}

TEST(ack_decode, does_not_look_at_the_flags)
{
    expect_success(decode<kPubrel>("60 02 00 07"), 6, 4, 7, 0, 4);
    expect_success(decode<kPuback>("4F 02 00 07"), 4, 4, 7, 0, 4);
}

// ---- properties

TEST(ack_decode, a_zero_property_length_is_not_consumed)
{
    expect_success(decode<kPuback>("40 04 00 07 00 00"), 4, 5, 7, 0, 5);
    expect_success(decode<kPuback>("40 04 00 07 10 00"), 4, 5, 7, 0x10, 5);
    const Ack d = decode<kSuback>("90 06 00 07 00 00 01 02"); // for SUBACK it is the first code
    EXPECT_EQ(codes_of(d), (Codes{0, 1, 2}));
    EXPECT_EQ(d.consumed, 8);
}

TEST(ack_decode, properties_are_stepped_over)
{
    expect_success(decode<kPuback>("40 0A 00 07 10 | 06 1F 00 03 'why'"), 4, 5, 7, 0x10, 12);
    const Ack d = decode<kSuback>("90 08 00 07 00 | 02 26 00 | 01 02");
    expect_success(d, 9, 5, 7, 0, 10);
    EXPECT_EQ(codes_of(d), (Codes{1, 2}));
}

TEST(ack_decode, an_unreadable_property_length_is_left_where_it_stands)
{
    expect_success(decode<kPuback>("40 04 00 07 10 80"), 4, 5, 7, 0x10, 5);
    const Ack d = decode<kSuback>("90 06 00 07 00 80 80 80");
    expect_success(d, 9, 5, 7, 0, 8);
    EXPECT_EQ(codes_of(d), (Codes{0x80, 0x80, 0x80}));
}

TEST(ack_decode, a_property_length_may_lead_past_the_packet_but_not_past_the_input)
{
    expect_success(decode<kPuback>("40 04 00 07 10 05 | C0 00"), 4, 5, 7, 0x10, 8);
    expect_success(decode<kPuback>("40 04 00 07 10 01 | C0 00"), 4, 5, 7, 0x10, 7);
    const Ack d = decode<kSuback>("90 05 00 07 00 7F 01");
    expect_success(d, 9, 5, 7, 0, 7);
    EXPECT_EQ(d.para.return_code_count, 0);
    expect_success(decode<kPuback>("40 06 00 07 10 FF FF 7F"), 4, 5, 7, 0x10, 8);
}

TEST(ack_decode, its_own_suback_reads_back_without_codes)
{
    // 90 05 ID ID 00 01 80: the 01 behind the reason is a property length here
    const Ack d = decode<kSuback>("90 05 00 07 00 01 80");
    expect_success(d, 9, 5, 7, 0, 7);
    EXPECT_EQ(codes_of(d), Codes{});
    EXPECT_EQ(codes_of(decode<kSuback>("90 05 00 07 00 00 80")), (Codes{0, 0x80}));
}

// ---- codes

TEST(ack_decode, only_suback_has_codes)
{
    EXPECT_EQ(decode<kPuback>("40 06 00 07 00 00 01 02").para.return_code_count, 0);
    EXPECT_EQ(decode<kUnsuback>("B0 06 00 07 00 00 01 02").para.return_code_count, 0);
}

TEST(ack_decode, reads_at_most_16_codes)
{
    for (const size_t count : {size_t{15}, size_t{16}, size_t{17}, size_t{40}}) {
        const Ack    d     = decode<kSuback>(packet(0x90, wire("00 07 00") + Bytes{0} + repeat(0x80, count - 1)));
        const size_t taken = count < 16 ? count : 16;
        Codes        expected(taken, 0x80);
        expected[0] = 0;
        EXPECT_EQ(codes_of(d), expected);
        EXPECT_EQ(d.consumed, static_cast<int>(5 + taken)) << "ends behind the last one taken";
    }
}

// ---- refusals

TEST(ack_decode, refuses_missing_parameters)
{
    mqtt_codec_ctx_t ctx = context(4);
    mqtt_ack_para_t  para;
    memset(&para, 0xEE, sizeof para);
    const Bytes    bytes = wire("40 02 00 07");
    const uint8_t *buf   = bytes.data();
    int            len   = 4;
    LogCapture     log(0);
    const auto     line = [](const void *c, const void *b, const void *l, int length, const void *p) {
        return Log{error("ACK decode: invalid param (ctx=" + pointer(c) + ", buf=" + pointer(b) +
                             ", buf_len=" + pointer(l) + ", len=" + std::to_string(length) + ", para=" + pointer(p) + ")")};
    };
    EXPECT_EQ(mqtt_codec_decode_ack(nullptr, 4, buf, &len, &para), -1);
    EXPECT_EQ(log.take(), line(nullptr, buf, &len, 4, &para));
    EXPECT_EQ(mqtt_codec_decode_ack(&ctx, 4, nullptr, &len, &para), -1);
    EXPECT_EQ(log.take(), line(&ctx, nullptr, &len, 4, &para));
    EXPECT_EQ(mqtt_codec_decode_ack(&ctx, 4, buf, nullptr, &para), -1);
    EXPECT_EQ(log.take(), line(&ctx, buf, nullptr, -1, &para));
    EXPECT_EQ(mqtt_codec_decode_ack(&ctx, 4, buf, &len, nullptr), -1);
    EXPECT_EQ(log.take(), line(&ctx, buf, &len, 4, nullptr));
    for (const int small : {2, 0, -3}) {
        len = small;
        EXPECT_EQ(mqtt_codec_decode_ack(&ctx, 4, buf, &len, &para), -1);
        EXPECT_EQ(log.take(), line(&ctx, buf, &len, small, &para));
        EXPECT_EQ(len, small);
    }
    EXPECT_TRUE(untouched(ctx));
    EXPECT_EQ(para.reason_code, 0xEE) << "the record is cleared behind these checks only";
}

TEST(ack_decode, refuses_another_type)
{
    expect_refused<kPuback>("62 02 00 07", logged::ack_decode_wrong_type(4, 6));
    expect_refused<kPubrel>("42 02 00 07", logged::ack_decode_wrong_type(6, 4));
    expect_refused<20>("40 02 00 07", logged::ack_decode_wrong_type(20, 4));
    expect_refused<-12>("40 02 00 07", logged::ack_decode_wrong_type(-12, 4));
    EXPECT_EQ(decode<kPuback>("62 02 00 07").para.reason_code, 0xEE) << "before the record is cleared";
}

TEST(ack_decode, refuses_a_bad_remaining_length)
{
    expect_refused<kPuback>("40 80 80", logged::ack_decode_bad_remaining_length(-1, 0));
    expect_refused<kPuback>("40 82 80 80 00 00 07", logged::ack_decode_bad_remaining_length(-1, 0));
    EXPECT_EQ(decode<kPuback>("40 80 80").para.reason_code, 0) << "behind where the record is cleared";
}

TEST(ack_decode, refuses_an_incomplete_packet)
{
    expect_refused<kPuback>("40 02 00", logged::ack_decode_incomplete(4, 3));
    expect_refused<kPuback>("40 03 00 07", logged::ack_decode_incomplete(5, 4));
    expect_refused<kPuback>("40 FF FF 7F", logged::ack_decode_incomplete(2097155, 4));
}

TEST(ack_decode, refuses_a_packet_without_identifier)
{
    expect_refused<kPuback>("40 00 00", logged::ack_decode_no_packet_id());
    expect_refused<kPuback>("40 01 00 07", logged::ack_decode_no_packet_id());
}

TEST(ack_decode, every_cut_of_a_packet_is_refused)
{
    const Bytes whole = wire("90 09 00 07 00 | 02 26 00 | 01 02 80");
    ASSERT_EQ(decode<kSuback>(whole).code, 0);
    for (size_t cut = 0; cut < whole.size(); ++cut) {
        const Ack d = decode<kSuback>(Bytes(whole.begin(), whole.begin() + static_cast<long>(cut)));
        EXPECT_EQ(d.code, cut < 3 ? -1 : -4) << cut;
        EXPECT_EQ(d.consumed, static_cast<int>(cut));
        EXPECT_TRUE(untouched(d.ctx));
    }
}

TEST(ack_decode, reads_back_what_the_encoder_wrote)
{
    const auto round_trip = []<int Type>(uint32_t version) {
        mqtt_ack_para_t para;
        memset(&para, 0, sizeof para);
        para.msg_id        = 0xBEEF;
        para.reason_code   = version == 5 ? 0x97 : 0;
        const auto encoder = [](mqtt_codec_ctx_t *ctx, const mqtt_ack_para_t *p, uint8_t *buf, int *len) {
            return mqtt_codec_encode_ack(ctx, Type, p, buf, len);
        };
        const Encoded e = encode_with<mqtt_ack_para_t>(encoder, para, version, 128, 2);
        const Ack     d = decode<Type>(Bytes(e.buffer.begin(), e.buffer.begin() + e.length), 9 - version);
        expect_success(d, Type, version, 0xBEEF, para.reason_code, e.length);
        EXPECT_EQ(memcmp(&d.para, &para, sizeof para), 0);
    };
    for (const uint32_t version : {4u, 5u}) {
        round_trip.operator()<kPuback>(version);
        round_trip.operator()<kPubrec>(version);
        round_trip.operator()<kPubrel>(version);
        round_trip.operator()<kPubcomp>(version);
        round_trip.operator()<kUnsuback>(version);
    }
}
