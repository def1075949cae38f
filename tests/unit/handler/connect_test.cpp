#include "handler_fixture.h"
#include "support/log_lines/client.h"
#include "support/log_lines/codec.h"
#include "support/log_lines/handler.h"
#include "support/log_lines/qos.h"
#include "support/log_lines/sub.h"

using namespace tarn;
using namespace tarn::test;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

// ---- the whole of it

TEST(connect, v4_clean_session_line_by_line)
{
    Handling broker;
    broker.host.hear_events();
    Client     client(broker);
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends(connect_v4("dev1")), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::max_packet_size_unsupported(4096, "dev1"),
                                        logged::subscription_removed("dev1", "所有", 0), logged::session_cleared(),
                                        logged::will_delay_cancelled("dev1"), logged::connack_sent("dev1", 0)));
    EXPECT_THAT(client.gets(), ElementsAre(wire("20 02 00 00")));
    EXPECT_EQ(client->state, CLIENT_LOGINED);
    EXPECT_STREQ(client->client_id, "dev1");
    EXPECT_STREQ(client->session.client_id, "dev1");
    EXPECT_EQ(client->clean_session, 1);
    EXPECT_EQ(client->keepalive_ms, 60000u);
    EXPECT_EQ(client->session_expiry_interval, 0u);
    EXPECT_EQ(client->max_packet_size, 4096u);
    EXPECT_EQ(client_find_by_cid("dev1"), client);
    EXPECT_THAT(broker.host.take(), ElementsAre(R"(0 {"clientId":"dev1","topic":"","qos":0})"));
}

TEST(connect, v5_new_session_line_by_line)
{
    Handling   broker;
    Client     client(broker);
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends(connect_v5("dev5", wire("11 00 00 0E 10 | 27 00 00 02 00"), 0x00)), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::session_expiry_negotiated("dev5", 3600),
                                        logged::max_packet_size_negotiated("dev5", 512),
                                        info("[会话] CleanSession=0，但无历史数据，新建会话: dev5"),
                                        logged::will_delay_cancelled("dev5"), logged::connack_properties(512, 3600),
                                        logged::connack_sent("dev5", 0)));
    EXPECT_THAT(client.gets(), ElementsAre(wire("20 0B | 00 00 | 08 21 00 00 27 00 00 02 00")));
    EXPECT_EQ(client->session_expiry_interval, 3600u);
    EXPECT_EQ(client->max_packet_size, 512u);
    EXPECT_EQ(client->clean_session, 0);
}

TEST(connect, v4_has_no_session_expiry)
{
    Handling broker;
    Client   client(broker);
    client->session_expiry_interval = 77;
    LogCapture log;
    client.sends(connect_v4("dev1"));
    EXPECT_EQ(client->session_expiry_interval, 0u);
    EXPECT_TRUE(log.has(logged::session_expiry_unsupported()));
}

TEST(connect, an_absent_maximum_packet_size_becomes_256)
{
    Handling   broker;
    Client     client(broker);
    LogCapture log(AGENT_LOG_WARN);
    EXPECT_EQ(client.sends(connect_v5("dev5", {})), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::max_packet_size_raised(0, "dev5")));
    EXPECT_THAT(client.gets(), ElementsAre(wire("20 0B 00 00 08 21 00 00 27 00 00 01 00")));
    EXPECT_EQ(client.sends(packet(0xF0, repeat(0, 253))), 0);
    EXPECT_EQ(client.sends(packet(0xF0, repeat(0, 254))), -1);
    EXPECT_THAT(client.gets(), ElementsAre(wire("E0 02 95 00")));
}

TEST(connect, the_packet_size_floor_is_256)
{
    Handling   broker;
    Client     client(broker);
    LogCapture log;
    client.sends(connect_v5("dev5", wire("27 00 00 00 FF")));
    EXPECT_EQ(client->max_packet_size, 256u);
    EXPECT_TRUE(log.has(logged::max_packet_size_raised(255, "dev5")));
    client.sends(connect_v5("dev5", wire("27 00 00 01 00")));
    EXPECT_EQ(client->max_packet_size, 256u);
    EXPECT_TRUE(log.has(logged::max_packet_size_negotiated("dev5", 256)));
    client.sends(connect_v5("dev5", wire("27 00 00 01 01")));
    EXPECT_EQ(client->max_packet_size, 257u);
    client.sends(connect_v5("dev5", wire("27 FF FF FF FF")));
    EXPECT_EQ(client->max_packet_size, 0xFFFFFFFFu);
}

TEST(connect, an_empty_id_gets_an_automatic_one)
{
    Handling    broker;
    ManualClock clock;
    Client      client(broker);
    LogCapture  log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends(connect_v4("")), 0);
    EXPECT_STREQ(client->client_id, "auto_1800000000");
    EXPECT_STREQ(client->session.client_id, "auto_1800000000");
    EXPECT_TRUE(log.has(logged::connack_sent("auto_1800000000", 0)));
}

TEST(connect, the_record_keeps_63_characters_and_the_host_is_asked_about_all)
{
    Handling broker;
    broker.host.ask_auth();
    Client            client(broker);
    const std::string id(64, 'i');
    EXPECT_EQ(client.sends(connect_v5(id)), 0);
    EXPECT_EQ(client->client_id, id.substr(0, 63));
    EXPECT_THAT(broker.host.take(), ElementsAre("auth " + id + "  "));
}

TEST(connect, a_second_connect_is_processed_in_full)
{
    Handling broker;
    broker.host.hear_events();
    Client client(broker);
    EXPECT_EQ(client.sends(connect_v4("dev1")), 0);
    EXPECT_EQ(client.sends(connect_v5("dev2")), 0);
    EXPECT_THAT(client.gets(), ElementsAre(wire("20 02 00 00"), wire("20 0B 00 00 08 21 00 00 27 00 00 10 00")));
    EXPECT_EQ(client_find_by_cid("dev2"), client);
    EXPECT_EQ(broker.host.take().size(), 2u);
}

TEST(connect, a_second_client_of_an_id_leaves_the_first_open)
{
    Handling broker;
    Client   first(broker), second(broker);
    EXPECT_EQ(first.sends(connect_v4("dev1")), 0);
    EXPECT_EQ(second.sends(connect_v4("dev1")), 0);
    first.gets();
    EXPECT_EQ(first->state, CLIENT_LOGINED);
    EXPECT_EQ(client_find_by_cid("dev1"), second);
    EXPECT_EQ(first.sends("C0 00"), 0);
    EXPECT_THAT(first.gets(), ElementsAre(wire("D0 00")));
}

TEST(connect, that_does_not_decode_keeps_the_connection_and_its_new_level)
{
    Handling   broker;
    Client     client(broker);
    LogCapture log(AGENT_LOG_ERROR);
    EXPECT_EQ(client.sends("10 0C | 00 04 'MQTT' 05 02 00 3C 00 00 05"), -1);
    EXPECT_EQ(log.take().back(), logged::connect_undecodable());
    EXPECT_EQ(g_mqtt_stats.parse_error, 1u);
    EXPECT_EQ(client->state, CLIENT_CONNECTED);
    EXPECT_EQ(client->codec.version, 5u);
    EXPECT_THAT(client.gets(), IsEmpty());
}

TEST(connect, of_a_client_that_was_closed_meanwhile_ends_without_an_answer)
{
    Handling broker;
    broker.host.hear_events();
    for (const uint32_t state : {CLIENT_WILL_PENDING, CLIENT_CLOSED}) {
        Client client(broker);
        client->state = state;
        EXPECT_EQ(client.sends(connect_v4("dev1")), -1);
        EXPECT_EQ(client->state, state);
        EXPECT_THAT(client.gets(), IsEmpty());
    }
    EXPECT_THAT(broker.host.take(), IsEmpty());
}

// ---- authentication

TEST(connect, the_host_is_asked_for_id_name_and_password)
{
    Handling broker;
    broker.host.ask_auth();
    Client client(broker);
    EXPECT_EQ(client.sends(packet(0x10, wire("00 04 'MQTT' 04 C2 00 3C | 00 04 'dev1' | 00 03 'bob' | 00 02 'pw'"))),
              0);
    EXPECT_THAT(broker.host.take(), ElementsAre("auth dev1 bob pw"));
}

TEST(connect, a_refused_v4_client_sees_success_and_the_close)
{
    Handling broker;
    broker.host.ask_auth();
    broker.host.hear_events();
    broker.host.accepts = false;
    Client     client(broker);
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends(connect_v4("dev1")), -1);
    EXPECT_THAT(log.take(), ElementsAre(logged::connack_code_forced(), logged::session_removed_at_close(""),
                                        logged::client_closed(""), logged::deliveries_dropped_of(""),
                                        logged::deliveries_dropped("", 0)));
    EXPECT_THAT(client.gets(), ElementsAre(wire("20 02 00 00")));
    EXPECT_EQ(client->state, CLIENT_CLOSED);
    EXPECT_STREQ(client->client_id, "");
    EXPECT_THAT(broker.host.take(), ElementsAre("auth dev1  "));
}

TEST(connect, a_refused_v5_client_gets_code_86_and_the_close)
{
    Handling broker;
    broker.host.ask_auth();
    broker.host.accepts = false;
    Client client(broker);
    EXPECT_EQ(client.sends(connect_v5("dev1")), -1);
    EXPECT_THAT(client.gets(), ElementsAre(wire("20 0B 00 86 08 21 00 00 27 00 00 00 00")));
    EXPECT_EQ(client->state, CLIENT_CLOSED);
}

TEST(connect, the_refusal_has_ten_ms_to_leave_before_the_close)
{
    Handling broker;
    broker.host.ask_auth();
    broker.host.accepts = false;
    Client         client(broker);
    const uint64_t before = mono_ms();
    EXPECT_EQ(client.sends(connect_v4("dev1")), -1);
    EXPECT_GE(mono_ms() - before, 10u);
    EXPECT_EQ(client.gets_whole(), wire("20 02 00 00"));
    EXPECT_TRUE(client.is_closed());
}

// Only a host that reaches into the record from its callback can bring this about.
TEST(connect, a_connack_that_does_not_encode_is_left_out_and_the_rest_goes_on)
{
    Handling broker;
    broker.host.hear_events();
    store("message", "dev1", R"({"msgs":[{"msgid":9,"qos":1,"topic":"a","payload":"31"}]})");
    Client                client(broker);
    static mqtt_client_t *asking;
    asking                     = client;
    broker.host.broker.auth_cb = [](broker_t *, const char *, const char *, const char *) {
        asking->codec.version = 0;
        return true;
    };
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends(connect_v4("dev1", 0)), 0);
    EXPECT_FALSE(log.has(logged::connack_sent("dev1", 1)));
    EXPECT_THAT(client.gets(), IsEmpty());
    EXPECT_EQ(pending_count(), 1);
    EXPECT_EQ(broker.host.take().size(), 1u);
}

TEST(connect, a_refusal_that_does_not_encode_sends_the_empty_buffer)
{
    Handling              broker;
    Client                client(broker);
    static mqtt_client_t *asking;
    asking                     = client;
    broker.host.broker.auth_cb = [](broker_t *, const char *, const char *, const char *) {
        asking->codec.version = 0;
        return false;
    };
    EXPECT_EQ(client.sends(connect_v4("dev1")), -1);
    EXPECT_EQ(client.gets_whole(), repeat(0, 128));
}

TEST(connect, a_refused_client_is_closed_at_once_without_memory)
{
    Handling broker;
    broker.host.ask_auth();
    broker.host.accepts = false;
    Client     client(broker);
    LogCapture log(AGENT_LOG_ERROR);
    {
        Fail fail(Call::Allocate, 1);
        EXPECT_EQ(client.sends(connect_v4("dev1")), -1);
        EXPECT_EQ(fail.failed(), 1);
    }
    EXPECT_THAT(log.take(), ElementsAre(logged::connack_no_memory()));
    EXPECT_THAT(client.gets(), IsEmpty());
    EXPECT_EQ(client->state, CLIENT_CLOSED);
}

TEST(connect, without_memory_for_the_connack_the_connection_stays_and_the_rest_is_left_out)
{
    Handling broker;
    broker.host.hear_events();
    int refusals = 0;
    for (int nth = 1; nth <= 20; nth++) { // loading the session allocates, too
        Client     client(broker);
        LogCapture log(AGENT_LOG_ERROR);
        Fail       fail(Call::Allocate, nth);
        if (client.sends(connect_v4("dev1")) == 0) {
            EXPECT_EQ(broker.host.take().size(), 1u);
            continue;
        }
        EXPECT_EQ(fail.failed(), 1);
        EXPECT_THAT(log.take(), ElementsAre(logged::connack_no_memory()));
        EXPECT_EQ(client->state, CLIENT_LOGINED);
        EXPECT_THAT(client.gets(), IsEmpty());
        EXPECT_THAT(broker.host.take(), IsEmpty());
        refusals++;
    }
    EXPECT_EQ(refusals, 1);
}

// ---- the will of a CONNECT

namespace {

Bytes connect_with_will(uint8_t level, uint8_t flags, const Bytes &will_payload, const Bytes &will_properties = {})
{
    Bytes body = wire("00 04 'MQTT'") + Bytes{level, flags} + wire("00 3C");
    if (level == 5)
        body = body + wire("05 27 00 00 10 00");
    body = body + prefixed("dev1");
    if (level == 5)
        body = body + Bytes{static_cast<uint8_t>(will_properties.size())} + will_properties;
    return packet(0x10, body + prefixed("w/t") + u16(static_cast<unsigned>(will_payload.size())) + will_payload);
}

} // namespace

TEST(connect, a_will_is_stored_and_mirrored_line_by_line)
{
    Handling   broker;
    Client     client(broker);
    LogCapture log;
    EXPECT_EQ(client.sends(connect_with_will(4, 0x2C, text("gone"))), 0); // QoS 1, retain, session kept
    std::vector<LogLine> lines = handler_lines(log);
    std::erase_if(lines, [](const LogLine &line) {
        return line.text.find("WILL-CONNECT") == std::string::npos && line.text.rfind("67 ", 0) != 0;
    });
    EXPECT_THAT(lines, ElementsAre(info("[WILL-CONNECT] Client=dev1 set will:"),
                                   info("[WILL-CONNECT] Topic: w/t, QoS: 1, Retain: 1, PayloadLen: 4"),
                                   debug("[WILL-CONNECT] Payload"), debug("67 6F 6E 65 ")));
    EXPECT_EQ(client->will_msg_used, 1);
    EXPECT_STREQ(client->will_topic, "w/t");
    EXPECT_EQ(client->will_qos, 1);
    EXPECT_EQ(client->will_retain, 1);
    EXPECT_EQ(client->session.will_flag, 1);
    EXPECT_STREQ(client->session.will_topic, "w/t");
    EXPECT_EQ(client->session.will_qos, 1);
    EXPECT_EQ(client->session.will_len, 4u);
    EXPECT_EQ(memcmp(client->session.will_payload, "gone", 4), 0);
}

TEST(connect, a_v5_will_brings_delay_and_expiry)
{
    Handling   broker;
    Client     client(broker);
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends(connect_with_will(5, 0x04, text("x"), wire("18 00 00 00 1E 02 00 00 00 3C"))), 0);
    EXPECT_TRUE(log.has(logged::will_delay_stored("dev1", 30, 60)));
    EXPECT_EQ(client->will_delay_interval, 30u);
    EXPECT_EQ(client->will_msg_expiry_interval, 60u);
    EXPECT_EQ(client->session.will_delay_interval, 30u);
    EXPECT_EQ(client->session.will_msg_expiry_interval, 60u);
}

TEST(connect, a_v4_will_leaves_delay_and_expiry_alone)
{
    Handling   broker;
    Client     client(broker);
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends(connect_with_will(4, 0x06, text("x"))), 0);
    EXPECT_FALSE(log.has(logged::will_delay_stored("dev1", 0, 0)));
}

TEST(connect, a_will_above_1024_bytes_leaves_its_length_but_no_bytes_in_the_session)
{
    Handling broker;
    Client   client(broker);
    client->max_packet_size = 4096;
    EXPECT_EQ(client.sends(connect_with_will(4, 0x06, repeat('p', 1024))), 0);
    EXPECT_EQ(client->session.will_len, 1024u);
    EXPECT_EQ(client->session.will_payload[1023], 'p');
    EXPECT_EQ(client.sends(connect_with_will(4, 0x06, repeat('q', 1025))), 0);
    EXPECT_EQ(client->session.will_len, 1025u);
    EXPECT_EQ(client->session.will_payload[0], 0);
    EXPECT_EQ(client->will_payload_len, 1025u);
}

TEST(connect, the_session_holds_255_characters_of_the_will_topic)
{
    Handling          broker;
    Client            client(broker);
    const std::string topic(256, 't');
    EXPECT_EQ(
        client.sends(packet(0x10, wire("00 04 'MQTT' 04 06 00 3C | 00 04 'dev1'") + prefixed(topic) + wire("00 00"))),
        0);
    EXPECT_EQ(client->session.will_topic, topic.substr(0, 255));
    EXPECT_EQ(peek(client->will_topic), topic);
}

TEST(connect, only_a_kept_session_with_a_will_writes_its_file)
{
    Handling broker;
    Client   client(broker);
    client.sends(connect_with_will(4, 0x06, text("x"))); // clean
    EXPECT_EQ(stored("session", "dev1"), "");
    EXPECT_EQ(g_mqtt_stats.persist_write, 0u);
    client.sends(connect_v4("dev1", 0)); // no will
    EXPECT_EQ(stored("session", "dev1"), "");
    client.sends(connect_with_will(4, 0x04, text("x")));
    EXPECT_THAT(stored("session", "dev1"), testing::HasSubstr(R"("will_flag":true,"will_topic":"w/t")"));
}

TEST(connect, without_a_will_the_session_has_none)
{
    Handling broker;
    Client   client(broker);
    client->session.will_flag = 1;
    EXPECT_EQ(client.sends(connect_v4("dev1")), 0);
    EXPECT_EQ(client->session.will_flag, 0);
}

// ---- sessions

TEST(connect, a_clean_session_drops_the_subscriptions_of_the_id)
{
    Handling broker;
    Client   client(broker);
    sub_add("dev1", "a", 1, 0);
    sub_add("dev2", "a", 1, 0);
    EXPECT_EQ(client.sends(connect_v4("dev1")), 0);
    EXPECT_EQ(sub_get_client_sub_count("dev1"), 0);
    EXPECT_EQ(sub_get_client_sub_count("dev2"), 1);
}

TEST(connect, the_embedded_record_is_wiped)
{
    Handling broker;
    Client   client(broker);
    client->session.sub_count = 3;
    strcpy(client->session.subs[0].topic, "old");
    client->session_restored = 1;
    EXPECT_EQ(client.sends(connect_v4("dev1", 0)), 0);
    EXPECT_EQ(client->session.sub_count, 0);
    EXPECT_STREQ(client->session.subs[0].topic, "");
    EXPECT_EQ(client->session_restored, 0);
}

// The wipe of a record in the pool is told how much of it was written.
TEST(connect, what_was_loaded_is_wiped_by_the_next_connect)
{
    Handling broker;
    store("subscription", "dev1", R"({"subs":[{"topic":"a","qos":1},{"topic":"b","qos":1}]})");
    store("message", "dev1", R"({"msgs":[{"msgid":9,"qos":1,"topic":"t","payload":"6869"}]})");
    Client client(broker);
    client.sends(connect_v4("dev1")); // the lists stay behind, their counts do not
    EXPECT_STREQ(client->session.subs[1].topic, "b");
    EXPECT_STREQ(client->session.msgs[0].topic, "t");
    client.sends(connect_v4("dev2"));
    EXPECT_STREQ(client->session.subs[0].topic, "");
    EXPECT_STREQ(client->session.subs[1].topic, "");
    EXPECT_STREQ(client->session.msgs[0].topic, "");
}

TEST(connect, a_saved_session_is_restored_line_by_line)
{
    Handling broker;
    store("subscription", "dev1",
          R"({"subs":[{"topic":"a/+","qos":1},{"topic":"bad/#/x","qos":0},{"topic":"b","qos":2}]})");
    store("message", "dev1", R"({"msgs":[{"msgid":9,"qos":1,"topic":"b","payload":"6869"}]})");
    Client     client(broker);
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends(connect_v4("dev1", 0)), 0);
    EXPECT_THAT(handler_lines(log),
                ElementsAre(logged::max_packet_size_unsupported(4096, "dev1"), logged::session_loaded("dev1", 3, 1),
                            logged::subscription_added("dev1", "a/+", 1, 0), logged::subscription_resumed("a/+", 1),
                            logged::subscription_added("dev1", "b", 2, 0), logged::subscription_resumed("b", 2),
                            logged::session_resumed("dev1"), logged::will_delay_cancelled("dev1"),
                            logged::connack_sent("dev1", 1), logged::kept_messages_started("dev1", 1),
                            logged::kept_messages_ended("dev1")));
    EXPECT_THAT(client.gets(), ElementsAre(wire("20 02 01 00")));
    EXPECT_EQ(sub_get_client_sub_count("dev1"), 2);
    EXPECT_EQ(pending_count(), 1);
    EXPECT_EQ(client->session_restored, 1);
}

TEST(connect, a_resumed_session_gets_retained_messages_again)
{
    Handling broker;
    store("subscription", "dev1", R"({"subs":[{"topic":"a/#","qos":0},{"topic":"b","qos":0}]})");
    for (const char *topic : {"b", "a/1"})
        retain_msg_set(topic, reinterpret_cast<const uint8_t *>("r"), 1, 0);
    Client client(broker);
    EXPECT_EQ(client.sends(connect_v4("dev1", 0)), 0);
    EXPECT_THAT(client.gets(),
                ElementsAre(wire("20 02 01 00"), wire("31 06 00 03 'a/1' 'r'"), wire("31 04 00 01 'b' 'r'")));
}

TEST(connect, the_host_hears_of_it_when_everything_is_done)
{
    Handling broker;
    store("subscription", "dev1", R"({"subs":[{"topic":"r","qos":0}]})");
    store("message", "dev1", R"({"msgs":[{"msgid":9,"qos":1,"topic":"b","payload":"6869"}]})");
    retain_msg_set("r", reinterpret_cast<const uint8_t *>("r"), 1, 0);
    Client                client(broker);
    static mqtt_client_t *connected;
    static int            heard;
    connected                   = client;
    heard                       = 0;
    broker.host.broker.event_cb = [](broker_t *, uint32_t, const char *) {
        EXPECT_EQ(connected->send_tail, 2); // CONNACK and the retained message
        EXPECT_EQ(pending_count(), 1);
        heard++;
    };
    EXPECT_EQ(client.sends(connect_v4("dev1", 0)), 0);
    EXPECT_EQ(heard, 1);
}

TEST(connect, a_clean_session_discards_what_was_loaded)
{
    Handling broker;
    store("session", "dev1", "{}");
    store("subscription", "dev1", R"({"subs":[{"topic":"a","qos":1}]})");
    store("message", "dev1", R"({"msgs":[{"msgid":9,"qos":1,"topic":"b","payload":"6869"}]})");
    Client     client(broker);
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends(connect_v4("dev1")), 0);
    EXPECT_TRUE(log.has(logged::session_loaded("dev1", 1, 1)));
    EXPECT_TRUE(log.has(logged::connack_sent("dev1", 0)));
    EXPECT_EQ(client->session.sub_count, 0);
    EXPECT_EQ(client->session.msg_count, 0);
    EXPECT_EQ(client->session_restored, 0);
    EXPECT_EQ(pending_count(), 0);
    for (const char *kind : {"session", "subscription", "message"})
        EXPECT_EQ(stored(kind, "dev1"), "");
    EXPECT_EQ(sub_get_client_sub_count("dev1"), 0);
}

TEST(connect, a_clean_session_deletes_files_that_cannot_be_read)
{
    Handling broker;
    for (const char *kind : {"session", "subscription", "message"})
        store(kind, "dev1", "{}");
    Client client(broker);
    {
        Fail no_file(Call::FileOpen, 1, EMFILE, 1000);
        EXPECT_EQ(client.sends(connect_v4("dev1")), 0);
        EXPECT_GT(no_file.failed(), 0);
    }
    for (const char *kind : {"session", "subscription", "message"})
        EXPECT_EQ(stored(kind, "dev1"), "");
}

TEST(connect, a_restored_will_is_never_retained)
{
    Handling broker;
    store("session", "dev1", R"({"will_flag":true,"will_topic":"w","will_qos":1,"will_len":1500})");
    Client     client(broker);
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends(connect_v4("dev1", 0)), 0);
    EXPECT_TRUE(log.has(info("[遗嘱] 客户端 dev1 遗嘱恢复成功")));
    EXPECT_EQ(client->will_msg_used, 1);
    EXPECT_EQ(client->will_retain, 0);
    EXPECT_EQ(client->will_payload_len, 1500u); // more than the record holds: zeroes
    EXPECT_EQ(client->session.will_flag, 0);    // this CONNECT has none
}

// ---- delayed wills

namespace {

// A client of the pool that has vanished with a will.
mqtt_client_t *vanished(Handling &broker, uint32_t handle, const char *id, uint32_t delay_s = 30)
{
    mqtt_client_t *const client = client_create(handle, "10.0.0.1", 4711, &broker.host.broker);
    client_set_cid(client, id);
    client->state         = CLIENT_LOGINED;
    client->clean_session = 1;
    client_set_will_msg(client, "w", reinterpret_cast<const uint8_t *>("x"), 1, 0, 0);
    client_set_will_enhance(client, delay_s, 0, 0, "", "", nullptr, 0);
    client_close(client);
    return client;
}

} // namespace

TEST(connect, a_reconnect_cancels_the_delayed_wills_of_its_id)
{
    Handling             broker;
    mqtt_client_t *const first  = vanished(broker, 1, "dev1");
    mqtt_client_t *const other  = vanished(broker, 2, "dev10");
    mqtt_client_t *const second = vanished(broker, 3, "dev1");
    ASSERT_EQ(g_will_delay_client_count, 3);
    ASSERT_EQ(first->state, CLIENT_WILL_PENDING);

    Client     client(broker);
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends(connect_v4("dev1")), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::max_packet_size_unsupported(4096, "dev1"),
                                        logged::subscription_removed("dev1", "所有", 0), logged::session_cleared(),
                                        logged::will_delay_cancelled("dev1"), // its own
                                        logged::will_delay_cancelled("dev1"), logged::deliveries_dropped_of("dev1"),
                                        logged::deliveries_dropped("dev1", 0), logged::will_delay_cancelled("dev1"),
                                        logged::deliveries_dropped_of("dev1"), logged::deliveries_dropped("dev1", 0),
                                        logged::connack_sent("dev1", 0)));
    EXPECT_EQ(first->state, CLIENT_CLOSED);
    EXPECT_EQ(first->used, 0);
    EXPECT_EQ(second->used, 0);
    EXPECT_EQ(other->state, CLIENT_WILL_PENDING);
    EXPECT_EQ(g_will_delay_client_count, 1);
    EXPECT_EQ(client_find_by_cid("dev1"), client);
    EXPECT_EQ(g_mqtt_stats.will_sent, 0u);
    pool_free(other);
}

TEST(connect, a_refused_connect_cancels_no_will)
{
    Handling broker;
    broker.host.ask_auth();
    broker.host.accepts          = false;
    mqtt_client_t *const waiting = vanished(broker, 1, "dev1");
    Client               client(broker);
    EXPECT_EQ(client.sends(connect_v4("dev1")), -1);
    EXPECT_EQ(waiting->will_delay_pending, 1);
    EXPECT_EQ(g_will_delay_client_count, 1);
    pool_free(waiting);
}

TEST(connect, a_will_that_another_thread_has_claimed_is_left_to_it)
{
    Handling             broker;
    mqtt_client_t *const waiting = vanished(broker, 1, "dev1");
    Client               client(broker);
    {
        const client::Claim claim(*waiting); // as the will scan does
        ASSERT_TRUE(claim);
        EXPECT_EQ(client.sends(connect_v4("dev1")), 0);
        EXPECT_EQ(waiting->state, CLIENT_WILL_PENDING);
        EXPECT_EQ(waiting->will_delay_pending, 1);
    }
    pool_free(waiting);
}

TEST(connect, the_place_of_a_cancelled_will_serves_its_next_owner_in_full)
{
    Handling             broker;
    mqtt_client_t *const waiting = vanished(broker, 1, "dev1");
    Client               client(broker);
    EXPECT_EQ(client.sends(connect_v4("dev1")), 0);
    mqtt_client_t *const next = client_create(2, "10.0.0.2", 4711, &broker.host.broker);
    ASSERT_EQ(next, waiting);
    client_close(next);
    EXPECT_EQ(next->used, 0);
}

// The host kicks the client while it is asked about it, and refuses it then.
TEST(connect, a_refused_client_that_was_closed_meanwhile_is_not_closed_again)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client_set_will_msg(client, "w", reinterpret_cast<const uint8_t *>("x"), 1, 0, 0);
    client_set_will_enhance(client, 30, 0, 0, "", "", nullptr, 0);
    static mqtt_client_t *kicked;
    kicked                     = client;
    broker.host.broker.auth_cb = [](broker_t *, const char *, const char *, const char *) {
        client_close(kicked);
        return false;
    };
    EXPECT_EQ(client.sends(connect_v4("dev1")), -1);
    EXPECT_EQ(client->state, CLIENT_WILL_PENDING);
    EXPECT_EQ(client->will_delay_pending, 1);
    EXPECT_EQ(g_will_delay_client_count, 1);
}

TEST(connect, records_of_the_id_without_a_delay_running_stay)
{
    Handling             broker;
    mqtt_client_t *const waiting = vanished(broker, 1, "dev1");
    mqtt_client_t *const sent    = vanished(broker, 2, "dev1", 0);
    mqtt_client_t *const online  = client_create(3, "10.0.0.1", 4711, &broker.host.broker);
    client_set_cid(online, "dev1");
    online->will_delay_pending = 1;
    Client client(broker);
    EXPECT_EQ(client.sends(connect_v4("dev1")), 0);
    EXPECT_EQ(waiting->used, 0);
    EXPECT_EQ(sent->state, CLIENT_WILL_PENDING); // its will is out
    EXPECT_EQ(sent->used, 1);
    EXPECT_EQ(online->will_delay_pending, 1);
    EXPECT_EQ(online->used, 1);
    pool_free(sent);
    pool_free(online);
}
