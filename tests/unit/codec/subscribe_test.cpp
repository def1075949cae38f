#include "calls.h"
#include "support/log_lines/codec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

using Subscribe = Decoded<mqtt_subscribe_para_t>;

mqtt_subscribe_para_t request(uint16_t id, const std::vector<std::pair<std::string, uint32_t>> &filters)
{
    mqtt_subscribe_para_t para;
    memset(&para, 0, sizeof para);
    para.msg_id       = id;
    para.filter_count = static_cast<int>(filters.size());
    for (size_t i = 0; i < filters.size() && i < 16; ++i) {
        memcpy(para.topic_filters[i], filters[i].first.data(), filters[i].first.size());
        para.qos[i] = filters[i].second;
    }
    return para;
}

Encoded encode(const mqtt_subscribe_para_t &para, uint32_t version = 4, int capacity = 2048)
{
    return encode_with(mqtt_codec_encode_subscribe, para, version, capacity);
}

void expect_packet(const Encoded &e, const std::string &packet, const Log &log = {})
{
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(e.packet(), packet);
    EXPECT_TRUE(e.rest_is_zero(static_cast<size_t>(e.length)));
    EXPECT_EQ(e.all, log);
    EXPECT_EQ(e.ctx.last_packet_type, 8u);
    EXPECT_EQ(e.ctx.last_packet_len, 78u);
}

// `head` is what the buffer starts with; zeroes follow. Null: the buffer was not touched.
void expect_refused(const Encoded &e, int code, const Log &log, const char *head = nullptr)
{
    EXPECT_EQ(e.code, code);
    EXPECT_EQ(e.all, log);
    EXPECT_EQ(e.length, static_cast<int>(e.buffer.size()));
    EXPECT_TRUE(untouched(e.ctx));
    Bytes expected = head ? wire(head) : repeat(0xEE, e.buffer.size());
    expected.resize(e.buffer.size());
    EXPECT_EQ(e.buffer, expected);
}

Subscribe decode(const Bytes &bytes, uint32_t version = 4)
{
    return decode_with(mqtt_codec_decode_subscribe, bytes, version);
}
Subscribe decode(const char *bytes, uint32_t version = 4)
{
    return decode(wire(bytes), version);
}

// A 5.0 SUBSCRIBE with identifier 7 and these bytes behind it.
Subscribe decode_v5(const char *rest)
{
    return decode(packet(0x82, wire("00 07") + wire(rest)), 5);
}

void expect_filters(const Subscribe &d, const std::vector<std::pair<std::string, uint32_t>> &filters)
{
    ASSERT_EQ(d.para.filter_count, static_cast<int>(filters.size()));
    for (size_t i = 0; i < filters.size(); ++i) {
        EXPECT_EQ(std::string(d.para.topic_filters[i]), filters[i].first);
        EXPECT_EQ(d.para.qos[i], filters[i].second);
    }
}

void expect_success(const Subscribe &d, uint32_t version, int id, int consumed, const Log &log = {})
{
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(d.log, log);
    EXPECT_EQ(d.consumed, consumed);
    EXPECT_EQ(d.para.msg_id, id);
    EXPECT_EQ(d.ctx.version, version) << "the level stays";
    EXPECT_EQ(d.ctx.last_packet_type, 8u);
    EXPECT_EQ(d.ctx.last_packet_len, static_cast<uint32_t>(consumed));
    char text[128];
    snprintf(text, sizeof text, "SUBSCRIBE decode success - version=%u, msg_id=%d, filters=%d, decode_len=%d", version,
             id, d.para.filter_count, consumed);
    EXPECT_EQ(d.all.back(), debug(text));
}

void expect_refused(const Subscribe &d, const Log &log)
{
    EXPECT_EQ(d.code, -4);
    EXPECT_EQ(d.log, log);
    EXPECT_TRUE(untouched(d.ctx));
    EXPECT_EQ(d.para.filter_count, 0);
}

const LogLine kNoFilters = error("SUBSCRIBE decode: no valid topic filters (filter_count=0)");

LogLine bad_filter(int length, int pos_len, int end)
{
    return warn(printed("SUBSCRIBE decode: invalid topic filter length %d (max=256, pos+len=%d, payload_end=%d)",
                        length, pos_len, end));
}

} // namespace

// ---- encoding

TEST(subscribe_encode, one_filter)
{
    expect_packet(encode(request(1, {{"a/b", 1}}), 4), "82 08 00 01 00 03 61 2F 62 01");
    expect_packet(encode(request(1, {{"a/b", 1}}), 5), "82 09 00 01 00 00 03 61 2F 62 01");
}

TEST(subscribe_encode, only_two_bits_of_qos)
{
    expect_packet(encode(request(0x1234, {{"a", 0}, {"+", 2}, {"#", 7}})),
                  "82 0E 12 34 00 01 61 00 00 01 2B 02 00 01 23 03");
}

TEST(subscribe_encode, only_the_low_byte_of_the_subscription_identifier)
{
    mqtt_subscribe_para_t para   = request(1, {{"a", 1}});
    para.subscription_identifier = 300;
    para.max_qos                 = 1; // decoder's fields
    para.retain_handling         = 2;
    expect_packet(encode(para, 5), "82 0A 00 01 03 0B 01 2C 00 01 61 01");
    expect_packet(encode(para, 4), "82 06 00 01 00 01 61 01");
    para.subscription_identifier = 256;
    expect_packet(encode(para, 5), "82 0A 00 01 03 0B 01 00 00 01 61 01");
}

TEST(subscribe_encode, refuses_missing_parameters)
{
    mqtt_codec_ctx_t            ctx  = context(4);
    const mqtt_subscribe_para_t para = request(1, {{"a", 0}});
    uint8_t                     buf[128];
    int                         len = 128;
    LogCapture                  log(0);
    EXPECT_EQ(mqtt_codec_encode_subscribe(nullptr, &para, buf, &len), -1);
    EXPECT_EQ(mqtt_codec_encode_subscribe(&ctx, nullptr, buf, &len), -1);
    EXPECT_EQ(mqtt_codec_encode_subscribe(&ctx, &para, nullptr, &len), -1);
    EXPECT_EQ(mqtt_codec_encode_subscribe(&ctx, &para, buf, nullptr), -1);
    len = 127;
    EXPECT_EQ(mqtt_codec_encode_subscribe(&ctx, &para, buf, &len), -1);
    EXPECT_EQ(log.take(), Log(5, error("SUBSCRIBE encode: invalid param")));
    len = 128;
    EXPECT_EQ(mqtt_codec_encode_subscribe(&ctx, &para, buf, &len), 0);
}

TEST(subscribe_encode, judges_count_level_and_identifier_in_this_order)
{
    mqtt_subscribe_para_t para = request(0, {});
    expect_refused(encode(para, 3), -1, {logged::subscribe_encode_bad_filter_count(0)});
    para.filter_count = -1;
    expect_refused(encode(para, 3), -1, {logged::subscribe_encode_bad_filter_count(-1)});
    para.filter_count = 17;
    expect_refused(encode(para, 3), -1, {logged::subscribe_encode_bad_filter_count(17)});
    para = request(0, {{"a", 0}});
    for (const uint32_t version : {0u, 3u, 6u})
        expect_refused(encode(para, version), -2,
                       {error("SUBSCRIBE encode: unsupported version " + std::to_string(version))});
    expect_refused(encode(para, 4), -1, {error("SUBSCRIBE encode: msg_id cannot be zero")});
}

TEST(subscribe_encode, passes_over_bad_filters)
{
    expect_packet(
        encode(request(1, {{"", 0}, {"a", 1}, {std::string(257, 'x'), 0}, {"b", 2}})),
        "82 0A 00 01 00 01 61 01 00 01 62 02",
        {logged::subscribe_encode_bad_filter_length(0, 0), logged::subscribe_encode_bad_filter_length(257, 2)});
    EXPECT_EQ(encode(request(1, {{std::string(256, 'x'), 0}})).written(), 3 + 2 + 2 + 256 + 1);
    expect_refused(encode(request(1, {{"", 0}, {"", 0}})), -1,
                   {logged::subscribe_encode_bad_filter_length(0, 0), logged::subscribe_encode_bad_filter_length(0, 1),
                    error("SUBSCRIBE encode: no valid topic filters")},
                   "82");
}

TEST(subscribe_encode, a_body_has_at_most_1024_bytes)
{
    // 2 of identifier; 3 more than its characters each filter
    const std::string     most(256, 'x');
    mqtt_subscribe_para_t para = request(1, {{most, 0}, {most, 0}, {most, 0}, {std::string(242, 'x'), 0}});
    EXPECT_EQ(encode(para, 4).written(), 1027);
    expect_refused(encode(para, 5), -3, {logged::subscribe_encode_buffer_full(1025, 1024)}, "82");
    para.topic_filters[3][242] = 'x';
    expect_refused(encode(para, 4), -3, {logged::subscribe_encode_buffer_full(1025, 1024)}, "82");

    para = request(1, std::vector<std::pair<std::string, uint32_t>>(16, {most, 0}));
    expect_refused(encode(para, 4), -3, {logged::subscribe_encode_buffer_full(4146, 1024)}, "82");
}

TEST(subscribe_encode, wants_room_for_the_whole_packet)
{
    EXPECT_EQ(encode(request(1, {{std::string(121, 'x'), 0}}), 4, 128).written(), 128);
    expect_refused(encode(request(1, {{std::string(122, 'x'), 0}}), 4, 128), -3,
                   {logged::subscribe_encode_buffer_full(129, 128)}, "82 7F");
    expect_refused(encode(request(1, {{std::string(122, 'x'), 0}}), 5, 128), -3,
                   {logged::subscribe_encode_buffer_full(131, 128)}, "82 80 01");
}

// ---- decoding: whole packets

TEST(subscribe_decode, level_4)
{
    const Subscribe d = decode("82 0E | 12 34 | 00 03 'a/b' 01 | 00 03 '+/#' 02");
    expect_success(d, 4, 0x1234, 16);
    expect_filters(d, {{"a/b", 1}, {"+/#", 2}});

    const mqtt_subscribe_para_t expected = request(0x1234, {{"a/b", 1}, {"+/#", 2}});
    EXPECT_EQ(memcmp(&d.para, &expected, sizeof expected), 0);
}

TEST(subscribe_decode, level_5)
{
    const Subscribe d = decode_v5("06 26 07 27 02 0B 2C | 00 01 'a' 01");
    expect_success(d, 5, 7, 15);
    mqtt_subscribe_para_t expected   = request(7, {{"a", 1}});
    expected.max_qos                 = 3;
    expected.retain_handling         = 2;
    expected.subscription_identifier = 0x2C;
    EXPECT_EQ(memcmp(&d.para, &expected, sizeof expected), 0);
    expect_filters(decode_v5("00 | 00 01 'a' 01"), {{"a", 1}});
}

TEST(subscribe_decode, takes_the_level_from_the_context)
{
    const char *const bytes = "82 07 00 07 | 00 | 00 01 'a' 01"; // 5.0 with an empty block
    expect_filters(decode(bytes, 5), {{"a", 1}});
    for (const uint32_t version : {4u, 0u, 3u}) { // to all others 00 00 is a bad length
        const Subscribe d = decode(bytes, version);
        expect_refused(d, {bad_filter(0, 6, 9), kNoFilters});
        EXPECT_EQ(d.ctx.version, version);
    }
    expect_success(decode("82 06 00 07 | 00 01 'a' 01", 3), 3, 7, 8);
}

TEST(subscribe_decode, keeps_only_the_qos_bits)
{
    const Subscribe d = decode("82 12 | 00 07 | 00 01 'a' FC | 00 01 'b' 2D | 00 01 'c' FE | 00 01 'd' 03");
    expect_success(d, 4, 7, 20);
    expect_filters(d, {{"a", 0}, {"b", 1}, {"c", 2}, {"d", 3}});
}

TEST(subscribe_decode, consumes_one_packet_of_the_input)
{
    expect_success(decode("82 06 00 07 00 01 'a' 01 | C0 00"), 4, 7, 8);
}

TEST(subscribe_decode, a_17th_filter_is_ignored)
{
    for (const int count : {15, 16, 17, 20}) {
        Bytes body = wire("00 07");
        for (int i = 0; i < count; ++i)
            body = body + prefixed(std::string(1, static_cast<char>('a' + i))) + Bytes{1};
        const Subscribe d     = decode(packet(0x82, body));
        const int       taken = count < 16 ? count : 16;
        expect_success(d, 4, 7, 4 + taken * 4);
        EXPECT_EQ(d.para.filter_count, taken);
        EXPECT_EQ(d.para.topic_filters[taken - 1][0], static_cast<char>('a' + taken - 1));
        EXPECT_EQ(d.para.subscription_identifier, 0u);
    }
}

TEST(subscribe_decode, filters_have_at_most_256_characters)
{
    const Subscribe d = decode(packet(0x82, wire("00 07") + prefixed(std::string(256, 'f')) + Bytes{1}));
    expect_success(d, 4, 7, 3 + 2 + 2 + 257);
    expect_filters(d, {{std::string(256, 'f'), 1}});
    expect_refused(decode(packet(0x82, wire("00 07") + prefixed(std::string(257, 'f')) + Bytes{1})),
                   {bad_filter(257, 7 + 257, 7 + 258), kNoFilters});
}

// ---- decoding: refusals

TEST(subscribe_decode, refuses_missing_parameters)
{
    mqtt_codec_ctx_t      ctx = context(4);
    mqtt_subscribe_para_t para;
    memset(&para, 0xEE, sizeof para);
    const Bytes    bytes = wire("82 06 00 07 00 01 'a' 01");
    const uint8_t *buf   = bytes.data();
    int            len   = 8;
    LogCapture     log(1);
    const auto     line = [](const void *c, const void *b, const void *l, int length, const void *p) {
        return Log{error("SUBSCRIBE decode: invalid param (ctx=" + pointer(c) + ", buf=" + pointer(b) +
                             ", buf_len=" + pointer(l) + ", len=" + std::to_string(length) + ", para=" + pointer(p) + ")")};
    };
    EXPECT_EQ(mqtt_codec_decode_subscribe(nullptr, buf, &len, &para), -1);
    EXPECT_EQ(log.take(), line(nullptr, buf, &len, 8, &para));
    EXPECT_EQ(mqtt_codec_decode_subscribe(&ctx, nullptr, &len, &para), -1);
    EXPECT_EQ(log.take(), line(&ctx, nullptr, &len, 8, &para));
    EXPECT_EQ(mqtt_codec_decode_subscribe(&ctx, buf, nullptr, &para), -1);
    EXPECT_EQ(log.take(), line(&ctx, buf, nullptr, -1, &para));
    EXPECT_EQ(mqtt_codec_decode_subscribe(&ctx, buf, &len, nullptr), -1);
    EXPECT_EQ(log.take(), line(&ctx, buf, &len, 8, nullptr));
    for (const int small : {5, 0, -2}) {
        len = small;
        EXPECT_EQ(mqtt_codec_decode_subscribe(&ctx, buf, &len, &para), -1);
        EXPECT_EQ(log.take(), line(&ctx, buf, &len, small, &para));
        EXPECT_EQ(len, small);
    }
    EXPECT_TRUE(untouched(ctx));
    EXPECT_EQ(para.max_qos, 0xEE) << "the record is cleared behind these checks only";
}

TEST(subscribe_decode, traces_its_input_at_debug)
{
    const Subscribe d = decode("82 06 00 07 00 01 'a' 01");
    ASSERT_EQ(d.all.size(), 4u);
    EXPECT_THAT(d.all[0].text,
                testing::MatchesRegex("SUBSCRIBE decode: input param - ctx=0x[0-9a-f]+, buf=0x[0-9a-f]+, "
                                      "buf_len=0x[0-9a-f]+ \\(len=8\\), para=0x[0-9a-f]+"));
    EXPECT_EQ(d.all[1], debug("SUBSCRIBE decode: full input data"));
    EXPECT_EQ(d.all[2], debug("82 06 00 07 00 01 61 01 "));

    LogCapture log(0);
    int        len = -2;
    EXPECT_EQ(mqtt_codec_decode_subscribe(nullptr, nullptr, &len, nullptr), -1);
    EXPECT_EQ(log.take().size(), 2u) << "no dump";
}

TEST(subscribe_decode, refuses_another_type_or_flags)
{
    expect_refused(decode("A2 06 00 07 00 01 'a' 01"),
                   {error("SUBSCRIBE decode: not a SUBSCRIBE packet (type=10, expect=8)")});
    for (const int flags : {0x0, 0x1, 0x3, 0xA, 0xF}) {
        Bytes bytes = wire("82 06 00 07 00 01 'a' 01");
        bytes[0]    = static_cast<uint8_t>(0x80 | flags);
        expect_refused(decode(bytes), {error(printed("SUBSCRIBE decode: invalid flags (0x%02X, expect=0x02)",
                                                     static_cast<unsigned>(flags)))});
    }
}

TEST(subscribe_decode, refuses_a_bad_remaining_length)
{
    const auto line = [](int len, int consumed, int total, int have) {
        return Log{
            error(printed("SUBSCRIBE decode: invalid remaining length (len=%d, consumed=%d, total=%d, buf_len=%d)", len,
                          consumed, total, have))};
    };
    expect_refused(decode("82 80 80 80 01 00"), line(-1, 0, 0, 6));
    expect_refused(decode("82 07 00 07 00 01 'a' 01"), line(7, 1, 9, 8));
    expect_refused(decode("82 FF FF 7F 00 07"), line(2097151, 3, 2097155, 6));
}

TEST(subscribe_decode, refuses_a_missing_or_zero_identifier)
{
    expect_refused(decode("82 00 00 07 00 01"), {logged::subscribe_decode_no_packet_id(2, 2)});
    expect_refused(decode("82 01 00 07 00 01"), {logged::subscribe_decode_no_packet_id(2, 3)});
    expect_refused(decode("82 06 00 00 00 01 'a' 01"), {error("SUBSCRIBE decode: invalid msg id (0, must be >0)")});
}

// ---- decoding: properties

TEST(subscribe_decode, properties_are_one_byte_each)
{
    Subscribe d = decode_v5("04 0B 81 0B 02 | 00 01 'a' 01"); // no variable byte integer; the second counts
    expect_success(d, 5, 7, 13);
    EXPECT_EQ(d.para.subscription_identifier, 2u);

    d = decode_v5("02 26 FF | 00 01 'a' 01");
    EXPECT_EQ(d.para.max_qos, 3);
    d = decode_v5("02 27 FF | 00 01 'a' 01");
    EXPECT_EQ(d.para.retain_handling, 0xFF);
}

TEST(subscribe_decode, a_missing_value_is_stepped_over_all_the_same)
{
    // The step takes the first byte of the filter's length with it, so one more byte stands in front of it here.
    struct {
        const char *id;
        LogLine     line;
    } const cases[] = {
        {"26", warn("SUBSCRIBE decode: incomplete max QoS")},
        {"27", warn("SUBSCRIBE decode: incomplete retain handling")},
        {"0B", logged::subscribe_decode_identifier_cut()},
    };
    for (const auto &c : cases) {
        const Subscribe d = decode(packet(0x82, wire("00 07 01") + wire(c.id) + wire("FF 00 01 'a' 01")), 5);
        expect_success(d, 5, 7, 11, {c.line});
        expect_filters(d, {{"a", 1}});
        EXPECT_EQ(d.para.max_qos + d.para.retain_handling + d.para.subscription_identifier, 0u);
    }
}

TEST(subscribe_decode, unknown_properties_are_skipped_as_length_prefixed)
{
    Subscribe d = decode_v5("07 1F 03 'abc' 0B 05 | 00 01 'a' 01");
    expect_success(d, 5, 7, 16, {logged::subscribe_decode_unknown_property(0x1F, 3)});
    EXPECT_EQ(d.para.subscription_identifier, 5u);
    expect_filters(d, {{"a", 1}});
    d = decode_v5("05 1F 01 'x' 0B 05 | 00 01 'a' 01"); // a length of 1 is one
    expect_success(d, 5, 7, 14, {logged::subscribe_decode_unknown_property(0x1F, 1)});
    EXPECT_EQ(d.para.subscription_identifier, 5u);
}

TEST(subscribe_decode, an_unknown_property_without_length_ends_the_block)
{
    for (const char *block : {"04 1F 00 0B 05", "04 1F 80 80 80"}) {
        const Subscribe d = decode(packet(0x82, wire("00 07") + wire(block) + wire("00 01 'a' 01")), 5);
        expect_success(d, 5, 7, 13, {logged::subscribe_decode_unknown_property(0x1F, block[6] == '0' ? 0 : -1)});
        EXPECT_EQ(d.para.subscription_identifier, 0u);
        expect_filters(d, {{"a", 1}});
    }
    // Its length is not looked for behind the block.
    expect_success(decode_v5("01 1F | 00 01 'a' 01"), 5, 7, 10, {logged::subscribe_decode_unknown_property(0x1F, -1)});
}

TEST(subscribe_decode, the_filters_start_behind_the_last_step)
{
    const Subscribe d = decode_v5("02 1F 03 'xyz' | 00 01 'a' 01");
    expect_success(d, 5, 7, 14, {logged::subscribe_decode_unknown_property(0x1F, 3)});
    expect_filters(d, {{"a", 1}});
}

TEST(subscribe_decode, an_unreadable_property_length_means_none)
{
    const Subscribe d = decode_v5("80 80 80 01"); // where it stands, the filters start: a length of 8080
    expect_refused(d, {bad_filter(0x8080, 6 + 0x8080, 8), kNoFilters});
    expect_refused(decode_v5("80 80"), {bad_filter(0x8080, 6 + 0x8080, 6), kNoFilters});
}

TEST(subscribe_decode, refuses_a_block_with_nothing_behind_it)
{
    expect_refused(decode_v5("01 0B"), {logged::subscribe_decode_identifier_cut(), kNoFilters});
    expect_refused(decode_v5("02 0B 01"), {kNoFilters});
    expect_refused(decode_v5("7F 0B 01"), {kNoFilters}); // the block claims more than the packet has
    expect_refused(decode_v5("7F 1F 01"), {logged::subscribe_decode_unknown_property(0x1F, 1), kNoFilters});
    expect_refused(decode_v5("7F 1F 00 0B 01"), {logged::subscribe_decode_unknown_property(0x1F, 0), kNoFilters});
    expect_refused(decode("82 03 00 07 00 | 00 01 'a' 01", 5), {kNoFilters}); // filters of the next packet do not count
}

// ---- decoding: where the list ends

TEST(subscribe_decode, a_bad_filter_ends_the_list)
{
    Subscribe d = decode("82 0D | 00 07 | 00 01 'a' 01 | 00 00 02 | 00 01 'b' 02"); // empty
    expect_success(d, 4, 7, 10, {bad_filter(0, 10, 15)});
    expect_filters(d, {{"a", 1}});

    d = decode("82 0C | 00 07 | 00 01 'a' 01 | 01 01 'b' 02 00 00"); // too long
    expect_success(d, 4, 7, 10, {bad_filter(257, 10 + 257, 14)});
    expect_filters(d, {{"a", 1}});

    d = decode("82 0A | 00 07 | 00 01 'a' 01 | 00 03 'bc'"); // past the packet's end
    expect_success(d, 4, 7, 10, {bad_filter(3, 13, 12)});
    expect_filters(d, {{"a", 1}});
    EXPECT_EQ(d.para.topic_filters[1][0], 0);
}

TEST(subscribe_decode, a_cut_length_ends_the_list)
{
    Subscribe d = decode("82 07 | 00 07 | 00 01 'a' 01 | 00");
    expect_success(d, 4, 7, 8, {logged::subscribe_decode_no_filter_length(8, 9)});
    expect_filters(d, {{"a", 1}});
    d = decode("82 07 | 00 07 | 00 01 'a' 01 | 00 | 01 'b' 01"); // goes on behind the packet, but not for us
    expect_success(d, 4, 7, 8, {logged::subscribe_decode_no_filter_length(8, 9)});
}

TEST(subscribe_decode, missing_options_end_the_list)
{
    const Log log = {logged::subscribe_decode_no_qos(11, 11)};
    Subscribe d   = decode("82 09 | 00 07 | 00 01 'a' 01 | 00 01 'b'");
    expect_success(d, 4, 7, 11, log);
    expect_filters(d, {{"a", 1}});
    EXPECT_STREQ(d.para.topic_filters[1], "b") << "copied, not counted";
    d = decode("82 09 | 00 07 | 00 01 'a' 01 | 00 01 'b' | 01");
    expect_success(d, 4, 7, 11, log);
    expect_filters(d, {{"a", 1}});
}

TEST(subscribe_decode, refuses_a_packet_without_a_good_filter)
{
    expect_refused(decode("82 04 00 07 00 00"), {bad_filter(0, 6, 6), kNoFilters});
    expect_refused(decode("82 05 00 07 00 01 'a'"), {logged::subscribe_decode_no_qos(7, 7), kNoFilters});
    // An identifier alone, with more input behind the packet.
    expect_refused(decode("82 02 00 07 | C0 00"), {logged::subscribe_decode_no_filter_length(4, 4), kNoFilters});
    expect_refused(decode("82 02 00 07 | C0 00", 5), {logged::subscribe_decode_no_filter_length(4, 4), kNoFilters});
    expect_refused(decode("82 82 80 00 00 07"), {kNoFilters}); // the packet is all of the input
}

TEST(subscribe_decode, every_cut_of_a_packet_is_refused)
{
    const Bytes whole = wire("82 10 | 00 07 | 02 0B 05 | 00 01 'a' 01 | 00 04 'bc/+' 02");
    const Bytes body(whole.begin() + 2, whole.end());
    for (size_t cut = 0; cut < whole.size(); ++cut) {
        const Subscribe d = decode(Bytes(whole.begin(), whole.begin() + static_cast<long>(cut)), 5);
        EXPECT_EQ(d.code, cut < 6 ? -1 : -4) << cut;
        EXPECT_EQ(d.consumed, static_cast<int>(cut));
    }
    for (size_t cut = 4; cut <= body.size(); ++cut) { // the same, with a remaining length that agrees
        const Bytes     part = packet(0x82, Bytes(body.begin(), body.begin() + static_cast<long>(cut)));
        const Subscribe d    = decode(part, 5);
        EXPECT_EQ(d.code, cut >= 9 ? 0 : -4) << cut;
        EXPECT_EQ(d.para.filter_count, cut == body.size() ? 2 : cut >= 9 ? 1 : 0) << cut;
        EXPECT_LE(d.consumed, static_cast<int>(part.size()));
    }
}

TEST(subscribe_decode, reads_back_what_the_encoder_wrote)
{
    for (const uint32_t version : {4u, 5u}) {
        const mqtt_subscribe_para_t para =
            request(0xBEEF, {{"a", 0}, {"b/+/c", 1}, {"#", 2}, {std::string(256, 'f'), 1}});
        const Encoded   e = encode(para, version);
        const Subscribe d = decode(Bytes(e.buffer.begin(), e.buffer.begin() + e.length), version);
        expect_success(d, version, 0xBEEF, e.length);
        EXPECT_EQ(memcmp(&d.para, &para, sizeof para), 0);
    }
}

TEST(subscribe_decode, does_not_read_back_the_encoders_subscription_identifier)
{
    mqtt_subscribe_para_t para   = request(7, {{"a", 1}});
    para.subscription_identifier = 300;
    const Encoded   e            = encode(para, 5);
    const Subscribe d            = decode(Bytes(e.buffer.begin(), e.buffer.begin() + e.length), 5);
    expect_success(d, 5, 7, e.length, {logged::subscribe_decode_unknown_property(0x2C, -1)});
    EXPECT_EQ(d.para.subscription_identifier, 1u);
    expect_filters(d, {{"a", 1}});
}
