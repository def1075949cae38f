#include "handler_fixture.h"
#include "support/log_lines/codec.h"
#include "support/log_lines/handler.h"
#include "support/log_lines/sub.h"

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

Bytes subscribe(uint16_t id, std::initializer_list<std::pair<const char *, uint8_t>> filters, uint32_t version = 4)
{
    Bytes body = u16(id);
    if (version == 5)
        body.push_back(0);
    for (const auto &[filter, qos] : filters)
        body = body + prefixed(filter) + Bytes{qos};
    return packet(0x82, body);
}

void retain(const char *topic)
{
    retain_msg_set(topic, reinterpret_cast<const uint8_t *>("r"), 1, 0);
}

} // namespace

TEST(subscribe, v4_line_by_line)
{
    Handling broker;
    broker.host.hear_events();
    Client client(broker, 4, "dev1");
    client->clean_session = 1;
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends(subscribe(1, {{"a/b", 1}, {"c", 0}})), 0);
    EXPECT_THAT(handler_lines(log),
                ElementsAre(logged::subscribe_received("dev1", 1, 2), logged::subscribe_filter(0, "a/b", 1),
                            logged::subscribe_filter(1, "c", 0), logged::subscription_added("dev1", "a/b", 1, 1),
                            logged::subscribe_filter_granted(0, "a/b", 1, 1),
                            logged::subscription_added("dev1", "c", 0, 1),
                            logged::subscribe_filter_granted(1, "c", 0, 0), logged::subscribe_code_v4(1, 0x01),
                            logged::suback_sent("dev1", 1, 1, 0x01)));
    EXPECT_THAT(client.gets(), ElementsAre(wire("90 04 00 01 01 00")));
    EXPECT_THAT(broker.host.take(), ElementsAre(R"(3 {"clientId":"dev1","topic":"a/b","qos":1})",
                                                R"(3 {"clientId":"dev1","topic":"c","qos":0})"));
    EXPECT_EQ(client->session.sub_count, 2); // whatever the clean-session flag says
}

TEST(subscribe, granted_empty_and_refused_filters_in_one_packet)
{
    Handling broker;
    broker.host.ask_acl();
    broker.host.denied = "b";
    Client client(broker, 5, "dev1");
    retain("a/1");
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends(wire("82 11 | 00 07 00 | 00 03 'a/#' 01 | 00 01 00 00 | 00 01 'b' 02")), 0);
    EXPECT_THAT(handler_lines(log),
                ElementsAre(logged::subscribe_received("dev1", 7, 3), logged::subscribe_filter(0, "a/#", 1),
                            logged::subscribe_filter(1, "", 0), logged::subscribe_filter(2, "b", 2),
                            logged::subscription_added("dev1", "a/#", 1, 0),
                            logged::subscribe_filter_granted(0, "a/#", 1, 1),
                            logged::retained_sent("dev1", "a/1", "a/#"),
                            warn("【QoS溯源2】filter[1]：Topic为空，授予QoS=失败(0x80)"), warn("[ACL] 订阅被拒绝: b"),
                            logged::subscriptions_saved("dev1", 1), logged::subscribe_code_v5(1, 0x01),
                            logged::suback_sent("dev1", 7, 1, 0x01)));
    EXPECT_THAT(client.gets(), ElementsAre(wire("31 07 | 00 03 'a/1' 00 'r'"), wire("90 06 | 00 07 00 | 01 80 80")));
    EXPECT_THAT(broker.host.take(), ElementsAre("acl dev1 a/# 0", "acl dev1 b 0"));
}

TEST(subscribe, a_filter_that_begins_with_nul_is_the_empty_one)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    EXPECT_EQ(client.sends("82 06 | 00 01 | 00 01 00 01"), 0);
    EXPECT_THAT(client.gets(), ElementsAre(wire("90 03 00 01 80")));
    EXPECT_EQ(sub_get_client_sub_count("dev1"), 0);
}

TEST(subscribe, the_summary_is_the_first_filters_code)
{
    Handling broker;
    broker.host.ask_acl();
    broker.host.denied = "a";
    for (const uint32_t version : {4u, 5u}) {
        Client     client(broker, version, "dev1");
        LogCapture log(AGENT_LOG_INFO);
        EXPECT_EQ(client.sends(subscribe(2, {{"a", 0}, {"b", 2}}, version)), 0);
        const auto lines = handler_lines(log);
        EXPECT_EQ(lines.back(), logged::suback_sent("dev1", 2, 128, 0x80));
        EXPECT_EQ(lines.end()[-2], info(std::string("【QoS溯源3】MQTT ") + (version == 5 ? "5.0" : "3.1.1") +
                                        " Reason Code赋值：授权QoS=128 → ReasonCode=0x80"));
        EXPECT_THAT(client.gets(),
                    ElementsAre(version == 5 ? wire("90 05 00 02 00 80 02") : wire("90 04 00 02 80 02")));
    }
}

TEST(subscribe, what_the_table_refuses_gets_80)
{
    Handling   broker;
    Client     client(broker, 4, "dev1");
    LogCapture log(AGENT_LOG_WARN);
    EXPECT_EQ(client.sends(subscribe(2, {{"a", 3}, {"a#", 1}, {"ok", 1}})), 0);
    const auto lines = log.take();
    EXPECT_THAT(lines, testing::Contains(logged::subscribe_filter_refused(0, "a")));
    EXPECT_THAT(lines, testing::Contains(logged::subscribe_filter_refused(1, "a#")));
    EXPECT_THAT(client.gets(), ElementsAre(wire("90 05 00 02 80 80 01")));
    EXPECT_EQ(client->session.sub_count, 1);
}

TEST(subscribe, before_connect_every_filter_is_refused)
{
    Handling broker;
    Client   stranger(broker);
    EXPECT_EQ(stranger.sends(subscribe(2, {{"a", 0}})), 0);
    EXPECT_THAT(stranger.gets(), ElementsAre(wire("90 03 00 02 80")));
}

TEST(subscribe, retained_messages_come_before_the_suback)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    retain("a/1");
    retain("b");
    EXPECT_EQ(client.sends(subscribe(1, {{"b", 0}, {"a/+", 0}})), 0);
    EXPECT_THAT(client.gets(),
                ElementsAre(wire("31 04 00 01 'b' 'r'"), wire("31 06 00 03 'a/1' 'r'"), wire("90 04 00 01 00 00")));
}

TEST(subscribe, the_host_hears_of_a_filter_after_its_retained_messages)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    retain("a");
    static mqtt_client_t *subscriber;
    static int            queued;
    subscriber                  = client;
    queued                      = -1;
    broker.host.broker.event_cb = [](broker_t *, uint32_t, const char *) { queued = subscriber->send_tail; };
    EXPECT_EQ(client.sends(subscribe(1, {{"a", 0}})), 0);
    EXPECT_EQ(queued, 1);
}

// The wipe of a record in the pool is told how much of it was written.
TEST(subscribe, what_is_saved_is_wiped_by_the_next_connect)
{
    Handling broker;
    Client   client(broker);
    client.sends(connect_v4("dev1"));
    client.sends(subscribe(1, {{"a", 1}, {"b", 1}}));
    EXPECT_STREQ(client->session.subs[1].topic, "b");
    client.sends(connect_v4("dev1"));
    EXPECT_STREQ(client->session.subs[0].topic, "");
    EXPECT_STREQ(client->session.subs[1].topic, "");
}

TEST(subscribe, the_same_filter_again_changes_its_saved_qos)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client.sends(subscribe(1, {{"a", 0}, {"b", 1}}));
    client.sends(subscribe(2, {{"a", 2}}));
    EXPECT_EQ(client->session.sub_count, 2);
    EXPECT_STREQ(client->session.subs[0].topic, "a");
    EXPECT_EQ(client->session.subs[0].qos, 2);
    EXPECT_EQ(client->session.subs[1].qos, 1);
}

TEST(subscribe, the_33rd_filter_is_in_the_table_but_not_saved)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    for (int i = 0; i < 33; i++)
        EXPECT_EQ(client.sends(subscribe(1, {{std::to_string(i).c_str(), 0}})), 0);
    EXPECT_EQ(client->session.sub_count, 32);
    EXPECT_STREQ(client->session.subs[31].topic, "31");
    EXPECT_EQ(sub_get_client_sub_count("dev1"), 33);
    client.sends(subscribe(1, {{"5", 2}})); // a full list is not even updated
    EXPECT_EQ(client->session.subs[5].qos, 0);
    EXPECT_EQ(client.gets().size(), 34u);
}

TEST(subscribe, the_list_fills_up_in_the_middle_of_a_packet)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client->session.sub_count = 31;
    client.sends(subscribe(1, {{"x", 1}, {"y", 1}}));
    EXPECT_EQ(client->session.sub_count, 32);
    EXPECT_STREQ(client->session.subs[31].topic, "x");
}

TEST(subscribe, a_long_filter_is_saved_cut_and_each_time_anew)
{
    Handling          broker;
    Client            client(broker, 4, "dev1");
    const std::string fits(63, 'f'), longer(64, 'g');
    client.sends(subscribe(1, {{fits.c_str(), 0}}));
    client.sends(subscribe(1, {{fits.c_str(), 0}}));
    EXPECT_EQ(client->session.sub_count, 1);
    client.sends(subscribe(1, {{longer.c_str(), 0}}));
    client.sends(subscribe(1, {{longer.c_str(), 1}}));
    EXPECT_EQ(client->session.sub_count, 3);
    EXPECT_EQ(client->session.subs[1].topic, longer.substr(0, 63));
    EXPECT_EQ(client->session.subs[2].topic, longer.substr(0, 63));
    EXPECT_EQ(sub_get_client_sub_count("dev1"), 2);
}

TEST(subscribe, a_kept_session_writes_its_file)
{
    Handling broker;
    Client   client(broker);
    client.sends(connect_v4("dev1", 0));
    client.sends(subscribe(1, {{"a", 1}, {"b", 0}}));
    EXPECT_EQ(stored("subscription", "dev1"), R"({"subs":[{"topic":"a","qos":1},{"topic":"b","qos":0}]})");
    for (int i = 2; i < 33; i++)
        client.sends(subscribe(1, {{("f" + std::to_string(i)).c_str(), 0}}));
    const std::string file = stored("subscription", "dev1");
    EXPECT_NE(file.find("f31"), std::string::npos);
    EXPECT_EQ(file.find("f32"), std::string::npos);
}

TEST(subscribe, a_clean_session_writes_no_file)
{
    Handling broker;
    Client   client(broker);
    client.sends(connect_v4("dev1"));
    client.sends(subscribe(1, {{"a", 1}}));
    EXPECT_EQ(stored("subscription", "dev1"), "");
    EXPECT_EQ(g_sub_mgr.subs[0].clean_session, 1);
}

TEST(subscribe, without_memory_for_the_suback_fails)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client->clean_session = 1;
    client.sends(subscribe(1, {{"a", 0}}));
    client.gets();
    LogCapture log(AGENT_LOG_ERROR);
    {
        Fail fail(Call::Allocate, 1);
        EXPECT_EQ(client.sends(subscribe(2, {{"a", 0}})), -1);
        EXPECT_EQ(fail.failed(), 1);
    }
    EXPECT_THAT(log.take(), ElementsAre(logged::suback_no_memory()));
    EXPECT_THAT(client.gets(), IsEmpty());
    EXPECT_EQ(sub_get_client_sub_count("dev1"), 1);
}

TEST(subscribe, at_no_known_level_nothing_is_answered)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    client->codec.version = 0;
    LogCapture log(AGENT_LOG_INFO);
    EXPECT_EQ(client.sends(subscribe(2, {{"a", 0}})), 0);
    EXPECT_EQ(log.take().back(), logged::ack_encode_unsupported_version(0));
    EXPECT_THAT(client.gets(), IsEmpty());
}
