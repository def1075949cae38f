// The will in a CONNECT: seen as the library's decoder sees it, whatever the packet looks like, and taken out whole.
#include "broker/access/connect_will.h"
#include "support/packets.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>

#include <tarn_sdk_mqtt_broker/codec/mqtt_codec.h>
#include <tarn_sdk_mqtt_broker/log/agent_log.h>

using namespace tarn::broker;
using namespace tarn::test;

namespace {

// What the library makes of a CONNECT; nothing when it refuses it.
std::optional<mqtt_connect_para_t> decoded(const Bytes &packet)
{
    mqtt_codec_ctx_t    codec{};
    mqtt_connect_para_t connect{};
    int                 length = static_cast<int>(packet.size());
    mqtt_codec_ctx_init(&codec);
    if (mqtt_codec_decode_connect(&codec, packet.data(), &length, &connect) != 0)
        return {};
    return connect;
}

void forget_will(mqtt_connect_para_t &connect)
{
    connect.will_flag                = 0;
    connect.will_qos                 = 0;
    connect.will_retain              = 0;
    connect.will_delay_interval      = 0;
    connect.will_msg_expiry_interval = 0;
    connect.will_payload_len         = 0;
    memset(connect.will_topic, 0, sizeof connect.will_topic);
    memset(connect.will_payload, 0, sizeof connect.will_payload);
}

bool are_equal(const mqtt_connect_para_t &left, const mqtt_connect_para_t &right)
{
    return memcmp(&left, &right, sizeof left) == 0;
}

// False when the library sees a will there and we another one, or none, or when ours is not out of it afterwards.
testing::AssertionResult agrees(const Bytes &packet)
{
    std::optional<mqtt_connect_para_t> library = decoded(packet);
    const std::optional<ConnectWill>   ours    = find_will(packet);
    if (!library)
        return testing::AssertionSuccess(); // no client, no will
    if (!library->will_flag)
        return ours ? testing::AssertionFailure() << "a will that is none" : testing::AssertionSuccess();
    if (!ours || ours->topic != library->will_topic || ours->client_id != library->client_id ||
        ours->user != library->username)
        return testing::AssertionFailure() << (ours ? "another will" : "no will");
    const std::optional<mqtt_connect_para_t> rest = decoded(without_will(packet, *ours));
    if (rest && rest->will_flag)
        return testing::AssertionFailure() << "the will is still there";
    forget_will(*library);
    if (strlen(library->client_id) < CODEC_CLIENT_ID_MAX && (!rest || !are_equal(*rest, *library)))
        return testing::AssertionFailure() << "something else has changed";
    return testing::AssertionSuccess();
}

Connect with_will(unsigned level)
{
    Connect connect;
    connect.username         = "alice";
    connect.password         = "secret";
    connect.session_expiry_s = 60;
    connect.will             = Will{"home/gone", "bye", 1, true, level == 5 ? wire("18 00 00 00 05") : Bytes{}};
    return connect;
}

struct connect_will : testing::Test {
    void SetUp() override
    {
        before_ = g_log_config.level;
        agent_log_set_level(AGENT_LOG_FATAL); // the decoder has much to say here
    }
    void TearDown() override { agent_log_set_level(before_); }

private:
    uint32_t before_ = 0;
};

} // namespace

TEST_F(connect_will, is_found_and_taken_out)
{
    for (const unsigned level : {4u, 5u}) {
        Connect     connect = with_will(level);
        const Bytes packet  = connect_packet(level, "x", connect);
        const auto  will    = find_will(packet);
        ASSERT_TRUE(will) << level;
        EXPECT_EQ(will->client_id, "x");
        EXPECT_EQ(will->user, "alice");
        EXPECT_EQ(will->topic, "home/gone");
        connect.will.reset();
        EXPECT_EQ(without_will(packet, *will), connect_packet(level, "x", connect)) << level;
        EXPECT_FALSE(find_will(connect_packet(level, "x", connect)));
    }
}

TEST_F(connect_will, of_the_largest_kind_leaves_a_shorter_length_behind)
{
    Connect connect = with_will(4);
    connect.will    = Will{std::string(256, 't'), std::string(2048, 'p')};
    EXPECT_TRUE(agrees(connect_packet(4, "x", connect)));
    EXPECT_TRUE(agrees(connect_packet(5, std::string(64, 'i'), connect)));
    EXPECT_TRUE(agrees(connect_packet(5, std::string(70, 'i'), connect)));
}

TEST_F(connect_will, other_packets_have_none)
{
    EXPECT_FALSE(find_will({}));
    EXPECT_FALSE(find_will(wire("10")));
    EXPECT_FALSE(find_will(wire("10 FF FF FF FF")));
    EXPECT_FALSE(find_will(wire("C0 00")));
    EXPECT_FALSE(find_will(publish_packet(4, "t", "x")));
}

// Where the two readings differed, a will could get past the rules.
TEST_F(connect_will, damaged_packets_are_read_as_the_library_reads_them)
{
    std::mt19937 random(20260131);
    const auto   below = [&](size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random); };
    int          wills = 0;
    for (int turn = 0; turn < 200'000; ++turn) {
        const unsigned level   = turn % 2 ? 4 : 5;
        Connect        connect = with_will(level);
        if (below(3) == 0) {
            connect.username.reset();
            connect.password.reset();
        }
        Bytes packet = connect_packet(level, std::string(below(4) ? below(24) : below(80), 'i'), connect);
        for (size_t damage = below(4); damage > 0; --damage) {
            const size_t at = below(packet.size());
            if (below(2))
                packet[at] = static_cast<uint8_t>(below(4) ? below(12) : below(256));
            else
                packet.insert(packet.begin() + static_cast<ptrdiff_t>(at), static_cast<uint8_t>(below(256)));
        }
        const auto library = decoded(packet);
        wills += library && library->will_flag;
        ASSERT_TRUE(agrees(packet)) << "turn " << turn;
    }
    EXPECT_GT(wills, 50'000);
}

TEST(connect_session, is_kept_when_the_client_asks_for_it)
{
    EXPECT_FALSE(keeps_session(connect_packet(4, "a")));
    EXPECT_TRUE(keeps_session(connect_packet(4, "a", {.clean = false})));
    EXPECT_FALSE(keeps_session(connect_packet(5, "a")));
    EXPECT_TRUE(keeps_session(connect_packet(5, "a", {.clean = false})));
    EXPECT_TRUE(keeps_session(connect_packet(5, "a", {.session_expiry_s = 1})));
    EXPECT_FALSE(keeps_session(connect_packet(5, "a", {.session_expiry_s = 0})));
    EXPECT_TRUE(keeps_session(connect_packet(5, "a", {.max_packet_size = 0, .session_expiry_s = 0x80000000})));
    EXPECT_FALSE(keeps_session(publish_packet(4, "t", "x")));
}

// Texts that a 5.0 client may put in front of the interval.
TEST(connect_session, is_found_behind_other_properties)
{
    const Bytes packet =
        wire("10 1D 00 04 'MQTT' 05 02 00 3C 0F 26 00 01 'a' 00 01 'b' 17 01 11 00 00 00 01 00 01 'x'");
    EXPECT_TRUE(keeps_session(packet));
}

// The standard knows no session that goes on only because it was there.
TEST(connect_session, of_the_standard_profile_is_kept_by_flag_or_interval)
{
    EXPECT_FALSE(keeps_standard_session(connect_packet(4, "a")));
    EXPECT_TRUE(keeps_standard_session(connect_packet(4, "a", {.clean = false})));
    EXPECT_FALSE(keeps_standard_session(connect_packet(5, "a", {.clean = false})));
    EXPECT_FALSE(keeps_standard_session(connect_packet(5, "a", {.session_expiry_s = 0})));
    EXPECT_TRUE(keeps_standard_session(connect_packet(5, "a", {.session_expiry_s = 1})));
    EXPECT_FALSE(keeps_standard_session(publish_packet(4, "t", "x")));
}

TEST(connect_session, has_a_will_of_the_standard_profile_by_its_flag)
{
    EXPECT_FALSE(has_will_flag(connect_packet(4, "a")));
    EXPECT_TRUE(has_will_flag(connect_packet(4, "a", {.will = Will{"t", "x"}})));
    EXPECT_TRUE(has_will_flag(connect_packet(5, std::string(100, 'x'), {.will = Will{"t", "x"}})));
    EXPECT_FALSE(has_will_flag(publish_packet(4, "t", "x")));
    const Bytes whole = connect_packet(5, "a", {.will = Will{"t", "x"}});
    for (size_t length = 0; length < whole.size(); ++length) {
        has_will_flag(std::span(whole).first(length));
        keeps_standard_session(std::span(whole).first(length));
    }
}

TEST(connect_session, of_a_packet_that_ends_anywhere_is_no_matter)
{
    const Bytes whole = connect_packet(5, "a", {.session_expiry_s = 7});
    for (size_t length = 0; length < whole.size(); ++length)
        keeps_session(std::span(whole).first(length));
}
