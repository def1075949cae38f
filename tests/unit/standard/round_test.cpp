// In a round of the network layer nothing is flushed before its end but what is for few.
#include "../net/net_fixture.h"
#include "standard/engine.h"
#include "tarn_sdk_mqtt_broker.h"

using namespace tarn;
using namespace tarn::test;

namespace {

class standard_round : public ::testing::Test {
protected:
    standard_round()
    {
        tarn_sdk_mqtt_broker_set_profile(broker_, TARN_PROFILE_STANDARD);
        EXPECT_EQ(tarn_sdk_mqtt_broker_init(broker_), TARN_OK);
        EXPECT_EQ(tarn_sdk_mqtt_broker_start(broker_, NETIP_PORT, 10), TARN_OK);
        standard::begin_round();
    }
    ~standard_round() override
    {
        standard::end_round();
        tarn_sdk_mqtt_broker_stop(broker_);
        tarn_sdk_mqtt_broker_deinit(broker_);
        tarn_sdk_mqtt_broker_destroy(broker_);
    }

    // Of a client of 3.1.1 that has subscribed to "t".
    static Peer subscriber(const char *letter)
    {
        Peer  peer;
        Bytes connect  = wire("10 0D 00 04 4D 51 54 54 04 02 00 00 00 01 00");
        connect.back() = static_cast<uint8_t>(*letter);
        peer.send(connect);
        EXPECT_EQ(hex(peer.receive(4)), "20 02 00 00");
        peer.send("82 06 00 01 00 01 74 00");
        EXPECT_EQ(hex(peer.receive(5)), "90 03 00 01 00");
        return peer;
    }
    uint32_t online()
    {
        tarn_sdk_mqtt_broker_stats_t stats{};
        EXPECT_EQ(tarn_sdk_mqtt_broker_get_stats(broker_, &stats), TARN_OK);
        return stats.online;
    }
    void publish() { EXPECT_EQ(tarn_sdk_mqtt_broker_publish(broker_, "t", "m", 1, 0, 0, 0), TARN_OK); }

    broker_t *const broker_ = tarn_sdk_mqtt_broker_create();
};

constexpr const char *kMessage = "30 04 00 01 74 6D";

} // namespace

TEST_F(standard_round, sends_before_its_end_what_is_for_few)
{
    EXPECT_FALSE(standard::send_in_round()) << "there is nothing";
    Peer one = subscriber("1"), other = subscriber("2");
    EXPECT_TRUE(eventually([&] { // another thread that enters the engine may flush first
        publish();
        return standard::send_in_round();
    }));
    EXPECT_EQ(hex(one.receive(6)), kMessage);
    EXPECT_EQ(hex(other.receive(6)), kMessage);
    EXPECT_FALSE(standard::send_in_round()) << "there is nothing any more";
}

TEST_F(standard_round, keeps_what_is_for_many_until_its_end)
{
    Peer one = subscriber("1"), other = subscriber("2"), third = subscriber("3");
    for (int i = 0; i < 20; ++i) {
        publish();
        EXPECT_FALSE(standard::send_in_round());
    }
    standard::end_round();
    EXPECT_EQ(hex(third.receive(6)), kMessage);
    standard::begin_round();
}

// What it sent before may still wait to be read.
TEST_F(standard_round, drops_a_connection_that_cannot_be_written_to_at_its_end)
{
    Peer one = subscriber("1");
    ASSERT_EQ(shutdown(g_netip_clients[0].fd, SHUT_WR), 0);
    EXPECT_TRUE(eventually([&] { // as above
        publish();
        return standard::send_in_round();
    }));
    EXPECT_EQ(online(), 1u);
    publish();
    standard::end_round();
    EXPECT_EQ(online(), 0u);
    standard::begin_round();
}
