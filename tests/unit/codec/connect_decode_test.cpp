#include "calls.h"
#include "support/log_lines/codec.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

using Connect = Decoded<mqtt_connect_para_t>;

Connect decode(const Bytes &bytes, uint32_t version = 4)
{
    return decode_with(mqtt_codec_decode_connect, bytes, version);
}
Connect decode(const char *bytes, uint32_t version = 4)
{
    return decode(wire(bytes), version);
}

// A CONNECT of these fields behind the protocol name: level, flags, keep alive and so on.
Bytes connect(const Bytes &body)
{
    return packet(0x10, wire("00 04 'MQTT'") + body);
}
Bytes connect(const char *body)
{
    return connect(wire(body));
}
Connect decode_body(const char *body)
{
    return decode(connect(body));
}
Connect decode_body(const Bytes &body)
{
    return decode(connect(body));
}

LogLine cut_short(size_t expected, int actual)
{
    return warn(printed("CONNECT decode: pkt len mismatch (expected=%zu, actual=%d), truncate", expected, actual));
}

void expect_refused(const Connect &d, int code, const Log &log)
{
    EXPECT_EQ(d.code, code);
    EXPECT_EQ(d.log, log);
    EXPECT_TRUE(untouched(d.ctx));
}
void expect_refused(const Connect &d, const LogLine &line)
{
    expect_refused(d, -4, {line});
}

void expect_success(const Connect &d, uint32_t version, int consumed, const Log &log = {})
{
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(d.log, log);
    EXPECT_EQ(d.consumed, consumed);
    EXPECT_EQ(d.ctx.version, version);
    EXPECT_EQ(d.ctx.last_packet_type, 1u);
    EXPECT_EQ(d.ctx.last_packet_len, static_cast<uint32_t>(consumed));
    EXPECT_EQ(d.ctx.reserved[0], 1u) << "not the codec's";
}

// Every field a CONNECT can carry.
const char *const kFullV4 = "04 F6 00 3C | 00 02 'id' | 00 03 'w/t' | 00 04 'gone' | 00 04 'user' | 00 02 'pw'";
const char *const kFullV5 = "05 F6 00 3C | 14 11 00 00 00 64 | 21 00 0A | 22 00 0B | 27 00 01 00 00 | 19 01 | 1A 01"
                            "| 00 02 'id' | 0A 18 00 00 00 1E | 02 00 00 00 3C | 00 03 'w/t' | 00 04 'gone'"
                            "| 00 04 'user' | 00 02 'pw'";

} // namespace

// ---- whole packets

TEST(connect_decode, a_small_v4_packet)
{
    const Connect d = decode("10 0E | 00 04 'MQTT' 04 02 00 3C | 00 02 'id'");
    expect_success(d, 4, 16);
    EXPECT_STREQ(d.para.client_id, "id");
    EXPECT_EQ(d.para.clean_start, 1);
    EXPECT_EQ(d.para.keep_alive, 60);

    mqtt_connect_para_t expected; // the record was garbage before
    clear(expected);
    strcpy(expected.client_id, "id");
    expected.clean_start = 1;
    expected.keep_alive  = 60;
    EXPECT_EQ(memcmp(&d.para, &expected, sizeof expected), 0);
}

TEST(connect_decode, every_field_of_v4)
{
    const Bytes   bytes = connect(kFullV4);
    const Connect d     = decode(bytes);
    expect_success(d, 4, static_cast<int>(bytes.size()));
    EXPECT_EQ(d.para.clean_start, 1);
    EXPECT_EQ(d.para.will_flag, 1);
    EXPECT_EQ(d.para.will_qos, 2u);
    EXPECT_EQ(d.para.will_retain, 1);
    EXPECT_EQ(d.para.username_flag, 1);
    EXPECT_EQ(d.para.password_flag, 1);
    EXPECT_STREQ(d.para.client_id, "id");
    EXPECT_STREQ(d.para.will_topic, "w/t");
    EXPECT_EQ(hex(d.para.will_payload, 5), "67 6F 6E 65 00");
    EXPECT_EQ(d.para.will_payload_len, 4);
    EXPECT_STREQ(d.para.username, "user");
    EXPECT_EQ(d.para.username_len, 4u);
    EXPECT_STREQ(d.para.password, "pw");
    EXPECT_EQ(d.para.password_len, 2u);
    EXPECT_EQ(d.para.session_expiry_interval, 0u);
}

TEST(connect_decode, every_field_of_v5)
{
    const Bytes   bytes = connect(kFullV5);
    const Connect d     = decode(bytes);
    expect_success(d, 5, static_cast<int>(bytes.size()));
    EXPECT_EQ(d.para.session_expiry_interval, 100u);
    EXPECT_EQ(d.para.receive_max, 10);
    EXPECT_EQ(d.para.topic_alias_max, 11);
    EXPECT_EQ(d.para.max_packet_size, 65536u);
    EXPECT_EQ(d.para.request_response_info, 1);
    EXPECT_EQ(d.para.request_problem_info, 1);
    EXPECT_EQ(d.para.will_delay_interval, 30u);
    EXPECT_EQ(d.para.will_msg_expiry_interval, 60u);
    EXPECT_STREQ(d.para.client_id, "id");
    EXPECT_STREQ(d.para.will_topic, "w/t");
    EXPECT_EQ(d.para.will_payload_len, 4);
    EXPECT_STREQ(d.para.username, "user");
    EXPECT_STREQ(d.para.password, "pw");
}

TEST(connect_decode, each_flag_by_itself)
{
    EXPECT_EQ(decode_body("04 02 00 00 | 00 01 'i'").para.clean_start, 1);
    EXPECT_EQ(decode_body("04 00 00 00 | 00 01 'i'").para.clean_start, 0);
    for (int qos = 0; qos <= 2; ++qos) {
        const Connect d = decode_body(wire("04") + Bytes{static_cast<uint8_t>(0x04 | qos << 3)} +
                                      wire("00 00 | 00 01 'i' | 00 01 't' | 00 01 'p'"));
        EXPECT_EQ(d.code, 0);
        EXPECT_EQ(d.para.will_flag, 1);
        EXPECT_EQ(d.para.will_qos, static_cast<uint32_t>(qos));
        EXPECT_EQ(d.para.will_retain, 0);
        EXPECT_EQ(d.para.username_flag, 0);
        EXPECT_EQ(d.para.username_len, 0u);
        EXPECT_EQ(d.para.password_flag, 0);
        EXPECT_EQ(d.para.password_len, 0u);
    }
    const Connect user = decode_body("04 80 FF FE | 00 01 'i' | 00 01 'u'");
    EXPECT_EQ(user.code, 0);
    EXPECT_EQ(user.para.username_flag, 1);
    EXPECT_EQ(user.para.password_flag, 0);
    EXPECT_EQ(user.para.keep_alive, 0xFFFE);
}

TEST(connect_decode, says_what_it_read)
{
    const Connect d = decode("10 0E | 00 04 'MQTT' 04 02 00 3C | 00 02 'id'");
    ASSERT_EQ(d.all.size(), 5u);
    EXPECT_EQ(d.all[0], debug("========== CONNECT decode start =========="));
    EXPECT_EQ(d.all[1].text.find("CONNECT decode: input param - ctx=0x"), 0u);
    EXPECT_NE(d.all[1].text.find(" (len=16), para=0x"), std::string::npos);
    EXPECT_EQ(Log(d.all.begin() + 2, d.all.end()),
              (Log{debug("CONNECT decode: full packet data"), debug("10 0E 00 04 4D 51 54 54 04 02 00 3C 00 02 69 64 "),
                   debug("CONNECT decode success: version=4, client_id='id', keep_alive=60, parsed_len=16")}));
}

TEST(connect_decode, trailing_bytes_are_not_counted)
{
    expect_success(decode("10 12 | 00 04 'MQTT' 04 02 00 3C | 00 02 'id' | 01 02 03 04"), 4, 16);
    expect_success(decode("10 0E | 00 04 'MQTT' 04 02 00 3C | 00 02 'id' | C0 00"), 4, 16); // the next packet
}

TEST(connect_decode, texts_are_kept_byte_by_byte)
{
    const Connect d = decode_body("04 C2 00 00 | 00 03 'a' 00 'b' | 00 02 FF FE | 00 02 00 00");
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(hex(reinterpret_cast<const uint8_t *>(d.para.client_id), 4), "61 00 62 00");
    EXPECT_EQ(hex(reinterpret_cast<const uint8_t *>(d.para.username), 3), "FF FE 00");
    EXPECT_EQ(d.para.password_len, 2u);
}

// ---- parameters

TEST(connect_decode, needs_its_pointers)
{
    mqtt_codec_ctx_t    ctx = context(4);
    mqtt_connect_para_t para;
    const Bytes         bytes  = connect("04 02 00 3C | 00 02 'id'");
    int                 length = 16;
    LogCapture          log;
    EXPECT_EQ(mqtt_codec_decode_connect(nullptr, bytes.data(), &length, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_connect(&ctx, nullptr, &length, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_connect(&ctx, bytes.data(), nullptr, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_connect(&ctx, bytes.data(), &length, nullptr), -1);
    EXPECT_EQ(log.take(), (Log{
                              logged::connect_decode_invalid_input(nullptr, bytes.data(), 16),
                              logged::connect_decode_invalid_input(&ctx, nullptr, 16),
                              logged::connect_decode_invalid_input(&ctx, bytes.data(), -1),
                              logged::connect_decode_invalid_input(&ctx, bytes.data(), 16),
                          }));
    EXPECT_TRUE(untouched(ctx));
    EXPECT_EQ(length, 16);
}

TEST(connect_decode, needs_ten_bytes)
{
    mqtt_codec_ctx_t    ctx = context(4);
    mqtt_connect_para_t para;
    memset(&para, 0xEE, sizeof para);
    const Bytes bytes  = wire("10 07 | 00 04 'MQTT' 04");
    int         length = 9;
    LogCapture  log;
    EXPECT_EQ(mqtt_codec_decode_connect(&ctx, bytes.data(), &length, &para), -1);
    EXPECT_EQ(log.take(), Log{logged::connect_decode_invalid_input(&ctx, bytes.data(), 9)});
    EXPECT_EQ(static_cast<uint8_t>(para.client_id[0]), 0xEE) << "the record is not touched yet";

    expect_refused(decode("10 08 | 00 04 'MQTT' 04 00"), logged::connect_decode_no_keep_alive(10));
}

// ---- fixed header

TEST(connect_decode, first_byte)
{
    const Connect d = decode("12 0E | 00 04 'MQTT' 04 02 00 3C | 00 02 'id'");
    expect_refused(d, logged::connect_decode_bad_first_byte(1, 2));
    EXPECT_EQ(d.consumed, 16);
    EXPECT_EQ(d.para.client_id[0], 0) << "the record is cleared by then";
    expect_refused(decode("20 0E | 00 04 'MQTT' 04 02 00 3C | 00 02 'id'"),
                   logged::connect_decode_bad_first_byte(2, 0));
    expect_refused(decode("FF 0E | 00 04 'MQTT' 04 02 00 3C | 00 02 'id'"),
                   logged::connect_decode_bad_first_byte(15, 15));
}

TEST(connect_decode, remaining_length)
{
    expect_refused(decode("10 80 80 80 01 00 04 'MQTT' 04 02 00 3C"),
                   error("CONNECT decode: invalid remaining length (len=-1, consumed=0)"));
    expect_success(decode("10 8E 80 00 | 00 04 'MQTT' 04 02 00 3C | 00 02 'id'"), 4, 18);
}

TEST(connect_decode, a_short_packet_is_parsed_as_far_as_it_goes)
{
    const Log warned = {cut_short(22, 16)};
    expect_success(decode("10 14 | 00 04 'MQTT' 04 02 00 3C | 00 02 'id'"), 4, 16, warned);
    expect_refused(decode("10 14 | 00 04 'MQTT' 04 82 00 3C | 00 02 'id'"), -4,
                   {warned[0], logged::connect_decode_no_length("Username", 16)});
    expect_success(decode("10 0E | 00 04 'MQTT' 04 02 00 3C | 00 02 'id'"), 4, 16);
}

TEST(connect_decode, an_input_longer_than_the_packet_is_no_part_of_it)
{
    expect_refused(decode("10 0D | 00 04 'MQTT' 04 02 00 3C | 00 02 'id'"),
                   logged::connect_decode_client_id_cut(14, 2, 15));
}

// ---- protocol name and level

TEST(connect_decode, protocol_name)
{
    const char *const padding = " 04 02 00 3C 00 02 'id'";
    const auto        with    = [&](std::string head) { return decode((head + padding).c_str()); };
    expect_refused(with("10 10 | 00 06 'MQIsdp'"), logged::connect_decode_bad_protocol_name(6, "MQIsdp"));
    expect_refused(with("10 0E | 00 04 'MQTX'"), logged::connect_decode_bad_protocol_name(4, "MQTX"));
    expect_refused(with("10 0E | 00 04 'mqtt'"), logged::connect_decode_bad_protocol_name(4, "mqtt"));
    expect_refused(with("10 0E | 00 03 'MQTT'"), logged::connect_decode_bad_protocol_name(3, "MQT"));
    expect_refused(with("10 0E | 00 05 'MQTTx'"), logged::connect_decode_bad_protocol_name(5, "MQTTx"));
    expect_refused(with("10 0E | 00 00 'MQTT'"), logged::connect_decode_bad_protocol_name(0, ""));
}

TEST(connect_decode, a_protocol_name_longer_than_the_packet_prints_what_is_there)
{
    expect_refused(decode("10 0A | FF FF 'ABCDEFGH'"), logged::connect_decode_bad_protocol_name(65535, "ABCDEFGH"));
    expect_refused(decode("10 05 | 00 09 'ABC' 'the next one'"), logged::connect_decode_bad_protocol_name(9, "ABC"));
}

TEST(connect_decode, no_room_for_the_protocol_name)
{
    expect_refused(decode("10 00 | 00 04 'MQTT' 04 02 00 3C"), logged::connect_decode_no_protocol_name(2, 2));
    expect_refused(decode("10 03 | 00 04 'MQTT' 04 02 00 3C"), logged::connect_decode_no_protocol_name(2, 5));
    expect_refused(decode("10 04 | 00 04 'MQTT' 04 02 00 3C"), logged::connect_decode_bad_protocol_name(4, "MQ"));
    expect_refused(decode("10 05 | 00 04 'MQTT' 04 02 00 3C"), logged::connect_decode_bad_protocol_name(4, "MQT"));
    expect_refused(decode("10 06 | 00 04 'MQTT' 04 02 00 3C"),
                   error("CONNECT decode: no enough data for protocol version (pos=8)"));
}

TEST(connect_decode, level)
{
    for (const int level : {0, 1, 3, 6, 0x84, 255}) {
        const Connect d = decode_body(Bytes{static_cast<uint8_t>(level)} + wire("02 00 3C | 00 02 'id'"));
        expect_refused(d, -2,
                       {error("CONNECT decode: unsupported version " + std::to_string(level) + " (only 4/5 allowed)")});
        EXPECT_EQ(d.ctx.version, 4u);
    }
}

TEST(connect_decode, the_level_is_kept_even_when_the_rest_fails)
{
    const Connect five = decode(connect("05 02 00"), 4);
    expect_refused(five, logged::connect_decode_no_keep_alive(10));
    EXPECT_EQ(five.ctx.version, 5u);
    EXPECT_EQ(decode(connect("05") + wire("00 00"), 4).ctx.version, 5u) << "no flags";
    const Connect four = decode(connect("04 02 00"), 5);
    EXPECT_EQ(four.code, -4);
    EXPECT_EQ(four.ctx.version, 4u);
    EXPECT_EQ(decode(connect("04 1C 00 00"), 0).ctx.version, 4u) << "will QoS 3";
}

// ---- flags and keep alive

TEST(connect_decode, loose_flags_are_accepted)
{
    EXPECT_EQ(decode_body("04 03 00 3C | 00 02 'id'").code, 0) << "reserved bit";

    const Connect no_will = decode_body("04 3A 00 3C | 00 02 'id'"); // will QoS 3 and retain, no will
    EXPECT_EQ(no_will.code, 0);
    EXPECT_EQ(no_will.para.will_flag, 0);
    EXPECT_EQ(no_will.para.will_qos, 3u);
    EXPECT_EQ(no_will.para.will_retain, 1);

    const Connect no_user = decode_body("04 42 00 3C | 00 02 'id' | 00 02 'pw'");
    EXPECT_EQ(no_user.code, 0);
    EXPECT_STREQ(no_user.para.password, "pw");
    EXPECT_EQ(no_user.para.username_len, 0u);
}

TEST(connect_decode, will_qos_3)
{
    expect_refused(decode_body("04 1E 00 3C | 00 02 'id' | 00 01 't' | 00 01 'p'"),
                   error("CONNECT decode: invalid Will QoS 3"));
}

TEST(connect_decode, flags_and_keep_alive_must_be_there)
{
    const Bytes next = wire("FF FF FF"); // behind the packet
    expect_refused(decode(connect("04") + next), error("CONNECT decode: no enough data for connect flags (pos=9)"));
    expect_refused(decode(connect("04 02") + next), logged::connect_decode_no_keep_alive(10));
    expect_refused(decode(connect("04 02 00") + next), logged::connect_decode_no_keep_alive(10));
    expect_refused(decode(connect("04 02 00 3C") + next), logged::connect_decode_no_client_id_length(12));
}

// ---- properties

TEST(connect_decode, each_property_must_end_inside_its_block)
{
    struct Case {
        const char *value;
        const char *name;
    };
    const Case cases[] = {
        {"21 00 0A", "Receive Maximum"},       {"22 00 0B", "Topic Alias Maximum"},
        {"27 00 01 00 00", "Max Packet Size"}, {"19 01", "Request Response Info"},
        {"1A 01", "Request Problem Info"},     {"11 00 00 00 64", "Session Expiry Interval"},
    };
    for (const Case &c : cases) {
        const Bytes value = wire(c.value);
        const Bytes rest  = wire("00 02 'id' 00 00 00 00"); // bytes that the block does not own
        for (size_t cut = 1; cut < value.size(); ++cut)
            expect_refused(decode_body(wire("05 02 00 00") + Bytes{static_cast<uint8_t>(cut)} + value + rest),
                           logged::connect_decode_property_cut(c.name, 14));
        const Bytes whole =
            connect(wire("05 02 00 00") + Bytes{static_cast<uint8_t>(value.size())} + value + wire("00 02 'id'"));
        expect_success(decode(whole), 5, static_cast<int>(whole.size()));
    }
}

TEST(connect_decode, a_property_block_longer_than_the_packet_ends_with_it)
{
    expect_refused(decode_body("05 02 00 00 | 7F 21 00 0A"), logged::connect_decode_no_client_id_length(16));
    expect_refused(decode_body("05 02 00 00 | 7F 21 00"), logged::connect_decode_property_cut("Receive Maximum", 14));
}

TEST(connect_decode, property_length)
{
    const LogLine line = logged::connect_decode_bad_property_length(-1, 0);
    expect_refused(decode_body("05 02 00 00"), line);
    expect_refused(decode_body("05 02 00 00 80"), line);
    expect_refused(decode_body("05 02 00 00 80 80 80 01"), line);
    expect_success(decode_body("05 02 00 00 83 00 21 00 0A | 00 01 'i'"), 5, 20);
    expect_success(decode_body("05 02 00 00 00 | 00 01 'i'"), 5, 16);
}

TEST(connect_decode, an_unknown_property_hides_the_rest)
{
    const Connect d = decode_body("05 02 00 00 | 0F 11 00 00 00 64 | 26 00 01 'k' 00 01 'v' | 21 00 0A | 00 02 'id'");
    expect_success(d, 5, 32, {logged::connect_decode_unknown_property(0x26)});
    EXPECT_EQ(d.para.session_expiry_interval, 100u);
    EXPECT_EQ(d.para.receive_max, 0);
    EXPECT_STREQ(d.para.client_id, "id");

    for (const uint8_t id : {0x00, 0x01, 0x02, 0x10, 0x12, 0x18, 0x1B, 0x20, 0x23, 0x28, 0x7F})
        EXPECT_EQ(decode_body(wire("05 02 00 00 | 04") + Bytes{id} + wire("21 00 0A | 00 01 'i'")).log,
                  Log{logged::connect_decode_unknown_property(id)});
}

TEST(connect_decode, a_property_given_twice_counts_the_second_time)
{
    EXPECT_EQ(decode_body("05 02 00 00 | 06 21 00 0A 21 00 0B | 00 01 'i'").para.receive_max, 11);
}

TEST(connect_decode, an_identifier_may_take_two_bytes)
{
    const Connect known = decode_body("05 02 00 00 | 04 80 21 00 0A | 00 01 'i'"); // 0 * 256 + 0x21
    EXPECT_EQ(known.code, 0);
    EXPECT_EQ(known.para.receive_max, 10);

    expect_success(decode_body("05 02 00 00 | 03 A1 21 00 | 00 01 'i'"), 5, 19,
                   {logged::connect_decode_unknown_property(0x2121)});
    expect_refused(decode_body("05 02 00 00 | 01 80 | 21 00"), logged::connect_decode_no_property_type(14));
    expect_refused(decode_body("05 02 00 00 | 04 21 00 0A FF | 00 01 'i'"),
                   logged::connect_decode_no_property_type(17));
}

// ---- client id

TEST(connect_decode, client_id_must_lie_inside_the_packet)
{
    expect_refused(decode_body("04 02 00 3C | 00"), logged::connect_decode_no_client_id_length(12));
    expect_refused(decode_body("04 02 00 3C | 00 03 'id'"), logged::connect_decode_client_id_cut(14, 3, 16));
    expect_refused(decode_body("04 02 00 3C | FF FF 'id'"), logged::connect_decode_client_id_cut(14, 65535, 16));
}

TEST(connect_decode, empty_client_id)
{
    const Log warned = {warn("CONNECT decode: empty ClientID (clean_start=1, MQTT standard allowed)")};
    for (const char *body : {"04 02 00 3C | 00 00", "05 02 00 3C 00 | 00 00"}) {
        const Connect d = decode_body(body);
        EXPECT_EQ(d.code, 0);
        EXPECT_EQ(d.log, warned);
        EXPECT_STREQ(d.para.client_id, "");
    }
    const Log refused = {error("CONNECT decode: client_id_len=0 (empty ClientID)"),
                         error("CONNECT decode: clean_start=0 - empty ClientID is NOT allowed (MQTT standard)")};
    expect_refused(decode_body("04 00 00 3C | 00 00"), -4, refused);
    expect_refused(decode_body("05 00 00 3C 00 | 00 00"), -4, refused);
}

TEST(connect_decode, a_v4_id_has_at_most_23_characters)
{
    const auto with = [](size_t length) {
        return decode_body(wire("04 02 00 3C") + prefixed(std::string(length, 'x')));
    };
    EXPECT_EQ(with(22).code, 0);
    EXPECT_EQ(with(23).code, 0);
    EXPECT_EQ(with(23).para.client_id, std::string(23, 'x'));
    expect_refused(with(24), logged::connect_decode_client_id_too_long(24));
    expect_refused(with(100), logged::connect_decode_client_id_too_long(100));
    expect_refused(decode_body(wire("04 02 00 3C | 00 18 'short'")),
                   logged::connect_decode_client_id_cut(14, 24, 19)); // this check comes first
}

TEST(connect_decode, a_v5_id_has_at_most_64_characters)
{
    const auto with = [](size_t length) {
        return decode_body(wire("05 02 00 3C 00") + prefixed(std::string(length, 'x')));
    };
    for (const size_t length : {24u, 63u, 64u}) {
        const Connect d = with(length);
        expect_success(d, 5, static_cast<int>(15 + length));
        EXPECT_EQ(d.para.client_id, std::string(length, 'x'));
    }
    const Connect d = with(65);
    expect_success(d, 5, 79, {logged::connect_decode_client_id_truncated(65)});
    EXPECT_EQ(d.para.client_id, std::string(64, 'x'));
}

TEST(connect_decode, the_rest_of_a_long_id_is_read_as_what_follows)
{
    const Log     warned = {logged::connect_decode_client_id_truncated(100)};
    const Bytes   id     = text(std::string(64, 'x')) + wire("00 04 'user'") + text(std::string(30, 'y'));
    const Connect d      = decode_body(wire("05 82 00 3C 00 | 00 64") + id + wire("00 04 'USER'"));
    expect_success(d, 5, 85, warned);
    EXPECT_EQ(d.para.client_id, std::string(64, 'x'));
    EXPECT_STREQ(d.para.username, "user");

    const Connect plain = decode_body(wire("05 82 00 3C 00") + prefixed(std::string(100, 'y')) + wire("00 04 'USER'"));
    expect_refused(plain, -4, {warned[0], logged::connect_decode_bad_length("Username", 31097)}); // 'yy'
}

// ---- will

TEST(connect_decode, will_topic)
{
    const auto with = [](const Bytes &topic) {
        return decode_body(wire("04 06 00 3C | 00 02 'id'") + topic + wire("00 01 'p'"));
    };
    EXPECT_EQ(with(prefixed("t")).code, 0);
    EXPECT_EQ(with(prefixed(std::string(256, 't'))).code, 0);
    EXPECT_EQ(with(prefixed(std::string(256, 't'))).para.will_topic, std::string(256, 't'));
    expect_refused(with(prefixed(std::string(257, 't'))), logged::connect_decode_bad_length("Will Topic", 257));
    expect_refused(with(prefixed("")), logged::connect_decode_bad_length("Will Topic", 0));
    expect_refused(with(wire("00 09 't'")), logged::connect_decode_bad_length("Will Topic", 9));
    expect_refused(decode_body("04 06 00 3C | 00 02 'id'"), logged::connect_decode_no_length("Will Topic", 16));
    expect_refused(decode_body("04 06 00 3C | 00 02 'id' 00"), logged::connect_decode_no_length("Will Topic", 16));
}

TEST(connect_decode, will_payload)
{
    const auto with = [](const Bytes &payload) {
        return decode_body(wire("04 06 00 3C | 00 02 'id' | 00 01 't'") + payload);
    };
    for (const size_t length : {0u, 1u, 2047u, 2048u}) {
        const Connect d = with(prefixed(std::string(length, 'p')));
        EXPECT_EQ(d.code, 0);
        EXPECT_EQ(d.para.will_payload_len, static_cast<int>(length));
        EXPECT_EQ(Bytes(d.para.will_payload, d.para.will_payload + length), repeat('p', length));
    }
    expect_refused(with(prefixed(std::string(2049, 'p'))), logged::connect_decode_bad_length("Will Payload", 2049));
    expect_refused(with(wire("00 02 'p'")), logged::connect_decode_bad_length("Will Payload", 2));
    expect_refused(with(Bytes{}), logged::connect_decode_no_length("Will Payload", 19));
    expect_refused(with(Bytes{0}), logged::connect_decode_no_length("Will Payload", 19));
}

TEST(connect_decode, will_properties)
{
    const auto with = [](const char *properties) {
        return decode_body(wire("05 06 00 3C 00 | 00 02 'id'") + wire(properties) + wire("00 01 't' | 00 01 'p'"));
    };
    EXPECT_EQ(with("00").para.will_delay_interval, 0u);
    EXPECT_EQ(with("05 18 00 00 00 07").para.will_delay_interval, 7u);
    EXPECT_EQ(with("05 02 01 02 03 04").para.will_msg_expiry_interval, 0x01020304u);
    EXPECT_EQ(with("0A 18 00 00 00 07 18 00 00 00 08").para.will_delay_interval, 8u);
    EXPECT_STREQ(with("0A 02 00 00 00 07 18 00 00 00 08").para.will_topic, "t");
    EXPECT_EQ(with("85 00 18 00 00 00 07").para.will_delay_interval, 7u);
    EXPECT_EQ(with("00").log, Log{});
}

TEST(connect_decode, a_will_property_cut_short_is_left_out)
{
    const auto with = [](const char *properties) {
        return decode_body(wire("05 06 00 3C 00 | 00 02 'id'") + wire(properties) + wire("00 01 't' | 00 01 'p'"));
    };
    for (const char *properties : {"01 18", "02 18 01", "04 18 01 02 03"}) {
        const Connect d = with(properties);
        EXPECT_EQ(d.code, 0) << properties;
        EXPECT_EQ(d.log, Log{});
        EXPECT_EQ(d.para.will_delay_interval, 0u);
        EXPECT_STREQ(d.para.will_topic, "t");
    }
    EXPECT_EQ(with("07 18 00 00 00 07 02 09").para.will_delay_interval, 7u);
    EXPECT_EQ(with("07 18 00 00 00 07 02 09").para.will_msg_expiry_interval, 0u);
}

TEST(connect_decode, an_unknown_will_property_ends_their_walk)
{
    const Connect d = decode_body("05 06 00 3C 00 | 00 02 'id' | 0C 18 00 00 00 07 | 01 01 | 02 00 00 00 09"
                                  "| 00 01 't' | 00 01 'p'");
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(d.log, Log{warn("CONNECT decode: unknown will prop type=0x01")});
    EXPECT_EQ(d.para.will_delay_interval, 7u);
    EXPECT_EQ(d.para.will_msg_expiry_interval, 0u);
    EXPECT_STREQ(d.para.will_topic, "t");
}

TEST(connect_decode, an_unreadable_will_property_length_means_none)
{
    // 80 80 80 is no length, so the topic's own length is read there.
    expect_refused(decode_body("05 06 00 3C 00 | 00 02 'id' | 80 80 80 01"),
                   logged::connect_decode_bad_length("Will Topic", 32896));
    expect_refused(decode_body("05 06 00 3C 00 | 00 02 'id'"), logged::connect_decode_no_length("Will Topic", 17));
    expect_refused(decode_body("05 06 00 3C 00 | 00 02 'id' | FF"), logged::connect_decode_no_length("Will Topic", 17));
}

TEST(connect_decode, a_will_block_longer_than_the_packet_ends_with_it)
{
    expect_refused(decode_body("05 06 00 3C 00 | 00 02 'id' | 7F 18 00 00 00 07"),
                   logged::connect_decode_no_length("Will Topic", 23));
    EXPECT_EQ(decode_body("05 06 00 3C 00 | 00 02 'id' | 7F 18 00 00 00 07").para.will_delay_interval, 7u);
}

TEST(connect_decode, v4_has_no_will_properties)
{
    expect_refused(decode_body("04 06 00 3C | 00 02 'id' | 00 00 01 't' | 00 01 'p'"),
                   logged::connect_decode_bad_length("Will Topic", 0));
}

// ---- credentials

TEST(connect_decode, credentials_have_1_to_64_bytes)
{
    const auto user = [](const Bytes &bytes) { return decode_body(wire("04 82 00 3C | 00 02 'id'") + bytes); };
    const auto pass = [](const Bytes &bytes) {
        return decode_body(wire("04 C2 00 3C | 00 02 'id' | 00 01 'u'") + bytes);
    };

    for (const size_t length : {1u, 63u, 64u}) {
        const std::string value(length, 'c');
        EXPECT_EQ(user(prefixed(value)).code, 0);
        EXPECT_EQ(user(prefixed(value)).para.username, value);
        EXPECT_EQ(user(prefixed(value)).para.username_len, length);
        EXPECT_EQ(pass(prefixed(value)).code, 0);
        EXPECT_EQ(pass(prefixed(value)).para.password, value);
        EXPECT_EQ(pass(prefixed(value)).para.password_len, length);
    }
    expect_refused(user(prefixed("")), logged::connect_decode_bad_length("Username", 0));
    expect_refused(user(prefixed(std::string(65, 'c'))), logged::connect_decode_bad_length("Username", 65));
    expect_refused(user(wire("00 02 'c'")), logged::connect_decode_bad_length("Username", 2));
    expect_refused(user(Bytes{}), logged::connect_decode_no_length("Username", 16));
    expect_refused(user(Bytes{0}), logged::connect_decode_no_length("Username", 16));
    expect_refused(pass(prefixed("")), logged::connect_decode_bad_length("Password", 0));
    expect_refused(pass(prefixed(std::string(65, 'c'))), logged::connect_decode_bad_length("Password", 65));
    expect_refused(pass(wire("00 02 'c'")), logged::connect_decode_bad_length("Password", 2));
    expect_refused(pass(Bytes{}), logged::connect_decode_no_length("Password", 19));
    expect_refused(pass(Bytes{0}), logged::connect_decode_no_length("Password", 19));
}

// ---- every cut

namespace {

// What a packet cut at this length, or at one further on up to the next stretch, is refused with.
struct Stretch {
    int     from;
    LogLine line;
};

void expect_cuts(const Bytes &whole, const std::vector<Stretch> &stretches)
{
    for (int length = 10; length < static_cast<int>(whole.size()); ++length) {
        const Connect d = decode(Bytes(whole.begin(), whole.begin() + length));
        LogLine       line;
        for (const Stretch &stretch : stretches)
            if (length >= stretch.from)
                line = stretch.line;
        SCOPED_TRACE(length);
        expect_refused(d, -4, {cut_short(whole.size(), length), line});
        EXPECT_EQ(d.consumed, length);
    }
}

} // namespace

TEST(connect_decode, v4_cut_at_every_byte)
{
    expect_cuts(connect(kFullV4), {
                                      {10, logged::connect_decode_no_keep_alive(10)},
                                      {12, logged::connect_decode_no_client_id_length(12)},
                                      {14, logged::connect_decode_client_id_cut(14, 2, 14)},
                                      {15, logged::connect_decode_client_id_cut(14, 2, 15)},
                                      {16, logged::connect_decode_no_length("Will Topic", 16)},
                                      {18, logged::connect_decode_bad_length("Will Topic", 3)},
                                      {21, logged::connect_decode_no_length("Will Payload", 21)},
                                      {23, logged::connect_decode_bad_length("Will Payload", 4)},
                                      {27, logged::connect_decode_no_length("Username", 27)},
                                      {29, logged::connect_decode_bad_length("Username", 4)},
                                      {33, logged::connect_decode_no_length("Password", 33)},
                                      {35, logged::connect_decode_bad_length("Password", 2)},
                                  });
}

TEST(connect_decode, v5_cut_at_every_byte)
{
    std::vector<Stretch> stretches = {
        {10, logged::connect_decode_no_keep_alive(10)},
        {12, logged::connect_decode_bad_property_length(-1, 0)},
    };
    // A property block ends with the packet: between two properties the client id is what is missing.
    for (const int next : {13, 18, 21, 24, 29, 31})
        stretches.push_back({next, logged::connect_decode_no_client_id_length(next)});
    stretches.push_back({14, logged::connect_decode_property_cut("Session Expiry Interval", 14)});
    stretches.push_back({19, logged::connect_decode_property_cut("Receive Maximum", 19)});
    stretches.push_back({22, logged::connect_decode_property_cut("Topic Alias Maximum", 22)});
    stretches.push_back({25, logged::connect_decode_property_cut("Max Packet Size", 25)});
    stretches.push_back({30, logged::connect_decode_property_cut("Request Response Info", 30)});
    stretches.push_back({32, logged::connect_decode_property_cut("Request Problem Info", 32)});
    stretches.push_back({33, logged::connect_decode_no_client_id_length(33)});
    stretches.push_back({35, logged::connect_decode_client_id_cut(35, 2, 35)});
    stretches.push_back({36, logged::connect_decode_client_id_cut(35, 2, 36)});
    // The same for the will's block, which may be cut anywhere.
    for (int length = 37; length <= 48; ++length)
        stretches.push_back({length, logged::connect_decode_no_length("Will Topic", length)});
    stretches.push_back({50, logged::connect_decode_bad_length("Will Topic", 3)});
    stretches.push_back({53, logged::connect_decode_no_length("Will Payload", 53)});
    stretches.push_back({55, logged::connect_decode_bad_length("Will Payload", 4)});
    stretches.push_back({59, logged::connect_decode_no_length("Username", 59)});
    stretches.push_back({61, logged::connect_decode_bad_length("Username", 4)});
    stretches.push_back({65, logged::connect_decode_no_length("Password", 65)});
    stretches.push_back({67, logged::connect_decode_bad_length("Password", 2)});
    std::sort(stretches.begin(), stretches.end(), [](const Stretch &a, const Stretch &b) { return a.from < b.from; });
    expect_cuts(connect(kFullV5), stretches);
}

TEST(connect_decode, a_whole_packet_cut_short_by_its_length_field)
{
    const Bytes whole = connect(kFullV5);
    for (size_t length = 0; length + 2 < whole.size(); ++length) { // the claim shrinks, the input does not
        Bytes claim     = whole;
        claim[1]        = static_cast<uint8_t>(length);
        const Connect d = decode(claim);
        EXPECT_EQ(d.code, -4) << length;
        EXPECT_EQ(d.log.size(), 1u) << length;
        EXPECT_TRUE(untouched(d.ctx));
    }
}
