#include "handler_fixture.h"
#include "support/log_lines/client.h"
#include "support/log_lines/handler.h"
#include "support/log_lines/persist.h"
#include "support/log_lines/qos.h"
#include "support/log_lines/sub.h"

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

void give_will(Client &client)
{
    client_set_will_msg(client, "w", reinterpret_cast<const uint8_t *>("x"), 1, 0, 0);
    client->session.will_flag  = 1;
    client->will_delay_pending = 1;
}

} // namespace

TEST(disconnect, v4_clean_session_line_by_line)
{
    Handling broker;
    broker.host.hear_events();
    Client client(broker, 4, "dev1");
    client->clean_session = 1;
    sub_add("dev1", "a", 0, 1);
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends("E0 00"), 0);
    EXPECT_THAT(log.take(),
                ElementsAre(logged::client_disconnects("dev1"), logged::will_delay_cancelled("dev1"),
                            logged::session_data_cleared("dev1"), logged::deliveries_dropped_of("dev1"),
                            logged::deliveries_dropped("dev1", 0), logged::subscription_removed("dev1", "所有", 1),
                            logged::subscriptions_removed_at_disconnect("dev1", 1), logged::client_closed("dev1"),
                            logged::deliveries_dropped_of("dev1"), logged::deliveries_dropped("dev1", 0)));
    EXPECT_THAT(broker.host.take(), ElementsAre(R"(1 {"clientId":"dev1","topic":"","qos":0})"));
    EXPECT_EQ(client->state, CLIENT_CLOSED);
    EXPECT_EQ(client->disconnect_received, 1);
    EXPECT_THAT(client.gets(), IsEmpty());
}

// It is closed like one of the pool, but the manager has nothing to release, so the last lines are missing.
TEST(disconnect, a_record_of_the_hosts_own_outside_the_pool_is_closed_but_not_released)
{
    Handling broker;
    broker.host.hear_events();
    const auto own = std::make_unique<mqtt_client_t>();
    mqtt_codec_ctx_init(&own->codec);
    own->codec.version   = 4;
    own->handle          = NETIP_NO_HANDLE;
    own->state           = CLIENT_LOGINED;
    own->used            = 1;
    own->broker          = &broker.host.broker;
    own->clean_session   = 1;
    own->max_packet_size = 4096;
    client_set_cid(own.get(), "dev1");
    sub_add("dev1", "a", 0, 1);
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(sends(own.get(), wire("E0 00")), 0);
    EXPECT_THAT(log.take(),
                ElementsAre(logged::client_disconnects("dev1"), logged::will_delay_cancelled("dev1"),
                            logged::session_data_cleared("dev1"), logged::deliveries_dropped_of("dev1"),
                            logged::deliveries_dropped("dev1", 0), logged::subscription_removed("dev1", "所有", 1),
                            logged::subscriptions_removed_at_disconnect("dev1", 1), logged::client_closed("dev1")));
    EXPECT_THAT(broker.host.take(), ElementsAre(R"(1 {"clientId":"dev1","topic":"","qos":0})"));
    EXPECT_EQ(own->state, CLIENT_CLOSED);
    EXPECT_EQ(own->used, 1);
    EXPECT_STREQ(own->client_id, "dev1");
    EXPECT_EQ(client_find_by_cid("dev1"), nullptr);
}

TEST(disconnect, v4_kept_session_line_by_line)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client->session.sub_count = 1;
    sub_add("dev1", "a", 0, 0);
    LogCapture log;
    EXPECT_EQ(client.sends("E0 00"), 0);
    std::vector<LogLine> lines = handler_lines(log);
    std::erase_if(lines, [](const LogLine &line) {
        return line.text.rfind("DISCONNECT decode", 0) == 0 || line.text.rfind("[遗嘱调试]", 0) == 0;
    });
    EXPECT_THAT(lines, ElementsAre(logged::packet_received("dev1", 14, 2), logged::client_disconnects("dev1"),
                                   logged::will_delay_cancelled("dev1"),
                                   info("持久化：客户端会话已保存 ClientID=dev1, 订阅数=1"),
                                   info("MQTT标准：CleanSession=false，保留客户端订阅：ClientID=dev1"),
                                   logged::max_packet_size_at_close(4096, "dev1"), logged::client_closed("dev1")));
    EXPECT_EQ(sub_get_client_sub_count("dev1"), 1);
}

TEST(disconnect, v5_with_an_interval_keeps_the_session)
{
    Handling broker;
    Client   client(broker, 5, "dev1");
    client->clean_session           = 1; // does not decide
    client->session_expiry_interval = 60;
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends("E0 02 00 00"), 0);
    const auto lines = log.take();
    EXPECT_EQ(lines[2], logged::disconnect_session(60, 1));
    EXPECT_EQ(lines[3], logged::session_expiry_keeps(60));
}

TEST(disconnect, v5_keeps_or_drops_the_files)
{
    Handling broker;
    for (const char *packet : {"E0 02 00 00", "E0 07 00 05 10 00 00 00 00"}) {
        Client client(broker);
        client.sends(connect_v5("dev1", wire("11 00 00 00 3C 27 00 00 10 00"), 0x00));
        client.sends("82 07 | 00 01 00 | 00 01 'a' 01");
        store("message", "dev1", R"({"msgs":[]})");
        client.sends(packet);
    }
    for (const char *kind : {"session", "subscription", "message"})
        EXPECT_EQ(stored(kind, "dev1"), "");
    EXPECT_EQ(sub_get_client_sub_count("dev1"), 1); // clean start 0
}

TEST(disconnect, v5_without_the_property_keeps_the_interval_of_connect)
{
    Handling broker;
    Client   client(broker);
    client.sends(connect_v5("dev1", wire("11 00 00 00 3C 27 00 00 10 00"), 0x00));
    client.sends("82 07 | 00 01 00 | 00 01 'a' 01");
    client.sends("E0 02 00 00");
    EXPECT_EQ(stored("subscription", "dev1"), R"({"subs":[{"topic":"a","qos":1}]})");
}

TEST(disconnect, v4_clean_session_removes_the_files)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client->clean_session = 1;
    for (const char *kind : {"session", "subscription", "message"})
        store(kind, "dev1", "{}");
    client.sends("E0 00");
    for (const char *kind : {"session", "subscription", "message"})
        EXPECT_EQ(stored(kind, "dev1"), "");
}

TEST(disconnect, a_kept_session_is_flushed_before_it_is_said)
{
    Handling broker;
    for (const uint32_t version : {4u, 5u}) {
        Client client(broker, version, "dev1");
        client->session_expiry_interval = 60;
        LogCapture log;
        client.sends(version == 5 ? wire("E0 02 00 00") : wire("E0 00"));
        EXPECT_TRUE(log.has(logged::persist_flushed()));
    }
}

TEST(disconnect, what_was_queued_before_leaves_before_the_close)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client.sends("82 06 | 00 01 | 00 01 'a' 01");
    client.sends("E0 00");
    EXPECT_EQ(client.gets_whole(), wire("90 03 00 01 01"));
    EXPECT_TRUE(client.is_closed());
}

TEST(disconnect, v5_with_interval_0_drops_the_session)
{
    Handling broker;
    Client   client(broker, 5, "dev1");
    client->session_expiry_interval = 60;
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends("E0 07 00 05 10 00 00 00 00"), 0);
    const auto lines = log.take();
    EXPECT_EQ(lines[1], logged::disconnect_session_expiry(0));
    EXPECT_EQ(lines[3], logged::disconnect_session(0, 0));
    EXPECT_EQ(lines[4], logged::session_expiry_clears());
    EXPECT_EQ(client->session_expiry_interval, 0u);
}

TEST(disconnect, v5_can_prolong_the_session)
{
    Handling   broker;
    Client     client(broker, 5, "dev1");
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends("E0 07 00 05 10 FF FF FF FE"), 0);
    EXPECT_TRUE(log.has(logged::disconnect_session_expiry(4294967294u)));
    EXPECT_TRUE(log.has(logged::session_expiry_keeps(4294967294u)));
}

TEST(disconnect, an_expiry_of_all_ones_keeps_the_interval)
{
    Handling broker;
    Client   client(broker, 5, "dev1");
    client->session_expiry_interval = 60;
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends("E0 07 00 05 10 FF FF FF FF"), 0);
    EXPECT_TRUE(log.has(logged::session_expiry_keeps(60)));
    EXPECT_FALSE(log.has(logged::disconnect_session_expiry(4294967295u)));
}

TEST(disconnect, prevents_the_will)
{
    Handling broker;
    Client   client(broker, 4, "dev1"), watcher(broker, 4, "watcher");
    sub_add("watcher", "w", 0, 1);
    give_will(client);
    EXPECT_EQ(client.sends("E0 00"), 0);
    EXPECT_EQ(client->will_msg_used, 0);
    EXPECT_EQ(client->session.will_flag, 0);
    EXPECT_EQ(client->will_delay_pending, 0);
    EXPECT_EQ(client->state, CLIENT_CLOSED);
    EXPECT_THAT(watcher.gets(), IsEmpty());
}

TEST(disconnect, reason_four_drops_the_will_too)
{
    Handling broker;
    Client   client(broker, 5, "dev1"), watcher(broker, 4, "watcher");
    sub_add("watcher", "w", 0, 1);
    give_will(client);
    EXPECT_EQ(client.sends("E0 02 04 00"), 0);
    EXPECT_THAT(watcher.gets(), IsEmpty());
}

TEST(disconnect, the_host_hears_of_it_before_the_session_is_saved_or_deleted)
{
    Handling broker;
    Client   client(broker, 5, "dev1");
    give_will(client);
    static mqtt_client_t *seen;
    seen                            = client;
    client->session_expiry_interval = 60;
    broker.host.broker.event_cb     = [](broker_t *, uint32_t kind, const char *) {
        EXPECT_EQ(kind, 1u);
        EXPECT_EQ(seen->disconnect_received, 1);
        EXPECT_EQ(seen->will_msg_used, 1);
        EXPECT_EQ(seen->state, CLIENT_LOGINED);
        EXPECT_EQ(seen->session_expiry_interval, 60u);
        seen = nullptr;
    };
    EXPECT_EQ(client.sends("E0 07 00 05 10 00 00 00 00"), 0);
    EXPECT_EQ(seen, nullptr);
}

TEST(disconnect, saves_the_subscriptions_of_a_kept_session)
{
    Handling broker;
    Client   client(broker);
    client.sends(connect_v4("dev1", 0));
    client->session.sub_count = 1;
    strcpy(client->session.subs[0].topic, "a");
    client.sends("E0 00");
    EXPECT_EQ(stored("subscription", "dev1"), R"({"subs":[{"topic":"a","qos":0}]})");
}

// ---- what a departing client leaves

TEST(remove_client_subs, needs_an_id)
{
    Handling   broker;
    LogCapture log;
    packet_handler_remove_client_subs(nullptr, 1);
    packet_handler_remove_client_subs("", 1);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(remove_client_subs, pending_deliveries_go_for_clean_and_persistent_sessions)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    for (const uint8_t clean : {0, 1}) {
        qos_reliable_add_packet(client, 7, 1, "t", "x", 1);
        sub_add("dev1", "a", 0, clean);
        packet_handler_remove_client_subs("dev1", clean);
        EXPECT_EQ(pending_count(), 0);
        EXPECT_EQ(sub_get_client_sub_count("dev1"), clean ? 0 : 1);
    }
}

TEST(remove_client_subs, an_id_without_a_record_has_subscriptions_only)
{
    Handling   broker;
    LogCapture log(AGENT_LOG_INFO);
    sub_add("gone", "a", 0, 1);
    log.take();
    packet_handler_remove_client_subs("gone", 1);
    EXPECT_THAT(log.take(), ElementsAre(logged::subscription_removed("gone", "所有", 1),
                                        logged::subscriptions_removed_at_disconnect("gone", 1)));
}

TEST(remove_client_subs, the_id_may_stand_in_the_table_itself)
{
    Handling broker;
    sub_add("dev1", "a", 0, 1);
    sub_add("dev2", "a", 0, 1);
    LogCapture log(AGENT_LOG_INFO);
    packet_handler_remove_client_subs(g_sub_mgr.subs[0].client_id, 1);
    EXPECT_EQ(log.take().back(), logged::subscriptions_removed_at_disconnect("dev1", 1));
    EXPECT_EQ(sub_get_client_sub_count("dev2"), 1);
}

// ---- DISCONNECT from the broker

TEST(send_disconnect, a_v5_client_gets_the_reason)
{
    Handling broker;
    Client   client(broker, 5, "dev1");
    packet_handler_send_disconnect(client, 0x98);
    EXPECT_THAT(client.gets(), ElementsAre(wire("E0 02 98 00")));
    EXPECT_EQ(client->state, CLIENT_LOGINED); // closing is the caller's
}

TEST(send_disconnect, a_v4_client_gets_two_bytes)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    packet_handler_send_disconnect(client, 0x98);
    EXPECT_THAT(client.gets(), ElementsAre(wire("E0 00")));
}

TEST(send_disconnect, at_no_known_level_sends_the_whole_empty_buffer)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client->codec.version = 0;
    packet_handler_send_disconnect(client, 0x98);
    EXPECT_EQ(client.gets_whole(), repeat(0, 128));
}

TEST(send_disconnect, the_packet_has_left_when_it_returns)
{
    Handling       broker;
    Client         client(broker, 5, "dev1");
    const uint64_t before = mono_ms();
    packet_handler_send_disconnect(client, 0x98);
    EXPECT_GE(mono_ms() - before, 10u);
    EXPECT_EQ(client.gets_whole(), wire("E0 02 98 00"));
    EXPECT_EQ(client->send_head, client->send_tail);
}

TEST(send_disconnect, without_a_connection_sends_nothing)
{
    Handling broker;
    Client   client(broker, 5, "dev1");
    client->handle = NETIP_NO_HANDLE;
    packet_handler_send_disconnect(client, 0x98);
    packet_handler_send_disconnect(nullptr, 0x98);
    EXPECT_THAT(client.gets(), IsEmpty());
}
