// Lifecycle calls from inside a callback: on the library's threads and on the host's own.
#include "api/broker.h"
#include "api_fixture.h"

#include "client/client.h"
#include "net/netip_link.h"
#include "unit/net/net_fixture.h"

using namespace tarn;
using namespace tarn::test;

namespace {

// What the event and the access-control callback do, and how often they did it.
std::function<void(broker_t *)> g_act;
std::atomic<int>                g_calls{0};

void on_event(broker_t *broker, uint32_t, const char *)
{
    if (g_act)
        g_act(broker);
    g_calls.fetch_add(1);
}
bool on_acl(broker_t *broker, const char *, const char *, uint8_t, mqtt_client_t *)
{
    on_event(broker, 0, "");
    return true;
}

struct in_callback : testing::Test {
    QuietLog log;
    Instance broker;

    in_callback()
    {
        tarn_sdk_mqtt_broker_init(broker);
        g_calls = 0;
    }
    ~in_callback() override
    {
        if (broker)
            tarn_sdk_mqtt_broker_stop(broker); // its thread calls what is cleared here
        g_act             = nullptr;
        g_modules.on_turn = nullptr;
    }
    // Starts the instance; then a turn of its housekeeping thread calls the event callback, once.
    void act_on_housekeeping_thread(std::function<void(broker_t *)> act)
    {
        tarn_sdk_mqtt_broker_register_event_callback(broker, on_event);
        g_act             = std::move(act);
        g_modules.on_turn = [client = std::make_shared<OwnClient>(broker), this] {
            if (started && g_calls == 0)
                broker_fire_event(*client, BROKER_EVENT_WILL, "t", 0);
        };
        ASSERT_EQ(broker.start(), TARN_OK);
        started = true;
    }
    std::atomic<bool> started{false};
};

// In another thread, from inside a callback.
void from_a_callback_elsewhere(broker_t *broker, std::function<void(broker_t *)> act)
{
    tarn_sdk_mqtt_broker_register_event_callback(broker, on_event);
    g_act = std::move(act);
    OwnClient client(broker);
    std::thread([&] { broker_fire_event(client, BROKER_EVENT_PUBLISH, "t", 0); }).join();
    g_act = nullptr;
}

const char *const kConnect         = "10 0D | 00 04 'MQTT' 04 02 00 3C | 00 01 'c'";
const char *const kConnectWithWill = "10 15 | 00 04 'MQTT' 04 06 00 3C | 00 01 'c' | 00 01 'w' | 00 03 'die'";
const char *const kPublish         = "30 06 | 00 01 't' | 'abc'";

} // namespace

TEST_F(in_callback, is_known_and_over_when_the_last_one_returns)
{
    EXPECT_FALSE(api::in_callback());
    bool      inside = false, behind_nested = false, in_acl = false;
    OwnClient client(broker);
    tarn_sdk_mqtt_broker_register_event_callback(broker, on_event);
    tarn_sdk_mqtt_broker_register_acl_callback(broker, on_acl);
    g_act = [&](broker_t *) {
        if (std::exchange(inside, true))
            return; // the nested one
        inside = api::in_callback();
        broker_fire_acl(client, "t", BROKER_ACL_PUBLISH);
        behind_nested = api::in_callback();
    };
    broker_fire_event(client, BROKER_EVENT_PUBLISH, "t", 0);
    EXPECT_EQ(g_calls, 2);
    EXPECT_TRUE(inside);
    EXPECT_TRUE(behind_nested);
    EXPECT_FALSE(api::in_callback());
    g_act = [&](broker_t *) { in_acl = api::in_callback(); };
    EXPECT_TRUE(broker_fire_acl(client, "t", BROKER_ACL_SUBSCRIBE));
    EXPECT_TRUE(in_acl);
    EXPECT_FALSE(api::in_callback());
    static bool in_auth = false;
    tarn_sdk_mqtt_broker_register_auth_callback(
        broker, [](broker_t *, const char *, const char *, const char *) { return in_auth = api::in_callback(); });
    EXPECT_TRUE(broker_fire_auth(client, "", "", ""));
    EXPECT_TRUE(in_auth);
    EXPECT_FALSE(api::in_callback());
}

// The packet that asked goes on with the client, and the client with its instance.
TEST_F(in_callback, on_the_io_thread_everything_may_be_ended)
{
    tarn_sdk_mqtt_broker_register_acl_callback(broker, on_acl);
    g_act = [](broker_t *instance) {
        EXPECT_EQ(tarn_sdk_mqtt_broker_stop(instance), TARN_OK);
        tarn_sdk_mqtt_broker_deinit(instance);
        tarn_sdk_mqtt_broker_destroy(instance);
    };
    ASSERT_EQ(broker.start(), TARN_OK);
    Peer peer;
    peer.send(kConnect);
    EXPECT_EQ(hex(peer.receive(4)), "20 02 00 00");
    peer.send(kPublish);
    EXPECT_TRUE(eventually([] { return g_calls == 1; }));
    (void)broker.release();
    EXPECT_EQ(peer.end(), 0);
    EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 0; }));
    EXPECT_TRUE(eventually([] { return threads_named("tarn-house") == 0; }));
    g_act = nullptr;

    Instance other;
    EXPECT_EQ(tarn_sdk_mqtt_broker_init(other), TARN_OK);
    EXPECT_EQ(other.start(), TARN_OK);
    Peer next;
    next.send(kConnect);
    EXPECT_EQ(hex(next.receive(4)), "20 02 00 00");
}

// deinit closes the clients, and their wills call back, on the host's own thread.
TEST_F(in_callback, of_a_deinit_nothing_can_be_begun_or_ended)
{
    tarn_sdk_mqtt_broker_register_event_callback(broker, on_event);
    ASSERT_EQ(broker.start(), TARN_OK);
    Peer peer;
    peer.send(kConnectWithWill);
    EXPECT_EQ(hex(peer.receive(4)), "20 02 00 00");
    EXPECT_TRUE(eventually([] { return g_calls == 1; }));
    const auto caller = std::this_thread::get_id();
    g_act             = [&](broker_t *instance) {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        EXPECT_EQ(tarn_sdk_mqtt_broker_init(instance), TARN_E_BUSY);
        EXPECT_EQ(tarn_sdk_mqtt_broker_start(instance, 1883, 100), TARN_E_BUSY);
        EXPECT_EQ(tarn_sdk_mqtt_broker_start(instance, 0, 100), TARN_E_PARAM);
        tarn_sdk_mqtt_broker_deinit(instance);
        tarn_sdk_mqtt_broker_destroy(instance);
        EXPECT_EQ(tarn_sdk_mqtt_broker_stop(instance), TARN_OK);
    };
    (void)take_calls();
    tarn_sdk_mqtt_broker_deinit(broker);
    EXPECT_EQ(g_calls, 2);
    EXPECT_THAT(take_calls_and("[WILL-ENTER]"),
                ElementsAre("netip_deinit", "WARN [WILL-ENTER] 客户端进入遗嘱延迟: c, will_delay_sec=0",
                            "persist_destroy", "client_mgr_deinit", "mqtt_stats_deinit", "agent_log_deinit"));
    EXPECT_FALSE(tarn_sdk_mqtt_broker_is_running(broker)); // the stop took effect, without waiting
    EXPECT_NE(broker->thread, 0u);
    g_act = nullptr;
    EXPECT_EQ(tarn_sdk_mqtt_broker_stop(broker), TARN_OK);
    EXPECT_EQ(broker->thread, 0u);
    EXPECT_EQ(broker.start(), TARN_OK);
}

// A host thread inside a lifecycle call may be waiting for the very thread that calls back.
TEST_F(in_callback, no_call_waits_for_a_host_thread_that_is_inside_one)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    g_modules.packet_handler_init = [&] {
        from_a_callback_elsewhere(broker, [](broker_t *instance) {
            EXPECT_EQ(tarn_sdk_mqtt_broker_init(instance), TARN_E_BUSY);
            EXPECT_EQ(tarn_sdk_mqtt_broker_start(instance, 1883, 100), TARN_E_BUSY);
            tarn_sdk_mqtt_broker_deinit(instance);
            tarn_sdk_mqtt_broker_destroy(instance);
            EXPECT_EQ(tarn_sdk_mqtt_broker_stop(instance), TARN_OK);
        });
        return 0;
    };
    EXPECT_EQ(tarn_sdk_mqtt_broker_init(broker), TARN_OK);
    g_modules.packet_handler_init = nullptr;
    EXPECT_EQ(g_calls, 1);
    EXPECT_TRUE(net::is_up());
    EXPECT_EQ(broker->running, 0);
    EXPECT_NE(broker->thread, 0u); // ending, but nobody waited for it
    forget_turns();
    EXPECT_EQ(broker.start(), TARN_OK);
    EXPECT_TRUE(eventually([] { return turns() > 5; }));
    EXPECT_TRUE(eventually([] { return threads_named("tarn-house") == 1; }));
}

TEST_F(in_callback, with_no_host_thread_inside_one_the_calls_do_their_work)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    from_a_callback_elsewhere(broker, [](broker_t *instance) {
        EXPECT_EQ(tarn_sdk_mqtt_broker_stop(instance), TARN_OK);
        EXPECT_EQ(instance->thread, 0u);
        EXPECT_EQ(tarn_sdk_mqtt_broker_start(instance, 1883, 100), TARN_OK);
        EXPECT_NE(instance->thread, 0u);
        EXPECT_EQ(tarn_sdk_mqtt_broker_init(instance), TARN_OK);
        tarn_sdk_mqtt_broker_stop(instance);
        tarn_sdk_mqtt_broker_deinit(instance);
    });
    EXPECT_FALSE(net::is_up());
}

TEST_F(in_callback, on_the_housekeeping_thread_a_stop_lets_the_turn_end)
{
    act_on_housekeeping_thread([](broker_t *instance) {
        EXPECT_EQ(tarn_sdk_mqtt_broker_stop(instance), TARN_OK);
        EXPECT_NE(instance->thread, 0u); // still to be waited for
    });
    EXPECT_TRUE(eventually([] { return g_calls == 1 && threads_named("tarn-house") == 0; }));
    EXPECT_FALSE(tarn_sdk_mqtt_broker_is_running(broker));
    EXPECT_EQ(tarn_sdk_mqtt_broker_stop(broker), TARN_OK);
    EXPECT_EQ(broker->thread, 0u);
    tarn_sdk_mqtt_broker_deinit(broker);
    tarn_sdk_mqtt_broker_destroy(broker.release());
}

TEST_F(in_callback, on_the_housekeeping_thread_a_stop_and_a_start_go_on_with_it)
{
    act_on_housekeeping_thread([](broker_t *instance) {
        const pthread_t thread = instance->thread;
        EXPECT_EQ(tarn_sdk_mqtt_broker_stop(instance), TARN_OK);
        EXPECT_EQ(tarn_sdk_mqtt_broker_start(instance, 1883, 100), TARN_OK);
        EXPECT_EQ(instance->thread, thread);
    });
    EXPECT_TRUE(eventually([] { return g_calls == 1; }));
    forget_turns();
    EXPECT_TRUE(eventually([] { return turns() > 5; }));
    EXPECT_TRUE(eventually([] { return threads_named("tarn-house") == 1; }));
}

TEST_F(in_callback, on_the_housekeeping_thread_the_instance_may_be_destroyed)
{
    act_on_housekeeping_thread([](broker_t *instance) { tarn_sdk_mqtt_broker_destroy(instance); });
    EXPECT_TRUE(eventually([] { return g_calls == 1 && threads_named("tarn-house") == 0; }));
    (void)broker.release();
    Instance other;
    EXPECT_EQ(other.start(), TARN_E_RESOURCE); // it goes on serving
    tarn_sdk_mqtt_broker_deinit(other);
}

TEST_F(in_callback, an_instance_that_serves_nobody_may_be_destroyed)
{
    OwnClient client(broker);
    tarn_sdk_mqtt_broker_register_acl_callback(broker, on_acl);
    g_act = [](broker_t *instance) { tarn_sdk_mqtt_broker_destroy(instance); };
    EXPECT_TRUE(broker_fire_acl(client, "t", BROKER_ACL_PUBLISH));
    EXPECT_TRUE(broker_fire_acl(client, "t", BROKER_ACL_PUBLISH)); // its record is there, and empty
    broker_fire_event(client, BROKER_EVENT_PUBLISH, "t", 0);
    EXPECT_EQ(g_calls, 1);
    (void)broker.release();
}

TEST_F(in_callback, clients_may_be_kicked)
{
    tarn_sdk_mqtt_broker_register_acl_callback(broker, on_acl);
    int32_t result = 1;
    g_act          = [&](broker_t *instance) { result = tarn_sdk_mqtt_broker_kick_client(instance, "c"); };
    ASSERT_EQ(broker.start(), TARN_OK);
    Peer peer;
    peer.send(kConnect);
    EXPECT_EQ(hex(peer.receive(4)), "20 02 00 00");
    peer.send(kPublish);
    EXPECT_EQ(hex(peer.receive(2)), "E0 00");
    EXPECT_EQ(peer.end(), 0);
    EXPECT_TRUE(eventually([] { return g_calls == 1; }));
    EXPECT_EQ(result, TARN_OK);
}

// For the thread sanitizer: a will's event and the client's own new CONNECT.
TEST_F(in_callback, the_id_in_an_event_may_change_meanwhile)
{
    tarn_sdk_mqtt_broker_register_event_callback(broker, on_event);
    mqtt_client_t *const client = add_client(1, "a", broker);
    std::thread          other([&] {
        for (int i = 0; i < 500; ++i)
            client_set_cid(client, i % 2 ? "a" : "bcdef");
    });
    for (int i = 0; i < 500; ++i)
        broker_fire_event(client, BROKER_EVENT_WILL, "t", 0);
    other.join();
    EXPECT_EQ(g_calls, 500);
}
