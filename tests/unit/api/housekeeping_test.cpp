#include "api/broker.h"
#include "api_fixture.h"

#include "base/clock.h"
#include "client/client.h"
#include "stats/mqtt_stats.h"
#include "sub/retain.h"
#include "sub/sub.h"
#include "unit/net/net_fixture.h"

using namespace tarn;
using namespace tarn::test;

namespace {

// Turns are given their time; the clocks stand still, so that will scans come when a test moves them.
struct housekeeping_turn : testing::Test {
    QuietLog    log;
    ManualClock clock;
    broker_t    broker{};

    housekeeping_turn() { broker.keepalive_timeout = 300; }

    Transcript at(int64_t now_s)
    {
        api::housekeeping_turn(broker, now_s);
        return take_calls();
    }
};

const std::string kScan   = "client_clean_timeout 300000";
const std::string kReport = "mqtt_stats_print";
const std::string kReset  = "mqtt_stats_reset_period";
const std::string kExpiry = "retain_clean_expired";
const std::string kWills  = "client_will_delay_scan";

} // namespace

TEST_F(housekeeping_turn, the_first_one_of_the_process_does_everything_in_order)
{
    EXPECT_THAT(at(1800000000), ElementsAre(kScan, kReport, kReset, kExpiry, kWills));
    EXPECT_THAT(at(1800000000), IsEmpty());
}

TEST_F(housekeeping_turn, each_task_comes_when_its_period_is_over_and_not_a_second_earlier)
{
    (void)at(1000);
    EXPECT_THAT(at(1004), IsEmpty());
    EXPECT_THAT(at(1005), ElementsAre(kExpiry));
    EXPECT_THAT(at(1009), IsEmpty());
    EXPECT_THAT(at(1010), ElementsAre(kScan, kExpiry));
    for (int64_t now_s = 1011; now_s < 1059; ++now_s)
        (void)at(now_s);
    EXPECT_THAT(at(1059), IsEmpty());
    EXPECT_THAT(at(1060), ElementsAre(kScan, kReport, kReset, kExpiry));
    EXPECT_THAT(at(1061), IsEmpty());
}

TEST_F(housekeeping_turn, the_report_does_not_wait_for_a_scan)
{
    (void)at(1000);
    EXPECT_THAT(at(1059), ElementsAre(kScan, kExpiry));
    EXPECT_THAT(at(1060), ElementsAre(kReport, kReset));
    EXPECT_THAT(at(1069), ElementsAre(kScan, kExpiry));
}

TEST_F(housekeeping_turn, periods_run_from_the_last_time_however_late_it_came)
{
    (void)at(1000);
    EXPECT_THAT(at(1019), ElementsAre(kScan, kExpiry));
    EXPECT_THAT(at(1023), IsEmpty());
    EXPECT_THAT(at(1028), ElementsAre(kExpiry));
    EXPECT_THAT(at(1029), ElementsAre(kScan));
}

TEST_F(housekeeping_turn, nothing_is_due_while_the_clock_is_behind_the_last_time)
{
    (void)at(1000);
    EXPECT_THAT(at(500), IsEmpty());
    EXPECT_THAT(at(-1000), IsEmpty());
    EXPECT_THAT(at(1010), ElementsAre(kScan, kExpiry));
}

TEST_F(housekeeping_turn, the_threshold_is_read_afresh_for_every_scan)
{
    (void)at(1000);
    broker.keepalive_timeout = 3600;
    EXPECT_THAT(at(1010), Contains("client_clean_timeout 3600000"));
    broker.keepalive_timeout = 1;
    EXPECT_THAT(at(1020), Contains("client_clean_timeout 1000"));
}

TEST_F(housekeeping_turn, the_times_are_those_of_the_process_not_of_an_instance)
{
    (void)at(1000);
    broker_t other{};
    api::housekeeping_turn(other, 1004);
    EXPECT_THAT(take_calls(), IsEmpty());
    api::housekeeping_turn(other, 1010);
    EXPECT_THAT(take_calls(), ElementsAre("client_clean_timeout 0", kExpiry));
    EXPECT_THAT(at(1010), IsEmpty());
}

// The pool is walked only when a will can be due, and twice a second for those that were set going by hand.
TEST_F(housekeeping_turn, wills_are_scanned_every_half_second_when_none_is_known)
{
    EXPECT_THAT(at(1000), Contains(kWills));
    clock.advance_ms(499);
    EXPECT_THAT(at(1000), IsEmpty());
    clock.advance_ms(1);
    EXPECT_THAT(at(1000), ElementsAre(kWills));
}

// Ten seconds of a full and idle pool: a thousand turns, of which twenty look for wills that were set going by hand and
// one looks for silence, among a thousand of the records.
TEST_F(housekeeping_turn, of_eleven_thousand_idle_clients_walks_over_few_records)
{
    for (uint32_t handle = 0; handle < CLIENT_MAX; ++handle)
        add_client(handle, ("c" + std::to_string(handle)).c_str(), &broker);
    ASSERT_EQ(g_client_mgr.used_count, CLIENT_MAX);
    g_client_mgr.running = 1;
    (void)at(clock.wall_s());
    const int scans = times(kScan), walks = times(kWills);
    agent_log_set_level(AGENT_LOG_DEBUG); // where each record that is looked at has a line
    (void)take_transcript();
    for (int turn = 0; turn < 1000; ++turn) {
        clock.advance_ms(10);
        api::housekeeping_turn(broker, clock.wall_s());
    }
    EXPECT_EQ(times(kScan) - scans, 1);
    EXPECT_EQ(times(kWills) - walks, 20);
    const Transcript lines = take_lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string &line) { return line.rfind("DEBUG [超时扫描-详细]", 0) == 0; }),
              1000);
    EXPECT_EQ(client_get_connected_count(), uint32_t{CLIENT_MAX});
    g_client_mgr.running = 0;
}

TEST_F(housekeeping_turn, a_report_starts_a_new_period)
{
    mqtt_stats_inc_timeout();
    (void)take_transcript();
    api::housekeeping_turn(broker, 1000);
    const Transcript lines = take_lines();
    EXPECT_THAT(lines, Contains("WARN [周期60s] 收包:0 | 发包:0 | 超时:1 | 遗嘱:0 | 持久写:0 | 持久读:0"));
    EXPECT_EQ(lines.front(), "WARN !!!>>>===================== MQTT Broker 维测统计 =====================");
    EXPECT_EQ(lines.back(), "WARN !!!>>>================================================================");
    EXPECT_EQ(g_mqtt_stats.period_timeout, 0u);
    EXPECT_EQ(g_mqtt_stats.timeout, 1u);
}

TEST_F(housekeeping_turn, closes_who_never_said_a_keep_alive_after_the_default_of_silence)
{
    mqtt_client_t *const client = client_create(77, "192.0.2.7", 40001, &broker);
    g_client_mgr.running        = 1;
    EXPECT_EQ(client->keepalive_ms, 0u);
    (void)at(clock.wall_s());
    clock.advance_ms(299999);
    EXPECT_THAT(at(clock.wall_s()), Contains(kScan));
    EXPECT_EQ(client->state, unsigned{CLIENT_CONNECTED});
    clock.advance_ms(1);
    EXPECT_THAT(at(clock.wall_s()), Not(Contains(kScan))); // silent for long enough, but it is not looked for
    EXPECT_EQ(client->state, unsigned{CLIENT_CONNECTED});
    clock.advance_ms(10000);
    (void)at(clock.wall_s());
    EXPECT_EQ(client->state, unsigned{CLIENT_CLOSED});
    g_client_mgr.running = 0;
}

TEST_F(housekeeping_turn, removes_expired_retained_messages)
{
    ASSERT_EQ(sub_init(), 0);
    const uint8_t byte = 1;
    ASSERT_EQ(retain_msg_set_with_expiry("t", &byte, 1, 0, 5), 0);
    (void)at(clock.wall_s());
    EXPECT_EQ(g_sub_mgr.retain_count, 1);
    clock.advance_ms(10000);
    (void)at(clock.wall_s());
    EXPECT_EQ(g_sub_mgr.retain_count, 0);
}

TEST_F(housekeeping_turn, publishes_delayed_wills)
{
    mqtt_client_t *const client = add_client(77, "w", &broker);
    client_set_will_msg(client, "t", reinterpret_cast<const uint8_t *>("x"), 1, 0, 0);
    client_set_will_enhance(client, 2, 0, 0, nullptr, nullptr, nullptr, 0);
    client_close(client);
    ASSERT_EQ(client->state, unsigned{CLIENT_WILL_PENDING});
    (void)at(1000);
    clock.advance_ms(1999);
    (void)at(1000);
    EXPECT_EQ(client->state, unsigned{CLIENT_WILL_PENDING});
    clock.advance_ms(1);
    EXPECT_THAT(at(1000), Contains(kWills)); // at once, not with the next half second
    EXPECT_EQ(client->state, unsigned{CLIENT_CLOSED});
}

// ---- the thread

TEST(broker_thread_entry, ends_at_once_when_the_instance_does_not_run)
{
    QuietLog log;
    broker_t broker{};
    (void)take_transcript();
    EXPECT_EQ(broker_thread_entry(&broker), nullptr);
    EXPECT_THAT(take_transcript(), IsEmpty());
}

TEST(broker_thread_entry, turns_until_running_is_cleared)
{
    QuietLog log;
    broker_t broker{};
    shared(broker.running) = 1;
    std::thread thread(broker_thread_entry, &broker);
    EXPECT_TRUE(eventually([] { return times(kReset) == 1 && times(kExpiry) >= 1 && times(kWills) >= 2; }));
    shared(broker.running) = 0;
    thread.join();
    EXPECT_EQ(times("client_clean_timeout 0"), 1);
}

TEST(housekeeping_thread, pauses_10_ms_after_each_turn)
{
    QuietLog log;
    broker_t broker{};
    shared(broker.running) = 1;
    api::start_housekeeping(broker);
    EXPECT_TRUE(eventually([] { return turns() > 0; }));
    const uint64_t start_ms = mono_ms();
    const int      before   = turns();
    EXPECT_TRUE(eventually([&] { return turns() >= before + 21; }));
    EXPECT_EQ(pause_us(), 10000);
    EXPECT_GE(mono_ms() - start_ms, 195u); // at least 20 whole pauses lie between
    shared(broker.running) = 0;
    EXPECT_TRUE(api::stop_housekeeping(broker));
}

TEST(housekeeping_thread, there_is_one_an_instance)
{
    QuietLog log;
    broker_t broker{};
    shared(broker.running) = 1;
    api::start_housekeeping(broker);
    const pthread_t first = broker.thread;
    EXPECT_NE(first, 0u);
    api::start_housekeeping(broker);
    EXPECT_EQ(broker.thread, first);
    EXPECT_TRUE(eventually([] { return threads_named("tarn-house") == 1; }));
    shared(broker.running) = 0;
    EXPECT_TRUE(api::stop_housekeeping(broker));
    EXPECT_EQ(broker.thread, 0u);
    EXPECT_TRUE(eventually([] { return threads_named("tarn-house") == 0; }));
    EXPECT_TRUE(api::stop_housekeeping(broker)); // nothing to wait for
}

TEST(housekeeping_thread, one_that_cannot_be_made_is_no_thread)
{
    QuietLog log;
    broker_t broker{};
    shared(broker.running) = 1;
    {
        Fail fail(Call::ThreadCreate, 1, EAGAIN);
        api::start_housekeeping(broker);
        EXPECT_EQ(fail.failed(), 1);
    }
    EXPECT_EQ(broker.thread, 0u);
    api::start_housekeeping(broker);
    EXPECT_NE(broker.thread, 0u);
    shared(broker.running) = 0;
    EXPECT_TRUE(api::stop_housekeeping(broker));
}
