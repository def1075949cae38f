#include "calls.h"
#include "codec/codec_calls.h"
#include "support/log_lines/codec.h"

#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

using Disconnect = mqtt_disconnect_para_t;

Disconnect of(uint8_t reason)
{
    Disconnect para{};
    para.reason_code = reason;
    return para;
}

Encoded encode(const Disconnect &para, uint32_t version, int capacity = 256)
{
    const Encoded e = encode_with(mqtt_codec_encode_disconnect, para, version, capacity);
    EXPECT_EQ(e.all, Log{}) << "the encoder is silent";
    return e;
}

void expect_packet(const Encoded &e, const Bytes &packet)
{
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(e.packet(), hex(packet));
    EXPECT_TRUE(e.rest_is_zero(static_cast<size_t>(e.length)));
    EXPECT_EQ(e.ctx.last_packet_type, 14u);
    EXPECT_EQ(e.ctx.last_packet_len, 78u) << "decoders only";
}
void expect_packet(const Encoded &e, const char *packet)
{
    expect_packet(e, wire(packet));
}

void expect_refused(const Encoded &e, int code)
{
    EXPECT_EQ(e.code, code);
    EXPECT_EQ(e.length, static_cast<int>(e.buffer.size()));
    EXPECT_TRUE(untouched(e.ctx));
}

Decoded<Disconnect> decode(const Bytes &packet, uint32_t version = 5)
{
    return decode_with(mqtt_codec_decode_disconnect, packet, version);
}
Decoded<Disconnect> decode(const char *packet, uint32_t version = 5)
{
    return decode(wire(packet), version);
}

void expect_refused(const Decoded<Disconnect> &d, int code, const LogLine &line)
{
    EXPECT_EQ(d.code, code);
    EXPECT_EQ(d.log, Log{line});
    EXPECT_EQ(d.ctx.last_packet_type, 14u) << "set before any check";
    EXPECT_EQ(d.ctx.last_packet_len, 0u);
}

void expect_success(const Decoded<Disconnect> &d, int consumed)
{
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(d.log, Log{});
    EXPECT_EQ(d.consumed, consumed);
    EXPECT_EQ(d.ctx.last_packet_type, 14u);
    EXPECT_EQ(d.ctx.last_packet_len, static_cast<uint32_t>(consumed));
}

} // namespace

// ---- encoding

TEST(disconnect_encode, v4_is_always_the_same)
{
    Disconnect para              = of(0x8E);
    para.session_expiry_interval = 60;
    para.user_property_len       = 500;
    fill(para.reason_string, 65);
    expect_packet(encode(para, 4), "E0 00");
    expect_packet(encode(of(0), 4), "E0 00");
}

TEST(disconnect_encode, v5)
{
    expect_packet(encode(of(0x8E), 5), "E0 02 8E 00");
    Disconnect para              = of(5);
    para.session_expiry_interval = 60;
    expect_packet(encode(para, 5), "E0 07 05 05 10 00 00 00 3C");
}

TEST(disconnect_encode, v5_properties_in_their_order)
{
    Disconnect para              = of(0);
    para.session_expiry_interval = 0x01020304;
    para.user_property_len       = 3;
    strcpy(para.reason_string, "why");
    memcpy(para.user_property, "a\0b", 3);
    expect_packet(encode(para, 5), "E0 13 00 11 | 10 01 02 03 04 | 1F 00 03 'why' | 26 00 03 'a' 00 'b'");
}

TEST(disconnect_encode, a_user_property_needs_length_and_text)
{
    Disconnect para = of(0);
    strcpy(para.user_property, "a");
    expect_packet(encode(para, 5), "E0 02 00 00");
    para.user_property_len = 1;
    expect_packet(encode(para, 5), "E0 06 00 04 26 00 01 'a'");
    para.user_property[0] = 0;
    expect_packet(encode(para, 5), "E0 02 00 00");
    para.user_property_len = 65; // not looked at without a text
    expect_packet(encode(para, 5), "E0 02 00 00");
}

TEST(disconnect_encode, texts_have_at_most_64_bytes)
{
    Disconnect para = of(0);
    fill(para.reason_string, 64);
    expect_packet(encode(para, 5), wire("E0 45 00 43 1F 00 40") + repeat('x', 64));
    fill(para.reason_string, 65); // no terminator
    expect_refused(encode(para, 5), -3);
    EXPECT_EQ(encode(para, 5).buffer[0], 0xE0);
    EXPECT_TRUE(encode(para, 5).rest_is_zero(1));

    para = of(0);
    fill(para.user_property, 65);
    para.user_property_len = 64;
    expect_packet(encode(para, 5), wire("E0 45 00 43 26 00 40") + repeat('x', 64));
    para.user_property_len = 65;
    expect_refused(encode(para, 5), -3);
    para.user_property_len = 65535;
    expect_refused(encode(para, 5), -3);
}

TEST(disconnect_encode, properties_have_at_most_128_bytes)
{
    Disconnect para = of(0);
    fill(para.reason_string, 61);
    fill(para.user_property, 61);
    para.user_property_len = 61; // 64 + 64
    expect_packet(encode(para, 5),
                  wire("E0 83 01 00 80 01 1F 00 3D") + repeat('x', 61) + wire("26 00 3D") + repeat('x', 61));
    fill(para.user_property, 62);
    para.user_property_len = 62;
    expect_refused(encode(para, 5), -3);
    para.user_property_len = 60; // 127, in one length byte
    expect_packet(encode(para, 5),
                  wire("E0 81 01 00 7F 1F 00 3D") + repeat('x', 61) + wire("26 00 3C") + repeat('x', 60));
    para.session_expiry_interval = 1; // 5 more
    expect_refused(encode(para, 5), -3);
}

TEST(disconnect_encode, any_capacity_that_holds_the_packet)
{
    expect_packet(encode(of(0), 4, 2), "E0 00");
    expect_packet(encode(of(7), 5, 4), "E0 02 07 00");
    const Encoded three = encode(of(7), 5, 3);
    expect_refused(three, -3);
    EXPECT_EQ(hex(three.buffer), "E0 02 00") << "header bytes and zeroes";
    const Encoded two = encode(of(7), 5, 2);
    expect_refused(two, -3);
    EXPECT_EQ(hex(two.buffer), "E0 02");
    for (const uint32_t version : {4u, 5u}) {
        const Encoded one = encode(of(7), version, 1);
        expect_refused(one, -3);
        EXPECT_EQ(hex(one.buffer), "E0");
    }
}

TEST(disconnect_encode, level)
{
    for (const uint32_t version : {0u, 3u, 6u}) {
        expect_refused(encode(of(0), version), -2);
        EXPECT_EQ(encode(of(0), version).buffer, repeat(0xEE, 256)) << "not begun";
    }
}

TEST(disconnect_encode, needs_its_pointers)
{
    mqtt_codec_ctx_t ctx = context(4);
    const Disconnect para{};
    uint8_t          buf[8];
    int              length = 8, none = 0, negative = -1;
    LogCapture       log;
    EXPECT_EQ(mqtt_codec_encode_disconnect(nullptr, &para, buf, &length), -1);
    EXPECT_EQ(mqtt_codec_encode_disconnect(&ctx, nullptr, buf, &length), -1);
    EXPECT_EQ(mqtt_codec_encode_disconnect(&ctx, &para, nullptr, &length), -1);
    EXPECT_EQ(mqtt_codec_encode_disconnect(&ctx, &para, buf, nullptr), -1);
    EXPECT_EQ(mqtt_codec_encode_disconnect(&ctx, &para, buf, &none), -1);
    EXPECT_EQ(mqtt_codec_encode_disconnect(&ctx, &para, buf, &negative), -1);
    EXPECT_EQ(log.take(), Log{});
    EXPECT_TRUE(untouched(ctx));
}

// ---- decoding

TEST(disconnect_decode, v4)
{
    const auto d = decode("E0 00", 4);
    expect_success(d, 2);
    EXPECT_EQ(d.ctx.version, 4u);
    EXPECT_EQ(d.all, (Log{debug("DISCONNECT decode: MQTT 3.1.1"), logged::disconnect_decoded(4, 2)}));
    Disconnect expected; // the record was garbage before
    clear(expected);
    EXPECT_EQ(memcmp(&d.para, &expected, sizeof expected), 0);
    expect_success(decode("E0 00 C0 00", 4), 2);
}

TEST(disconnect_decode, v4_has_no_body)
{
    expect_refused(decode("E0 01 00", 4), -4, logged::disconnect_decode_v4_body(1));
    expect_refused(decode("E0 02 00 00", 4), -4, logged::disconnect_decode_v4_body(2));
}

TEST(disconnect_decode, v5)
{
    const auto d = decode("E0 02 04 00");
    expect_success(d, 4);
    EXPECT_EQ(d.ctx.version, 5u);
    EXPECT_EQ(d.para.reason_code, 4);
    EXPECT_EQ(d.all, (Log{debug("DISCONNECT decode: MQTT 5.0, reason=0x04"), logged::disconnect_decoded(5, 4)}));
    EXPECT_EQ(decode("E0 02 00 00").para.reason_code, 0);
    expect_success(decode("E0 02 00 00"), 4);
}

TEST(disconnect_decode, properties_of_this_codec)
{
    const auto d = decode("E0 13 00 11 | 10 01 02 03 04 | 1F 00 03 'why' | 26 00 03 'a' 00 'b'");
    expect_success(d, 21);
    EXPECT_EQ(d.para.session_expiry_interval, 0x01020304u);
    EXPECT_STREQ(d.para.reason_string, "why");
    EXPECT_EQ(d.para.user_property_len, 3);
    EXPECT_EQ(hex(reinterpret_cast<const uint8_t *>(d.para.user_property), 4), "61 00 62 00");
    expect_success(decode("E0 08 00 06 1F 00 00 26 00 00"), 10);
}

TEST(disconnect_decode, a_property_given_twice_counts_the_second_time)
{
    const auto d = decode("E0 22 00 20 | 1F 00 04 'long' 1F 00 01 's' | 26 00 04 'user' 26 00 01 'u'"
                          "| 10 00 00 00 01 10 00 00 00 02");
    expect_success(d, 36);
    EXPECT_STREQ(d.para.reason_string, "s");
    EXPECT_STREQ(d.para.user_property, "u");
    EXPECT_EQ(d.para.user_property_len, 1);
    EXPECT_EQ(d.para.session_expiry_interval, 2u);
}

TEST(disconnect_decode, texts_have_at_most_64_bytes)
{
    for (const uint8_t id : {0x1F, 0x26}) {
        const auto with = [&](size_t length) {
            const Bytes block = Bytes{id} + prefixed(std::string(length, 'x'));
            return decode(packet(0xE0, Bytes{0, static_cast<uint8_t>(block.size())} + block));
        };
        expect_success(with(64), 4 + 67);
        expect_refused(with(65), -3, logged::disconnect_decode_properties_refused(-3));
    }
    const auto reason = decode(packet(0xE0, wire("00 43 1F") + prefixed(std::string(64, 'x'))));
    EXPECT_EQ(reason.para.reason_string, std::string(64, 'x'));
    const auto user = decode(packet(0xE0, wire("00 43 26") + prefixed(std::string(64, 'x'))));
    EXPECT_EQ(user.para.user_property, std::string(64, 'x'));
    EXPECT_EQ(user.para.user_property_len, 64);
}

TEST(disconnect_decode, a_value_must_end_inside_the_block)
{
    const LogLine line = logged::disconnect_decode_properties_refused(-3);
    for (const char *value : {"10 00 00 00 01", "1F 00 02 'ab'", "26 00 02 'ab'"}) {
        const Bytes whole = wire(value);
        for (size_t cut = 1; cut < whole.size(); ++cut) { // the block is cut, the packet is not
            const Bytes block = Bytes{0, static_cast<uint8_t>(cut)} + whole;
            expect_refused(decode(packet(0xE0, block)), -3, line);
        }
    }
    EXPECT_EQ(decode("E0 05 00 03 26 00 02").para.user_property_len, 0);
}

TEST(disconnect_decode, other_properties_are_not_supported)
{
    const LogLine line = logged::disconnect_decode_properties_refused(-5);
    expect_refused(decode("E0 07 00 05 11 00 00 00 3C"), -5, line);
    expect_refused(decode("E0 03 00 01 00"), -5, line);
    expect_refused(decode("E0 03 00 01 1C"), -5, line);
    const auto partly = decode("E0 08 04 06 10 00 00 00 3C 11"); // what came before stays in the record
    expect_refused(partly, -5, line);
    EXPECT_EQ(partly.para.session_expiry_interval, 60u);
    EXPECT_EQ(partly.para.reason_code, 4);
    EXPECT_EQ(partly.consumed, 10);
}

TEST(disconnect_decode, v5_short_forms_are_refused)
{
    const LogLine line = logged::disconnect_decode_bad_property_length();
    expect_refused(decode("E0 00"), -4, line);
    expect_refused(decode("E0 01 04"), -4, line);
    expect_refused(decode("E0 01 04 00"), -4, line); // 00 is behind the packet
    expect_refused(decode("E0 02 04 80"), -4, line);
    expect_refused(decode("E0 05 04 80 80 80 01"), -4, line);
    EXPECT_EQ(decode("E0 01 04").para.reason_code, 4);
}

TEST(disconnect_decode, a_property_block_must_end_inside_the_packet)
{
    expect_refused(decode("E0 02 00 01"), -4, logged::disconnect_decode_properties_cut());
    expect_refused(decode("E0 06 00 05 10 00 00 00 3C"), -4, logged::disconnect_decode_properties_cut());
    expect_success(decode("E0 08 00 05 10 00 00 00 3C FF"), 9); // what is behind the block is not counted
    expect_success(decode("E0 03 00 80 00"), 5);                // a longer form of 0
}

TEST(disconnect_decode, flags_are_not_checked)
{
    expect_success(decode("E5 00", 4), 2);
    expect_success(decode("EF 02 00 00"), 4);
}

TEST(disconnect_decode, first_byte)
{
    expect_refused(decode("C0 00", 4), -4, logged::disconnect_decode_wrong_type(12));
    expect_refused(decode("F0 80", 9), -4, logged::disconnect_decode_wrong_type(15)); // the first of all
    EXPECT_EQ(decode("C0 00").para.reason_code, 0xEE) << "the record is not touched yet";
}

TEST(disconnect_decode, remaining_length)
{
    const LogLine line = logged::disconnect_decode_bad_remaining_length();
    expect_refused(decode("E0", 4), -4, line);
    expect_refused(decode("E0 80", 4), -4, line);
    expect_refused(decode("E0 80 80 80 01", 4), -4, line);
    expect_success(decode("E0 80 00", 4), 3);
}

TEST(disconnect_decode, the_packet_must_be_whole)
{
    const auto d = decode("E0 02 00");
    expect_refused(d, -3, logged::disconnect_decode_incomplete(4, 3));
    EXPECT_EQ(d.para.reason_code, 0xEE) << "the record is not touched yet";
    expect_refused(decode("E0 FF 7F", 4), -3, logged::disconnect_decode_incomplete(16386, 3));
    expect_refused(decode("E0 01", 9), -3, logged::disconnect_decode_incomplete(3, 2)); // before the level
}

TEST(disconnect_decode, level)
{
    for (const uint32_t version : {0u, 3u, 6u}) {
        const auto d = decode("E0 00", version);
        expect_refused(d, -2, error("DISCONNECT decode: unsupported MQTT version"));
        EXPECT_EQ(d.para.reason_code, 0) << "the record is cleared by then";
    }
}

TEST(disconnect_decode, needs_a_byte_and_its_pointers)
{
    mqtt_codec_ctx_t ctx = context(4);
    Disconnect       para;
    const Bytes      bytes  = wire("E0 00");
    int              length = 2, none = 0;
    LogCapture       log;
    EXPECT_EQ(mqtt_codec_decode_disconnect(nullptr, bytes.data(), &length, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_disconnect(&ctx, nullptr, &length, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_disconnect(&ctx, bytes.data(), nullptr, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_disconnect(&ctx, bytes.data(), &length, nullptr), -1);
    EXPECT_EQ(mqtt_codec_decode_disconnect(&ctx, bytes.data(), &none, &para), -1);
    EXPECT_EQ(log.take(), Log(5, error("DISCONNECT decode: invalid param")));
    EXPECT_TRUE(untouched(ctx));
}

TEST(disconnect_decode, cut_at_every_byte)
{
    const Bytes whole = wire("E0 13 00 11 | 10 01 02 03 04 | 1F 00 03 'why' | 26 00 03 'abc'");
    expect_refused(decode(wire("E0")), -4, logged::disconnect_decode_bad_remaining_length());
    for (size_t length = 2; length < whole.size(); ++length) {
        const Bytes part(whole.begin(), whole.begin() + static_cast<long>(length));
        SCOPED_TRACE(length);
        expect_refused(decode(part), -3, logged::disconnect_decode_incomplete(21, length));

        Bytes claim = part; // this one says it is whole
        claim[1]    = static_cast<uint8_t>(length - 2);
        expect_refused(decode(claim), -4,
                       length < 4 ? logged::disconnect_decode_bad_property_length()
                                  : logged::disconnect_decode_properties_cut());
        if (length < 5)
            continue;
        claim[3]        = static_cast<uint8_t>(length - 4); // and so does its block
        const bool ends = length == 9 || length == 15;      // between two properties
        EXPECT_EQ(decode(claim).code, ends ? 0 : -3);
    }
}

TEST(disconnect_decode, reads_back_what_was_encoded)
{
    Disconnect para              = of(0x8E);
    para.session_expiry_interval = 7;
    para.user_property_len       = 2;
    strcpy(para.reason_string, "because");
    strcpy(para.user_property, "kv");
    const Encoded e = encode(para, 5);
    const auto    d = decode(Bytes(e.buffer.begin(), e.buffer.begin() + e.length));
    expect_success(d, e.length);
    EXPECT_EQ(memcmp(&d.para, &para, sizeof para), 0);
}

// ---- what only the packet handler learns

TEST(disconnect_link, tells_an_expiry_of_0_from_none)
{
    const auto given = [](const char *packet, uint32_t version) {
        mqtt_codec_ctx_t ctx    = context(version);
        const Bytes      bytes  = wire(packet);
        int              length = static_cast<int>(bytes.size());
        Disconnect       para;
        bool             expiry_given = true;
        LogCapture       log;
        EXPECT_EQ(tarn::codec::decode_disconnect(&ctx, bytes.data(), &length, &para, &expiry_given), 0);
        return expiry_given;
    };
    EXPECT_FALSE(given("E0 00", 4));
    EXPECT_FALSE(given("E0 02 00 00", 5));
    EXPECT_FALSE(given("E0 06 00 04 1F 00 01 'x'", 5));
    EXPECT_TRUE(given("E0 07 00 05 10 00 00 00 00", 5));
    EXPECT_TRUE(given("E0 07 00 05 10 FF FF FF FF", 5));
    EXPECT_TRUE(given("E0 0B 00 09 10 00 00 00 01 1F 00 01 'x'", 5));
}

TEST(disconnect_link, a_failed_decode_gives_no_expiry)
{
    bool       expiry_given = true;
    LogCapture log;
    EXPECT_EQ(tarn::codec::decode_disconnect(nullptr, nullptr, nullptr, nullptr, &expiry_given), -1);
    EXPECT_FALSE(expiry_given);

    mqtt_codec_ctx_t ctx    = context(5);
    const Bytes      bytes  = wire("E0 06 00 04 10 00 00 00");
    int              length = 8;
    Disconnect       para;
    expiry_given = true;
    EXPECT_EQ(tarn::codec::decode_disconnect(&ctx, bytes.data(), &length, &para, &expiry_given), -3);
    EXPECT_FALSE(expiry_given);
}
