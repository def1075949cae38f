// SUBSCRIBE, SUBACK, UNSUBSCRIBE and UNSUBACK (3.8 to 3.11).
#include "decoded.h"

using namespace tarn;
using namespace tarn::test;
using standard::Subscribe;
using standard::SubscriptionAck;
using standard::Unsubscribe;

namespace {

Decoded<Subscribe> subscribe(const Bytes &body, Level level)
{
    return decoded<Subscribe>(packet(0x82, body), [&](standard::Bytes bytes, Subscribe &out) {
        return standard::decode_subscribe(bytes, level, out);
    });
}
Decoded<Subscribe> subscribe(const char *body, Level level)
{
    return subscribe(wire(body), level);
}
Decoded<Unsubscribe> unsubscribe(const Bytes &body, Level level)
{
    return decoded<Unsubscribe>(packet(0xA2, body), [&](standard::Bytes bytes, Unsubscribe &out) {
        return standard::decode_unsubscribe(bytes, level, out);
    });
}
Decoded<Unsubscribe> unsubscribe(const char *body, Level level)
{
    return unsubscribe(wire(body), level);
}

// "filter qos,no local,as published,handling; " of each.
std::string listed(const Subscribe &subscribe)
{
    std::string out;
    for (const auto &entry : subscribe.subscriptions)
        out += std::string(entry.text) + " " + std::to_string(entry.qos) + (entry.no_local ? "L" : "") +
               (entry.retain_as_published ? "P" : "") + std::to_string(entry.retain_handling) + "; ";
    return out;
}

std::string listed(const Unsubscribe &unsubscribe)
{
    std::string out;
    for (const auto &entry : unsubscribe.filters)
        out += std::string(entry.text) + "; ";
    return out;
}

} // namespace

// ---- SUBSCRIBE

TEST(subscribe, of_3_1_1)
{
    const auto found = subscribe("12 34 00 03 'a/b' 01 00 01 '#' 02 00 01 '+' 00", k311);
    EXPECT_OK(found);
    EXPECT_EQ(found.value.packet_id, 0x1234);
    EXPECT_EQ(found.value.subscriptions.size(), 3U);
    EXPECT_EQ(listed(found.value), "a/b 10; # 20; + 00; ");
}

TEST(subscribe, of_5_0)
{
    const auto found =
        subscribe("12 34 | 0A 0B 80 01 26 00 01 'k' 00 01 'v' | 00 03 'a/b' 2D 00 0A '$share/g/a' 1A", k5);
    EXPECT_OK(found);
    EXPECT_EQ(printed(found.value.properties), "subscription_identifier=128 user:k=v ");
    EXPECT_EQ(listed(found.value), "a/b 1LP2; $share/g/a 2P1; ");
    auto entry = found.value.subscriptions.begin();
    EXPECT_FALSE(entry->filter.is_shared());
    ++entry;
    EXPECT_EQ(entry->filter.group, "g");
    EXPECT_EQ(entry->filter.filter, "a");
    ++entry;
    EXPECT_TRUE(entry == found.value.subscriptions.end());
}

TEST(subscribe, any_number_of_filters)
{
    Bytes body = wire("00 07");
    for (int i = 0; i < 5000; ++i)
        body = body + prefixed("f/" + std::to_string(i)) + wire("01");
    Packet    whole = packet(0x82, body);
    Subscribe found;
    ASSERT_TRUE(standard::decode_subscribe(whole, k311, found).ok());
    EXPECT_EQ(found.subscriptions.size(), 5000U);
    int count = 0;
    for (const auto &entry : found.subscriptions)
        EXPECT_EQ(entry.text, "f/" + std::to_string(count++));
    EXPECT_EQ(count, 5000);
}

TEST(subscribe, without_a_filter) // [MQTT-3.8.3-2], 3.1.1 [MQTT-3.8.3-3]
{
    EXPECT_REFUSED(subscribe("00 07", k311), Reason::ProtocolError);
    EXPECT_REFUSED(subscribe("00 07 00", k5), Reason::ProtocolError);
}

TEST(subscribe, a_cut_entry_is_malformed)
{
    for (const char *rest : {"00", "00 02 'a'", "00 01 'a'", "00 01 'a' 00 00", "00 01 'a' 00 00 01 'b'"}) {
        EXPECT_REFUSED(subscribe((std::string("00 07 ") + rest).c_str(), k311), Reason::MalformedPacket);
        EXPECT_REFUSED(subscribe((std::string("00 07 00 ") + rest).c_str(), k5), Reason::MalformedPacket);
    }
}

TEST(subscribe, filters_are_utf8) // [MQTT-3.8.3-1]
{
    EXPECT_REFUSED(subscribe("00 07 00 01 FF 00", k311), Reason::MalformedPacket);
    EXPECT_REFUSED(subscribe("00 07 00 00 01 00 00", k5), Reason::MalformedPacket);
}

TEST(subscribe, filters_are_filters) // [MQTT-4.7.1-1] [MQTT-4.7.1-2] [MQTT-4.7.3-1] [MQTT-4.8.2-1] [MQTT-4.8.2-2]
{
    for (const auto *filter : {"", "a#", "#/a", "a+", "$share/g", "$share//a", "$share/+/a"}) {
        EXPECT_REFUSED(subscribe(wire("00 07 00 01 'a' 00") + prefixed(filter) + wire("00"), k311),
                       Reason::TopicFilterInvalid);
        EXPECT_REFUSED(subscribe(wire("00 07 00") + prefixed(filter) + wire("00"), k5), Reason::TopicFilterInvalid);
    }
}

TEST(subscribe, options_of_3_1_1_are_a_qos) // 3.1.1 [MQTT-3-8.3-4]
{
    for (int options = 0; options <= 0xFF; ++options) {
        const auto found = subscribe(wire("00 07 00 01 'a'") + Bytes{static_cast<uint8_t>(options)}, k311);
        EXPECT_EQ(found.verdict.ok(), options <= 2) << options;
    }
}

TEST(subscribe, options_of_5_0)
{
    for (int options = 0; options <= 0xFF; ++options) {
        const auto found = subscribe(wire("00 07 00 00 01 'a'") + Bytes{static_cast<uint8_t>(options)}, k5);
        const bool wrong = (options & 3) == 3 || (options & 0x30) == 0x30;       // 5.0 3.8.3.1
        EXPECT_EQ(found.verdict.reason, options & 0xC0 ? Reason::MalformedPacket // [MQTT-3.8.3-5]
                                        : wrong        ? Reason::ProtocolError
                                                       : Reason::Success)
            << options;
    }
}

TEST(subscribe, no_local_is_not_for_shared_subscriptions) // [MQTT-3.8.3-4]
{
    EXPECT_REFUSED(subscribe("00 07 00 00 0A '$share/g/a' 04", k5), Reason::ProtocolError);
    EXPECT_OK(subscribe("00 07 00 00 06 '$share' 04", k5));
}

TEST(subscribe, its_identifier_is_not_0) // [MQTT-2.2.1-3], 3.1.1 [MQTT-2.3.1-1]
{
    EXPECT_REFUSED(subscribe("00 00 00 01 'a' 00", k311), Reason::ProtocolError);
    EXPECT_REFUSED(subscribe("00 00 00 00 01 'a' 00", k5), Reason::ProtocolError);
}

TEST(subscribe, a_fault_in_its_properties_is_found)
{
    EXPECT_REFUSED(subscribe("00 07 02 0B 00 00 01 'a' 00", k5), Reason::ProtocolError);
    EXPECT_REFUSED(subscribe("00 07 04 0B 01 0B 01 00 01 'a' 00", k5), Reason::ProtocolError);
    EXPECT_REFUSED(subscribe("00 07 02 01 00 00 01 'a' 00", k5), Reason::MalformedPacket);
}

TEST(subscribe, its_flags_are_2) // [MQTT-3.8.1-1]
{
    Subscribe   out;
    const Bytes bytes = wire("80 06 00 07 00 01 'a' 00");
    EXPECT_EQ(standard::decode_subscribe(bytes, k311, out).reason, Reason::MalformedPacket);
}

TEST(subscribe, a_list_that_nothing_was_read_into_is_empty)
{
    const Subscribe none;
    EXPECT_EQ(none.subscriptions.size(), 0U);
    EXPECT_TRUE(none.subscriptions.begin() == none.subscriptions.end());
    EXPECT_EQ(subscribe("00 07 00 01 'a' 00 00 01 'b' 03", k311).value.subscriptions.size(), 0U);
}

// ---- UNSUBSCRIBE

TEST(unsubscribe, at_both_levels)
{
    const auto of_311 = unsubscribe("12 34 00 03 'a/b' 00 0A '$share/g/a'", k311);
    EXPECT_OK(of_311);
    EXPECT_EQ(of_311.value.packet_id, 0x1234);
    EXPECT_EQ(of_311.value.filters.size(), 2U);
    EXPECT_EQ(listed(of_311.value), "a/b; $share/g/a; ");
    const auto of_5 = unsubscribe("12 34 07 26 00 01 'k' 00 01 'v' 00 01 '#'", k5);
    EXPECT_OK(of_5);
    EXPECT_EQ(printed(of_5.value.properties), "user:k=v ");
    EXPECT_EQ(listed(of_5.value), "#; ");
}

TEST(unsubscribe, refusals)
{
    EXPECT_REFUSED(unsubscribe("00 07", k311), Reason::ProtocolError); // [MQTT-3.10.3-2]
    EXPECT_REFUSED(unsubscribe("00 07 00", k5), Reason::ProtocolError);
    EXPECT_REFUSED(unsubscribe("00 00 00 01 'a'", k311), Reason::ProtocolError);
    EXPECT_REFUSED(unsubscribe("00 07 00 02 'a'", k311), Reason::MalformedPacket);
    EXPECT_REFUSED(unsubscribe("00 07 00 01 FF", k311), Reason::MalformedPacket); // [MQTT-3.10.3-1]
    EXPECT_REFUSED(unsubscribe("00 07 00 01 'a' 00 00", k311), Reason::TopicFilterInvalid);
    EXPECT_REFUSED(unsubscribe("00 07 02 0B 01 00 01 'a'", k5), Reason::MalformedPacket);
    Unsubscribe out;
    const Bytes bytes = wire("A0 05 00 07 00 01 'a'"); // [MQTT-3.10.1-1]
    EXPECT_EQ(standard::decode_unsubscribe(bytes, k311, out).reason, Reason::MalformedPacket);
}

// ---- SUBACK and UNSUBACK

TEST(suback, of_3_1_1_has_one_failure)
{
    const Reason reasons[] = {Reason::GrantedQos0, Reason::GrantedQos1, Reason::GrantedQos2, Reason::NotAuthorized,
                              Reason::QuotaExceeded};
    EXPECT_EQ(hex(encoded(SubscriptionAck{SUBACK, 0x1234, reasons, {}}, {k311})),
              hex(wire("90 07 12 34 00 01 02 80 80")));
}

TEST(suback, of_5_0_has_a_reason_for_each_filter)
{
    std::vector<Reason> reasons(200, Reason::GrantedQos1);
    reasons[7]                 = Reason::TopicFilterInvalid;
    SubscriptionAck        ack = {SUBACK, 0x1234, reasons, {}};
    DecodedSubscriptionAck again;
    ASSERT_TRUE(decode_subscription_ack(encoded(ack, {k5}), SUBACK, again).ok());
    EXPECT_EQ(again.packet_id, 0x1234U);
    EXPECT_EQ(again.reasons, reasons);
}

TEST(suback, with_properties_where_there_is_room) // [MQTT-3.9.2-1]
{
    const Reason    reasons[]    = {Reason::NotAuthorized};
    SubscriptionAck ack          = {SUBACK, 7, reasons, {}};
    ack.properties.reason_string = "why";
    EXPECT_EQ(hex(encoded(ack, {k5, 12})), hex(wire("90 0A 00 07 06 1F 00 03 'why' 87")));
    EXPECT_EQ(hex(encoded(ack, {k5, 11})), hex(wire("90 04 00 07 00 87")));
    EXPECT_EQ(standard::size_of(ack, {k5, 5}), 0U);
}

TEST(unsuback, at_both_levels)
{
    const Reason          reasons[] = {Reason::Success, Reason::NoSubscriptionExisted};
    const SubscriptionAck ack       = {UNSUBACK, 0x1234, reasons, {}};
    EXPECT_EQ(hex(encoded(ack, {k311})), hex(wire("B0 02 12 34")));
    EXPECT_EQ(hex(encoded(ack, {k5})), hex(wire("B0 05 12 34 00 00 11")));
}
