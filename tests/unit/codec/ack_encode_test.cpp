#include "calls.h"
#include "support/log_lines/codec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

constexpr int kPuback = 4, kPubrec = 5, kPubrel = 6, kPubcomp = 7, kSuback = 9, kUnsuback = 11;

template <int Type> int encode_type(mqtt_codec_ctx_t *ctx, const mqtt_ack_para_t *para, uint8_t *buf, int *buf_len)
{
    return mqtt_codec_encode_ack(ctx, Type, para, buf, buf_len);
}

template <int Type>
Encoded encode(const mqtt_ack_para_t &para, uint32_t version, uint32_t log_level = 2, int capacity = 128)
{
    return encode_with(encode_type<Type>, para, version, capacity, log_level);
}

mqtt_ack_para_t ack(uint16_t id, uint8_t reason = 0, const std::vector<uint32_t> &codes = {})
{
    mqtt_ack_para_t para;
    memset(&para, 0, sizeof para);
    para.msg_id            = id;
    para.reason_code       = reason;
    para.return_code_count = static_cast<int>(codes.size());
    for (size_t i = 0; i < codes.size() && i < 16; ++i)
        para.return_codes[i] = codes[i];
    return para;
}

void expect_packet(const Encoded &e, uint32_t type, const std::string &packet)
{
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(e.packet(), packet);
    EXPECT_TRUE(e.rest_is_zero(static_cast<size_t>(e.length)));
    EXPECT_EQ(e.ctx.last_packet_type, type);
    EXPECT_EQ(e.ctx.last_packet_len, 78u) << "decoders only";
    EXPECT_EQ(e.all, Log{});
}

void expect_refused(const Encoded &e, int code, const LogLine &line)
{
    EXPECT_EQ(e.code, code);
    EXPECT_EQ(e.all, Log{line});
    EXPECT_EQ(e.length, static_cast<int>(e.buffer.size()));
    EXPECT_EQ(e.buffer, repeat(0xEE, e.buffer.size()));
    EXPECT_TRUE(untouched(e.ctx));
}

// `name`[i] = 0x.. for sixteen bytes, zeroes behind those given.
Log list(const char *name, const Bytes &bytes)
{
    Log lines;
    for (size_t i = 0; i < 16; ++i) {
        lines.push_back(info(printed("%s[%zu] = 0x%02X", name, i, i < bytes.size() ? bytes[i] : 0)));
    }
    return lines;
}
Log operator+(Log left, const Log &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}
Log head_list(const char *bytes)
{
    return Log{logged::suback_variable_header()} + list("var_header", wire(bytes));
}
Log code_list(const char *bytes)
{
    return Log{logged::suback_payload()} + list("payload_buf", wire(bytes));
}
Log packet_list(int length, const char *bytes)
{
    return Log{logged::suback_final(length)} + list("ack_buf", wire(bytes));
}

// The address inside a line differs from run to run.
Log without_addresses(Log log)
{
    for (LogLine &line : log)
        if (const size_t at = line.text.find("0x0x"); at != std::string::npos)
            line.text.replace(at, line.text.find(',', at) - at, "0x<p>");
    return log;
}

} // namespace

// ---- shapes

TEST(ack_encode, level_4_is_the_identifier_alone)
{
    const mqtt_ack_para_t para = ack(0x1234, 0x10, {1, 2}); // reason and codes are not for these
    expect_packet(encode<kPuback>(para, 4), 4, "40 02 12 34");
    expect_packet(encode<kPubrec>(para, 4), 5, "50 02 12 34");
    expect_packet(encode<kPubrel>(para, 4), 6, "62 02 12 34");
    expect_packet(encode<kPubcomp>(para, 4), 7, "70 02 12 34");
    expect_packet(encode<kUnsuback>(para, 4), 11, "B0 02 12 34");
}

TEST(ack_encode, level_5_adds_the_reason_code)
{
    const mqtt_ack_para_t para = ack(0x1234, 0x10, {1, 2});
    expect_packet(encode<kPuback>(para, 5), 4, "40 03 12 34 10");
    expect_packet(encode<kPubrec>(para, 5), 5, "50 03 12 34 10");
    expect_packet(encode<kPubrel>(para, 5), 6, "62 03 12 34 10");
    expect_packet(encode<kPubcomp>(para, 5), 7, "70 03 12 34 10");
    expect_packet(encode<kPuback>(ack(0, 0), 5), 4, "40 03 00 00 00"); // identifier 0 is not judged
}

TEST(ack_encode, unsuback_has_one_reason_code_at_5)
{
    expect_packet(encode<kUnsuback>(ack(7, 0x11, {0, 0}), 5), 11, "B0 03 00 07 11");
}

TEST(ack_encode, suback_carries_the_low_byte_of_each_code)
{
    expect_packet(encode<kSuback>(ack(7, 0, {0, 1, 2, 0x80, 0x1FF}), 4), 9, "90 07 00 07 00 01 02 80 FF");
    expect_packet(encode<kSuback>(ack(7, 0, {1, 0x80}), 5), 9, "90 05 00 07 00 01 80");
}

TEST(ack_encode, suback_reason_code_is_forced_to_zero)
{
    expect_packet(encode<kSuback>(ack(7, 0x80, {2}), 5), 9, "90 04 00 07 00 02");
}

TEST(ack_encode, suback_carries_at_most_16_codes)
{
    const std::string sixteen = "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10";
    mqtt_ack_para_t   para    = ack(7, 0, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16});
    para.return_code_count    = 15;
    expect_packet(encode<kSuback>(para, 4), 9, "90 11 00 07 " + sixteen.substr(0, 15 * 3 - 1));
    for (const int count : {16, 17, 20, 0x7FFFFFFF}) {
        para.return_code_count = count;
        expect_packet(encode<kSuback>(para, 4), 9, "90 12 00 07 " + sixteen);
        expect_packet(encode<kSuback>(para, 5), 9, "90 13 00 07 00 " + sixteen);
    }
}

TEST(ack_encode, suback_without_codes)
{
    mqtt_ack_para_t para = ack(7, 0, {1});
    for (const int count : {0, -1}) {
        para.return_code_count = count;
        expect_packet(encode<kSuback>(para, 4), 9, "90 02 00 07");
        expect_packet(encode<kSuback>(para, 5), 9, "90 03 00 07 00");
    }
}

// ---- refusals

TEST(ack_encode, refuses_missing_parameters)
{
    LogCapture            log(0);
    mqtt_codec_ctx_t      ctx  = context(4);
    const mqtt_ack_para_t para = ack(7);
    uint8_t               buf[128];
    int                   len  = 128;
    const auto            line = [](const void *c, const void *p, const void *b, const void *l, int length) {
        return Log{error("ACK encode: invalid param (ctx=" + pointer(c) + ", para=" + pointer(p) +
                                    ", buf=" + pointer(b) + ", buf_len=" + pointer(l) + ", len=" + std::to_string(length) + ")")};
    };
    EXPECT_EQ(mqtt_codec_encode_ack(nullptr, 4, &para, buf, &len), -1);
    EXPECT_EQ(log.take(), line(nullptr, &para, buf, &len, 128));
    EXPECT_EQ(mqtt_codec_encode_ack(&ctx, 4, nullptr, buf, &len), -1);
    EXPECT_EQ(log.take(), line(&ctx, nullptr, buf, &len, 128));
    EXPECT_EQ(mqtt_codec_encode_ack(&ctx, 4, &para, nullptr, &len), -1);
    EXPECT_EQ(log.take(), line(&ctx, &para, nullptr, &len, 128));
    EXPECT_EQ(mqtt_codec_encode_ack(&ctx, 4, &para, buf, nullptr), -1);
    EXPECT_EQ(log.take(), line(&ctx, &para, buf, nullptr, -1));
    for (const int small : {127, 64, 0, -1}) {
        len = small;
        EXPECT_EQ(mqtt_codec_encode_ack(&ctx, 4, &para, buf, &len), -1);
        EXPECT_EQ(log.take(), line(&ctx, &para, buf, &len, small));
        EXPECT_EQ(len, small);
    }
    EXPECT_TRUE(untouched(ctx));
}

TEST(ack_encode, refuses_other_types)
{
    const auto line = [](int type) { return error("ACK encode: unsupported packet type " + std::to_string(type)); };
    expect_refused(encode<8>(ack(7), 4), -5, line(8));
    expect_refused(encode<3>(ack(7), 4), -5, line(3));
    expect_refused(encode<10>(ack(7), 4), -5, line(10));
    expect_refused(encode<12>(ack(7), 4), -5, line(12));
    expect_refused(encode<0>(ack(7), 4), -5, line(0));
    expect_refused(encode<-1>(ack(7), 4), -5, line(-1));
    expect_refused(encode<8>(ack(7), 3), -5, line(8)); // before the level
}

TEST(ack_encode, wants_level_4_or_5)
{
    for (const uint32_t version : {0u, 3u, 6u})
        expect_refused(encode<kPuback>(ack(7), version), -2, logged::ack_encode_unsupported_version(version));
}

// ---- trace at INFO: part of what operators read, in this order

TEST(ack_encode, traces_the_head_of_every_acknowledgement)
{
    EXPECT_EQ(encode<kPuback>(ack(0x1234, 0x10), 4, 1).all, head_list("12 34"));
    EXPECT_EQ(encode<kPubrel>(ack(0x1234, 0x10), 5, 1).all, head_list("12 34 10"));
    EXPECT_EQ(encode<kUnsuback>(ack(0x1234, 0x10), 5, 1).all, head_list("12 34 10"));
}

TEST(ack_encode, traces_a_level_4_suback)
{
    EXPECT_EQ(encode<kSuback>(ack(0x1234, 0x55, {1, 0x80}), 4, 1).all, head_list("12 34") + code_list("01 80"));
}

TEST(ack_encode, traces_a_level_5_suback)
{
    const Encoded e = encode<kSuback>(ack(0x1234, 0x55, {1, 0x180}), 5, 1);
    EXPECT_EQ(without_addresses(e.all),
              (Log{logged::suback_code_forced(0x55),
                   info("【QoS溯源5】编码SUBACK QoS[0]：参数值=1 (0x01) → 写入负载缓冲区地址=0x<p>, 值=0x01"),
                   info("【QoS溯源5】编码SUBACK QoS[1]：参数值=384 (0x180) → 写入负载缓冲区地址=0x<p>, 值=0x80")}) +
                  head_list("12 34 00") + code_list("01 80") + packet_list(7, "90 05 12 34 00 01 80"));
    EXPECT_THAT(e.all[1].text, testing::HasSubstr("=0x0x")) << "a printed pointer behind the text's own 0x";
}

TEST(ack_encode, traces_the_first_16_bytes_of_a_longer_suback)
{
    mqtt_ack_para_t para   = ack(7);
    para.return_code_count = 16;
    for (uint32_t i = 0; i < 16; ++i)
        para.return_codes[i] = i;
    const Log all = encode<kSuback>(para, 5, 1).all;
    const Log end = packet_list(21, "90 13 00 07 00 00 01 02 03 04 05 06 07 08 09 0A");
    ASSERT_EQ(all.size(), 1u + 16 + 17 * 3);
    EXPECT_EQ(Log(all.end() - 17, all.end()), end);
}

TEST(ack_encode, adds_its_own_lines_at_debug)
{
    EXPECT_EQ(encode<kPubrel>(ack(0x1234, 0x10), 4, 0).all,
              Log{debug("ACK encode: PUBREL packet, set QoS1 flag, fixed_header=0x62")} + head_list("12 34") +
                  Log{logged::ack_encoded(6, 4660, 4, 4)});
    EXPECT_EQ(encode<kPuback>(ack(0x1234, 0x10), 5, 0).all,
              Log{debug("ACK encode: no properties, skip properties length field (reduce redundancy)")} +
                  head_list("12 34 10") + Log{logged::ack_encoded(4, 4660, 5, 5)});
}

TEST(ack_encode, dumps_a_level_5_suback_at_debug)
{
    const Log all = encode<kSuback>(ack(0x1234, 0, {1}), 5, 0).all;
    ASSERT_GE(all.size(), 3u);
    EXPECT_EQ(Log(all.end() - 3, all.end()),
              (Log{logged::suback_dump(), debug("90 04 12 34 00 01 "), logged::ack_encoded(9, 4660, 5, 6)}));
    EXPECT_THAT(encode<kSuback>(ack(0x1234, 0, {1}), 4, 0).all, testing::Not(testing::Contains(logged::suback_dump())));
}
