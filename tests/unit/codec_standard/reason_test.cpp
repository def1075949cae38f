// The reason codes of 5.0 (2.4) and where each may stand (the tables of 3.2 to 3.15), once more from the standard.
#include "codec/standard/reason.h"

#include <gtest/gtest.h>
#include <set>
#include <string>

using namespace tarn;
using namespace tarn::codec::standard;

namespace {

std::set<int> reasons_of(PacketType packet, bool of_client = false)
{
    std::set<int> found;
    for (int code = 0; code <= 0xFF; ++code) {
        const auto reason = static_cast<Reason>(code);
        if (of_client ? client_may_send(packet, reason) : may_stand_in(packet, reason))
            found.insert(code);
    }
    return found;
}

} // namespace

TEST(reason, stands_in_the_packets_of_its_tables)
{
    EXPECT_EQ(reasons_of(CONNACK), (std::set<int>{0x00, 0x80, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89,
                                                  0x8A, 0x8C, 0x90, 0x95, 0x97, 0x99, 0x9A, 0x9B, 0x9C, 0x9D, 0x9F}));
    const std::set<int> received = {0x00, 0x10, 0x80, 0x83, 0x87, 0x90, 0x91, 0x97, 0x99};
    EXPECT_EQ(reasons_of(PUBACK), received);
    EXPECT_EQ(reasons_of(PUBREC), received);
    EXPECT_EQ(reasons_of(PUBREL), (std::set<int>{0x00, 0x92}));
    EXPECT_EQ(reasons_of(PUBCOMP), (std::set<int>{0x00, 0x92}));
    EXPECT_EQ(reasons_of(SUBACK),
              (std::set<int>{0x00, 0x01, 0x02, 0x80, 0x83, 0x87, 0x8F, 0x91, 0x97, 0x9E, 0xA1, 0xA2}));
    EXPECT_EQ(reasons_of(UNSUBACK), (std::set<int>{0x00, 0x11, 0x80, 0x83, 0x87, 0x8F, 0x91}));
    EXPECT_EQ(reasons_of(DISCONNECT), (std::set<int>{0x00, 0x04, 0x80, 0x81, 0x82, 0x83, 0x87, 0x89, 0x8B, 0x8C,
                                                     0x8D, 0x8E, 0x8F, 0x90, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98,
                                                     0x99, 0x9A, 0x9B, 0x9C, 0x9D, 0x9E, 0x9F, 0xA0, 0xA1, 0xA2}));
    EXPECT_EQ(reasons_of(AUTH), (std::set<int>{0x00, 0x18, 0x19}));
    EXPECT_EQ(reasons_of(PUBLISH), std::set<int>());
}

TEST(reason, some_are_the_servers_alone)
{
    EXPECT_EQ(reasons_of(DISCONNECT, true),
              (std::set<int>{0x00, 0x04, 0x80, 0x81, 0x82, 0x83, 0x90, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99}));
    EXPECT_EQ(reasons_of(AUTH, true), (std::set<int>{0x18, 0x19}));
}

TEST(reason, each_has_a_name)
{
    EXPECT_STREQ(name_of(Reason::Success), "Success");
    EXPECT_STREQ(name_of(Reason::MalformedPacket), "Malformed Packet");
    EXPECT_STREQ(name_of(Reason::WildcardSubscriptionsNotSupported), "Wildcard Subscriptions not supported");
    std::set<std::string> names;
    for (int code = 0; code <= 0xFF; ++code)
        names.insert(name_of(static_cast<Reason>(code)));
    EXPECT_EQ(names.size(), 43U + 1); // "unknown" is one
    EXPECT_STREQ(name_of(static_cast<Reason>(0xA3)), "unknown");
}

TEST(reason, failures_start_at_0x80)
{
    EXPECT_FALSE(is_failure(Reason::Success));
    EXPECT_FALSE(is_failure(static_cast<Reason>(0x7F)));
    EXPECT_TRUE(is_failure(Reason::UnspecifiedError));
    EXPECT_TRUE(is_failure(static_cast<Reason>(0xFF)));
}

// 3.1.1 3.2.2.3
TEST(reason, return_codes_of_3_1_1)
{
    EXPECT_EQ(return_code_of(Reason::Success), 0);
    EXPECT_EQ(return_code_of(Reason::UnsupportedProtocolVersion), 1);
    EXPECT_EQ(return_code_of(Reason::ClientIdentifierNotValid), 2);
    EXPECT_EQ(return_code_of(Reason::ServerUnavailable), 3);
    EXPECT_EQ(return_code_of(Reason::ServerBusy), 3);
    EXPECT_EQ(return_code_of(Reason::BadUserNameOrPassword), 4);
    EXPECT_EQ(return_code_of(Reason::NotAuthorized), 5);
    EXPECT_EQ(return_code_of(Reason::Banned), 5);
    EXPECT_EQ(return_code_of(Reason::MalformedPacket), std::nullopt);
    EXPECT_EQ(return_code_of(Reason::ProtocolError), std::nullopt);
}
