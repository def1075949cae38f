#include "calls.h"
#include "support/log_lines/codec.h"

#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

using Connack = mqtt_connack_para_t;

Encoded encode(const Connack &para, uint32_t version, int capacity = 128)
{
    return encode_with(mqtt_codec_encode_connack, para, version, capacity);
}

void expect_packet(const Encoded &e, const char *packet, const Log &log = {})
{
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(e.log, log);
    EXPECT_EQ(e.packet(), hex(wire(packet)));
    EXPECT_TRUE(e.rest_is_zero(static_cast<size_t>(e.length)));
    EXPECT_EQ(e.ctx.last_packet_type, 2u);
    EXPECT_EQ(e.ctx.last_packet_len, 78u) << "decoders only";
}

void expect_refused(const Encoded &e, int code, const LogLine &line)
{
    EXPECT_EQ(e.code, code);
    EXPECT_EQ(e.log, Log{line});
    EXPECT_EQ(e.length, static_cast<int>(e.buffer.size()));
    EXPECT_TRUE(untouched(e.ctx));
    EXPECT_EQ(e.buffer, repeat(0xEE, e.buffer.size()));
}

Decoded<Connack> decode(const char *packet, uint32_t version = 4)
{
    return decode_with(mqtt_codec_decode_connack, wire(packet), version);
}

void expect_refused(const Decoded<Connack> &d, const LogLine &line)
{
    EXPECT_EQ(d.code, -4);
    EXPECT_EQ(d.log, Log{line});
    EXPECT_TRUE(untouched(d.ctx));
}

void expect_success(const Decoded<Connack> &d, uint32_t version, int consumed, const Log &log = {})
{
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(d.log, log);
    EXPECT_EQ(d.consumed, consumed);
    EXPECT_EQ(d.ctx.version, version);
    EXPECT_EQ(d.ctx.last_packet_type, 2u);
    EXPECT_EQ(d.ctx.last_packet_len, static_cast<uint32_t>(consumed));
}

} // namespace

// ---- encoding

TEST(connack_encode, v4)
{
    expect_packet(encode({}, 4), "20 02 00 00");
    expect_packet(encode({1, 0, 9, 9, 9, 9}, 4), "20 02 01 00");
}

TEST(connack_encode, v4_never_shows_a_refusal)
{
    const Log forced = {logged::connack_code_forced()};
    expect_packet(encode({0, 5, 0, 0, 0, 0}, 4), "20 02 00 00", forced);
    expect_packet(encode({1, 0xFF, 0, 0, 0, 0}, 4), "20 02 01 00", forced);
}

TEST(connack_encode, v5_always_has_thirteen_bytes)
{
    expect_packet(encode({}, 5), "20 0B 00 00 | 08 21 00 00 27 00 00 00 00");
    expect_packet(encode({1, 0x86, 0, 10, 0, 1048576}, 5), "20 0B 01 86 | 08 21 00 0A 27 00 10 00 00");
    expect_packet(encode({0xFF, 0xFE, 1, 0x0102, 2, 0x03040506}, 5), "20 0B FF FE | 08 21 01 02 27 03 04 05 06");
}

TEST(connack_encode, v4_needs_4_bytes_of_capacity)
{
    expect_packet(encode({}, 4, 4), "20 02 00 00");
    expect_refused(encode({}, 4, 3), -1, logged::connack_encode_invalid_param());
}

TEST(connack_encode, v5_needs_128_bytes_of_capacity)
{
    EXPECT_EQ(encode({}, 5, 128).code, 0);
    expect_refused(encode({}, 5, 127), -1, logged::connack_encode_invalid_param());
    expect_refused(encode({}, 5, 13), -1, logged::connack_encode_invalid_param());
}

TEST(connack_encode, level)
{
    expect_refused(encode({}, 0), -2, logged::connack_encode_unsupported_version(0));
    expect_refused(encode({}, 3), -2, logged::connack_encode_unsupported_version(3));
    expect_refused(encode({}, 6), -2, logged::connack_encode_unsupported_version(6));
    expect_refused(encode({}, 6, 127), -1, logged::connack_encode_invalid_param()); // the capacity is judged first
}

TEST(connack_encode, needs_its_pointers)
{
    mqtt_codec_ctx_t ctx = context(4);
    const Connack    para{};
    uint8_t          buf[128];
    int              length = 128;
    LogCapture       log(1);
    EXPECT_EQ(mqtt_codec_encode_connack(nullptr, &para, buf, &length), -1);
    EXPECT_EQ(mqtt_codec_encode_connack(&ctx, nullptr, buf, &length), -1);
    EXPECT_EQ(mqtt_codec_encode_connack(&ctx, &para, nullptr, &length), -1);
    EXPECT_EQ(mqtt_codec_encode_connack(&ctx, &para, buf, nullptr), -1);
    EXPECT_EQ(log.take(), Log(4, logged::connack_encode_invalid_param()));
    EXPECT_TRUE(untouched(ctx));
}

TEST(connack_encode, says_what_it_wrote)
{
    EXPECT_EQ(encode({0, 3, 0, 0, 0, 0}, 4).all, (Log{
                                                     logged::connack_encode_started(),
                                                     logged::connack_code_forced(),
                                                     logged::connack_encoded(4),
                                                     logged::connack_encode_ended(),
                                                 }));
    EXPECT_EQ(encode({0, 0, 0, 0, 0, 4294967295u}, 5).all,
              (Log{
                  logged::connack_encode_started(),
                  debug("Property SessionExpiry(0x10): DISABLED (compatible with MQTTX v1.13.0)"),
                  debug("Property TopicAliasMax(0x22): DISABLED"),
                  debug("Property MaxQoS(0x27): DISABLED"),
                  debug("Property RetainAvailable(0x28): DISABLED"),
                  debug("Property MaxPacketSize(0x11): 4294967295 bytes"),
                  logged::connack_encoded(13),
                  logged::connack_encode_ended(),
              }));
    EXPECT_EQ(encode({}, 7).all,
              (Log{logged::connack_encode_started(), logged::connack_encode_unsupported_version(7)}));
}

// ---- decoding

TEST(connack_decode, v4)
{
    const auto d = decode("20 02 01 00", 5);
    expect_success(d, 4, 4);
    EXPECT_EQ(d.para.session_present, 1);
    EXPECT_EQ(d.para.reason_code, 0);
    EXPECT_EQ(d.all, Log{debug("CONNACK decode success: version=4, code=0, len=4")});

    Connack expected; // the record was garbage before
    clear(expected);
    expected.session_present = 1;
    EXPECT_EQ(memcmp(&d.para, &expected, sizeof expected), 0);
    EXPECT_EQ(decode("20 02 FE 05").para.session_present, 0);
    EXPECT_EQ(decode("20 02 FF 05").para.session_present, 1);
    EXPECT_EQ(decode("20 02 FF 05").para.reason_code, 5);
}

TEST(connack_decode, v5)
{
    const auto d = decode("20 0E 00 86 | 0B 21 01 02 | 22 03 04 | 10 05 06 07 08");
    expect_success(d, 5, 16);
    EXPECT_EQ(d.para.reason_code, 0x86);
    EXPECT_EQ(d.para.receive_max, 0x0102);
    EXPECT_EQ(d.para.topic_alias_max, 0x0304);
    EXPECT_EQ(d.para.session_expiry_interval, 0x05060708u);
    EXPECT_EQ(d.para.max_packet_size, 0u);
    expect_success(decode("20 03 00 00 00"), 5, 5);
}

TEST(connack_decode, what_is_behind_the_properties_or_the_packet_is_not_counted)
{
    expect_success(decode("20 05 00 00 | 00 | 21 00"), 5, 5);
    expect_success(decode("20 03 00 00 | 00 | 21 00 0A"), 5, 5);
    expect_success(decode("20 02 00 00 | 08 21 00"), 4, 4);
}

TEST(connack_decode, reads_back_what_was_encoded)
{
    const Encoded e = encode({1, 0x86, 0, 10, 0, 7}, 5);
    const auto    d = decode_with(mqtt_codec_decode_connack, Bytes(e.buffer.begin(), e.buffer.begin() + e.length), 4);
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(d.consumed, 13);
    EXPECT_EQ(d.para.receive_max, 10);
    // 27 is unknown here and its first byte, 0, is taken as a length: the other three look like properties.
    EXPECT_EQ(d.log, (Log{logged::connack_decode_unknown_property(0x27), logged::connack_decode_unknown_property(0x00),
                          logged::connack_decode_unknown_property(0x07)}));
}

TEST(connack_decode, unknown_properties_are_skipped_as_length_prefixed)
{
    const auto known_behind = decode("20 0A 00 00 | 07 1F 02 'ab' | 21 00 0A");
    expect_success(known_behind, 5, 12, {logged::connack_decode_unknown_property(0x1F)});
    EXPECT_EQ(known_behind.para.receive_max, 10);

    expect_success(decode("20 05 00 00 | 02 1F 00"), 5, 7, {logged::connack_decode_unknown_property(0x1F)});
    expect_success(decode("20 04 00 00 | 01 1F"), 5, 6, {logged::connack_decode_unknown_property(0x1F)});
    expect_success(decode("20 05 00 00 | 02 1F 7F"), 5, 7, {logged::connack_decode_unknown_property(0x1F)});
    expect_success(decode("20 07 00 00 | 02 1F 02 | 'ab'"), 5, 9, {logged::connack_decode_unknown_property(0x1F)});
    expect_success(decode("20 08 00 00 | 05 1F 80 80 80 01"), 5, 10, {logged::connack_decode_unknown_property(0x1F)});
    expect_success(decode("20 05 00 00 | 02 1F 80 | 01 41"), 5, 7, {logged::connack_decode_unknown_property(0x1F)});
}

TEST(connack_decode, a_value_may_cross_its_block_but_not_the_input)
{
    const auto crossing = decode("20 06 00 00 | 01 21 00 0A");
    expect_success(crossing, 5, 8);
    EXPECT_EQ(crossing.para.receive_max, 10);

    for (const char *packet :
         {"20 04 00 00 | 01 21", "20 05 00 00 | 02 21 00", "20 04 00 00 | 7F 22", "20 07 00 00 | 04 10 00 00 00"}) {
        const auto d = decode(packet);
        expect_success(d, 5, static_cast<int>(wire(packet).size()));
        EXPECT_EQ(d.para.receive_max, 0);
        EXPECT_EQ(d.para.topic_alias_max, 0);
        EXPECT_EQ(d.para.session_expiry_interval, 0u);
    }
}

TEST(connack_decode, needs_four_bytes_and_its_pointers)
{
    mqtt_codec_ctx_t  ctx = context(4);
    Connack           para;
    const Bytes       bytes = wire("20 02 00 00");
    int               four = 4, three = 3;
    LogCapture        log;
    const std::string c = pointer(&ctx), b = pointer(bytes.data()), l = pointer(&four), l3 = pointer(&three),
                      p = pointer(&para);
    EXPECT_EQ(mqtt_codec_decode_connack(nullptr, bytes.data(), &four, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_connack(&ctx, nullptr, &four, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_connack(&ctx, bytes.data(), nullptr, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_connack(&ctx, bytes.data(), &four, nullptr), -1);
    EXPECT_EQ(mqtt_codec_decode_connack(&ctx, bytes.data(), &three, &para), -1);
    const std::string head = "CONNACK decode: invalid param (ctx=";
    EXPECT_EQ(log.take(), (Log{
                              error(head + "(nil), buf=" + b + ", buf_len=" + l + ", len=4, para=" + p + ")"),
                              error(head + c + ", buf=(nil), buf_len=" + l + ", len=4, para=" + p + ")"),
                              error(head + c + ", buf=" + b + ", buf_len=(nil), len=-1, para=" + p + ")"),
                              error(head + c + ", buf=" + b + ", buf_len=" + l + ", len=4, para=(nil))"),
                              error(head + c + ", buf=" + b + ", buf_len=" + l3 + ", len=3, para=" + p + ")"),
                          }));
    EXPECT_TRUE(untouched(ctx));
}

TEST(connack_decode, first_byte)
{
    expect_refused(decode("30 02 00 00"), error("CONNACK decode: not a CONNACK packet (type=3)"));
    EXPECT_EQ(decode("30 02 00 00").para.max_packet_size, 0u) << "the record is cleared by then";
    expect_success(decode("2F 02 00 00"), 4, 4); // flags are not checked
}

TEST(connack_decode, remaining_length)
{
    expect_refused(decode("20 03 00 00"), logged::connack_decode_bad_remaining_length(3, 1));
    expect_refused(decode("20 80 80 80 01"), logged::connack_decode_bad_remaining_length(-1, 0));
    expect_refused(decode("20 FF FF FF"), logged::connack_decode_bad_remaining_length(-1, 0));
    expect_refused(decode("20 83 00 00"), logged::connack_decode_bad_remaining_length(3, 2));
}

TEST(connack_decode, the_two_bytes_must_be_in_the_input)
{
    expect_refused(decode("20 81 00 00"), logged::connack_decode_too_short());
    expect_refused(decode("20 80 80 00"), logged::connack_decode_too_short());
    const auto short_claim = decode("20 00 01 05"); // the input holds them, though the packet does not
    expect_success(short_claim, 4, 4);
    EXPECT_EQ(short_claim.para.reason_code, 5);
    expect_success(decode("20 01 01 05"), 4, 4);
}

TEST(connack_decode, property_length)
{
    expect_refused(decode("20 03 00 00 80"), logged::connack_decode_bad_property_length());
    expect_refused(decode("20 03 00 00 80 00"),
                   logged::connack_decode_bad_property_length()); // 00 is behind the packet
    expect_refused(decode("20 06 00 00 80 80 80 01"), logged::connack_decode_bad_property_length());
    EXPECT_EQ(decode("20 03 00 00 80").ctx.version, 4u);
}

TEST(connack_decode, cut_at_every_byte)
{
    const Bytes whole = wire("20 0E 00 00 | 0B 21 01 02 | 22 03 04 | 10 05 06 07 08");
    for (size_t length = 4; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        expect_refused(
            decode_with(mqtt_codec_decode_connack, Bytes(whole.begin(), whole.begin() + static_cast<long>(length)), 4),
            logged::connack_decode_bad_remaining_length(14, 1));
        Bytes claim  = Bytes(whole.begin(), whole.begin() + static_cast<long>(length)); // this one says it is whole
        claim[1]     = static_cast<uint8_t>(length - 2);
        const auto d = decode_with(mqtt_codec_decode_connack, claim, 4);
        expect_success(d, length == 4 ? 4 : 5, static_cast<int>(length));
    }
}
