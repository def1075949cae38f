#include "calls.h"
#include "support/log_lines/codec.h"

#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

using Connect = mqtt_connect_para_t;

Connect of(const char *client_id)
{
    Connect para{};
    strcpy(para.client_id, client_id);
    return para;
}

Connect with_will()
{
    Connect para   = of("id");
    para.will_flag = 1;
    strcpy(para.will_topic, "t");
    para.will_payload[0]  = 'p';
    para.will_payload_len = 1;
    return para;
}

// Fills a whole text array, so that no terminator is left.
Encoded encode(const Connect &para, uint32_t version, int capacity = 4096)
{
    return encode_with(mqtt_codec_encode_connect, para, version, capacity);
}

void expect_packet(const Encoded &e, const std::string &packet)
{
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(e.log, Log{});
    EXPECT_EQ(e.packet(), packet);
    EXPECT_TRUE(e.rest_is_zero(static_cast<size_t>(e.length)));
    EXPECT_EQ(e.ctx.last_packet_type, 1u);
    EXPECT_EQ(e.ctx.last_packet_len, 78u) << "decoders only";
}
void expect_packet(const Encoded &e, const char *packet)
{
    expect_packet(e, hex(wire(packet)));
}

void expect_refused(const Encoded &e, int code, const LogLine &line, int capacity = 4096)
{
    EXPECT_EQ(e.code, code);
    EXPECT_EQ(e.log, Log{line});
    EXPECT_EQ(e.length, capacity);
    EXPECT_TRUE(untouched(e.ctx));
}

// Refused once the packet was begun: the buffer holds its first byte and zeroes.
void expect_begun(const Encoded &e)
{
    EXPECT_EQ(e.buffer[0], 0x10);
    EXPECT_TRUE(e.rest_is_zero(1));
}
void expect_not_begun(const Encoded &e)
{
    EXPECT_EQ(e.buffer, repeat(0xEE, e.buffer.size()));
}

} // namespace

TEST(connect_encode, the_smallest)
{
    Connect para     = of("i");
    para.clean_start = 1;
    para.keep_alive  = 0x1234;
    expect_packet(encode(para, 4), "10 0D | 00 04 'MQTT' 04 02 12 34 | 00 01 'i'");
    expect_packet(encode(para, 5), "10 16 | 00 04 'MQTT' 05 02 12 34 | 08 10 00 00 00 00 21 00 00 | 00 01 'i'");
}

TEST(connect_encode, says_what_it_wrote)
{
    EXPECT_EQ(encode(of("i"), 4).all, Log{logged::connect_encoded(4, "i", 15)});
}

TEST(connect_encode, v5_properties_in_their_order)
{
    Connect para                 = of("i");
    para.session_expiry_interval = 0x01020304;
    para.receive_max             = 0x0506;
    para.topic_alias_max         = 0x0708;
    para.max_packet_size         = 0x090A0B0C;
    para.request_response_info   = 0x0D;
    para.request_problem_info    = 0x0E;
    expect_packet(encode(para, 5), "10 22 | 00 04 'MQTT' 05 00 00 00 | 14 10 01 02 03 04 | 21 05 06 | 22 07 08"
                                   "| 11 09 0A 0B 0C | 19 0D | 1A 0E | 00 01 'i'");
    expect_packet(encode(para, 4), "10 0D | 00 04 'MQTT' 04 00 00 00 | 00 01 'i'");
}

TEST(connect_encode, each_optional_property_alone)
{
    const auto properties = [](auto set) {
        Connect para = of("i");
        set(para);
        const std::string packet = encode(para, 5).packet();
        return packet.substr(12 * 3, packet.size() - 12 * 3 - 9); // between keep alive and client id
    };
    EXPECT_EQ(properties([](Connect &p) { p.topic_alias_max = 1; }), "0B 10 00 00 00 00 21 00 00 22 00 01");
    EXPECT_EQ(properties([](Connect &p) { p.max_packet_size = 1; }), "0D 10 00 00 00 00 21 00 00 11 00 00 00 01");
    EXPECT_EQ(properties([](Connect &p) { p.request_response_info = 1; }), "0A 10 00 00 00 00 21 00 00 19 01");
    EXPECT_EQ(properties([](Connect &p) { p.request_problem_info = 1; }), "0A 10 00 00 00 00 21 00 00 1A 01");
}

TEST(connect_encode, will_and_credentials)
{
    Connect para       = with_will();
    para.will_qos      = 2;
    para.will_retain   = 1;
    para.username_flag = 1;
    para.password_flag = 1;
    strcpy(para.username, "user");
    strcpy(para.password, "pw");
    expect_packet(encode(para, 4), "10 1E | 00 04 'MQTT' 04 F4 00 00 | 00 02 'id' | 00 01 't' | 00 01 'p'"
                                   "| 00 04 'user' | 00 02 'pw'");
}

TEST(connect_encode, will_properties)
{
    Connect           para   = with_will();
    const char *const head   = "| 00 04 'MQTT' 05 04 00 00 | 08 10 00 00 00 00 21 00 00 | 00 02 'id' |";
    const auto        packet = [&](const char *first, const char *properties) {
        return hex(wire(std::string(first) + head + properties + "| 00 01 't' 00 01 'p'"));
    };
    expect_packet(encode(para, 5), packet("10 1E", "00"));
    para.will_delay_interval = 30;
    expect_packet(encode(para, 5), packet("10 23", "05 18 00 00 00 1E"));
    para.will_msg_expiry_interval = 60;
    expect_packet(encode(para, 5), packet("10 28", "0A 18 00 00 00 1E 02 00 00 00 3C"));
    EXPECT_EQ(encode(para, 5).all, (Log{debug("CONNECT encode: MQTT5 will enhance props - delay=30, expiry=60"),
                                        logged::connect_encoded(5, "id", 42)}));
    para.will_delay_interval = 0;
    expect_packet(encode(para, 5), packet("10 23", "05 02 00 00 00 3C"));
    EXPECT_EQ(encode(para, 4).all.size(), 1u) << "no will properties at level 4";
}

TEST(connect_encode, flag_bits_as_the_record_has_them)
{
    const auto flags = [](auto set) {
        Connect para   = with_will();
        para.will_flag = 0;
        strcpy(para.username, "u");
        strcpy(para.password, "p");
        set(para);
        const Encoded e = encode(para, 4);
        EXPECT_EQ(e.code, 0);
        return static_cast<int>(e.buffer[9]);
    };
    EXPECT_EQ(flags([](Connect &p) { p.clean_start = 0; }), 0x00);
    EXPECT_EQ(flags([](Connect &p) { p.clean_start = 1; }), 0x02);
    EXPECT_EQ(flags([](Connect &p) { p.clean_start = 3; }), 0x06) << "shifted, not masked";
    EXPECT_EQ(flags([](Connect &p) {
                  p.will_qos    = 3;
                  p.will_retain = 1;
              }),
              0x00)
        << "nothing without a will";
    EXPECT_EQ(flags([](Connect &p) { p.will_flag = 2; }), 0x00);
    EXPECT_EQ(flags([](Connect &p) { p.will_flag = 3; }), 0x04);
    EXPECT_EQ(flags([](Connect &p) {
                  p.will_flag = 1;
                  p.will_qos  = 7;
              }),
              0x1C);
    EXPECT_EQ(flags([](Connect &p) {
                  p.will_flag   = 1;
                  p.will_retain = 1;
              }),
              0x24);
    EXPECT_EQ(flags([](Connect &p) {
                  p.will_flag   = 1;
                  p.will_retain = 2;
              }),
              0x04);
    EXPECT_EQ(flags([](Connect &p) { p.username_flag = 1; }), 0x80);
    EXPECT_EQ(flags([](Connect &p) { p.username_flag = 2; }), 0x00);
    EXPECT_EQ(flags([](Connect &p) {
                  p.username_flag = 1;
                  p.password_flag = 1;
              }),
              0xC0);
    EXPECT_EQ(flags([](Connect &p) {
                  p.username_flag = 1;
                  p.password_flag = 2;
              }),
              0x80);
    EXPECT_EQ(flags([](Connect &p) {
                  p.username_flag = 1;
                  p.password_flag = 3;
              }),
              0x80);
    EXPECT_EQ(flags([](Connect &p) { p.password_flag = 2; }), 0x00);
}

TEST(connect_encode, a_password_is_written_by_bit_0_of_its_flag)
{
    Connect para       = of("i");
    para.username_flag = 1;
    para.password_flag = 3; // no flag bit on the wire, but the text
    strcpy(para.username, "u");
    strcpy(para.password, "p");
    expect_packet(encode(para, 4), "10 13 | 00 04 'MQTT' 04 80 00 00 | 00 01 'i' | 00 01 'u' | 00 01 'p'");
}

// ---- refusals

TEST(connect_encode, needs_its_pointers)
{
    mqtt_codec_ctx_t  ctx  = context(4);
    const Connect     para = of("i");
    uint8_t           buf[128];
    int               length = 128;
    LogCapture        log;
    const std::string c = pointer(&ctx), p = pointer(&para), b = pointer(buf), l = pointer(&length);
    EXPECT_EQ(mqtt_codec_encode_connect(nullptr, &para, buf, &length), -1);
    EXPECT_EQ(mqtt_codec_encode_connect(&ctx, nullptr, buf, &length), -1);
    EXPECT_EQ(mqtt_codec_encode_connect(&ctx, &para, nullptr, &length), -1);
    EXPECT_EQ(mqtt_codec_encode_connect(&ctx, &para, buf, nullptr), -1);
    const std::string head = "CONNECT encode: invalid param (ctx=";
    EXPECT_EQ(log.take(), (Log{
                              error(head + "(nil), para=" + p + ", buf=" + b + ", buf_len=" + l + ", len=128)"),
                              error(head + c + ", para=(nil), buf=" + b + ", buf_len=" + l + ", len=128)"),
                              error(head + c + ", para=" + p + ", buf=(nil), buf_len=" + l + ", len=128)"),
                              error(head + c + ", para=" + p + ", buf=" + b + ", buf_len=(nil), len=-1)"),
                          }));
    EXPECT_TRUE(untouched(ctx));
}

TEST(connect_encode, needs_128_bytes_of_capacity)
{
    expect_packet(encode(of("i"), 4, 128), "10 0D | 00 04 'MQTT' 04 00 00 00 | 00 01 'i'");
    for (const int capacity : {127, 1}) {
        const Encoded e = encode(of("i"), 4, capacity);
        EXPECT_EQ(e.code, -1);
        ASSERT_EQ(e.log.size(), 1u);
        EXPECT_EQ(e.log[0].text.substr(e.log[0].text.find(", len=")), ", len=" + std::to_string(capacity) + ")");
        expect_not_begun(e);
    }
}

TEST(connect_encode, level)
{
    for (const uint32_t version : {0u, 3u, 6u}) {
        const Encoded e = encode(of(""), version); // checked before the id
        expect_refused(
            e, -2,
            error("CONNECT encode: unsupported version " + std::to_string(version) + " (only 3.1.1/5.0 allowed)"));
        expect_not_begun(e);
    }
}

TEST(connect_encode, client_id)
{
    Connect para = of("");
    expect_refused(encode(para, 4), -1, logged::connect_encode_client_id_empty());
    expect_refused(encode(para, 5), -1, logged::connect_encode_client_id_empty());
    expect_not_begun(encode(para, 5));

    fill(para.client_id, 23);
    EXPECT_EQ(encode(para, 4).code, 0);
    fill(para.client_id, 24);
    expect_refused(encode(para, 4), -1, logged::connect_encode_client_id_too_long(24));
    EXPECT_EQ(encode(para, 5).code, 0);
    fill(para.client_id, 64);
    EXPECT_EQ(encode(para, 5).code, 0);
    fill(para.client_id); // no terminator
    expect_refused(encode(para, 5), -1, error("CONNECT encode: 5.0 client id too long (len=65, max=64)"));
    expect_refused(encode(para, 4), -1, logged::connect_encode_client_id_too_long(65));
    expect_not_begun(encode(para, 5));
}

TEST(connect_encode, a_password_needs_a_user_name)
{
    Connect para       = of("i");
    para.password_flag = 1;
    strcpy(para.password, "pw");
    for (const uint32_t version : {4u, 5u}) {
        expect_refused(encode(para, version), -1, logged::connect_encode_password_without_username());
        expect_begun(encode(para, version));
    }
    para.username_flag = 2; // bit 0 is the flag
    expect_refused(encode(para, 4), -1, logged::connect_encode_password_without_username());
}

TEST(connect_encode, will_topic)
{
    Connect para       = with_will();
    para.will_topic[0] = 0;
    expect_refused(encode(para, 4), -1, logged::connect_encode_bad_will_topic(0));
    expect_begun(encode(para, 4));
    fill(para.will_topic, 256);
    EXPECT_EQ(encode(para, 4).code, 0);
    EXPECT_EQ(encode(para, 4).written(), 1 + 2 + 10 + 4 + 258 + 3);
    fill(para.will_topic); // no terminator
    expect_refused(encode(para, 4), -1, logged::connect_encode_bad_will_topic(257));
}

TEST(connect_encode, will_payload)
{
    Connect para = with_will();
    for (const int length : {-1, 0, 2049, 100000}) {
        para.will_payload_len = length;
        expect_refused(encode(para, 5), -1,
                       error("CONNECT encode: invalid will payload (len=" + std::to_string(length) + ")"));
        expect_begun(encode(para, 5));
        EXPECT_EQ(encode(para, 5).all.size(), 1u) << "refused before the will properties";
    }
    para.will_payload_len = 2048;
    EXPECT_EQ(encode(para, 4).code, 0);
    EXPECT_EQ(encode(para, 4).written(), 1 + 2 + 10 + 4 + 3 + 2 + 2048);
}

TEST(connect_encode, credentials)
{
    Connect para       = of("i");
    para.username_flag = 1;
    expect_refused(encode(para, 4), -1, logged::connect_encode_bad_username(0));
    expect_begun(encode(para, 4));
    fill(para.username, 64);
    EXPECT_EQ(encode(para, 4).code, 0);
    fill(para.username); // runs on into username_len otherwise
    expect_refused(encode(para, 4), -1, logged::connect_encode_bad_username(65));

    fill(para.username, 1);
    para.password_flag = 1;
    expect_refused(encode(para, 4), -1, logged::connect_encode_bad_password(0));
    fill(para.password, 64);
    EXPECT_EQ(encode(para, 4).code, 0);
    fill(para.password);
    expect_refused(encode(para, 4), -1, logged::connect_encode_bad_password(65));
}

TEST(connect_encode, capacity)
{
    Connect para          = with_will();
    para.will_payload_len = 200;
    const int needed      = encode(para, 4).length;
    EXPECT_EQ(needed, 222);
    EXPECT_EQ(encode(para, 4, needed).code, 0);
    const Encoded e = encode(para, 4, needed - 1);
    expect_refused(e, -3, logged::connect_encode_buffer_full(222, 221), 221);
    EXPECT_EQ(hex(e.buffer.data(), 4), "10 DB 01 00") << "header bytes and zeroes";
    EXPECT_TRUE(e.rest_is_zero(3));
}

TEST(connect_encode, a_body_has_at_most_2112_bytes)
{
    Connect para          = with_will(); // 10 + (2 + 2) + (2 + topic) + (2 + 2048)
    para.will_payload_len = 2048;
    fill(para.will_topic, 46);
    EXPECT_EQ(encode(para, 4).code, 0);
    EXPECT_EQ(encode(para, 4).written(), 1 + 2 + 2112);
    fill(para.will_topic, 47);
    const Encoded e = encode(para, 4);
    expect_refused(e, -3, logged::connect_encode_buffer_full(2113, 2112));
    EXPECT_EQ(hex(e.buffer.data(), 4), "10 C1 10 00");
    EXPECT_TRUE(e.rest_is_zero(3));

    para.username_flag = 1; // judged before the size
    expect_refused(encode(para, 4), -1, logged::connect_encode_bad_username(0));
}

// ---- and back

TEST(connect_encode, reads_back_at_level_4)
{
    Connect para       = with_will();
    para.clean_start   = 1;
    para.keep_alive    = 7;
    para.will_qos      = 1;
    para.will_retain   = 1;
    para.username_flag = 1;
    para.username_len  = 4;
    para.password_flag = 1;
    para.password_len  = 2;
    strcpy(para.username, "user");
    strcpy(para.password, "pw");
    const Encoded e = encode(para, 4);
    const auto    d = decode_with(mqtt_codec_decode_connect, Bytes(e.buffer.begin(), e.buffer.begin() + e.length), 5);
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(d.log, Log{});
    EXPECT_EQ(d.ctx.version, 4u);
    EXPECT_EQ(memcmp(&d.para, &para, sizeof para), 0);
}

TEST(connect_encode, at_level_5_its_own_decoder_stops_at_the_expiry)
{
    Connect para                 = of("i");
    para.clean_start             = 1;
    para.session_expiry_interval = 100;
    para.receive_max             = 10;
    const Encoded e              = encode(para, 5);
    const auto    d = decode_with(mqtt_codec_decode_connect, Bytes(e.buffer.begin(), e.buffer.begin() + e.length), 4);
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(d.log, Log{logged::connect_decode_unknown_property(0x10)});
    EXPECT_EQ(d.para.session_expiry_interval, 0u);
    EXPECT_EQ(d.para.receive_max, 0);
    EXPECT_STREQ(d.para.client_id, "i");
}
