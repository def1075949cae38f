// The profile and its limits: what a host may set and when, and what the API does where the standard one serves.
#include "api_fixture.h"

#include "base/clock.h"
#include "net/netip.h"
#include "net/netip_link.h"
#include "stats/mqtt_stats.h"
#include "unit/net/net_fixture.h"

#include <cstring>

using namespace tarn;
using namespace tarn::test;

namespace {

constexpr const char *kBusyProfile = "ERROR [SDK] set_profile failed: broker is already running";
constexpr const char *kBusyLimit   = "ERROR [SDK] set_limit failed: broker is already running";
constexpr const char *kNull        = "ERROR [SDK] invalid broker handle";
constexpr const char *kStart       = "standard_start ./broker_data/standard";

// An initialised instance; the process is native again behind the test.
struct Host : testing::Test {
    QuietLog log;
    Instance broker;

    Host() { init(); }
    ~Host() override
    {
        tarn_sdk_mqtt_broker_stop(broker);
        tarn_sdk_mqtt_broker_deinit(broker);
        EXPECT_EQ(choose(TARN_PROFILE_NATIVE), TARN_OK);
        g_modules.standard_fails = false;
    }
    void init()
    {
        tarn_sdk_mqtt_broker_init(broker);
        (void)take_transcript();
    }
    void deinit()
    {
        tarn_sdk_mqtt_broker_stop(broker);
        tarn_sdk_mqtt_broker_deinit(broker);
        (void)take_transcript();
    }
    int32_t choose(uint32_t profile) { return tarn_sdk_mqtt_broker_set_profile(broker, profile); }
    int32_t set(uint32_t limit, uint64_t value) { return tarn_sdk_mqtt_broker_set_limit(broker, limit, value); }
    void    serve_standard()
    {
        ASSERT_EQ(choose(TARN_PROFILE_STANDARD), TARN_OK);
        ASSERT_EQ(broker.start(), TARN_OK);
        (void)take_transcript();
    }
};
using profile = Host;
using limit   = Host;

// A standard client that has connected.
void connect_as(Peer &peer, const char *id)
{
    Bytes packet  = wire("10 0D | 00 04 'MQTT' 04 02 00 3C | 00 01 'c'");
    packet.back() = static_cast<uint8_t>(*id);
    peer.send(packet);
    EXPECT_EQ(hex(peer.receive(4)), "20 02 00 00");
}

std::string online()
{
    char ids[100];
    tarn_sdk_mqtt_broker_get_client_id_list(nullptr, ids, sizeof ids);
    return ids;
}

} // namespace

// ---- set_profile, set_limit

TEST(profile_of_nobody, is_refused_with_its_line)
{
    QuietLog log;
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_profile(nullptr, TARN_PROFILE_STANDARD), TARN_E_PARAM);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_limit(nullptr, TARN_LIMIT_SESSIONS, 1), TARN_E_PARAM);
    EXPECT_THAT(take_transcript(), ElementsAre(kNull, kNull));
}

TEST_F(profile, is_one_of_two)
{
    EXPECT_EQ(choose(2), TARN_E_PARAM);
    EXPECT_EQ(choose(UINT32_MAX), TARN_E_PARAM);
    EXPECT_EQ(choose(TARN_PROFILE_STANDARD), TARN_OK);
    EXPECT_EQ(choose(TARN_PROFILE_NATIVE), TARN_OK);
    EXPECT_THAT(take_transcript(), IsEmpty());
}

TEST_F(profile, stays_while_the_broker_runs_and_while_the_layer_is_up)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    (void)take_transcript();
    EXPECT_EQ(choose(TARN_PROFILE_STANDARD), TARN_E_BUSY);
    EXPECT_EQ(choose(7), TARN_E_BUSY);
    EXPECT_EQ(set(TARN_LIMIT_SESSIONS, 1), TARN_E_BUSY);
    EXPECT_EQ(set(99, 1), TARN_E_BUSY);
    tarn_sdk_mqtt_broker_stop(broker);
    EXPECT_EQ(choose(TARN_PROFILE_STANDARD), TARN_E_BUSY) << "its clients are still served";
    EXPECT_EQ(set(TARN_LIMIT_SESSIONS, 1), TARN_E_BUSY);
    broker_t other{};
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_profile(&other, TARN_PROFILE_STANDARD), TARN_E_BUSY);
    EXPECT_THAT(take_lines(), ElementsAre(kBusyProfile, kBusyProfile, kBusyLimit, kBusyLimit,
                                          "INFO [SDK] broker stopped", kBusyProfile, kBusyLimit, kBusyProfile));
    tarn_sdk_mqtt_broker_deinit(broker);
    EXPECT_EQ(choose(TARN_PROFILE_STANDARD), TARN_OK);
    broker_t running{};
    running.running = 1;
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_profile(&running, TARN_PROFILE_NATIVE), TARN_E_BUSY) << "says its record";
}

TEST_F(limit, has_a_range)
{
    struct Range {
        uint32_t limit;
        uint64_t least, most;
    };
    constexpr uint64_t kMax = UINT32_MAX, kBytes = uint64_t{1} << 40;
    for (const auto &[which, least, most] :
         {Range{TARN_LIMIT_QUEUED_MESSAGES, 1, kMax}, Range{TARN_LIMIT_QUEUED_BYTES, 1, kBytes},
          Range{TARN_LIMIT_QOS0_MESSAGES, 1, kMax}, Range{TARN_LIMIT_QOS0_BYTES, 1, kBytes},
          Range{TARN_LIMIT_WILDCARD_SUBSCRIPTIONS, 0, kMax}, Range{TARN_LIMIT_SUBSCRIPTIONS, 1, kMax},
          Range{TARN_LIMIT_RECEIVE_MAXIMUM, 1, 65535}, Range{TARN_LIMIT_SESSION_EXPIRY, 0, kMax},
          Range{TARN_LIMIT_SESSIONS, 1, kMax}, Range{TARN_LIMIT_RETAINED_MESSAGES, 0, kMax},
          Range{TARN_LIMIT_RETAINED_BYTES, 0, kBytes}, Range{TARN_LIMIT_CONNECT_TIMEOUT, 100, 3600000}}) {
        EXPECT_EQ(set(which, least), TARN_OK) << which;
        EXPECT_EQ(set(which, most), TARN_OK) << which;
        EXPECT_EQ(set(which, most + 1), TARN_E_PARAM) << which;
        EXPECT_EQ(set(which, UINT64_MAX), TARN_E_PARAM) << which;
        EXPECT_EQ(set(which, least - 1), TARN_E_PARAM) << which; // below 0 it is too large
    }
    EXPECT_EQ(set(TARN_LIMIT_CONNECT_TIMEOUT + 1, 1), TARN_E_PARAM);
    EXPECT_EQ(set(UINT32_MAX, 1), TARN_E_PARAM);
    EXPECT_THAT(take_transcript(), IsEmpty());
}

TEST_F(limit, reaches_the_next_start)
{
    for (uint32_t which = 0; which <= TARN_LIMIT_CONNECT_TIMEOUT; ++which)
        ASSERT_EQ(set(which, 1000 + which), TARN_OK);
    serve_standard();
    const standard::Limits &limits = g_modules.limits;
    EXPECT_EQ(limits.queued_messages, 1000u);
    EXPECT_EQ(limits.queued_bytes, 1001u);
    EXPECT_EQ(limits.qos0_messages, 1002u);
    EXPECT_EQ(limits.qos0_bytes, 1003u);
    EXPECT_EQ(limits.wildcard_subscriptions, 1004u);
    EXPECT_EQ(limits.subscriptions, 1005u);
    EXPECT_EQ(limits.receive_maximum, 1006u);
    EXPECT_EQ(limits.session_expiry_max_s, 1007u);
    EXPECT_EQ(limits.sessions, 1008u);
    EXPECT_EQ(limits.retained_messages, 1009u);
    EXPECT_EQ(limits.retained_bytes, 1010u);
    EXPECT_EQ(limits.connect_timeout_ms, 1011u);
}

TEST_F(limit, of_packets_is_ten_megabytes_unless_the_host_sets_it)
{
    serve_standard();
    EXPECT_EQ(g_modules.limits.max_packet_size, 10485760u);
    deinit();
    init();
    ASSERT_EQ(tarn_sdk_mqtt_broker_set_max_packet_size(broker, 4096), TARN_OK);
    serve_standard();
    EXPECT_EQ(g_modules.limits.max_packet_size, 4096u);
}

// ---- life

TEST_F(profile, standard_comes_up_behind_the_manager_and_goes_down_behind_the_network)
{
    ASSERT_EQ(choose(TARN_PROFILE_STANDARD), TARN_OK);
    ASSERT_EQ(broker.start(), TARN_OK);
    EXPECT_THAT(take_calls(),
                ElementsAre("client_mgr_init 100", kStart, "netip_init threads=1 bridge packets=4096 without UDP"));
    EXPECT_TRUE(standard::is_on());
    EXPECT_NE(client::profile_in_use(), nullptr);
    EXPECT_EQ(g_netip_udp, -1);
    tarn_sdk_mqtt_broker_stop(broker);
    EXPECT_TRUE(standard::is_on());
    (void)take_transcript();
    tarn_sdk_mqtt_broker_deinit(broker);
    EXPECT_THAT(take_calls(), ElementsAre("netip_deinit", "standard_stop", "persist_destroy", "client_mgr_deinit",
                                          "mqtt_stats_deinit", "agent_log_deinit"));
    EXPECT_FALSE(standard::is_on());
}

TEST_F(profile, native_is_back_after_a_standard_life)
{
    serve_standard();
    {
        Peer peer;
        connect_as(peer, "s");
        peer.send("C0 00");
        EXPECT_EQ(hex(peer.receive(2)), "D0 00");
    }
    deinit();
    ASSERT_EQ(choose(TARN_PROFILE_NATIVE), TARN_OK);
    init();
    ASSERT_EQ(broker.start(), TARN_OK);
    EXPECT_THAT(take_calls(), ElementsAre("client_mgr_init 100", "netip_init threads=1 bridge packets=4096"));
    EXPECT_EQ(client::profile_in_use(), nullptr);
    EXPECT_NE(g_netip_udp, -1);
    Peer peer;
    peer.send("C0 00"); // answered before CONNECT, as only the native profile does
    EXPECT_EQ(hex(peer.receive(2)), "D0 00");
}

TEST_F(profile, clients_stay_over_stop_and_start)
{
    serve_standard();
    Peer peer;
    connect_as(peer, "s");
    tarn_sdk_mqtt_broker_stop(broker);
    peer.send("C0 00");
    EXPECT_EQ(hex(peer.receive(2)), "D0 00");
    (void)take_transcript();
    ASSERT_EQ(broker.start(), TARN_OK);
    EXPECT_THAT(take_calls(), IsEmpty());
    peer.send("C0 00");
    EXPECT_EQ(hex(peer.receive(2)), "D0 00");
    EXPECT_EQ(online(), "s");
}

TEST_F(profile, start_fails_where_the_standard_one_cannot)
{
    ASSERT_EQ(choose(TARN_PROFILE_STANDARD), TARN_OK);
    g_modules.standard_fails = true;
    EXPECT_EQ(broker.start(), TARN_E_RESOURCE);
    EXPECT_THAT(take_calls(), ElementsAre("client_mgr_init 100", kStart, "client_mgr_deinit"));
    EXPECT_FALSE(net::is_up());
    g_modules.standard_fails = false;
    EXPECT_EQ(broker.start(), TARN_OK);
}

TEST_F(profile, a_start_that_the_network_fails_takes_the_standard_one_down)
{
    ASSERT_EQ(choose(TARN_PROFILE_STANDARD), TARN_OK);
    {
        const Fail fail(Call::EpollCreate);
        EXPECT_EQ(broker.start(), TARN_E_RESOURCE);
    }
    EXPECT_FALSE(standard::is_on());
    EXPECT_EQ(client::profile_in_use(), nullptr);
    EXPECT_THAT(take_calls(),
                ElementsAre("client_mgr_init 100", kStart, "netip_init threads=1 bridge packets=4096 without UDP",
                            "standard_stop", "client_mgr_deinit"));
    EXPECT_EQ(broker.start(), TARN_OK);
}

TEST_F(profile, housekeeping_is_a_turn_of_the_standard_one_and_nothing_native)
{
    serve_standard();
    tarn_sdk_mqtt_broker_stop(broker);
    (void)take_transcript();
    const int64_t in_a_while_s = wall_s() + 100;
    api::housekeeping_turn(*static_cast<broker_t *>(broker), in_a_while_s);
    EXPECT_THAT(take_calls(), ElementsAre("standard_turn", "mqtt_stats_print", "mqtt_stats_reset_period"));
    api::housekeeping_turn(*static_cast<broker_t *>(broker), in_a_while_s);
    EXPECT_THAT(take_calls(), ElementsAre("standard_turn"));
}

// ---- control and queries

TEST_F(profile, publish_goes_to_the_standard_one)
{
    const auto publish = [&](const char *topic, uint8_t retain = 0) {
        return tarn_sdk_mqtt_broker_publish(broker, topic, "x", 1, 1, retain, 0);
    };
    ASSERT_EQ(choose(TARN_PROFILE_STANDARD), TARN_OK);
    EXPECT_EQ(publish("a/b", 1), TARN_E_NOT_RUNNING);
    ASSERT_EQ(broker.start(), TARN_OK);
    (void)take_transcript();
    EXPECT_EQ(publish("a/b"), TARN_OK);
    for (const char *const no_topic : {"", "a/#", "+", "a\xFF"})
        EXPECT_EQ(publish(no_topic), TARN_E_PARAM) << no_topic;
    EXPECT_EQ(publish(nullptr), TARN_E_PARAM);
    EXPECT_EQ(tarn_sdk_mqtt_broker_publish(broker, "a", "x", 0, 0, 0, 0), TARN_E_PARAM);
    EXPECT_EQ(tarn_sdk_mqtt_broker_publish(broker, "a", "x", 1, 3, 0, 0), TARN_E_PARAM);
    EXPECT_THAT(take_calls(), Not(Contains(testing::StartsWith("packet_handler_broker_publish"))));
}

TEST_F(profile, retained_messages_are_those_of_the_standard_one)
{
    char topics[200] = "";
    ASSERT_EQ(choose(TARN_PROFILE_STANDARD), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(broker, topics, sizeof topics), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_clear_retain(broker, "a/b"), TARN_E_NOT_FOUND);
    ASSERT_EQ(broker.start(), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(broker, topics, sizeof topics), TARN_OK);
    EXPECT_STREQ(topics, "");
    EXPECT_EQ(tarn_sdk_mqtt_broker_publish(broker, "a/b", "x", 1, 1, 1, 0), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(broker, topics, sizeof topics), TARN_OK);
    EXPECT_STREQ(topics, "a/b\n");
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(broker, topics, 0), TARN_E_PARAM);
    api::update_statistics();
    EXPECT_EQ(g_mqtt_stats.retain_msg, 1u);
    EXPECT_EQ(tarn_sdk_mqtt_broker_clear_retain(broker, "a/b"), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_clear_retain(broker, "a/b"), TARN_E_NOT_FOUND);
    EXPECT_EQ(tarn_sdk_mqtt_broker_clear_retain(broker, nullptr), TARN_E_PARAM);
}

TEST_F(profile, sessions_are_described)
{
    tarn_sdk_mqtt_session_info_t info{};
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_session_info(broker, "s", &info), TARN_E_NOT_RUNNING);
    serve_standard();
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_session_info(broker, nullptr, &info), TARN_E_PARAM);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_session_info(broker, "s", nullptr), TARN_E_PARAM);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_session_info(broker, "s", &info), TARN_E_NOT_FOUND);
    {
        Peer peer;
        peer.send("10 14 | 00 04 'MQTT' 04 04 00 3C | 00 01 's' 00 01 'w' 00 02 'ab'"); // with a will, to be kept
        EXPECT_EQ(hex(peer.receive(4)), "20 02 00 00");
        peer.send("82 0A | 00 01 | 00 01 'a' 00 | 00 01 'b' 01");
        EXPECT_EQ(hex(peer.receive(6)), "90 04 00 01 00 01");
        ASSERT_EQ(tarn_sdk_mqtt_broker_get_session_info(nullptr, "s", &info), TARN_OK);
        EXPECT_EQ(info.subscriptions, 2u);
        EXPECT_EQ(info.online, 1);
        EXPECT_EQ(info.kept, 1);
        EXPECT_EQ(info.has_will, 1);
        peer.send("E0 00");
        EXPECT_EQ(peer.end(), 0);
    }
    ASSERT_EQ(tarn_sdk_mqtt_broker_get_session_info(broker, "s", &info), TARN_OK);
    EXPECT_EQ(info.subscriptions, 2u);
    EXPECT_EQ(info.online, 0);
    EXPECT_EQ(info.kept, 1);
    EXPECT_EQ(info.has_will, 0);
}

TEST_F(profile, sessions_of_ids_that_no_record_holds_are_described_by_their_stored_form)
{
    serve_standard();
    Bytes connect = wire("10 70 | 00 04 'MQTT' 04 02 00 3C | 00 64");
    connect.insert(connect.end(), 100, 'x');
    Peer peer;
    peer.send(connect);
    EXPECT_EQ(hex(peer.receive(4)), "20 02 00 00");
    ASSERT_TRUE(eventually([] { return online().size() == 33; })) << online();
    EXPECT_EQ(online()[0], '~');
    tarn_sdk_mqtt_session_info_t info{};
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_session_info(broker, online().c_str(), &info), TARN_OK);
    EXPECT_EQ(info.online, 1);
    EXPECT_EQ(info.kept, 0);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_session_info(broker, std::string(100, 'x').c_str(), &info), TARN_E_NOT_FOUND);
}

TEST_F(profile, a_client_is_kicked_by_the_standard_one)
{
    serve_standard();
    Peer peer;
    connect_as(peer, "s");
    ASSERT_TRUE(eventually([] { return online() == "s"; }));
    broker_t other{};
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(&other, "s"), TARN_E_DENIED);
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(broker, "t"), TARN_E_NOT_FOUND);
    (void)take_transcript();
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(broker, "s"), TARN_OK);
    EXPECT_THAT(take_calls_and("kick"), ElementsAre("standard_kick 0 152", "INFO [SDK] kick client success: s"));
    EXPECT_TRUE(eventually([] { return online().empty(); }));
}

// ---- the end inside a callback

namespace {

void end_all(broker_t *broker)
{
    tarn_sdk_mqtt_broker_stop(broker);
    tarn_sdk_mqtt_broker_deinit(broker);
}

bool end_in_acl(broker_t *broker, const char * /*id*/, const char * /*topic*/, uint8_t /*action*/, mqtt_client_t *)
{
    end_all(broker);
    return true;
}

bool end_in_auth(broker_t *broker, const char * /*id*/, const char * /*user*/, const char * /*password*/)
{
    end_all(broker);
    return true;
}

// The client that was being served sees its connection end, and the next life serves.
void expect_end_and_new_life(profile &host, Peer &peer)
{
    EXPECT_EQ(peer.end(), 0);
    EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 0 && threads_named("tarn-lane") == 0; }));
    EXPECT_FALSE(standard::is_on());
    host.init();
    ASSERT_EQ(host.broker.start(), TARN_OK);
    Peer next;
    connect_as(next, "s");
    next.send("C0 00");
    EXPECT_EQ(hex(next.receive(2)), "D0 00");
}

} // namespace

TEST_F(profile, a_host_may_end_the_standard_one_while_it_is_asked_about_a_topic)
{
    for (const char *const packet : {"30 04 | 00 01 't' 'x'", "82 06 | 00 01 | 00 01 'a' 01"}) {
        serve_standard();
        Peer peer;
        connect_as(peer, "s");
        tarn_sdk_mqtt_broker_register_acl_callback(broker, end_in_acl);
        peer.send(packet);
        expect_end_and_new_life(*this, peer);
        deinit();
        init();
    }
}

TEST_F(profile, a_host_may_end_the_standard_one_while_it_is_asked_about_a_login)
{
    serve_standard();
    tarn_sdk_mqtt_broker_register_auth_callback(broker, end_in_auth);
    Peer peer;
    peer.send("10 0D | 00 04 'MQTT' 04 02 00 3C | 00 01 'c'");
    expect_end_and_new_life(*this, peer);
}

// ---- callbacks

TEST(callbacks, are_asked_only_where_there_is_one)
{
    broker_t  broker{};
    OwnClient client(&broker), orphan(nullptr);
    EXPECT_FALSE(api::asks_about_topics(*client.operator->()));
    EXPECT_FALSE(api::asks_about_logins(client->broker));
    tarn_sdk_mqtt_broker_register_acl_callback(
        &broker, [](broker_t *, const char *, const char *, uint8_t, mqtt_client_t *) { return true; });
    EXPECT_TRUE(api::asks_about_topics(*client.operator->()));
    EXPECT_FALSE(api::asks_about_logins(client->broker));
    tarn_sdk_mqtt_broker_register_auth_callback(
        &broker, [](broker_t *, const char *, const char *, const char *) { return true; });
    EXPECT_TRUE(api::asks_about_logins(client->broker));
    EXPECT_FALSE(api::asks_about_topics(*orphan.operator->()));
    EXPECT_FALSE(api::asks_about_logins(orphan->broker));
}

TEST(callbacks, are_told_of_clients_without_a_record)
{
    static std::string told;
    broker_t           broker{};
    api::tell(broker, "dev1", BROKER_EVENT_WILL, "a/b", 1);
    tarn_sdk_mqtt_broker_register_event_callback(
        &broker, [](broker_t *, uint32_t kind, const char *text) { told = std::to_string(kind) + " " + text; });
    api::tell(broker, "dev1", BROKER_EVENT_WILL, "a/b", 1);
    EXPECT_EQ(told, R"(5 {"clientId":"dev1","topic":"a/b","qos":1})");
}
