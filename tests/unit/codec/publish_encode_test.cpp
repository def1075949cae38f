#include "calls.h"

#include "codec/codec.hpp"
#include "support/log_lines/codec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace tarn::test;
using tarn::codec::publish_id_offset;
using tarn::codec::PublishView;

namespace {

using Publish = mqtt_publish_para_t;

Publish message(std::string_view topic, std::string_view payload = "", uint32_t qos = 0, uint16_t id = 0)
{
    Publish para;
    memset(&para, 0, sizeof para);
    memcpy(para.topic, topic.data(), topic.size());
    memcpy(para.payload, payload.data(), payload.size());
    para.payload_len = static_cast<uint32_t>(payload.size());
    para.qos         = qos;
    para.msg_id      = id;
    return para;
}

Publish sized(size_t topic, size_t payload, uint32_t qos = 0)
{
    return message(std::string(topic, 't'), std::string(payload, 'p'), qos, qos ? 7 : 0);
}

Encoded encode(const Publish &para, uint32_t version = 4, int capacity = 4096, uint32_t log_level = 2)
{
    return encode_with(mqtt_codec_encode_publish, para, version, capacity, log_level);
}

void expect_packet(const Encoded &e, const std::string &packet)
{
    EXPECT_EQ(e.code, 0);
    EXPECT_EQ(e.packet(), packet);
    EXPECT_TRUE(e.rest_is_zero(static_cast<size_t>(e.length)));
    EXPECT_EQ(e.ctx.last_packet_type, 3u);
    EXPECT_EQ(e.ctx.last_packet_len, 78u) << "decoders only";
    EXPECT_EQ(e.all, Log{});
}

// Refused before the buffer was touched, or later: `head` is what stands in front of the zeroes then.
void expect_refused(const Encoded &e, uint32_t version, int code, const LogLine &line)
{
    EXPECT_EQ(e.code, code);
    EXPECT_EQ(e.log, Log{line});
    EXPECT_EQ(e.length, static_cast<int>(e.buffer.size())) << "the length stays";
    EXPECT_EQ(e.buffer, repeat(0xEE, e.buffer.size()));
    EXPECT_TRUE(untouched(e.ctx));
    EXPECT_EQ(e.ctx.version, version);
}
void expect_refused_late(const Encoded &e, const char *head, const LogLine &line)
{
    const Bytes expected = wire(head);
    EXPECT_EQ(e.code, -3);
    EXPECT_EQ(e.log, Log{line});
    EXPECT_EQ(e.length, static_cast<int>(e.buffer.size()));
    EXPECT_EQ(hex(e.buffer.data(), expected.size()), hex(expected));
    EXPECT_TRUE(e.rest_is_zero(expected.size()));
    EXPECT_TRUE(untouched(e.ctx));
}

} // namespace

// ---- shapes

TEST(publish_encode, smallest_packet)
{
    expect_packet(encode(message("a"), 4), "30 03 00 01 61");
    expect_packet(encode(message("a"), 5), "30 04 00 01 61 00");
}

TEST(publish_encode, identifier_only_for_qos_1_and_2)
{
    expect_packet(encode(message("a/b", "hi", 0, 0x1234), 4), "30 07 00 03 61 2F 62 68 69");
    expect_packet(encode(message("a/b", "hi", 1, 0x1234), 4), "32 09 00 03 61 2F 62 12 34 68 69");
    expect_packet(encode(message("a/b", "hi", 2, 0x1234), 4), "34 09 00 03 61 2F 62 12 34 68 69");
    expect_packet(encode(message("a/b", "hi", 1, 0x1234), 5), "32 0A 00 03 61 2F 62 12 34 00 68 69");
}

TEST(publish_encode, topic_alias_is_four_bytes)
{
    Publish para     = message("a", "x");
    para.topic_alias = 5;
    expect_packet(encode(para, 5), "30 09 00 01 61 04 23 02 00 05 78");
    para.topic_alias = 0xABCD;
    expect_packet(encode(para, 5), "30 09 00 01 61 04 23 02 AB CD 78");
}

TEST(publish_encode, expiry_comes_before_alias)
{
    Publish para             = message("a", "x", 1, 9);
    para.msg_expiry_interval = 0x01020304;
    expect_packet(encode(para, 5), "32 0C 00 01 61 00 09 05 02 01 02 03 04 78");
    para.topic_alias = 5;
    expect_packet(encode(para, 5), "32 10 00 01 61 00 09 09 02 01 02 03 04 23 02 00 05 78");
}

TEST(publish_encode, level_4_has_no_properties)
{
    Publish para             = message("a", "x");
    para.msg_expiry_interval = 60;
    para.topic_alias         = 5;
    expect_packet(encode(para, 4), "30 04 00 01 61 78");
}

TEST(publish_encode, writes_the_flags_it_is_given)
{
    Publish para = message("a/+/#", "", 0, 0);
    para.retain  = 1;
    para.dup     = 1; // also at QoS 0
    expect_packet(encode(para), "39 07 00 05 61 2F 2B 2F 23");
    para.qos = 3; // no identifier follows
    expect_packet(encode(para), "3F 07 00 05 61 2F 2B 2F 23");
    para.msg_id = 7;
    expect_packet(encode(para), "3F 07 00 05 61 2F 2B 2F 23");
    para.qos = 6; // only two bits are written, and 6 is not 2
    expect_packet(encode(para), "3D 07 00 05 61 2F 2B 2F 23");

    para        = message("a");
    para.retain = 0x82; // not masked
    expect_packet(encode(para), "B2 03 00 01 61");
    para.retain = 0;
    para.dup    = 0x11; // five bits of it
    expect_packet(encode(para), "B8 03 00 01 61");
    para.dup = 0xE0;
    expect_packet(encode(para), "30 03 00 01 61");
}

TEST(publish_encode, remaining_length_grows_to_two_bytes)
{
    EXPECT_EQ(hex(encode(sized(1, 124)).buffer.data(), 4), "30 7F 00 01");
    const Encoded e = encode(sized(1, 125));
    EXPECT_EQ(hex(e.buffer.data(), 5), "30 80 01 00 01");
    EXPECT_EQ(e.written(), 131);
}

// ---- refusals in front of the buffer

TEST(publish_encode, refuses_null_pointers)
{
    LogCapture       log(0);
    mqtt_codec_ctx_t ctx  = context(4);
    const Publish    para = message("a");
    uint8_t          buf[128];
    int              len  = 128;
    const auto       line = [](const void *c, const void *p, const void *b, const void *l) {
        return Log{error("[PUBLISH ENCODE] Step 1 ERROR: Null pointer detected (ctx=" + pointer(c) +
                               ", para=" + pointer(p) + ", buf=" + pointer(b) + ", buf_len=" + pointer(l) + ")\n")};
    };
    EXPECT_EQ(mqtt_codec_encode_publish(nullptr, &para, buf, &len), -1);
    EXPECT_EQ(log.take(), line(nullptr, &para, buf, &len));
    EXPECT_EQ(mqtt_codec_encode_publish(&ctx, nullptr, buf, &len), -1);
    EXPECT_EQ(log.take(), line(&ctx, nullptr, buf, &len));
    EXPECT_EQ(mqtt_codec_encode_publish(&ctx, &para, nullptr, &len), -1);
    EXPECT_EQ(log.take(), line(&ctx, &para, nullptr, &len));
    EXPECT_EQ(mqtt_codec_encode_publish(&ctx, &para, buf, nullptr), -1);
    EXPECT_EQ(log.take(), line(&ctx, &para, buf, nullptr));
    EXPECT_EQ(len, 128);
    EXPECT_TRUE(untouched(ctx));
}

TEST(publish_encode, wants_128_bytes)
{
    const auto line = [](int actual) {
        return error("[PUBLISH ENCODE] Step 1 ERROR: Buffer too small (required=128, actual=" + std::to_string(actual) +
                     ") [MQTT 5.0 §3.3.1.4]\n");
    };
    expect_refused(encode(message("a"), 4, 127), 4, -1, line(127));
    expect_refused(encode(message("a"), 4, 0), 4, -1, line(0));
    EXPECT_EQ(encode(message("a"), 4, 128).code, 0);

    LogCapture       log(3);
    mqtt_codec_ctx_t ctx  = context(4);
    const Publish    para = message("a");
    uint8_t          buf[1];
    int              len = -5;
    EXPECT_EQ(mqtt_codec_encode_publish(&ctx, &para, buf, &len), -1);
    EXPECT_EQ(log.take(), Log{line(-5)});
}

TEST(publish_encode, wants_level_4_or_5)
{
    for (const uint32_t version : {0u, 3u, 6u})
        expect_refused(encode(message("a"), version), version, -2,
                       error("[PUBLISH ENCODE] Step 1 ERROR: Unsupported version " + std::to_string(version) +
                             " (only 3.1.1/5.0) [MQTT 5.0 §1.2]\n"));
}

TEST(publish_encode, wants_a_topic_of_1_to_256_characters)
{
    const auto line = [](int length) {
        return error("[PUBLISH ENCODE] Step 1 ERROR: Invalid topic (len=" + std::to_string(length) +
                     ", max=256) [MQTT 5.0 §3.3.2.1]\n");
    };
    expect_refused(encode(message("")), 4, -1, line(0));
    expect_refused(encode(sized(257, 0)), 4, -1, line(257)); // no terminator in the array
    EXPECT_EQ(encode(sized(256, 0)).written(), 3 + 2 + 256);
}

TEST(publish_encode, wants_an_identifier_for_qos_1_and_2)
{
    const LogLine line = logged::publish_encode_no_packet_id();
    expect_refused(encode(message("a", "", 1, 0)), 4, -1, line);
    expect_refused(encode(message("a", "", 2, 0)), 4, -1, line);
    EXPECT_EQ(encode(message("a", "", 3, 0)).code, 0);
}

TEST(publish_encode, wants_a_payload_of_at_most_2048_bytes)
{
    Publish para     = sized(1, 2048);
    para.payload_len = 2049;
    expect_refused(encode(para), 4, -1, logged::publish_encode_bad_payload_length(2049));
    para.payload_len = 2048;
    EXPECT_EQ(encode(para).code, 0);
    para.payload_len = 0xFFFFFFFF;
    expect_refused(encode(para), 4, -1, logged::publish_encode_bad_payload_length(-1));
}

TEST(publish_encode, looks_at_the_fields_in_order)
{
    Publish para     = message("", "", 1, 0);
    para.payload_len = 4000;
    EXPECT_EQ(encode(para, 9, 100).code, -1); // capacity
    EXPECT_EQ(encode(para, 9).code, -2);      // level
    EXPECT_THAT(encode(para).log[0].text, testing::HasSubstr("Invalid topic"));
    para.topic[0] = 'a';
    EXPECT_THAT(encode(para).log[0].text, testing::HasSubstr("non-zero Packet ID"));
    para.msg_id = 1;
    EXPECT_THAT(encode(para).log[0].text, testing::HasSubstr("Invalid payload len"));
}

// ---- refusals that leave header bytes

TEST(publish_encode, a_body_has_at_most_2112_bytes)
{
    // topic + payload: 2 bytes of topic length, 2 of identifier, 1 of property length.
    EXPECT_EQ(encode(sized(62, 2048, 0), 4).written(), 2115);
    expect_refused_late(encode(sized(63, 2048, 0), 4), "30", logged::publish_encode_payload_overflow(2113));
    EXPECT_EQ(encode(sized(60, 2048, 1), 4).written(), 2115);
    expect_refused_late(encode(sized(61, 2048, 1), 4), "32", logged::publish_encode_payload_overflow(2113));
    EXPECT_EQ(encode(sized(61, 2048, 0), 5).written(), 2115);
    expect_refused_late(encode(sized(62, 2048, 0), 5), "30", logged::publish_encode_payload_overflow(2113));
    EXPECT_EQ(encode(sized(59, 2048, 2), 5).written(), 2115);
    expect_refused_late(encode(sized(60, 2048, 2), 5), "34", logged::publish_encode_payload_overflow(2113));

    Publish para             = sized(50, 2048, 2);
    para.msg_expiry_interval = 1;
    para.topic_alias         = 1;
    EXPECT_EQ(encode(para, 5).written(), 2115);
    para.topic[50] = 't';
    expect_refused_late(encode(para, 5), "34", logged::publish_encode_payload_overflow(2113));
    expect_refused_late(encode(sized(256, 2000)), "30", logged::publish_encode_payload_overflow(2258));
}

TEST(publish_encode, wants_room_for_the_whole_packet)
{
    EXPECT_EQ(encode(sized(1, 123), 4, 128).written(), 128);
    expect_refused_late(encode(sized(1, 124), 4, 128), "30 7F", logged::publish_encode_overflow(129, 128));
    expect_refused_late(encode(sized(1, 125), 4, 128), "30 80 01", logged::publish_encode_overflow(131, 128));
    expect_refused_late(encode(sized(62, 2048), 4, 2114), "30 C0 10", logged::publish_encode_overflow(2115, 2114));
    EXPECT_EQ(encode(sized(62, 2048), 4, 2115).written(), 2115);
}

TEST(publish_encode, a_delivery_buffer_holds_2043_bytes_of_topic_and_payload)
{
    struct {
        uint32_t version, qos, expiry;
        size_t   most;
    } const cases[] = {
        {4, 0, 0, 2043}, {4, 1, 0, 2041}, {5, 0, 0, 2042}, {5, 2, 0, 2040}, {5, 0, 9, 2037}, {5, 1, 9, 2035},
    };
    for (const auto &c : cases) {
        Publish para             = sized(10, c.most - 10, c.qos);
        para.msg_expiry_interval = c.expiry;
        EXPECT_EQ(encode(para, c.version, 2048).written(), 2048) << c.most;
        para.topic[10]  = 't';
        const Encoded e = encode(para, c.version, 2048);
        EXPECT_EQ(e.code, -3) << c.most;
        EXPECT_EQ(e.log, Log{logged::publish_encode_overflow(2049, 2048)});
    }
}

// ---- trace

TEST(publish_encode, traces_each_property_byte_at_debug)
{
    Publish para             = message("a", "x", 1, 9);
    para.msg_expiry_interval = 0x01020304;
    para.topic_alias         = 5;
    const Encoded e          = encode(para, 5, 128, 0);
    EXPECT_EQ(e.log, Log{});
    const Log expected = {
        debug("[PUBLISH ENCODE] Step 1: Parameters accepted (version=5)\n"),
        debug("[PUBLISH ENCODE] Step 2: Buffer ready\n"),
        debug("[PUBLISH ENCODE] Step 3: Fixed header = 0x32\n"),
        debug("[PUBLISH ENCODE] Step 4.1: Topic = a (len=1)\n"),
        debug("[PUBLISH ENCODE] Step 4.2: Packet ID = 9\n"),
        debug("[PUBLISH ENCODE] Step 4.3: Property Length = 9\n"),
        logged::publish_encode_header_byte(6, 0x02),
        logged::publish_encode_header_byte(7, 0x01),
        logged::publish_encode_header_byte(8, 0x02),
        logged::publish_encode_header_byte(9, 0x03),
        logged::publish_encode_header_byte(10, 0x04),
        logged::publish_encode_header_byte(11, 0x23),
        logged::publish_encode_header_byte(12, 0x02),
        logged::publish_encode_header_byte(13, 0x00),
        logged::publish_encode_header_byte(14, 0x05),
        debug("[PUBLISH ENCODE] Step 4.4: Payload len = 1\n"),
        debug("[PUBLISH ENCODE] Step 5: Remaining Length = 16\n"),
        debug("[PUBLISH ENCODE] Step 6: Packet copied (len=18)\n"),
        debug("[PUBLISH ENCODE] SUCCESS: qos=1, msg_id=9, payload_len=1, total_len=18\n"),
    };
    EXPECT_EQ(e.all, expected);
    EXPECT_EQ(encode(para, 5, 128, 1).all, Log{}) << "nothing above DEBUG";
}

TEST(publish_encode, traces_no_identifier_and_no_properties_where_there_are_none)
{
    const Encoded e = encode(message("a"), 4, 128, 0);
    ASSERT_EQ(e.all.size(), 8u);
    for (const LogLine &line : e.all) {
        EXPECT_THAT(line.text, testing::Not(testing::HasSubstr("Step 4.2")));
        EXPECT_THAT(line.text, testing::Not(testing::HasSubstr("Step 4.3")));
    }
}

// ---- encode once, send to many

// Head and payload put together, as the ring of a receiver does.
static int encode_publish_view(uint32_t version, const tarn::codec::PublishView &view, uint8_t *buf, int *len)
{
    const auto [result, head, length] =
        tarn::codec::encode_publish_head(version, view, {buf, static_cast<size_t>(*len)}, static_cast<size_t>(*len));
    if (!failed(result)) {
        *len = static_cast<int>(length);
        EXPECT_EQ(length - head.size(), view.payload.size());
        std::copy(view.payload.begin(), view.payload.end(), buf + head.size());
    }
    return code_of(result);
}

TEST(publish_view, gives_the_packet_of_the_record)
{
    const std::string topic(20, 't');
    const Bytes       payload = repeat('p', 300);
    for (const uint32_t version : {4u, 5u})
        for (uint32_t qos = 0; qos < 3; ++qos) {
            Publish para             = sized(20, 300, qos);
            para.retain              = 1;
            para.dup                 = 1;
            para.msg_expiry_interval = 77;
            para.topic_alias         = 3;
            PublishView view{topic, payload, qos, para.msg_id, 1, 1, 77, 3};
            uint8_t     buf[400];
            memset(buf, 0xEE, sizeof buf);
            int len = sizeof buf;
            EXPECT_EQ(encode_publish_view(version, view, buf, &len), 0);
            EXPECT_EQ(hex(buf, static_cast<size_t>(len)), encode(para, version).packet());
            EXPECT_EQ(buf[len], 0xEE) << "the rest is the caller's";
        }
}

TEST(publish_view, is_encoded_with_a_context_as_the_record_is)
{
    const std::string topic(20, 't');
    const Bytes       payload = repeat('p', 300);
    Publish           para    = sized(20, 300, 1);
    para.dup                  = 1;
    for (const uint32_t version : {4u, 5u, 7u})
        for (const size_t capacity : {400u, 300u}) {
            mqtt_codec_ctx_t   ctx = context(version);
            uint8_t            buf[400];
            std::span<uint8_t> packet(buf, capacity);
            LogCapture         log(2);
            const PublishView  view{.topic = topic, .payload = payload, .qos = 1, .msg_id = para.msg_id, .dup = 1};
            const int          result = code_of(encode_publish(ctx, view, packet));
            const auto         lines  = log.take();
            const Encoded      record = encode(para, version, static_cast<int>(capacity));
            EXPECT_EQ(result, record.code);
            EXPECT_EQ(lines, record.log);
            EXPECT_EQ(result == 0 ? hex(packet.data(), packet.size()) : "", result == 0 ? record.packet() : "");
            EXPECT_EQ(ctx.last_packet_type, record.ctx.last_packet_type);
        }
}

TEST(publish_view, refuses_like_the_record)
{
    uint8_t     buf[2048];
    int         len  = sizeof buf;
    const Bytes much = repeat('p', 2049);
    LogCapture  log(2);
    EXPECT_EQ(encode_publish_view(4, {"a", {}, 1, 0}, buf, &len), -1);
    EXPECT_EQ(encode_publish_view(7, {"a", {}}, buf, &len), -2);
    EXPECT_EQ(encode_publish_view(4, {"", {}}, buf, &len), -1);
    EXPECT_EQ(encode_publish_view(4, {"a", much}, buf, &len), -1);
    EXPECT_EQ(encode_publish_view(4, {"a", {much.data(), 2048}}, buf, &len), -3);
    EXPECT_EQ(len, 2048);
    len = 127;
    EXPECT_EQ(encode_publish_view(4, {"a", {}}, buf, &len), -1);
    EXPECT_EQ(log.take().size(), 6u);
}

TEST(publish_id_offset, finds_the_identifier)
{
    for (const size_t payload : {size_t{0}, size_t{200}})
        for (const uint32_t version : {4u, 5u})
            for (const uint32_t qos : {1u, 2u}) {
                Publish   para = sized(5, payload, qos);
                Encoded   e    = encode(para, version);
                const int at   = publish_id_offset({e.buffer.data(), static_cast<size_t>(e.length)});
                ASSERT_EQ(at, (payload ? 3 : 2) + 2 + 5);
                e.buffer[static_cast<size_t>(at)]     = 0xAB;
                e.buffer[static_cast<size_t>(at) + 1] = 0xCD;
                para.msg_id                           = 0xABCD;
                EXPECT_EQ(e.packet(), encode(para, version).packet());
            }
}

TEST(publish_id_offset, is_none_where_no_identifier_stands)
{
    const auto offset = [](const char *packet) {
        const Bytes bytes = wire(packet);
        return publish_id_offset(bytes);
    };
    EXPECT_EQ(offset("32 05 00 01 61 00 07"), 5);
    EXPECT_EQ(offset("30 05 00 01 61 00 07"), -1) << "QoS 0";
    EXPECT_EQ(offset("36 05 00 01 61 00 07"), -1) << "QoS 3";
    EXPECT_EQ(offset("42 05 00 01 61 00 07"), -1) << "another type";
    EXPECT_EQ(publish_id_offset({static_cast<const uint8_t *>(nullptr), 7}), -1);

    const Bytes whole = wire("32 05 00 01 61 00 07");
    for (size_t cut = 0; cut < whole.size(); ++cut) {
        const Bytes part(whole.begin(), whole.begin() + static_cast<long>(cut));
        EXPECT_EQ(publish_id_offset(part), -1) << cut;
    }
    EXPECT_EQ(offset("32 80 80 80 01 00 01 61 00 07"), -1) << "four length bytes";
}
