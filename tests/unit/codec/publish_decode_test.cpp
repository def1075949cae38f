#include "calls.h"
#include "support/log_lines/codec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

using namespace tarn::test;

namespace {

using Publish = Decoded<mqtt_publish_para_t>;

Publish decode(const Bytes &bytes, uint32_t version = 4, uint32_t log_level = 0)
{
    return decode_with(mqtt_codec_decode_publish, bytes, version, log_level);
}
Publish decode(const char *bytes, uint32_t version = 4)
{
    return decode(wire(bytes), version);
}

// A QoS 0 PUBLISH on topic "a" with these bytes behind the topic.
Bytes behind_topic(const Bytes &rest)
{
    return packet(0x30, wire("00 01 'a'") + rest);
}
Publish decode_rest(const char *rest)
{
    return decode(behind_topic(wire(rest)));
}

std::string payload_of(const Publish &d)
{
    return {reinterpret_cast<const char *>(d.para.payload), d.para.payload_len};
}

void expect_success(const Publish &d, uint32_t version, int consumed, const Log &log = {})
{
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(d.log, log);
    EXPECT_EQ(d.consumed, consumed);
    EXPECT_EQ(d.ctx.version, version);
    EXPECT_EQ(d.ctx.last_packet_type, 3u);
    EXPECT_EQ(d.ctx.last_packet_len, static_cast<uint32_t>(consumed));
}

// Refused with one ERROR line, then the closing banner; neither length nor context moved.
void expect_refused(const Publish &d, uint32_t version, const LogLine &line, const char *banner, int code = -4)
{
    EXPECT_EQ(d.code, code);
    EXPECT_EQ(d.log, Log{line});
    EXPECT_TRUE(untouched(d.ctx));
    EXPECT_EQ(d.ctx.version, version);
    const Log end = {line, logged::publish_decode_failed(banner)};
    ASSERT_GE(d.all.size(), 2u);
    EXPECT_EQ(Log(d.all.end() - 2, d.all.end()), end);
}
void expect_refused(const char *bytes, const LogLine &line, const char *banner)
{
    for (const uint32_t version : {4u, 5u}) {
        const Publish d = decode(bytes, version);
        expect_refused(d, version, line, banner);
        EXPECT_EQ(d.consumed, static_cast<int>(wire(bytes).size()));
    }
}

} // namespace

// ---- whole packets

TEST(publish_decode, a_text_payload_is_level_4)
{
    const Publish d = decode("30 08 | 00 01 'a' 'hello'", 5);
    expect_success(d, 4, 10);

    mqtt_publish_para_t expected; // the record was garbage before, padding included
    memset(&expected, 0, sizeof expected);
    strcpy(expected.topic, "a");
    memcpy(expected.payload, "hello", 5);
    expected.payload_len = 5;
    EXPECT_EQ(memcmp(&d.para, &expected, sizeof expected), 0);
}

TEST(publish_decode, all_fields_at_level_5)
{
    const Publish d = decode("3D 12 | 00 03 'a/b' 12 34 | 08 02 00 00 00 3C 23 00 05 | 'hi'");
    expect_success(d, 5, 20);
    mqtt_publish_para_t expected;
    memset(&expected, 0, sizeof expected);
    strcpy(expected.topic, "a/b");
    memcpy(expected.payload, "hi", 2);
    expected.payload_len         = 2;
    expected.msg_id              = 0x1234;
    expected.qos                 = 2;
    expected.retain              = 1;
    expected.dup                 = 1;
    expected.msg_expiry_interval = 60;
    expected.topic_alias         = 5;
    EXPECT_EQ(memcmp(&d.para, &expected, sizeof expected), 0);
}

TEST(publish_decode, takes_flags_and_topics_as_they_come)
{
    const struct {
        const char *first;
        uint32_t    qos;
        int         retain, dup;
    } cases[] = {
        {"30", 0, 0, 0}, {"31", 0, 1, 0}, {"38", 0, 0, 1}, {"32", 1, 0, 0}, {"3B", 1, 1, 1}, {"34", 2, 0, 0},
    };
    for (const auto &c : cases) {
        const Publish d = decode(wire(c.first) + wire("07 | 00 03 '#' FF 00 | 00 07"));
        EXPECT_EQ(d.code, 0);
        EXPECT_EQ(d.para.qos, c.qos);
        EXPECT_EQ(d.para.retain, c.retain);
        EXPECT_EQ(d.para.dup, c.dup);
        EXPECT_EQ(d.para.msg_id, c.qos ? 7 : 0);
        EXPECT_EQ(hex(reinterpret_cast<const uint8_t *>(d.para.topic), 4), "23 FF 00 00");
    }
}

TEST(publish_decode, consumes_one_packet_of_the_input)
{
    expect_success(decode("30 08 | 00 01 'a' 'hello' | C0 00"), 4, 10);
}

TEST(publish_decode, takes_long_forms_of_the_remaining_length)
{
    expect_success(decode("30 88 80 00 | 00 01 'a' 'hello'"), 4, 12);
}

// ---- refusals

TEST(publish_decode, refuses_missing_parameters)
{
    mqtt_codec_ctx_t    ctx = context(4);
    mqtt_publish_para_t para;
    memset(&para, 0xEE, sizeof para);
    const Bytes    bytes = wire("30 03 00 01 61");
    const uint8_t *buf   = bytes.data();
    int            len   = 5;
    LogCapture     log(2);
    const auto     line = [](const void *c, const void *b, const void *l, int length, const void *p) {
        return Log{logged::publish_decode_invalid_param(c, b, l, length, p)};
    };
    EXPECT_EQ(mqtt_codec_decode_publish(nullptr, buf, &len, &para), -1);
    EXPECT_EQ(log.take(), line(nullptr, buf, &len, 5, &para));
    EXPECT_EQ(mqtt_codec_decode_publish(&ctx, nullptr, &len, &para), -1);
    EXPECT_EQ(log.take(), line(&ctx, nullptr, &len, 5, &para));
    EXPECT_EQ(mqtt_codec_decode_publish(&ctx, buf, nullptr, &para), -1);
    EXPECT_EQ(log.take(), line(&ctx, buf, nullptr, -1, &para));
    EXPECT_EQ(mqtt_codec_decode_publish(&ctx, buf, &len, nullptr), -1);
    EXPECT_EQ(log.take(), line(&ctx, buf, &len, 5, nullptr));
    for (const int short_len : {1, 0, -7}) {
        len = short_len;
        EXPECT_EQ(mqtt_codec_decode_publish(&ctx, buf, &len, &para), -1);
        EXPECT_EQ(log.take(), line(&ctx, buf, &len, short_len, &para));
        EXPECT_EQ(len, short_len);
    }
    EXPECT_TRUE(untouched(ctx));
    EXPECT_EQ(static_cast<uint8_t>(para.topic[0]), 0xEE) << "the record is cleared behind these checks only";
}

TEST(publish_decode, traces_missing_parameters_too)
{
    LogCapture log(0);
    int        len = -7;
    EXPECT_EQ(mqtt_codec_decode_publish(nullptr, nullptr, &len, nullptr), -1);
    EXPECT_EQ(log.take(), (Log{logged::publish_decode_started(),
                               debug("PUBLISH decode: input param - ctx=(nil), buf=(nil), buf_len=" + pointer(&len) +
                                     " (len=-7), para=(nil)"),
                               logged::publish_decode_invalid_param(nullptr, nullptr, &len, -7, nullptr),
                               logged::publish_decode_failed("INVALID PARAM")}));
}

TEST(publish_decode, refuses_another_type)
{
    expect_refused("42 03 00 01 61", logged::publish_decode_wrong_type(4), "INVALID PACKET TYPE");
    expect_refused("00 00", logged::publish_decode_wrong_type(0), "INVALID PACKET TYPE");
    mqtt_publish_para_t zero;
    memset(&zero, 0, sizeof zero);
    const Publish d = decode("42 03 00 01 61");
    EXPECT_EQ(memcmp(&d.para, &zero, sizeof zero), 0);
}

TEST(publish_decode, refuses_qos_3)
{
    expect_refused("36 05 00 01 61 00 07", logged::publish_decode_bad_qos(3), "INVALID QoS");
    expect_refused("36 80", logged::publish_decode_bad_qos(3), "INVALID QoS");
}

TEST(publish_decode, refuses_a_bad_remaining_length)
{
    const auto line = [](int len, int consumed, int need, int have) {
        return error(
            printed("PUBLISH decode: invalid remaining length (len=%d, consumed=%d, total need=%d, buf_len=%d)", len,
                    consumed, need, have));
    };
    const char *const banner = "INVALID REMAINING LENGTH";
    expect_refused("30 80", line(-1, 0, 0, 2), banner);
    expect_refused("30 80 80 80 01 00 01 61", line(-1, 0, 0, 8), banner);
    expect_refused("30 04 00 01 61", line(4, 1, 6, 5), banner);
    expect_refused("30 80 01 00 01 61", line(128, 2, 131, 6), banner);
    expect_refused("30 FF FF 7F 00 01 61", line(2097151, 3, 2097155, 7), banner);
}

TEST(publish_decode, refuses_a_cut_topic_length)
{
    const char *const banner = "TOPIC LENGTH SHORT";
    expect_refused("30 00", logged::publish_decode_no_topic_length(2, 2), banner);
    expect_refused("30 01 00", logged::publish_decode_no_topic_length(2, 3), banner);
}

TEST(publish_decode, refuses_an_empty_topic)
{
    const LogLine line = error("PUBLISH decode: invalid topic length=0 (protocol require non-empty topic)");
    expect_refused("30 02 00 00", line, "EMPTY TOPIC");
    expect_refused("30 07 00 00 | 03 23 00 05 | 'x'", line, "EMPTY TOPIC"); // the alias does not help
}

TEST(publish_decode, topics_have_at_most_256_characters)
{
    const Publish fits = decode(packet(0x30, prefixed(std::string(256, 't'))));
    expect_success(fits, 4, 261);
    EXPECT_EQ(std::string(fits.para.topic), std::string(256, 't'));
    EXPECT_EQ(decode(packet(0x30, prefixed(std::string(255, 't')))).code, 0);
    expect_refused(decode(packet(0x30, prefixed(std::string(257, 't')))), 4, logged::publish_decode_topic_too_long(257),
                   "TOPIC TOO LONG");
    expect_refused("30 03 FF FF 61", logged::publish_decode_topic_too_long(65535), "TOPIC TOO LONG");
}

TEST(publish_decode, refuses_a_cut_topic)
{
    expect_refused("30 03 00 02 61",
                   error("PUBLISH decode: buffer too short for topic content - pos+len=6 > buf_len=5"),
                   "TOPIC CONTENT SHORT");
}

TEST(publish_decode, topic_may_reach_past_the_packet_into_the_input)
{
    Publish d = decode("30 00 | 00 01 'a' FF"); // the whole topic stands behind the packet
    expect_success(d, 4, 5);
    EXPECT_STREQ(d.para.topic, "a");
    EXPECT_EQ(d.para.payload_len, 0u);

    d = decode("30 03 | 00 03 'a' 'bc' 'd'"); // its tail does
    expect_success(d, 4, 7);
    EXPECT_STREQ(d.para.topic, "abc");
    EXPECT_EQ(d.para.payload_len, 0u);
}

TEST(publish_decode, refuses_a_cut_identifier)
{
    const auto line = [](int remaining, int pos, int have) {
        return error(
            printed("PUBLISH decode: buffer too short for msg id (need 2 bytes) - remaining=%d, pos+2=%d > buf_len=%d",
                    remaining, pos, have));
    };
    expect_refused("32 03 00 01 61", line(0, 7, 5), "MSG ID SHORT");
    expect_refused("34 04 00 01 61 00", line(1, 7, 6), "MSG ID SHORT");
    expect_refused("32 04 00 01 61 00 07", line(1, 7, 7), "MSG ID SHORT");  // there, but behind the packet
    expect_refused("32 02 00 01 61 00 07", line(-1, 7, 7), "MSG ID SHORT"); // the topic took more than the packet had
}

TEST(publish_decode, refuses_identifier_0)
{
    const LogLine line = error("PUBLISH decode: invalid msg id=0 (protocol require 1~65535 for QoS1/QoS2)");
    expect_refused("32 05 00 01 61 00 00", line, "INVALID MSG ID");
    expect_refused("34 05 00 01 61 00 00", line, "INVALID MSG ID");
    EXPECT_EQ(decode("34 05 00 01 61 FF FF").para.msg_id, 0xFFFF);
    EXPECT_EQ(decode("30 05 00 01 61 00 00").code, 0) << "QoS 0 has none";
}

TEST(publish_decode, leaves_what_was_read_in_a_refused_record)
{
    const Publish       d = decode("3D 05 00 01 61 00 00");
    mqtt_publish_para_t expected;
    memset(&expected, 0, sizeof expected);
    expected.topic[0] = 'a';
    expected.qos      = 2;
    expected.retain   = 1;
    expected.dup      = 1;
    EXPECT_EQ(memcmp(&d.para, &expected, sizeof expected), 0);
}

// ---- which level it is

TEST(publish_decode, nothing_behind_the_topic_is_level_4)
{
    for (const uint32_t version : {4u, 5u}) {
        const Publish d = decode("30 03 00 01 61", version);
        expect_success(d, 4, 5);
        EXPECT_EQ(d.all[d.all.size() - 3], debug("PUBLISH decode: empty payload (len=0)"));
    }
    expect_success(decode("32 05 00 01 61 00 07", 5), 4, 7);
}

TEST(publish_decode, a_payload_that_looks_like_properties_makes_it_5)
{
    Publish d = decode("30 05 00 01 61 00 41"); // 00: an empty block
    expect_success(d, 5, 7);
    EXPECT_EQ(payload_of(d), "A");

    d = decode_rest("02 'A' 'x'"); // a block of two that fits exactly: identifier 41, length 78 runs on
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(d.ctx.version, 5u);
    EXPECT_EQ(payload_of(d), "");

    const std::string text = "A" + std::string(65, '\0'); // 'A' = 65: the block is all of the rest
    d                      = decode(behind_topic(tarn::test::text(text)));
    EXPECT_EQ(d.ctx.version, 5u);
    EXPECT_EQ(payload_of(d), "");
}

TEST(publish_decode, a_payload_longer_than_its_first_byte_says_is_read_as_5)
{
    const struct {
        char   first;
        size_t longest; // that is still a payload
    } cases[] = {{'{', 123}, {'[', 91}, {'<', 60}, {'"', 34},  {' ', 32}, {'0', 48},    {'9', 57},
                 {'A', 65},  {'Z', 90}, {'a', 97}, {'z', 122}, {'\0', 0}, {'\x7F', 127}};
    for (const auto &one : cases) {
        SCOPED_TRACE(one.first);
        std::string payload(one.longest, 'x');
        if (!payload.empty()) {
            payload[0] = one.first;
            EXPECT_EQ(payload_of(decode(behind_topic(text(payload)))), payload);
        }
        payload    = std::string(one.longest + 1, 'x');
        payload[0] = one.first;
        Publish d  = decode(behind_topic(text(payload)));
        EXPECT_EQ(d.code, 0);
        EXPECT_EQ(d.ctx.version, 5u);
        EXPECT_EQ(payload_of(d), "");
    }
    const Publish d = decode(behind_topic(text("z\xC3\xBC" + std::string(600, 'x')))); // two bytes of a length: 15427
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(payload_of(d), "") << "a step may take the whole payload, not only the bytes counted";
}

TEST(publish_decode, three_bytes_from_80_on_keep_a_payload_whole)
{
    for (const char *front : {"\xEF\xBB\xBF", "\x80\x80\x80", "\xFF\xFF\xFF"})
        for (size_t more : {0, 1, 121, 125, 128, 600, 2045}) {
            SCOPED_TRACE(more);
            const std::string payload = front + std::string(more, '{');
            const Publish     d       = decode(behind_topic(text(payload)));
            EXPECT_EQ(d.ctx.version, 4u);
            EXPECT_EQ(payload_of(d), payload);
        }
}

TEST(publish_decode, two_bytes_of_which_the_first_is_80_or_more_may_be_a_property_length)
{
    for (const auto &[front, least] : {std::pair(wire("80 00"), 2u), std::pair(wire("F0 00"), 114u),
                                       std::pair(wire("C8 01"), 202u), std::pair(wire("80 01"), 130u)}) {
        const std::string rest(least - 2, 'x');
        EXPECT_EQ(decode(behind_topic(front + text(rest))).ctx.version, 5u) << least;
        if (!rest.empty()) {
            EXPECT_EQ(decode(behind_topic(front + text(rest.substr(1)))).ctx.version, 4u) << least;
        }
    }
}

TEST(publish_decode, a_length_that_does_not_fit_makes_it_4)
{
    Publish d = decode_rest("03 'A' 'x'"); // one byte too long
    expect_success(d, 4, 8);
    EXPECT_EQ(payload_of(d), "\x03"
                             "Ax");

    const std::string text = "A" + std::string(64, '\0');
    d                      = decode(behind_topic(tarn::test::text(text)));
    EXPECT_EQ(d.ctx.version, 4u);
    EXPECT_EQ(payload_of(d), text);

    expect_success(decode_rest("80"), 4, 6);                         // no end
    expect_success(decode_rest("FF FF FF 00"), 4, 9);                // four bytes
    expect_success(decode(wire("30 04 00 01 61 80 | 00 00")), 4, 6); // its end lies behind the packet
}

TEST(publish_decode, level_detection_starts_behind_the_identifier)
{
    Publish d = decode("32 06 00 01 61 00 07 00");
    expect_success(d, 5, 8);
    d = decode("32 07 00 01 61 00 07 'hi'");
    expect_success(d, 4, 9);
    EXPECT_EQ(payload_of(d), "hi");
}

// ---- properties

TEST(publish_decode, reads_expiry_and_alias_in_any_order)
{
    Publish d = decode_rest("08 | 23 01 02 | 02 01 02 03 04 | 'x'");
    expect_success(d, 5, 15);
    EXPECT_EQ(d.para.topic_alias, 0x0102);
    EXPECT_EQ(d.para.msg_expiry_interval, 0x01020304u);
    EXPECT_EQ(payload_of(d), "x");

    d = decode_rest("06 | 23 00 01 | 23 00 02 | 'x'"); // the second counts
    EXPECT_EQ(d.para.topic_alias, 2);
}

TEST(publish_decode, a_cut_expiry_is_not_stored_but_stepped_over)
{
    for (int have = 0; have < 4; ++have) { // value bytes inside the block; payload behind it
        const Bytes   block = wire("02") + repeat(1, static_cast<size_t>(have));
        const Publish d = decode(behind_topic(Bytes{static_cast<uint8_t>(block.size())} + block + text("123456789")));
        expect_success(d, 5, 6 + 1 + have + 9, {logged::publish_decode_expiry_cut(6)});
        EXPECT_EQ(d.para.msg_expiry_interval, 0u);
        EXPECT_EQ(payload_of(d), std::string("123456789").substr(static_cast<size_t>(4 - have)));
    }
}

TEST(publish_decode, a_cut_alias_is_not_stored_but_stepped_over)
{
    Publish d = decode_rest("02 | 23 01 | 'xyz'");
    expect_success(d, 5, 11, {logged::publish_decode_topic_alias_cut(6)});
    EXPECT_EQ(d.para.topic_alias, 0);
    EXPECT_EQ(payload_of(d), "yz");
    d = decode_rest("06 | 02 00 00 00 09 | 23 | 'xyz'");
    expect_success(d, 5, 15, {logged::publish_decode_topic_alias_cut(11)});
    EXPECT_EQ(d.para.msg_expiry_interval, 9u);
    EXPECT_EQ(payload_of(d), "z");
}

TEST(publish_decode, a_step_beyond_the_packet_leaves_no_payload)
{
    const Log log = {logged::publish_decode_expiry_cut(6)};
    Publish   d   = decode_rest("01 | 02 | 'ab'");
    expect_success(d, 5, 9, log); // never past the input
    EXPECT_EQ(d.para.payload_len, 0u);
    d = decode("30 07 00 01 61 01 02 'ab' | C0 00 C0 00"); // past the packet into the next
    expect_success(d, 5, 11, log);
    EXPECT_EQ(d.para.payload_len, 0u);
}

TEST(publish_decode, unknown_properties_are_skipped_as_length_prefixed)
{
    // 26 03 ...: three bytes of value, then an alias
    Publish d = decode_rest("08 | 26 03 'abc' | 23 00 05 | 'x'");
    expect_success(d, 5, 15, {logged::publish_decode_unknown_property(0x26, 6)});
    EXPECT_EQ(d.para.topic_alias, 5);
    EXPECT_EQ(payload_of(d), "x");

    // 01 00 is Payload Format Indicator 0 and happens to work; 01 01 swallows the identifier behind it
    d = decode_rest("05 | 01 00 | 23 00 05 | 'x'");
    EXPECT_EQ(d.para.topic_alias, 5);
    d = decode_rest("05 | 01 01 | 23 00 05 | 'x'");
    expect_success(
        d, 5, 12, {logged::publish_decode_unknown_property(0x01, 6), logged::publish_decode_unknown_property(0x00, 9)});
    EXPECT_EQ(d.para.topic_alias, 0);
    EXPECT_EQ(payload_of(d), "") << "00 05 led five bytes on, beyond the payload";
}

TEST(publish_decode, an_unknown_property_may_end_behind_its_block)
{
    Publish d = decode_rest("02 | 26 03 | 'abcdef'");
    expect_success(d, 5, 14, {logged::publish_decode_unknown_property(0x26, 6)});
    EXPECT_EQ(payload_of(d), "def");
}

TEST(publish_decode, an_unknown_property_at_the_end_of_its_block)
{
    const Publish d = decode_rest("01 | 26 | 03 'abc'"); // its length is not looked for outside
    expect_success(d, 5, 11, {logged::publish_decode_unknown_property(0x26, 6)});
    EXPECT_EQ(payload_of(d), "\x03"
                             "abc");
}

TEST(publish_decode, an_unknown_property_without_a_readable_length)
{
    const Publish d = decode_rest("05 | 26 80 | 80 80 80 | 'x'");
    expect_success(d, 5, 12,
                   {logged::publish_decode_unknown_property(0x26, 6), logged::publish_decode_bad_property_length(0x26),
                    logged::publish_decode_unknown_property(0x80, 8), logged::publish_decode_bad_property_length(0x80),
                    logged::publish_decode_unknown_property(0x80, 10)});
    EXPECT_EQ(payload_of(d), "x");
}

// ---- payload

TEST(publish_decode, a_long_payload_is_cut_at_its_limit)
{
    for (const size_t size : {size_t{2047}, size_t{2048}}) {
        const Publish d = decode(behind_topic(repeat(0xFF, size)));
        expect_success(d, 4, static_cast<int>(6 + size));
        EXPECT_EQ(d.para.payload_len, size);
    }
    Publish d = decode(behind_topic(repeat(0xFF, 2049)));
    expect_success(d, 4, 6 + 2048, {logged::publish_decode_payload_truncated(2049)});
    EXPECT_EQ(d.para.payload_len, 2048u);

    d = decode(behind_topic(wire("00") + repeat('p', 3000)));
    expect_success(d, 5, 3007 - 952, {logged::publish_decode_payload_truncated(3000)});
    EXPECT_EQ(payload_of(d), std::string(2048, 'p'));
    EXPECT_EQ(d.para.msg_id, 0) << "nothing was written behind the payload";
}

// ---- trace

TEST(publish_decode, traces_between_its_banners)
{
    const Publish d = decode("30 08 | 00 01 'a' 'hello'");
    ASSERT_EQ(d.all.size(), 8u);
    EXPECT_EQ(d.all[0], logged::publish_decode_started());
    EXPECT_THAT(d.all[1].text, testing::MatchesRegex("PUBLISH decode: input param - ctx=0x[0-9a-f]+, buf=0x[0-9a-f]+, "
                                                     "buf_len=0x[0-9a-f]+ \\(len=10\\), para=0x[0-9a-f]+"));
    EXPECT_EQ(Log(d.all.begin() + 2, d.all.end()),
              (Log{debug("packet"), debug("30 08 00 01 61 68 65 6C 6C 6F "), debug("payload"), debug("68 65 6C 6C 6F "),
                   debug("PUBLISH decode success: version=4, topic=a, qos=0, msg_id=0, payload_len=5, total len=10"),
                   debug("========== PUBLISH DECODE DEBUG END (SUCCESS) ==========\n")}));

    EXPECT_EQ(decode(wire("30 08 00 01 'a' 'hello'"), 4, 1).all, Log{}) << "nothing above DEBUG";
}

// ---- robustness

TEST(publish_decode, every_cut_of_a_packet_is_refused)
{
    const Bytes whole = wire("34 12 | 00 03 'a/b' 12 34 | 08 02 00 00 00 3C 23 00 05 | 'hi'");
    ASSERT_EQ(decode(whole).code, 0);
    for (size_t cut = 0; cut < whole.size(); ++cut) {
        const Publish d = decode(Bytes(whole.begin(), whole.begin() + static_cast<long>(cut)));
        EXPECT_EQ(d.code, cut < 2 ? -1 : -4) << cut;
        EXPECT_EQ(d.consumed, static_cast<int>(cut));
        EXPECT_TRUE(untouched(d.ctx));
    }
}

TEST(publish_decode, every_remaining_length_of_a_packet_stays_inside_the_input)
{
    Bytes bytes = wire("34 12 | 00 03 'a/b' 12 34 | 08 02 00 00 00 3C 23 00 05 | 'hi'");
    for (int length = 0; length < 256; ++length) {
        bytes[1]        = static_cast<uint8_t>(length);
        const Publish d = decode(bytes);
        EXPECT_LE(d.consumed, static_cast<int>(bytes.size())) << length;
        EXPECT_EQ(d.code == 0, length >= 7 && length <= 18) << length;
    }
}

TEST(publish_decode, reads_back_what_the_encoder_wrote)
{
    // Payloads are chosen so that no level-4 one reads as properties; the alias cannot survive its four-byte item.
    for (const uint32_t version : {4u, 5u})
        for (uint32_t qos = 0; qos < 3; ++qos)
            for (const size_t size : {0, 1, 100, 1800}) {
                mqtt_publish_para_t para;
                memset(&para, 0, sizeof para);
                strcpy(para.topic, "round/trip");
                memset(para.payload, 0xFF, size);
                para.payload_len         = static_cast<uint32_t>(size);
                para.qos                 = qos;
                para.msg_id              = qos ? 0xBEEF : 0;
                para.retain              = 1;
                para.dup                 = 1;
                para.msg_expiry_interval = version == 5 ? 3600 : 0;
                const Encoded e          = encode_with(mqtt_codec_encode_publish, para, version, 2048, 2);
                const Publish d          = decode(Bytes(e.buffer.begin(), e.buffer.begin() + e.length), 9 - version, 2);
                expect_success(d, version, e.length);
                EXPECT_EQ(memcmp(&d.para, &para, sizeof para), 0);
            }
}

TEST(publish_decode, does_not_read_back_the_encoders_alias)
{
    mqtt_publish_para_t para;
    memset(&para, 0, sizeof para);
    strcpy(para.topic, "a");
    strcpy(reinterpret_cast<char *>(para.payload), "x");
    para.payload_len = 1;
    para.topic_alias = 5;
    const Encoded e  = encode_with(mqtt_codec_encode_publish, para, 5, 128, 2);
    const Publish d  = decode(Bytes(e.buffer.begin(), e.buffer.begin() + e.length));
    expect_success(d, 5, e.length, {logged::publish_decode_unknown_property(0x05, 9)});
    EXPECT_EQ(d.para.topic_alias, 0x0200);
}

TEST(publish_decode, shares_its_context_with_an_encoder_on_another_thread)
{
    LogCapture          log(4);
    mqtt_codec_ctx_t    ctx = context(4);
    const Bytes         v4  = wire("30 08 | 00 01 'a' 'hello'");
    const Bytes         v5  = wire("30 05 00 01 61 00 41");
    std::thread         reader([&] {
        for (int i = 0; i < 2000; ++i) {
            const Bytes        &bytes = i % 2 ? v4 : v5;
            int                 len   = static_cast<int>(bytes.size());
            mqtt_publish_para_t para;
            EXPECT_EQ(mqtt_codec_decode_publish(&ctx, bytes.data(), &len, &para), 0);
        }
    });
    mqtt_publish_para_t para;
    memset(&para, 0, sizeof para);
    para.topic[0] = 'a';
    for (int i = 0; i < 2000; ++i) {
        uint8_t buf[128];
        int     len = sizeof buf;
        EXPECT_EQ(mqtt_codec_encode_publish(&ctx, &para, buf, &len), 0);
        EXPECT_EQ(buf[1], len - 2) << "one level from start to end";
        EXPECT_TRUE(len == 5 || len == 6);
    }
    reader.join();
}
