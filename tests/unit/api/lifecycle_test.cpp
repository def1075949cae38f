// What each lifecycle call returns, changes and says, for every state it can meet.
#include "api_fixture.h"

#include "client/client.h"
#include "log/agent_log.h"
#include "net/netip_link.h"
#include "qos/qos_reliable.h"
#include "stats/mqtt_stats.h"
#include "sub/retain.h"
#include "sub/sub.h"
#include "unit/net/net_fixture.h"
#include "support/log_lines/client.h"
#include "support/log_lines/persist.h"

#include <filesystem>
#include <fstream>

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAreArray;
using testing::EndsWith;

namespace {

const std::string kSeparator = "INFO [SDK] ========================================================";
const std::string kQosUp     = "INFO [QoS] 可靠投递模块初始化成功";
const std::string kQosDown   = "INFO [QoS] 可靠投递模块已销毁，共清理0条未完成报文";
const std::string kUp        = "INFO client_mgr_init success, dynamic max_clients = 100";
const std::string kDown      = "INFO Client manager deinit success (QoS module destroyed)";
const std::string kStarted   = "INFO [SDK] start success, listen 0.0.0.0:1883";
const std::string kStopped   = "INFO [SDK] broker stopped";
const std::string kOwned     = "ERROR [SDK] netip_init failed[3]";

// An instance that was initialised, and its calls.
struct Lifecycle : testing::Test {
    QuietLog log;
    Instance broker;

    Lifecycle()
    {
        tarn_sdk_mqtt_broker_init(broker);
        (void)take_transcript();
    }
    int32_t stops() { return tarn_sdk_mqtt_broker_stop(broker); }
    void    deinits() { tarn_sdk_mqtt_broker_deinit(broker); }
    int32_t inits() { return tarn_sdk_mqtt_broker_init(broker); }
};
using start  = Lifecycle;
using stop   = Lifecycle;
using deinit = Lifecycle;

bool connects_to(uint16_t port)
{
    const Fd          fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    return connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

// A client says CONNECT and is answered.
void expect_service(Peer &peer)
{
    peer.send("10 0D | 00 04 'MQTT' 04 02 00 3C | 00 01 'c'");
    EXPECT_EQ(hex(peer.receive(4)), "20 02 00 00");
}
void expect_service()
{
    Peer peer;
    expect_service(peer);
}

// Port 1883 in the hands of somebody else.
Fd taken_port()
{
    Fd                fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback();
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(listen(fd.get(), 1), 0);
    return fd;
}

} // namespace

// ---- create

TEST(create, sets_the_defaults)
{
    QuietLog        log;
    broker_t *const broker = tarn_sdk_mqtt_broker_create();
    EXPECT_THAT(take_transcript(), ElementsAre(kSeparator, "INFO [SDK]   Version: V2.0.0 ", kSeparator,
                                               "INFO [SDK] create broker instance success"));
    broker_t expected{};
    expected.keepalive_timeout = 300;
    expected.max_packet_size   = 4096;
    expected.port              = 1883;
    expected.max_clients       = 5000;
    strcpy(expected.data_dir, "./broker_data");
    EXPECT_EQ(memcmp(broker, &expected, sizeof expected), 0);
    EXPECT_FALSE(tarn_sdk_mqtt_broker_is_running(broker));
    EXPECT_THAT(take_transcript(), IsEmpty());
    tarn_sdk_mqtt_broker_destroy(broker);
}

TEST(create, fails_without_memory)
{
    QuietLog  log;
    broker_t *broker;
    {
        const Fail fail(Call::Allocate);
        broker = tarn_sdk_mqtt_broker_create();
    }
    EXPECT_EQ(broker, nullptr);
    EXPECT_THAT(take_transcript(), ElementsAre("ERROR [SDK] calloc instance failed"));
}

// ---- destroy

TEST(destroy, says_so_and_ignores_null)
{
    QuietLog        log;
    broker_t *const broker = tarn_sdk_mqtt_broker_create();
    (void)take_transcript();
    tarn_sdk_mqtt_broker_destroy(nullptr);
    EXPECT_THAT(take_transcript(), IsEmpty());
    tarn_sdk_mqtt_broker_destroy(broker);
    EXPECT_THAT(take_transcript(), ElementsAre("INFO [SDK] destroy broker instance success"));
}

TEST_F(start, and_destroy_without_stop_leaves_the_service_up)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    (void)take_transcript();
    tarn_sdk_mqtt_broker_destroy(broker.release());
    EXPECT_THAT(take_transcript(), ElementsAre("INFO [SDK] destroy broker instance success"));
    EXPECT_TRUE(eventually([] { return threads_named("tarn-house") == 0; })); // it would look at the instance
    expect_service();
    Instance other;
    tarn_sdk_mqtt_broker_deinit(other);
    EXPECT_FALSE(net::is_up());
}

TEST_F(start, and_destroy_silences_the_callbacks)
{
    static std::atomic<int> asked{0};
    tarn_sdk_mqtt_broker_register_auth_callback(
        broker, [](broker_t *, const char *, const char *, const char *) { return asked.fetch_add(1), true; });
    ASSERT_EQ(broker.start(), TARN_OK);
    expect_service();
    EXPECT_EQ(asked, 1);
    tarn_sdk_mqtt_broker_destroy(broker.release());
    expect_service();
    EXPECT_EQ(asked, 1);
    Instance other;
    tarn_sdk_mqtt_broker_deinit(other);
}

// ---- init

TEST(init, brings_the_modules_up_in_order)
{
    QuietLog log;
    Instance broker;
    EXPECT_EQ(tarn_sdk_mqtt_broker_init(broker), TARN_OK);
    const Transcript seen = take_transcript();
    Transcript       calls;
    for (const std::string &entry : seen)
        if (entry.find(' ') == std::string::npos || entry.rfind("agent_log_init", 0) == 0 ||
            entry.rfind("persist_init", 0) == 0)
            calls.push_back(entry);
    EXPECT_THAT(calls, ElementsAre("agent_log_init level=2 output=3 size=0 reserved=256 path=null", "mqtt_stats_init",
                                   "packet_handler_init", "persist_init ./broker_data"));
    EXPECT_EQ(seen.back(), "INFO [SDK] init success, port=1883, max_clients=5000");
    EXPECT_TRUE(std::filesystem::is_directory("broker_data/session"));
    EXPECT_TRUE(std::filesystem::exists("tarn_flash.txt"));
    EXPECT_FALSE(net::is_up());
    EXPECT_EQ(broker->thread, 0u);
    EXPECT_EQ(broker->running, 0);
}

TEST(init, shows_the_recorded_port_and_clients_and_uses_the_instances_directory)
{
    QuietLog log;
    Instance broker;
    broker->port        = 8883;
    broker->max_clients = 7;
    strcpy(broker->data_dir, "./elsewhere");
    EXPECT_EQ(tarn_sdk_mqtt_broker_init(broker), TARN_OK);
    const Transcript seen = take_transcript();
    EXPECT_EQ(seen.back(), "INFO [SDK] init success, port=8883, max_clients=7");
    EXPECT_THAT(seen, Contains("persist_init ./elsewhere"));
    EXPECT_TRUE(std::filesystem::is_directory("elsewhere/session"));
}

TEST(init, sets_the_level_to_warn_before_anything_is_said)
{
    LogCapture log(AGENT_LOG_INFO);
    Instance   broker;
    (void)log.take();
    EXPECT_EQ(tarn_sdk_mqtt_broker_init(broker), TARN_OK);
    EXPECT_EQ(g_log_config.level, unsigned{AGENT_LOG_WARN});
    EXPECT_EQ(g_log_config.output, unsigned{AGENT_LOG_TO_CONSOLE | AGENT_LOG_TO_FILE});
    EXPECT_THAT(log.take(), ElementsAre(logged::no_retained_file()));
}

TEST(init, goes_on_when_packet_handling_cannot_start)
{
    QuietLog log;
    Instance broker;
    g_modules.packet_handler_init = [] { return -1; };
    EXPECT_EQ(tarn_sdk_mqtt_broker_init(broker), TARN_OK);
    EXPECT_THAT(take_calls(), Contains("persist_init ./broker_data"));
    g_modules.packet_handler_init = nullptr;
}

TEST_F(Lifecycle, init_again_starts_from_the_files)
{
    const uint8_t byte = 1;
    ASSERT_EQ(retain_msg_set("kept", &byte, 1, 0), 0);
    ASSERT_EQ(sub_add("a", "t", 0, 1), 0);
    mqtt_stats_inc_timeout();
    tarn_sdk_mqtt_broker_set_log_level(nullptr, AGENT_LOG_FATAL);
    EXPECT_EQ(inits(), TARN_OK);
    EXPECT_EQ(g_sub_mgr.retain_count, 1); // its file was read again
    EXPECT_EQ(g_sub_mgr.sub_count, 0);
    EXPECT_EQ(g_mqtt_stats.timeout, 0u);
    EXPECT_NE(g_log_config.level, unsigned{AGENT_LOG_FATAL});
}

// ---- start

TEST_F(start, brings_everything_up_in_order)
{
    tarn_sdk_mqtt_broker_set_max_packet_size(broker, 1000);
    EXPECT_EQ(broker.start(), TARN_OK);
    EXPECT_THAT(take_transcript(),
                ElementsAre("client_mgr_init 100", kQosUp, kUp, "netip_init threads=1 bridge packets=1000", kStarted));
    EXPECT_TRUE(net::is_up());
    EXPECT_EQ(g_netip_cb_arg, static_cast<broker_t *>(broker));
    EXPECT_EQ(g_mqtt_max_clients, 100);
    EXPECT_TRUE(tarn_sdk_mqtt_broker_is_running(broker));
    EXPECT_EQ(broker->running, 1);
    EXPECT_EQ(broker->port, 1883);
    EXPECT_EQ(broker->max_clients, 100);
    EXPECT_NE(broker->thread, 0u);
    EXPECT_TRUE(eventually([] { return threads_named("tarn-house") == 1; }));
    expect_service();
}

TEST_F(start, refuses_ports_outside_1_to_65535_first)
{
    for (const int32_t port : {0, -1, 65536, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(broker.start(port, 0), TARN_E_PARAM);
        EXPECT_THAT(take_transcript(), ElementsAre("ERROR [SDK] invalid listen port: " + std::to_string(port)));
    }
    EXPECT_EQ(broker->port, 1883);
    for (const int32_t port : {1, 65535}) {
        EXPECT_EQ(broker.start(port), TARN_OK);
        EXPECT_EQ(broker->port, port);
        EXPECT_EQ(take_transcript().back(), "INFO [SDK] start success, listen 0.0.0.0:" + std::to_string(port));
    }
}

TEST_F(start, refuses_max_clients_outside_1_to_50000)
{
    for (const int32_t max_clients : {0, -1, 50001, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(broker.start(1883, max_clients), TARN_E_PARAM);
        EXPECT_THAT(take_transcript(), ElementsAre("ERROR [SDK] invalid max clients: " + std::to_string(max_clients)));
    }
    EXPECT_EQ(broker->max_clients, 5000);
    EXPECT_EQ(broker->running, 0);
}

TEST_F(start, leaves_more_than_11000_clients_to_the_manager_to_refuse)
{
    for (const int32_t max_clients : {11001, 20000, 50000}) {
        EXPECT_EQ(broker.start(1883, max_clients), TARN_E_RESOURCE);
        EXPECT_THAT(take_transcript(),
                    ElementsAre("client_mgr_init " + std::to_string(max_clients),
                                "ERROR max_clients " + std::to_string(max_clients) + " invalid, must <= 11000",
                                "ERROR [SDK] client_mgr_init failed"));
    }
    EXPECT_EQ(broker->max_clients, 5000);
    EXPECT_EQ(broker->running, 0);
    EXPECT_FALSE(net::is_up());
    for (const int32_t max_clients : {1, 11000}) {
        EXPECT_EQ(broker.start(1883, max_clients), TARN_OK);
        EXPECT_EQ(broker->max_clients, max_clients);
        EXPECT_EQ(g_mqtt_max_clients, max_clients);
    }
}

TEST_F(start, with_another_port_still_listens_on_1883_alone)
{
    EXPECT_EQ(broker.start(8883), TARN_OK);
    EXPECT_EQ(take_transcript().back(), "INFO [SDK] start success, listen 0.0.0.0:8883");
    EXPECT_EQ(broker->port, 8883);
    EXPECT_FALSE(connects_to(8883));
    expect_service();
}

TEST_F(start, of_a_stopped_owner_resumes)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    Peer peer;
    expect_service(peer);
    stops();
    tarn_sdk_mqtt_broker_set_max_packet_size(broker, 512);
    mqtt_stats_inc_timeout();
    (void)take_transcript();
    EXPECT_EQ(broker.start(8883, 300), TARN_OK);
    EXPECT_THAT(take_transcript(), ElementsAre("INFO [SDK] start success, listen 0.0.0.0:8883"));
    EXPECT_EQ(broker->port, 8883);
    EXPECT_EQ(broker->max_clients, 300);
    EXPECT_EQ(broker->running, 1);
    EXPECT_EQ(g_mqtt_max_clients, 300);
    EXPECT_EQ(g_default_max_packet_size, 512u);
    EXPECT_EQ(g_mqtt_stats.timeout, 1u);
    EXPECT_TRUE(eventually([] { return threads_named("tarn-house") == 1; }));
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_online_count(nullptr), 1u);
    peer.send("C0 00");
    EXPECT_EQ(hex(peer.receive(2)), "D0 00");
}

TEST_F(start, of_a_running_owner_changes_the_numbers_and_nothing_else)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    const pthread_t thread = broker->thread;
    (void)take_transcript();
    EXPECT_EQ(broker.start(8883, 7), TARN_OK);
    EXPECT_THAT(take_transcript(), ElementsAre("INFO [SDK] start success, listen 0.0.0.0:8883"));
    EXPECT_EQ(broker->thread, thread);
    EXPECT_EQ(g_mqtt_max_clients, 7);
    EXPECT_EQ(broker->max_clients, 7);
    EXPECT_TRUE(eventually([] { return threads_named("tarn-house") == 1; }));
}

TEST_F(start, of_a_running_owner_with_bad_numbers_changes_nothing)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    (void)take_transcript();
    EXPECT_EQ(broker.start(1883, 20000), TARN_E_RESOURCE);
    EXPECT_THAT(take_lines(),
                ElementsAre("ERROR max_clients 20000 invalid, must <= 11000", "ERROR [SDK] client_mgr_init failed"));
    EXPECT_EQ(broker.start(0), TARN_E_PARAM);
    EXPECT_EQ(broker.start(1883, 0), TARN_E_PARAM);
    EXPECT_EQ(broker->running, 1);
    EXPECT_EQ(broker->max_clients, 100);
    expect_service();
}

TEST_F(start, is_denied_while_another_instance_owns_the_layer)
{
    Instance   other;
    const auto expect_denied = [&] {
        (void)take_transcript();
        EXPECT_EQ(other.start(8883, 7), TARN_E_RESOURCE);
        EXPECT_THAT(take_transcript(), ElementsAre(kOwned));
        EXPECT_EQ(other->running, 0);
        EXPECT_EQ(other->port, 1883);
        EXPECT_EQ(other->thread, 0u);
        EXPECT_EQ(g_mqtt_max_clients, 100);
        expect_service();
    };
    ASSERT_EQ(broker.start(), TARN_OK);
    expect_denied();
    EXPECT_EQ(broker->running, 1);
    stops();
    expect_denied();
    EXPECT_EQ(broker->running, 0);
    tarn_sdk_mqtt_broker_destroy(broker.release());
    expect_denied();
    EXPECT_EQ(other.start(0, 7), TARN_E_PARAM); // arguments first, then the ceiling, then the owner
    EXPECT_EQ(other.start(1883, 11001), TARN_E_RESOURCE);
    EXPECT_EQ(take_transcript().back(), "ERROR [SDK] client_mgr_init failed");

    tarn_sdk_mqtt_broker_deinit(other);
    EXPECT_EQ(tarn_sdk_mqtt_broker_init(other), TARN_OK);
    EXPECT_EQ(other.start(), TARN_OK);
    expect_service();
}

TEST_F(start, on_a_taken_port_undoes_itself)
{
    {
        const Fd taken = taken_port();
        EXPECT_EQ(broker.start(), TARN_E_RESOURCE);
        EXPECT_THAT(take_transcript(),
                    ElementsAre("client_mgr_init 100", kQosUp, kUp, "netip_init threads=1 bridge packets=4096", kOwned,
                                "client_mgr_deinit", kQosDown, kDown));
        EXPECT_EQ(broker->running, 0);
        EXPECT_EQ(broker->max_clients, 5000);
        EXPECT_EQ(broker->thread, 0u);
        EXPECT_EQ(g_client_mgr.running, 0);
        EXPECT_EQ(g_netip_tcp_listen, -1);
        EXPECT_FALSE(net::is_up());
    }
    EXPECT_EQ(broker.start(), TARN_OK);
    EXPECT_THAT(take_transcript(),
                ElementsAre("client_mgr_init 100", kQosUp, kUp, "netip_init threads=1 bridge packets=4096", kStarted));
    expect_service();
}

TEST_F(start, failing_in_the_layer_says_its_number_and_undoes_itself)
{
    const struct {
        Call call;
        int  number;
    } rows[]              = {{Call::EpollCreate, NETIP_EPOLL},
                             {Call::Socket, NETIP_SOCKET},
                             {Call::Bind, NETIP_BIND},
                             {Call::Listen, NETIP_LISTEN}};
    const int descriptors = descriptor_count();
    for (const auto &row : rows) {
        {
            const Fail fail(row.call, 1, EMFILE);
            EXPECT_EQ(broker.start(), TARN_E_RESOURCE);
        }
        EXPECT_THAT(take_lines(),
                    ElementsAre(kQosUp, kUp, "ERROR [SDK] netip_init failed[" + std::to_string(row.number) + "]",
                                kQosDown, kDown));
        EXPECT_EQ(broker->running, 0);
        EXPECT_EQ(descriptor_count(), descriptors);
    }
    EXPECT_EQ(broker.start(), TARN_OK);
    expect_service();
}

TEST_F(start, failing_for_want_of_a_thread_undoes_itself)
{
    // In order of creation: QoS scan, send, I/O, accept, housekeeping. The manager and the housekeeping live without.
    const struct {
        int        nth;
        Transcript lines;
    } rows[] = {
        {3, {kQosUp, kUp, "ERROR [SDK] netip_init failed[1]", kQosDown, kDown}},
        {4, {kQosUp, kUp, "ERROR 创建 accept 线程失败", "ERROR [SDK] netip_init failed[1]", kQosDown, kDown}},
    };
    for (const auto &row : rows) {
        {
            const Fail fail(Call::ThreadCreate, row.nth, EAGAIN);
            EXPECT_EQ(broker.start(), TARN_E_RESOURCE);
            EXPECT_EQ(fail.failed(), 1);
        }
        EXPECT_THAT(take_lines(), ElementsAreArray(row.lines)) << row.nth;
        EXPECT_EQ(broker->running, 0);
        EXPECT_EQ(broker->thread, 0u);
        EXPECT_EQ(g_client_mgr.running, 0);
    }
    EXPECT_EQ(broker.start(), TARN_OK);
    EXPECT_EQ(take_lines().back(), kStarted);
    expect_service();
}

TEST_F(start, does_not_look_whether_the_housekeeping_thread_was_made)
{
    {
        const Fail fail(Call::ThreadCreate, 5, EAGAIN);
        EXPECT_EQ(broker.start(), TARN_OK);
        EXPECT_EQ(fail.failed(), 1);
    }
    EXPECT_EQ(take_lines().back(), kStarted);
    EXPECT_EQ(broker->running, 1);
    EXPECT_EQ(broker->thread, 0u);
    expect_service();
    EXPECT_EQ(broker.start(), TARN_OK); // makes it now
    EXPECT_NE(broker->thread, 0u);
}

TEST_F(start, failing_in_the_client_manager_touches_no_socket)
{
    for (int nth = 1; nth < 20; ++nth) {
        int failed;
        {
            const Fail    fail(Call::Allocate, nth);
            const int32_t result = broker.start();
            failed               = fail.failed();
            if (result == TARN_OK)
                break;
        }
        const Transcript seen = take_transcript();
        EXPECT_EQ(failed, 1);
        EXPECT_EQ(broker->running, 0);
        EXPECT_FALSE(net::is_up());
        if (seen.back() == "ERROR [SDK] client_mgr_init failed") {
            EXPECT_THAT(seen, Not(Contains(testing::StartsWith("netip_init")))) << nth;
            EXPECT_THAT(seen, Not(Contains("client_mgr_deinit")));
        } else {
            EXPECT_EQ(seen.back(), kDown) << nth;
            EXPECT_THAT(seen, Contains(testing::StartsWith("ERROR [SDK] netip_init failed["))) << nth;
        }
    }
    ASSERT_EQ(broker.start(), TARN_OK);
    expect_service();
}

TEST_F(start, that_fails_leaves_running_as_it_was)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    deinits(); // without stop
    inits();
    {
        const Fail fail(Call::EpollCreate, 1, EMFILE);
        EXPECT_EQ(broker.start(), TARN_E_RESOURCE);
    }
    EXPECT_TRUE(tarn_sdk_mqtt_broker_is_running(broker));
    EXPECT_NE(broker->thread, 0u);
}

// The accept thread comes last: without it everything else is left standing and still knows the instance.
TEST_F(start, left_half_way_is_taken_down_by_the_next_one)
{
    for (int i = 0; i < 3; ++i) {
        const Fail fail(Call::ThreadCreate, 4, EAGAIN);
        EXPECT_EQ(broker.start(), TARN_E_RESOURCE);
        EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 1; }));
    }
    EXPECT_FALSE(net::is_up());
    (void)take_transcript();
    Instance other;
    EXPECT_EQ(other.start(), TARN_OK); // it has no owner
    EXPECT_THAT(take_transcript(), ElementsAre("netip_deinit", "client_mgr_init 100", kQosUp, kUp,
                                               "netip_init threads=1 bridge packets=4096", kStarted));
    EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 1; }));
    expect_service();
    EXPECT_EQ(broker.start(), TARN_E_RESOURCE);
}

TEST_F(start, left_half_way_is_taken_down_by_deinit)
{
    {
        const Fail fail(Call::ThreadCreate, 4, EAGAIN);
        EXPECT_EQ(broker.start(), TARN_E_RESOURCE);
    }
    deinits();
    EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 0; }));
    inits();
    (void)take_transcript();
    EXPECT_EQ(broker.start(), TARN_OK);
    EXPECT_EQ(take_calls().front(), "client_mgr_init 100");
    expect_service();
}

TEST_F(start, left_half_way_survives_its_instance)
{
    {
        const Fail fail(Call::ThreadCreate, 4, EAGAIN);
        EXPECT_EQ(broker.start(), TARN_E_RESOURCE);
    }
    tarn_sdk_mqtt_broker_register_auth_callback(
        broker, [](broker_t *, const char *, const char *, const char *) { return true; });
    tarn_sdk_mqtt_broker_destroy(broker.release());
    UdpPeer datagram; // UDP is open, and its clients belong to the instance
    datagram.send("10 0D | 00 04 'MQTT' 04 02 00 3C | 00 01 'c'");
    const Peer arrival; // a round with an event looks at UDP
    EXPECT_TRUE(eventually([] { return peek(g_client_mgr.used_count) > 0; }));
    Instance other;
    EXPECT_EQ(other.start(), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_online_count(nullptr), 0u);
    expect_service();
}

TEST_F(start, after_deinit_alone_says_nothing_and_works)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    stops();
    deinits();
    (void)log->take();
    EXPECT_EQ(broker.start(), TARN_OK);
    EXPECT_THAT(log->take(), IsEmpty());
    EXPECT_EQ(g_client_mgr.used_count, 0);
    expect_service();
}

TEST_F(start, soon_after_a_stop_does_not_scan_on_its_first_turn)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    stops();
    const int scans = times("client_clean_timeout 300000");
    forget_turns();
    ASSERT_EQ(broker.start(), TARN_OK);
    EXPECT_TRUE(eventually([] { return turns() > 2; }));
    EXPECT_EQ(times("client_clean_timeout 300000"), scans);
}

// A stop inside a callback may leave the ended thread to be joined.
TEST_F(start, replaces_a_housekeeping_thread_that_ended)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    EXPECT_TRUE(eventually([] { return turns() > 2; }));
    shared(broker->running) = 0;
    EXPECT_TRUE(eventually([] { return threads_named("tarn-house") == 0; }));
    ASSERT_EQ(broker.start(), TARN_OK);
    forget_turns();
    EXPECT_TRUE(eventually([] { return turns() > 2; }));
    EXPECT_TRUE(eventually([] { return threads_named("tarn-house") == 1; }));
}

// ---- stop

TEST(stop_of_a_new_instance, succeeds_and_says_so)
{
    QuietLog log;
    Instance broker;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(tarn_sdk_mqtt_broker_stop(broker), TARN_OK);
        EXPECT_THAT(take_transcript(), ElementsAre(kStopped));
    }
}

TEST_F(stop, ends_the_housekeeping_alone)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    EXPECT_TRUE(eventually([] { return threads_named("tarn-house") == 1; }));
    Peer peer;
    expect_service(peer);
    (void)take_transcript();
    EXPECT_EQ(stops(), TARN_OK);
    EXPECT_THAT(take_transcript(), ElementsAre(kStopped));
    EXPECT_EQ(broker->running, 0);
    EXPECT_FALSE(tarn_sdk_mqtt_broker_is_running(broker));
    EXPECT_EQ(broker->thread, 0u);
    EXPECT_TRUE(eventually([] { return threads_named("tarn-house") == 0; }));
    EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 1; }));
    EXPECT_TRUE(net::is_up());
    peer.send("C0 00");
    EXPECT_EQ(hex(peer.receive(2)), "D0 00");
    expect_service();
}

TEST_F(stop, lets_the_setters_work_again)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_keepalive_timeout(broker, 100), TARN_E_BUSY);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_max_packet_size(broker, 300), TARN_E_BUSY);
    stops();
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_keepalive_timeout(broker, 100), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_max_packet_size(broker, 300), TARN_OK);
    EXPECT_EQ(g_default_max_packet_size, 4096u); // until the next start
    ASSERT_EQ(broker.start(), TARN_OK);
    EXPECT_EQ(g_default_max_packet_size, 300u);
}

// ---- deinit

TEST_F(deinit, takes_everything_down_in_order)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    stops();
    tarn_sdk_mqtt_broker_register_event_callback(broker, [](broker_t *, uint32_t, const char *) {});
    tarn_sdk_mqtt_broker_register_auth_callback(
        broker, [](broker_t *, const char *, const char *, const char *) { return true; });
    tarn_sdk_mqtt_broker_register_acl_callback(
        broker, [](broker_t *, const char *, const char *, uint8_t, mqtt_client_t *) { return true; });
    (void)take_transcript();
    (void)log->take();
    deinits();
    EXPECT_THAT(take_transcript(), ElementsAre("netip_deinit", "persist_destroy", "INFO [persist] 持久化模块销毁中...",
                                               "client_mgr_deinit", kQosDown, kDown, "mqtt_stats_deinit",
                                               "agent_log_deinit", "INFO [SDK] deinit success"));
    EXPECT_FALSE(log->has(info("[SDK] deinit success"))); // the log is off by then
    EXPECT_TRUE(log->has(logged::client_manager_down()));
    EXPECT_FALSE(net::is_up());
    EXPECT_EQ(broker->event_cb, nullptr);
    EXPECT_EQ(broker->auth_cb, nullptr);
    EXPECT_EQ(broker->acl_cb, nullptr);
    EXPECT_EQ(broker->max_clients, 100); // the settings stay
    EXPECT_TRUE(eventually([] { return threads_named("tarn-io") == 0; }));
}

TEST_F(deinit, lets_the_instance_be_freed) // the address sanitizer looks for it
{
    for (int i = 0; i < 3; ++i) {
        Instance other;
        ASSERT_EQ(other.start(), TARN_OK);
        if (i == 1) { // in another order
            broker_t *const owner = other.release();
            tarn_sdk_mqtt_broker_destroy(owner);
            deinits();
        }
    }
}

TEST_F(deinit, works_without_a_start_and_again)
{
    for (int i = 0; i < 2; ++i) {
        deinits();
        EXPECT_THAT(take_calls(), ElementsAre("netip_deinit", "persist_destroy", "client_mgr_deinit",
                                              "mqtt_stats_deinit", "agent_log_deinit"));
    }
    inits();
    EXPECT_EQ(broker.start(), TARN_OK);
}

TEST_F(deinit, closes_the_clients)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    Peer peer;
    expect_service(peer);
    stops();
    deinits();
    EXPECT_EQ(peer.end(), 0);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_online_count(nullptr), 0u);
}

TEST_F(deinit, without_stop_leaves_running_and_its_thread)
{
    ASSERT_EQ(broker.start(), TARN_OK);
    const pthread_t thread = broker->thread;
    deinits();
    EXPECT_TRUE(tarn_sdk_mqtt_broker_is_running(broker));
    EXPECT_EQ(broker->thread, thread);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_keepalive_timeout(broker, 100), TARN_E_BUSY);
    inits();
    forget_turns();
    EXPECT_TRUE(eventually([] { return turns() > 2; }));
    EXPECT_EQ(broker.start(), TARN_OK);
    EXPECT_EQ(broker->thread, thread);
    EXPECT_TRUE(eventually([] { return threads_named("tarn-house") == 1; }));
}

TEST_F(deinit, of_another_instance_ends_the_ownership)
{
    Instance other;
    tarn_sdk_mqtt_broker_register_event_callback(broker, [](broker_t *, uint32_t, const char *) {});
    ASSERT_EQ(broker.start(), TARN_OK);
    tarn_sdk_mqtt_broker_deinit(other);
    EXPECT_FALSE(net::is_up());
    EXPECT_NE(broker->event_cb, nullptr); // only its own are forgotten
    EXPECT_EQ(tarn_sdk_mqtt_broker_init(other), TARN_OK);
    EXPECT_EQ(other.start(), TARN_OK);
    EXPECT_EQ(broker.start(), TARN_E_RESOURCE);
}
