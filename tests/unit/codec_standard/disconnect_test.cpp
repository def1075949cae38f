// DISCONNECT (3.14), AUTH (3.15), PINGREQ and PINGRESP (3.12, 3.13).
#include "decoded.h"

using namespace tarn;
using namespace tarn::test;
using standard::Auth;
using standard::Disconnect;

namespace {

Decoded<Disconnect> decode(const char *bytes, Level level)
{
    Decoded<Disconnect> out = {wire(bytes), {}, {}};
    out.packet.shrink_to_fit();
    out.verdict = standard::decode_disconnect(out.packet, level, out.value);
    return out;
}

Decoded<Auth> decode_auth(const char *bytes, Level level = k5)
{
    Decoded<Auth> out = {wire(bytes), {}, {}};
    out.packet.shrink_to_fit();
    out.verdict = standard::decode_auth(out.packet, level, out.value);
    return out;
}

Reason pingreq(const char *bytes, Level level = k5)
{
    return standard::decode_pingreq(wire(bytes), level).reason;
}

} // namespace

TEST(disconnect, of_3_1_1_is_empty) // 3.1.1 [MQTT-3.14.1-1]
{
    EXPECT_OK(decode("E0 00", k311));
    for (const char *bytes : {"E0 01 00", "E0 02 00 00", "E1 00", "E0 01", "E0", ""})
        EXPECT_REFUSED(decode(bytes, k311), Reason::MalformedPacket);
}

TEST(disconnect, of_5_0_in_its_three_forms)
{
    const auto empty = decode("E0 00", k5);
    EXPECT_OK(empty);
    EXPECT_EQ(empty.value.reason, Reason::NormalDisconnection);
    const auto with_reason = decode("E0 01 04", k5);
    EXPECT_OK(with_reason);
    EXPECT_EQ(with_reason.value.reason, Reason::DisconnectWithWill);
    const auto whole = decode("E0 14 00 12 11 00 00 00 64 1F 00 03 'why' 26 00 01 'k' 00 01 'v'", k5);
    EXPECT_OK(whole);
    EXPECT_EQ(printed(whole.value.properties), "session_expiry=100 reason_string=why user:k=v ");
}

TEST(disconnect, refusals_of_5_0)
{
    for (const char *bytes :
         {"E1 00", "E0 02 00 01", "E0 03 00 00 00", "E0 03 00 01 02", "E0 04 00 02 21 00", "E0 80 00", ""})
        EXPECT_REFUSED(decode(bytes, k5), Reason::MalformedPacket); // [MQTT-3.14.1-1]
    for (const char *bytes : {"E0 01 01", "E0 01 7F", "E0 01 8E", "E0 01 9F", "E0 01 FF"})
        EXPECT_REFUSED(decode(bytes, k5), Reason::ProtocolError); // [MQTT-3.14.2-1]
}

TEST(disconnect_encode, in_its_shortest_form)
{
    Disconnect disconnect;
    EXPECT_EQ(hex(encoded(disconnect, {k5})), hex(wire("E0 00")));
    disconnect.reason = Reason::SessionTakenOver;
    EXPECT_EQ(hex(encoded(disconnect, {k5})), hex(wire("E0 01 8E")));
    disconnect.properties.server_reference = "other";
    disconnect.properties.reason_string    = "why";
    EXPECT_EQ(hex(encoded(disconnect, {k5})), hex(wire("E0 10 8E 0E 1C 00 05 'other' 1F 00 03 'why'")));
    EXPECT_EQ(hex(encoded(disconnect, {k5, 17})), hex(wire("E0 0A 8E 08 1C 00 05 'other'"))); // [MQTT-3.14.2-3]
    EXPECT_EQ(standard::size_of(disconnect, {k5, 11}), 0U);
}

TEST(disconnect_encode, there_is_none_to_3_1_1)
{
    Disconnect disconnect;
    disconnect.properties.reason_string = "why";
    EXPECT_EQ(standard::size_of(disconnect, {k311}), 0U);
    Bytes room(100);
    EXPECT_EQ(standard::encode(disconnect, {k311}, room), 0U);
}

TEST(auth, has_a_method_and_a_reason)
{
    const auto found = decode_auth("F0 0A 18 08 15 00 01 'm' 16 00 01 'd'");
    EXPECT_OK(found);
    EXPECT_EQ(found.value.reason, Reason::ContinueAuthentication);
    EXPECT_EQ(printed(found.value.properties), "authentication_method=m authentication_data=d ");
    EXPECT_OK(decode_auth("F0 06 19 04 15 00 01 'm'"));
}

TEST(auth, refusals)
{
    for (const char *bytes :
         {"F0 00", "F0 01 18", "F0 02 18 00", "F0 06 00 04 15 00 01 'm'", "F0 06 87 04 15 00 01 'm'"})
        EXPECT_REFUSED(decode_auth(bytes), Reason::ProtocolError); // [MQTT-3.15.2-1]
    for (const char *bytes :
         {"F1 06 18 04 15 00 01 'm'", "F0 07 18 04 15 00 01 'm' 00", "F0 02 18 04"}) // [MQTT-3.15.1-1]
        EXPECT_REFUSED(decode_auth(bytes), Reason::MalformedPacket);
    EXPECT_REFUSED(decode_auth("F0 06 18 04 15 00 01 'm'", k311), Reason::MalformedPacket);
}

TEST(ping, is_empty)
{
    for (const Level level : {k311, k5}) {
        EXPECT_EQ(pingreq("C0 00", level), Reason::Success);
        for (const char *bytes : {"C0 01 00", "C1 00", "C0", "", "C0 01"})
            EXPECT_EQ(pingreq(bytes, level), Reason::MalformedPacket);
        EXPECT_EQ(pingreq("E0 00", level), Reason::ProtocolError);
    }
    EXPECT_EQ(pingreq("C0 80 00", k5), Reason::MalformedPacket);
    EXPECT_EQ(hex(standard::kPingresp, sizeof standard::kPingresp), hex(wire("D0 00")));
}
