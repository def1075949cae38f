#include "calls.h"
#include "support/log_lines/codec.h"

#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

using Unsubscribe = Decoded<mqtt_unsubscribe_para_t>;

mqtt_unsubscribe_para_t request(uint16_t id, const std::vector<std::string> &filters)
{
    mqtt_unsubscribe_para_t para;
    memset(&para, 0, sizeof para);
    para.msg_id       = id;
    para.filter_count = static_cast<int>(filters.size());
    for (size_t i = 0; i < filters.size() && i < 16; ++i)
        memcpy(para.topic_filters[i], filters[i].data(), filters[i].size());
    return para;
}

Encoded encode(const mqtt_unsubscribe_para_t &para, uint32_t version = 4, int capacity = 2048)
{
    return encode_with(mqtt_codec_encode_unsubscribe, para, version, capacity);
}

void expect_packet(const Encoded &e, const std::string &packet, const Log &log = {})
{
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(e.packet(), packet);
    EXPECT_TRUE(e.rest_is_zero(static_cast<size_t>(e.length)));
    EXPECT_EQ(e.log, log);
    EXPECT_EQ(e.ctx.last_packet_type, 10u);
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

Unsubscribe decode(const Bytes &bytes, uint32_t version = 4)
{
    return decode_with(mqtt_codec_decode_unsubscribe, bytes, version);
}
Unsubscribe decode(const char *bytes, uint32_t version = 4)
{
    return decode(wire(bytes), version);
}

void expect_filters(const Unsubscribe &d, const std::vector<std::string> &filters)
{
    ASSERT_EQ(d.para.filter_count, static_cast<int>(filters.size()));
    for (size_t i = 0; i < filters.size(); ++i)
        EXPECT_EQ(std::string(d.para.topic_filters[i]), filters[i]);
}

void expect_success(const Unsubscribe &d, uint32_t version, int id, int consumed, const Log &log = {})
{
    EXPECT_EQ(d.code, 0);
    EXPECT_EQ(d.log, log);
    EXPECT_EQ(d.consumed, consumed);
    EXPECT_EQ(d.para.msg_id, id);
    EXPECT_EQ(d.ctx.version, version);
    EXPECT_EQ(d.ctx.last_packet_type, 10u);
    EXPECT_EQ(d.ctx.last_packet_len, static_cast<uint32_t>(consumed));
    EXPECT_EQ(d.all.back(),
              logged::unsubscribe_decoded(consumed, d.para.filter_count, id, (version == 5 ? "5.0" : "3.1.1")));
}

// Refused behind the fixed header: the type is known by then.
void expect_refused(const Unsubscribe &d, uint32_t version, int code, const LogLine &line, const Log &before = {})
{
    EXPECT_EQ(d.code, code);
    Log expected = before;
    expected.push_back(line);
    EXPECT_EQ(d.log, expected);
    EXPECT_EQ(d.ctx.last_packet_type, 10u);
    EXPECT_EQ(d.ctx.last_packet_len, 78u);
    EXPECT_EQ(d.ctx.version, version);
}
void expect_refused(const char *bytes, uint32_t version, int code, const LogLine &line, const Log &before = {})
{
    const Unsubscribe d = decode(bytes, version);
    expect_refused(d, version, code, line, before);
    EXPECT_EQ(d.consumed, static_cast<int>(wire(bytes).size()));
}

LogLine topic_length(unsigned length, int offset_len, int end)
{
    return error(printed("UNSUBSCRIBE Topic长度非法：len=%u 最大允许=256 offset+len=%d rem_len_end=%d", length,
                         offset_len, end));
}

} // namespace

// ---- encoding

TEST(unsubscribe_encode, filters_without_options)
{
    expect_packet(encode(request(1, {"a/b"}), 4), "A2 07 00 01 00 03 61 2F 62");
    expect_packet(encode(request(0x1234, {"a", "#"}), 5), "A2 09 12 34 00 00 01 61 00 01 23");
}

TEST(unsubscribe_encode, tells_its_success_at_debug)
{
    EXPECT_EQ(encode(request(7, {"a", "", "b"}), 5).all,
              (Log{logged::unsubscribe_encode_bad_filter_length(0, 1),
                   debug("UNSUBSCRIBE encode success: version=5, msg_id=7, filters=3, len=11")}));
}

TEST(unsubscribe_encode, only_the_low_byte_of_the_subscription_identifier)
{
    mqtt_unsubscribe_para_t para = request(1, {"a"});
    para.subscription_identifier = 300;
    expect_packet(encode(para, 5), "A2 09 00 01 03 0B 01 2C 00 01 61");
    expect_packet(encode(para, 4), "A2 05 00 01 00 01 61");
}

TEST(unsubscribe_encode, refuses_missing_parameters)
{
    mqtt_codec_ctx_t              ctx  = context(4);
    const mqtt_unsubscribe_para_t para = request(1, {"a"});
    uint8_t                       buf[128];
    int                           len = 128;
    LogCapture                    log(0);
    const auto                    line = [](const void *c, const void *p, const void *b, const void *l, int length) {
        return Log{error("UNSUBSCRIBE encode: invalid param (ctx=" + pointer(c) + ", para=" + pointer(p) +
                                            ", buf=" + pointer(b) + ", buf_len=" + pointer(l) + ", len=" + std::to_string(length) + ")")};
    };
    EXPECT_EQ(mqtt_codec_encode_unsubscribe(nullptr, &para, buf, &len), -1);
    EXPECT_EQ(log.take(), line(nullptr, &para, buf, &len, 128));
    EXPECT_EQ(mqtt_codec_encode_unsubscribe(&ctx, nullptr, buf, &len), -1);
    EXPECT_EQ(log.take(), line(&ctx, nullptr, buf, &len, 128));
    EXPECT_EQ(mqtt_codec_encode_unsubscribe(&ctx, &para, nullptr, &len), -1);
    EXPECT_EQ(log.take(), line(&ctx, &para, nullptr, &len, 128));
    EXPECT_EQ(mqtt_codec_encode_unsubscribe(&ctx, &para, buf, nullptr), -1);
    EXPECT_EQ(log.take(), line(&ctx, &para, buf, nullptr, -1));
    len = 127;
    EXPECT_EQ(mqtt_codec_encode_unsubscribe(&ctx, &para, buf, &len), -1);
    EXPECT_EQ(log.take(), line(&ctx, &para, buf, &len, 127));
    EXPECT_TRUE(untouched(ctx));
    len = 128;
    EXPECT_EQ(mqtt_codec_encode_unsubscribe(&ctx, &para, buf, &len), 0);
}

TEST(unsubscribe_encode, judges_level_count_and_identifier_in_this_order)
{
    mqtt_unsubscribe_para_t para = request(0, {});
    for (const uint32_t version : {0u, 3u, 6u})
        expect_refused(encode(para, version), -2,
                       {error("UNSUBSCRIBE encode: unsupported version " + std::to_string(version))});
    for (const int count : {0, -1, 17}) {
        para.filter_count = count;
        expect_refused(encode(para), -1, {error("UNSUBSCRIBE encode: invalid filter count " + std::to_string(count))});
    }
    expect_refused(encode(request(0, {"a"})), -1, {error("UNSUBSCRIBE encode: msg_id cannot be zero")});
}

TEST(unsubscribe_encode, passes_over_bad_filters)
{
    expect_packet(
        encode(request(1, {"", "a", std::string(257, 'x'), "b"})), "A2 08 00 01 00 01 61 00 01 62",
        {logged::unsubscribe_encode_bad_filter_length(0, 0), logged::unsubscribe_encode_bad_filter_length(257, 2)});
    EXPECT_EQ(encode(request(1, {std::string(256, 'x')})).written(), 3 + 2 + 2 + 256);
    expect_refused(
        encode(request(1, {""})), -1,
        {logged::unsubscribe_encode_bad_filter_length(0, 0), error("UNSUBSCRIBE encode: no valid topic filters")},
        "A2");
}

TEST(unsubscribe_encode, a_body_has_at_most_1024_bytes)
{
    const std::string       most(256, 'x');
    mqtt_unsubscribe_para_t para = request(1, {most, most, most, std::string(246, 'x')});
    EXPECT_EQ(encode(para, 4).written(), 1027);
    expect_refused(encode(para, 5), -3, {logged::unsubscribe_encode_buffer_full(1025, 1024)}, "A2");
    para.topic_filters[3][246] = 'x';
    expect_refused(encode(para, 4), -3, {logged::unsubscribe_encode_buffer_full(1025, 1024)}, "A2");
    expect_refused(encode(request(1, std::vector<std::string>(16, most))), -3,
                   {logged::unsubscribe_encode_buffer_full(4130, 1024)}, "A2");
}

TEST(unsubscribe_encode, wants_room_for_the_whole_packet)
{
    EXPECT_EQ(encode(request(1, {std::string(122, 'x')}), 4, 128).written(), 128);
    expect_refused(encode(request(1, {std::string(123, 'x')}), 4, 128), -3,
                   {logged::unsubscribe_encode_buffer_full(129, 128)}, "A2 7F");
}

// ---- decoding: whole packets

TEST(unsubscribe_decode, level_4)
{
    const Unsubscribe d = decode("A2 0A | 12 34 | 00 03 'a/b' | 00 01 '#'");
    expect_success(d, 4, 0x1234, 12);
    const mqtt_unsubscribe_para_t expected = request(0x1234, {"a/b", "#"});
    EXPECT_EQ(memcmp(&d.para, &expected, sizeof expected), 0);
    EXPECT_EQ(d.all, (Log{logged::unsubscribe_decode_packet_id(4660), debug("UNSUBSCRIBE 3.1.1版本，无属性字段"),
                          logged::unsubscribe_decode_topic(0, "a/b", 3), logged::unsubscribe_decode_topic(1, "#", 1),
                          logged::unsubscribe_decoded(12, 2, 4660, "3.1.1")}));
}

TEST(unsubscribe_decode, level_5)
{
    const Unsubscribe d = decode("A2 08 | 00 07 | 02 0B 2C | 00 01 'a'", 5);
    expect_success(d, 5, 7, 10);
    mqtt_unsubscribe_para_t expected = request(7, {"a"});
    expected.subscription_identifier = 0x2C;
    EXPECT_EQ(memcmp(&d.para, &expected, sizeof expected), 0);
    EXPECT_EQ(d.all, (Log{logged::unsubscribe_decode_packet_id(7), logged::unsubscribe_decode_topic(0, "a", 1),
                          logged::unsubscribe_decoded(10, 1, 7, "5.0")}));
}

TEST(unsubscribe_decode, no_filter_at_all_is_accepted)
{
    expect_success(decode("A2 02 00 05", 4), 4, 5, 4);
    expect_success(decode("A2 03 00 05 00", 5), 5, 5, 5);
    expect_refused("A2 02 00 05", 5, -4, logged::unsubscribe_decode_no_property_length(4, 4));
}

TEST(unsubscribe_decode, consumes_one_packet_of_the_input)
{
    expect_success(decode("A2 05 00 07 00 01 'a' | C0 00"), 4, 7, 7);
}

TEST(unsubscribe_decode, a_17th_filter_is_ignored)
{
    for (const int count : {15, 16, 17, 20}) {
        Bytes body = wire("00 07");
        for (int i = 0; i < count; ++i)
            body = body + prefixed(std::string(1, static_cast<char>('a' + i)));
        const Unsubscribe d     = decode(packet(0xA2, body));
        const int         taken = count < 16 ? count : 16;
        expect_success(d, 4, 7, 4 + taken * 3,
                       count > 16 ? Log{warn("UNSUBSCRIBE Topic数超过上限：当前=16 最大=16")} : Log{});
        EXPECT_EQ(d.para.filter_count, taken);
    }
}

// ---- decoding: refusals in front

TEST(unsubscribe_decode, refuses_missing_parameters)
{
    mqtt_codec_ctx_t        ctx = context(4);
    mqtt_unsubscribe_para_t para;
    memset(&para, 0xEE, sizeof para);
    const Bytes    bytes = wire("A2 05 00 07 00 01 'a'");
    const uint8_t *buf   = bytes.data();
    int            len   = 7;
    LogCapture     log(0);
    const auto     line = [](const void *c, const void *b, int length, const void *p) {
        return Log{error("UNSUBSCRIBE解码参数非法：ctx=" + pointer(c) + " buf=" + pointer(b) +
                             " buf_len=" + std::to_string(length) + " para=" + pointer(p))};
    };
    EXPECT_EQ(mqtt_codec_decode_unsubscribe(nullptr, buf, &len, &para), -1);
    EXPECT_EQ(log.take(), line(nullptr, buf, 7, &para));
    EXPECT_EQ(mqtt_codec_decode_unsubscribe(&ctx, nullptr, &len, &para), -1);
    EXPECT_EQ(log.take(), line(&ctx, nullptr, 7, &para));
    EXPECT_EQ(mqtt_codec_decode_unsubscribe(&ctx, buf, nullptr, &para), -1);
    EXPECT_EQ(log.take(), line(&ctx, buf, -1, &para));
    EXPECT_EQ(mqtt_codec_decode_unsubscribe(&ctx, buf, &len, nullptr), -1);
    EXPECT_EQ(log.take(), line(&ctx, buf, 7, nullptr));
    for (const int small : {3, 0, -2}) {
        len = small;
        EXPECT_EQ(mqtt_codec_decode_unsubscribe(&ctx, buf, &len, &para), -1);
        EXPECT_EQ(log.take(), line(&ctx, buf, small, &para));
        EXPECT_EQ(len, small);
    }
    EXPECT_TRUE(untouched(ctx));
    EXPECT_EQ(para.msg_id, 0xEEEE) << "the record is cleared behind these checks only";
}

TEST(unsubscribe_decode, refuses_another_first_byte)
{
    const auto refused = [](const char *bytes, const LogLine &line) {
        const Unsubscribe d = decode(bytes);
        EXPECT_EQ(d.code, -4);
        EXPECT_EQ(d.all, Log{line});
        EXPECT_TRUE(untouched(d.ctx)) << "the type is not known yet";
        EXPECT_EQ(d.para.msg_id, 0) << "the record is clear";
    };
    refused("82 05 00 07 00 01 'a'", logged::unsubscribe_decode_bad_first_byte(8, 0x02));
    refused("A0 05 00 07 00 01 'a'", logged::unsubscribe_decode_bad_first_byte(10, 0x00));
    refused("AF 05 00 07 00 01 'a'", logged::unsubscribe_decode_bad_first_byte(10, 0x0F));
}

TEST(unsubscribe_decode, refuses_a_length_that_does_not_end)
{
    expect_refused("A2 80 80 80", 4, -3, error("UNSUBSCRIBE剩余长度解码越界：offset=4 total_len=4"));
}

TEST(unsubscribe_decode, the_remaining_length_is_at_most_2048)
{
    const auto filled = [](const Bytes &head, size_t length) { // 15 filters that fill the packet
        Bytes body = wire("00 07");
        for (size_t left = length - 2; left > 0;) {
            const size_t size = left > 258 + 3 ? 256 : left > 258 ? 200 : left - 2;
            body              = body + prefixed(std::string(size, 'x'));
            left -= size + 2;
        }
        return head + body;
    };
    expect_success(decode(filled(wire("A2 FF 0F"), 2047)), 4, 7, 2050);
    expect_success(decode(filled(wire("A2 80 10"), 2048)), 4, 7, 2051);
    expect_refused(decode(filled(wire("A2 81 10"), 2049)), 4, -3, logged::unsubscribe_decode_too_large(2049));
    expect_refused("A2 FF 7F 00 07", 4, -3, logged::unsubscribe_decode_too_large(16383));
}

TEST(unsubscribe_decode, a_third_length_byte_counts_nothing)
{
    expect_success(decode("A2 85 80 7F | 00 07 00 01 'a'"), 4, 7, 9);
    expect_success(decode("A2 85 80 FF FF FF 01 | 00 07 00 01 'a'"), 4, 7, 12);
    // 128 counts, 2 * 16384 does not
    expect_success(decode(wire("A2 80 81 02") + wire("00 07") + prefixed(std::string(124, 'x'))), 4, 7, 4 + 128);
}

TEST(unsubscribe_decode, refuses_a_length_that_does_not_fit)
{
    const auto line = [](int offset, int length, int total) {
        return error(printed("UNSUBSCRIBE剩余长度不合法：offset=%d rem_len=%d total_len=%d", offset, length, total));
    };
    expect_refused("A2 00 00 07", 4, -3, line(2, 0, 4));
    expect_refused("A2 01 00 07", 4, -3, line(2, 1, 4));
    expect_refused("A2 03 00 07", 4, -3, line(2, 3, 4));
    expect_refused("A2 82 00 00", 4, -3, line(3, 2, 4));
    expect_refused("A2 80 10 00", 4, -3, line(3, 2048, 4));
}

TEST(unsubscribe_decode, refuses_identifier_0)
{
    for (const uint32_t version : {4u, 5u, 0u})
        expect_refused("A2 05 00 00 00 01 'a'", version, -1, error("UNSUBSCRIBE消息ID非法：msg_id=0"));
}

// ---- decoding: properties

TEST(unsubscribe_decode, properties_go_in_steps_of_two)
{
    const Unsubscribe d = decode("A2 0C | 00 07 | 06 26 0B 0B 05 1F 09 | 00 01 'a'", 5);
    expect_success(
        d, 5, 7, 14,
        {logged::unsubscribe_decode_unknown_property(0x26), logged::unsubscribe_decode_unknown_property(0x1F)});
    EXPECT_EQ(d.para.subscription_identifier, 5u);
    expect_filters(d, {"a"});
}

TEST(unsubscribe_decode, the_filters_start_at_the_blocks_end)
{
    const Unsubscribe d = decode("A2 07 | 00 07 | 01 26 | 00 01 'a'", 5); // the step led one byte on
    expect_success(d, 5, 7, 9, {logged::unsubscribe_decode_unknown_property(0x26)});
    expect_filters(d, {"a"});
}

TEST(unsubscribe_decode, refuses_a_cut_subscription_identifier)
{
    expect_refused("A2 07 | 00 07 | 01 0B | 00 01 'a'", 5, -4, error("UNSUBSCRIBE 5.0订阅标识符长度不足"));
}

TEST(unsubscribe_decode, refuses_a_property_length_that_does_not_end)
{
    // The first byte alone must not say too much already.
    expect_refused("A2 03 00 07 80", 5, -4, logged::unsubscribe_decode_no_property_length(5, 5));
    expect_refused("A2 05 00 07 81 80 80 | 00", 5, -4, logged::unsubscribe_decode_no_property_length(7, 7));
}

TEST(unsubscribe_decode, refuses_a_property_length_that_does_not_fit)
{
    expect_refused("A2 05 00 07 04 00 00", 5, -3, logged::unsubscribe_decode_properties_too_large(4, 3));
    expect_refused("A2 05 00 07 03 0B 05 | 00", 5, -4, error("UNSUBSCRIBE 5.0属性长度越界：prop_end=8 rem_len_end=7"));
    expect_success(decode("A2 05 00 07 02 0B 05", 5), 5, 7, 7);
    expect_refused("A2 03 00 07 82", 5, -3,
                   logged::unsubscribe_decode_properties_too_large(2, 1)); // before it runs out
}

TEST(unsubscribe_decode, property_lengths_have_the_same_weights)
{
    const Unsubscribe d = decode("A2 0A | 00 07 | 82 80 7F 0B 05 | 00 01 'a'", 5);
    expect_success(d, 5, 7, 12);
    EXPECT_EQ(d.para.subscription_identifier, 5u);
    expect_filters(d, {"a"});
}

// ---- decoding: a context without a level

TEST(unsubscribe_decode, detects_5_when_a_block_ends_before_the_packet)
{
    for (const uint32_t version : {0u, 3u}) {
        const Unsubscribe d = decode("A2 08 | 00 07 | 02 0B 2C | 00 01 'a'", version);
        expect_success(d, 5, 7, 10);
        EXPECT_EQ(d.all[1], logged::unsubscribe_decode_takes_v5());
        EXPECT_EQ(d.para.subscription_identifier, 0u) << "the block is not read";
        expect_filters(d, {"a"});
    }
    // A 3.1.1 packet reads as an empty block, too, and then its filters are misplaced.
    expect_refused("A2 05 00 07 00 01 'a'", 0, -4, topic_length(0x0161, 7 + 0x0161, 7));
}

TEST(unsubscribe_decode, detects_4_when_a_block_would_reach_the_end)
{
    Unsubscribe d = decode("A2 02 00 07", 0); // no block at all
    expect_success(d, 4, 7, 4);
    EXPECT_EQ(d.all[1], logged::unsubscribe_decode_takes_v4());
    d = decode("A2 03 00 07 00", 0); // an empty block that reaches the end
    EXPECT_EQ(d.all[1], logged::unsubscribe_decode_takes_v4());
    expect_refused(d, 0, -4, logged::unsubscribe_decode_no_topic_length(4, 5));
    d = decode("A2 04 00 07 00 FF", 0); // ends one byte before it
    EXPECT_EQ(d.all[1], logged::unsubscribe_decode_takes_v5());
    d = decode("A2 04 00 07 05 00", 0); // passes it
    EXPECT_EQ(d.all[1], logged::unsubscribe_decode_takes_v4());
    d = decode("A2 04 00 07 80 80 | 00", 0); // does not end
    EXPECT_EQ(d.all[1], logged::unsubscribe_decode_takes_v4());
}

TEST(unsubscribe_decode, detection_reads_long_lengths)
{
    // A block of 300 bytes, written in two.
    const Unsubscribe d = decode(packet(0xA2, wire("00 07 | AC 02") + repeat(0xFF, 300) + wire("00 01 'a'")), 0);
    expect_success(d, 5, 7, 3 + 2 + 2 + 300 + 3);
    expect_filters(d, {"a"});
}

TEST(unsubscribe_decode, a_known_level_never_changes)
{
    expect_refused("A2 06 00 07 00 00 01 'a'", 4, -4, topic_length(0, 6, 8)); // 5.0 to a reader that looks
    expect_refused("A2 05 00 07 00 01 'a'", 5, -4, topic_length(0x0161, 7 + 0x0161, 7));
}

// ---- decoding: filters

TEST(unsubscribe_decode, a_bad_filter_fails_the_packet)
{
    const Unsubscribe d = decode("A2 0A | 00 07 | 00 01 'a' | 00 00 | 00 01 'b'");
    expect_refused(d, 4, -4, topic_length(0, 9, 12));
    EXPECT_EQ(d.para.filter_count, 1) << "read before";
    expect_refused("A2 08 | 00 07 | 00 01 'a' | 00 02 'b'", 4, -4, topic_length(2, 11, 10));
    expect_refused("A2 08 | 00 07 | 00 01 'a' | 00 02 'b' | 'c'", 4, -4,
                   topic_length(2, 11, 10)); // not from the next packet
}

TEST(unsubscribe_decode, filters_have_at_most_256_characters)
{
    const Unsubscribe d = decode(packet(0xA2, wire("00 07") + prefixed(std::string(256, 'f'))));
    expect_success(d, 4, 7, 3 + 2 + 2 + 256);
    expect_filters(d, {std::string(256, 'f')});
    expect_refused(decode(packet(0xA2, wire("00 07") + prefixed(std::string(257, 'f')))), 4, -4,
                   topic_length(257, 7 + 257, 264));
}

TEST(unsubscribe_decode, refuses_a_cut_filter_length)
{
    expect_refused("A2 06 | 00 07 | 00 01 'a' | 00", 4, -4, logged::unsubscribe_decode_no_topic_length(7, 8));
    expect_refused("A2 06 | 00 07 | 00 01 'a' | 00 | 01", 4, -4, logged::unsubscribe_decode_no_topic_length(7, 8));
}

TEST(unsubscribe_decode, every_cut_of_a_packet)
{
    const Bytes whole = wire("A2 0E | 00 07 | 02 0B 05 | 00 01 'a' | 00 04 'bc/+'");
    ASSERT_EQ(decode(whole, 5).code, 0);
    for (size_t cut = 0; cut < whole.size(); ++cut) {
        const Unsubscribe d = decode(Bytes(whole.begin(), whole.begin() + static_cast<long>(cut)), 5);
        EXPECT_EQ(d.code, cut < 4 ? -1 : -3) << cut;
        EXPECT_EQ(d.consumed, static_cast<int>(cut));
    }
    const Bytes body(whole.begin() + 2, whole.end());
    for (size_t cut = 2; cut <= body.size(); ++cut) { // the same, with a remaining length that agrees
        const Unsubscribe d = decode(packet(0xA2, Bytes(body.begin(), body.begin() + static_cast<long>(cut))), 5);
        EXPECT_EQ(d.code == 0, cut == 5 || cut == 8 || cut == body.size()) << cut;
    }
}

TEST(unsubscribe_decode, reads_back_what_the_encoder_wrote)
{
    for (const uint32_t version : {4u, 5u}) {
        const mqtt_unsubscribe_para_t para = request(0xBEEF, {"a", "b/+/c", "#", std::string(256, 'f')});
        const Encoded                 e    = encode(para, version);
        const Bytes                   sent(e.buffer.begin(), e.buffer.begin() + e.length);
        expect_success(decode(sent, version), version, 0xBEEF, e.length);
        const Unsubscribe d = decode(sent, version);
        EXPECT_EQ(memcmp(&d.para, &para, sizeof para), 0);
    }
}

TEST(unsubscribe_decode, does_not_read_back_the_encoders_subscription_identifier)
{
    mqtt_unsubscribe_para_t para = request(7, {"a"});
    para.subscription_identifier = 300;
    const Encoded     e          = encode(para, 5);
    const Unsubscribe d          = decode(Bytes(e.buffer.begin(), e.buffer.begin() + e.length), 5);
    expect_success(d, 5, 7, e.length, {logged::unsubscribe_decode_unknown_property(0x2C)});
    EXPECT_EQ(d.para.subscription_identifier, 1u);
    expect_filters(d, {"a"});
}
