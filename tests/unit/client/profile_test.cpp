#include "client_fixture.h"
#include "net/netip_internal.h"

using namespace tarn;
using namespace tarn::client;
using namespace tarn::test;

namespace {

auto *const kBroker = reinterpret_cast<broker_t *>(0x1000);

std::vector<std::string> g_told; // what the profile was told

std::string name_of(net::Connection connection)
{
    return std::to_string(connection.handle) + "#" + std::to_string(connection.generation);
}

constexpr Profile kProfile{
    .opened =
        [](net::Connection connection, broker_t *broker) noexcept {
            g_told.push_back("opened " + name_of(connection) + (broker == kBroker ? "" : " by nobody"));
        },
    .packet =
        [](net::Connection connection, std::span<const uint8_t> packet) noexcept {
            g_told.push_back("packet " + name_of(connection) + " " + hex({packet.begin(), packet.end()}));
        },
    .closed   = [](uint32_t handle) noexcept { g_told.push_back("closed " + std::to_string(handle)); },
    .writable = [](uint32_t handle) noexcept { g_told.push_back("writable " + std::to_string(handle)); },
    .rounds   = {[] { g_told.emplace_back("begin"); }, [] { g_told.emplace_back("end"); }},
    .way      = {},
    .measure  = nullptr,
};

// In use while the test lasts.
class InUse {
public:
    InUse()
    {
        g_told.clear();
        use_profile(&kProfile);
    }
    ~InUse() { use_profile(nullptr); }
};

std::vector<std::string> take_told()
{
    return std::exchange(g_told, {});
}

uint8_t event(uint32_t handle, uint32_t kind, const Bytes &data = {}, uint32_t reason = 0)
{
    return mqtt_netip_event_cb(handle, kind, data.empty() ? nullptr : data.data(), static_cast<uint32_t>(data.size()),
                               reason, 0, kBroker);
}

client_ref make_logged_in(uint32_t handle, const char *id)
{
    client_ref client = make_record({handle, 0}, kBroker);
    name_record(*client, id, 5, true);
    EXPECT_TRUE(log_in_record(*client, 30));
    return client;
}

} // namespace

TEST(profile, is_told_of_connections_and_packets_in_the_place_of_packet_handling)
{
    const Manager manager;
    Socket        socket(7);
    const InUse   in_use;
    LogCapture    log(1);
    EXPECT_EQ(event(7, NETIP_EVENT_CONNECTED), 1);
    EXPECT_EQ(event(7, NETIP_EVENT_DATA, wire("C0 00"), 3), 1);
    EXPECT_EQ(event(7, NETIP_EVENT_DISCONNECTED), 1);
    EXPECT_THAT(take_told(),
                ElementsAre("opened 7#" + std::to_string(net::generation_of(7)), "packet 7#0 C0 00", "closed 7"));
    EXPECT_THAT(log.take(), ElementsAre(info("Client connected: handle=7, ip=192.0.2.7:4321"),
                                        info("Client disconnected: handle=7, reason=0, error=0")));
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_EQ(g_client_mgr.used_count, 0);
}

TEST(profile, hears_nothing_of_connections_that_are_not_tcp)
{
    const Manager manager;
    Socket        socket(7);
    const InUse   in_use;
    event(7, NETIP_EVENT_CONNECTED, {}, 3);
    EXPECT_THAT(take_told(), IsEmpty());
}

TEST(profile, has_the_hooks_of_the_network_layer_until_the_native_one_is_back)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    Socket               socket(1);
    {
        const InUse in_use;
        EXPECT_TRUE(init(100)); // leaves them
        net::call_round_begin();
        net::call_writable_hook(1);
        net::call_round_end();
        EXPECT_THAT(take_told(), ElementsAre("begin", "writable 1", "end"));
        deinit();
    }
    EXPECT_TRUE(init(100));
    log_in(1, "dev1");
    net::call_round_begin();
    EXPECT_NE(io_round(), 0u);
    send(client, {1});
    net::call_round_end();
    EXPECT_EQ(hex(socket.received()), "01");
    event(1, NETIP_EVENT_DATA, wire("C0 00"));
    EXPECT_THAT(g_told, IsEmpty());
}

TEST(profile, makes_records_that_hosts_see_as_native_ones)
{
    const Manager manager;
    Socket        socket(7);
    const InUse   in_use;
    client_ref    client = make_record({7, net::generation_of(7)}, kBroker);
    ASSERT_TRUE(client);
    EXPECT_EQ(client->state, uint32_t{CLIENT_CONNECTED});
    EXPECT_STREQ(client->ip, "192.0.2.7");
    EXPECT_EQ(client->port, 4321);
    EXPECT_EQ(client->broker, kBroker);
    EXPECT_EQ(client_get_connected_count(), 1u);
    name_record(*client, "dev1", 5, false);
    EXPECT_STREQ(client->client_id, "dev1");
    EXPECT_EQ(client->codec.version, 5u);
    EXPECT_EQ(client->clean_session, 0);
    EXPECT_EQ(client_find_by_cid("dev1"), nullptr) << "not before it is logged in";
    EXPECT_TRUE(log_in_record(*client, 65535));
    EXPECT_EQ(client->state, uint32_t{CLIENT_LOGINED});
    EXPECT_EQ(client->keepalive_ms, 65535000u);
    EXPECT_EQ(client_find_by_cid("dev1"), client.get());
    EXPECT_EQ(client_find_by_handle(7), client.get());
}

TEST(profile, makes_no_record_where_there_is_no_place)
{
    const Manager    manager(1);
    const InUse      in_use;
    const client_ref first = make_record({1, 0}, kBroker);
    LogCapture       log(2);
    EXPECT_FALSE(make_record({2, 0}, kBroker));
    EXPECT_THAT(log.take(), ElementsAre(error("Client pool full, max=1")));
}

TEST(profile, ends_a_record_without_a_line_a_file_or_a_close)
{
    const Manager manager(1);
    Socket        socket(7);
    const InUse   in_use;
    client_ref    client = make_logged_in(7, "dev1");
    take_calls();
    LogCapture log(1);
    end_record(*client);
    end_record(*client);
    EXPECT_EQ(client->state, uint32_t{CLIENT_CLOSED});
    EXPECT_STREQ(client->client_id, "dev1") << "until the last pin is gone";
    EXPECT_EQ(client_find_by_cid("dev1"), nullptr);
    EXPECT_EQ(client_find_by_handle(7), nullptr);
    EXPECT_EQ(client_get_connected_count(), 0u);
    EXPECT_FALSE(log_in_record(*client, 0));
    client.reset();
    EXPECT_TRUE(make_record({8, 0}, kBroker)) << "the place is free";
    EXPECT_FALSE(socket.closed_by_broker());
    EXPECT_THAT(own_lines(log), IsEmpty());
    EXPECT_THAT(take_calls(), testing::Not(testing::Contains(testing::HasSubstr("persist"))));
}

TEST(profile, finds_every_client_whatever_its_bucket)
{
    const Manager                  manager;
    const InUse                    in_use;
    const std::vector<std::string> ids    = ids_in_the_bucket_of("dev1", 2);
    client_ref                     first  = make_logged_in(1, "dev1");
    const client_ref               second = make_logged_in(2, ids[0].c_str());
    const client_ref               third  = make_logged_in(3, ids[1].c_str());
    EXPECT_EQ(client_find_by_cid("dev1"), first.get());
    EXPECT_EQ(client_find_by_cid(ids[0].c_str()), second.get());
    EXPECT_EQ(client_find_by_cid(ids[1].c_str()), third.get());
    end_record(*first);
    EXPECT_EQ(client_find_by_cid("dev1"), nullptr);
    EXPECT_EQ(client_find_by_cid(ids[0].c_str()), second.get());
}

TEST(profile, is_told_of_the_end_when_a_host_closes_a_record)
{
    const Manager    manager;
    Socket           socket(7);
    const InUse      in_use;
    const client_ref client = make_logged_in(7, "dev1");
    take_calls();
    client_close(client.get());
    EXPECT_TRUE(socket.closed_by_broker());
    EXPECT_EQ(client->state, uint32_t{CLIENT_LOGINED}) << "the profile ends it";
    EXPECT_THAT(take_calls(), IsEmpty());
}
