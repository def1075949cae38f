#include "client_fixture.h"

#include "base/clock.h"
#include "support/log_lines/client.h"

using namespace tarn;
using namespace tarn::test;

namespace {

const LogLine kCloseLine   = logged::max_packet_size_at_close(4096, "dev1");
const LogLine kFreeLine    = logged::client_closed("dev1");
const LogLine kClosedLine  = logged::close_completed("");
const LogLine kDeletedLine = logged::session_removed_at_close("dev1");
const LogLine kForcedLine  = logged::connection_lost_with_will("dev1");
const LogLine kWaitingLine = debug("[遗嘱调试][延迟释放客户端] ClientID=dev1，等待遗嘱发送完成后再释放");

LogLine entered(int delay_s)
{
    return logged::will_delayed("dev1", delay_s);
}

struct Close : testing::Test {
    ManualClock clock;
    Manager     manager;
    LogCapture  log;

    mqtt_client_t *client(uint8_t clean)
    {
        mqtt_client_t *const made = log_in(1, "dev1", clean);
        take_calls();
        log.take();
        return made;
    }
    static void give_will(mqtt_client_t *to, uint32_t delay_s)
    {
        client_set_will_msg(to, "gone", text("x").data(), 1, 1, 0);
        client_set_will_enhance(to, delay_s, 0, 0, nullptr, nullptr, nullptr, 0);
    }
    // All traces of a client that was closed for good.
    void expect_released(mqtt_client_t *record)
    {
        EXPECT_EQ(record->state, uint32_t{CLIENT_CLOSED});
        EXPECT_EQ(record->used, 0);
        EXPECT_EQ(record->handle, NETIP_NO_HANDLE);
        EXPECT_STREQ(record->client_id, "");
        EXPECT_EQ(client_find_by_handle(1), nullptr);
        EXPECT_EQ(client_find_by_cid("dev1"), nullptr);
        EXPECT_EQ(g_client_mgr.used_count, 0);
    }
    void expect_waiting(mqtt_client_t *record)
    {
        EXPECT_EQ(record->state, uint32_t{CLIENT_WILL_PENDING});
        EXPECT_EQ(record->used, 1);
        EXPECT_STREQ(record->client_id, "dev1");
        EXPECT_EQ(client_find_by_handle(1), nullptr);
        EXPECT_EQ(client_find_by_cid("dev1"), nullptr);
        EXPECT_EQ(g_client_mgr.used_count, 1);
    }
};

const std::string kClean = "qos_reliable_clean_client_packets dev1";

} // namespace

TEST_F(Close, of_nobody_is_told)
{
    client_close(nullptr);
    EXPECT_THAT(log.take(), ElementsAre(debug("[遗嘱调试][关闭客户端] 客户端为空，跳过")));
}

TEST_F(Close, of_a_closed_record_is_told)
{
    OwnRecord record;
    record->state = CLIENT_CLOSED;
    strcpy(record->client_id, "dev1");
    client_close(record.get());
    EXPECT_THAT(log.take(), ElementsAre(logged::client_closed_already("dev1")));
}

TEST_F(Close, a_clean_client_is_released)
{
    mqtt_client_t *const record = client(1);
    client_close(record);
    EXPECT_THAT(own_lines(log), ElementsAre(kCloseLine, kFreeLine, kClosedLine));
    EXPECT_THAT(take_calls(), ElementsAre(kClean));
    expect_released(record);
    client_close(record);
    EXPECT_THAT(own_lines(log), ElementsAre(logged::client_closed_already("")));
}

TEST_F(Close, a_client_without_an_id_is_released)
{
    mqtt_client_t *const record = client_create(1, "", 0, nullptr);
    take_calls();
    log.take();
    client_close(record);
    EXPECT_THAT(own_lines(log),
                ElementsAre(logged::max_packet_size_at_close(4096, ""), logged::session_removed_at_close(""),
                            logged::client_closed(""), kClosedLine));
    EXPECT_THAT(take_calls(), ElementsAre("persist_remove ", "qos_reliable_clean_client_packets "));
    expect_released(record);
}

TEST_F(Close, a_dropped_v4_session_is_deleted_at_once)
{
    mqtt_client_t *const record = client(0);
    client_close(record);
    EXPECT_THAT(own_lines(log), ElementsAre(kCloseLine, kDeletedLine, kFreeLine, kClosedLine));
    EXPECT_THAT(take_calls(), ElementsAre("persist_remove dev1", kClean));
    expect_released(record);
}

TEST_F(Close, a_session_with_an_expiry_interval_gets_its_deadline_and_is_saved)
{
    mqtt_client_t *const record     = client(0);
    record->codec.version           = 5;
    record->session_expiry_interval = 3600;
    uint64_t deadline_when_saved    = 0;
    g_calls.on_mark                 = [&] { deadline_when_saved = record->session_expiry_deadline; };
    client_close(record);
    EXPECT_THAT(own_lines(log),
                ElementsAre(kCloseLine, logged::session_kept_until("dev1", 3600, 1800003600), kFreeLine, kClosedLine));
    EXPECT_THAT(take_calls(), ElementsAre("persist_mark 1 expiry 3600 until 1800003600", kClean));
    EXPECT_EQ(deadline_when_saved, 1800003600u);
    EXPECT_EQ(record->session.session_expiry_deadline, 1800003600u);
    expect_released(record);
}

TEST_F(Close, the_largest_expiry_interval_does_not_wrap)
{
    mqtt_client_t *const record     = client(0);
    record->session_expiry_interval = 0xFFFFFFFF;
    client_close(record);
    EXPECT_THAT(own_lines(log), testing::Contains(logged::session_kept_until("dev1", 4294967295u, 6094967295ull)));
}

TEST_F(Close, a_client_that_said_disconnect_keeps_its_session_as_it_is)
{
    for (const uint32_t expiry_s : {0u, 3600u}) {
        mqtt_client_t *const record     = client(0);
        record->disconnect_received     = 1;
        record->session_expiry_interval = expiry_s;
        client_close(record);
        EXPECT_THAT(own_lines(log), ElementsAre(kCloseLine, kFreeLine, kClosedLine));
        EXPECT_THAT(take_calls(), ElementsAre(kClean));
    }
}

TEST_F(Close, a_clean_session_has_no_deadline)
{
    mqtt_client_t *const record     = client(1);
    record->session_expiry_interval = 3600;
    client_close(record);
    EXPECT_THAT(take_calls(), ElementsAre(kClean));
}

TEST_F(Close, a_dropped_client_starts_its_delayed_will_and_waits_for_it)
{
    mqtt_client_t *const record = client(1);
    give_will(record, 30);
    send(record, wire("D0 00"));
    log.take();
    client_close(record);
    EXPECT_THAT(own_lines(log), ElementsAre(kCloseLine, kForcedLine, entered(30), kWaitingLine));
    EXPECT_THAT(take_calls(), ElementsAre("packet_start_will_delay dev1 state 2")) << "while it is online";
    EXPECT_EQ(g_will_delay_client_count, 1);
    EXPECT_EQ(record->will_delay_pending, 1);
    EXPECT_EQ(record->will_delay_deadline, clock.mono_ms() + 30000);
    expect_waiting(record);
    EXPECT_EQ(record->handle, 1u) << "until it is released";
}

TEST_F(Close, a_will_without_delay_keeps_its_record_for_good)
{
    mqtt_client_t *const record = client(1);
    give_will(record, 0);
    log.take();
    client_close(record);
    EXPECT_THAT(own_lines(log), ElementsAre(kCloseLine, kForcedLine, entered(0), kWaitingLine));
    EXPECT_THAT(take_calls(),
                ElementsAre("packet_start_will_delay dev1 state 2", "packet_send_will_message dev1 state 2"));
    expect_waiting(record);
    clock.advance_ms(100000);
    client_will_delay_scan();
    expect_waiting(record);
    EXPECT_EQ(g_will_delay_client_count, 1);
}

TEST_F(Close, after_disconnect_no_will_starts)
{
    mqtt_client_t *const record = client(1);
    give_will(record, 30);
    record->disconnect_received = 1;
    log.take();
    client_close(record);
    EXPECT_THAT(own_lines(log), ElementsAre(kCloseLine, kFreeLine, kClosedLine));
    EXPECT_THAT(take_calls(), ElementsAre(kClean));
    EXPECT_EQ(g_will_delay_client_count, 0);
    expect_released(record);
}

TEST_F(Close, a_timed_out_client_starts_its_will_whatever_it_said)
{
    mqtt_client_t *const record = client(1);
    give_will(record, 30);
    record->timeout_closing     = 1;
    record->disconnect_received = 1;
    log.take();
    client_close(record);
    EXPECT_THAT(own_lines(log), ElementsAre(kCloseLine, entered(30), kWaitingLine));
    expect_waiting(record);
}

TEST_F(Close, a_timed_out_client_that_said_nothing_has_no_line_about_force)
{
    mqtt_client_t *const record = client(0);
    give_will(record, 30);
    record->timeout_closing = 1;
    log.take();
    client_close(record);
    EXPECT_THAT(own_lines(log), ElementsAre(kCloseLine, kDeletedLine, entered(30), kWaitingLine));
}

TEST_F(Close, a_will_waits_although_its_session_is_deleted)
{
    mqtt_client_t *const record = client(0);
    give_will(record, 30);
    client_close(record);
    EXPECT_THAT(take_calls(), ElementsAre("persist_remove dev1", "packet_start_will_delay dev1 state 2"));
    expect_waiting(record);
}

TEST_F(Close, a_will_that_was_sent_is_not_started_again)
{
    mqtt_client_t *const record = client(1);
    give_will(record, 30);
    record->will_sent = 1;
    log.take();
    client_close(record);
    EXPECT_THAT(own_lines(log), ElementsAre(kCloseLine, kFreeLine, kClosedLine));
    expect_released(record);
}

TEST_F(Close, session_first_then_will)
{
    mqtt_client_t *const record     = client(0);
    record->session_expiry_interval = 60;
    give_will(record, 30);
    log.take();
    client_close(record);
    EXPECT_THAT(own_lines(log), ElementsAre(kCloseLine, logged::session_kept_until("dev1", 60, 1800000060), kForcedLine,
                                            entered(30), kWaitingLine));
    EXPECT_THAT(take_calls(),
                ElementsAre("persist_mark 1 expiry 60 until 1800000060", "packet_start_will_delay dev1 state 2"));
    EXPECT_EQ(record->session_expiry_deadline, 1800000060u) << "a parked record keeps it";
}

TEST_F(Close, of_a_waiting_record_runs_again)
{
    mqtt_client_t *const record = client(0);
    give_will(record, 30);
    client_close(record);
    take_calls();
    log.take();
    clock.advance_ms(1000);
    client_close(record);
    EXPECT_THAT(own_lines(log), ElementsAre(kCloseLine, kDeletedLine, kForcedLine, entered(30), kWaitingLine));
    EXPECT_THAT(take_calls(), ElementsAre("persist_remove dev1", "packet_start_will_delay dev1 state 3"));
    EXPECT_EQ(g_will_delay_client_count, 2);
    record->will_sent = 1;
    client_close(record);
    expect_released(record);
}

TEST_F(Close, closes_the_connection_before_the_record_is_released)
{
    mqtt_client_t *const record = client(1);
    Socket               socket(1);
    g_netip_cb = [](uint32_t handle, uint32_t event, const uint8_t *, uint32_t, uint32_t reason, uint32_t, void *) {
        EXPECT_EQ(handle, 1u);
        EXPECT_EQ(event, uint32_t{NETIP_EVENT_DISCONNECTED});
        EXPECT_EQ(reason, 2u);
        EXPECT_EQ(g_client_mgr.used_count, 1) << "still there";
        EXPECT_EQ(client_find_by_handle(1), nullptr) << "but not to be found";
        return uint8_t{1};
    };
    client_close(record);
    EXPECT_TRUE(socket.closed_by_broker());
    expect_released(record);
    g_netip_cb = nullptr;
}

TEST_F(Close, waits_after_the_connection_is_closed)
{
    mqtt_client_t *const record = client(1);
    Socket               socket(1);
    give_will(record, 5);
    client_close(record);
    EXPECT_TRUE(socket.closed_by_broker());
    expect_waiting(record);
}

TEST_F(Close, leaves_entries_that_are_not_its_own)
{
    mqtt_client_t *const old  = client(1);
    mqtt_client_t *const next = log_in(1, "dev1");
    client_close(old);
    EXPECT_EQ(client_find_by_handle(1), next);
    EXPECT_EQ(client_find_by_cid("dev1"), next);
    EXPECT_EQ(old->used, 0);
}

TEST_F(Close, does_not_close_the_next_connection_with_its_handle)
{
    mqtt_client_t *const record   = client(1);
    client::side_at(0).generation = 12345; // its connection is long gone
    Socket other(1);
    client_close(record);
    EXPECT_FALSE(other.closed_by_broker());
    expect_released(record);
}

TEST_F(Close, from_inside_itself_does_nothing)
{
    mqtt_client_t *const record     = client(0);
    record->session_expiry_interval = 60;
    g_calls.on_mark                 = [&] { client_close(record); };
    client_close(record);
    EXPECT_EQ(g_client_mgr.used_count, 0);
    EXPECT_THAT(take_calls(), ElementsAre("persist_mark 1 expiry 60 until 1800000060", kClean)) << "once";
    log.take();

    g_calls.on_mark              = nullptr;
    mqtt_client_t *const willing = client(1);
    give_will(willing, 0);
    g_calls.on_will = [&](mqtt_client_t &closing) { client_close(&closing); };
    client_close(willing);
    EXPECT_EQ(g_will_delay_client_count, 1);
    expect_waiting(willing);
}

TEST_F(Close, runs_with_no_lock_held)
{
    mqtt_client_t *const record = client(0);
    give_will(record, 0);
    record->session_expiry_interval = 60;
    const auto look_about           = [&] { // another thread may need any of these meanwhile
        for (Mutex &lock : g_client_mgr.locks)
            ASSERT_TRUE(is_free(lock));
        ASSERT_TRUE(is_free(record->will_lock));
        ASSERT_TRUE(is_free(record->send_lock));
    };
    g_calls.on_mark = look_about;
    g_calls.on_will = [&](mqtt_client_t &) { look_about(); };
    client_close(record);
    EXPECT_THAT(take_calls(), SizeIs(3));
}

TEST_F(Close, of_an_own_record_leaves_it_to_its_owner)
{
    OwnRecord record(5);
    client_set_cid(record.get(), "own");
    send(record.get(), wire("D0 00"));
    log.take();
    client_close(record.get());
    EXPECT_EQ(log.lines().back(), logged::close_completed("own"));
    EXPECT_EQ(record->state, uint32_t{CLIENT_CLOSED});
    EXPECT_EQ(record->used, 1);
    EXPECT_NE(record->send_queue, nullptr);
    EXPECT_EQ(client_find_by_cid("own"), nullptr);
}

TEST_F(Close, shows_the_id_of_a_record_that_was_not_in_use)
{
    mqtt_client_t *const record = client(1);
    record->used                = 0;
    client_close(record);
    EXPECT_EQ(log.lines().back(), logged::close_completed("dev1"));
    EXPECT_EQ(record->state, uint32_t{CLIENT_CLOSED});
    EXPECT_EQ(g_client_mgr.used_count, 1);
}

TEST_F(Close, gives_back_the_pages_of_a_waiting_records_ring)
{
    mqtt_client_t *const record = client(1);
    give_will(record, 30);
    send(record, {42});
    client_close(record);
    ASSERT_NE(record->send_queue, nullptr);
    EXPECT_EQ(record->send_queue[0].data[0], 0);
}

TEST_F(Close, waits_for_the_thread_that_sends_from_the_ring)
{
    mqtt_client_t *const record = client(1);
    send(record, {1});
    client::side_at(0).flushing = 1;
    pthread_t closer;
    pthread_create(
        &closer, nullptr, [](void *arg) -> void * { return client_close(static_cast<mqtt_client_t *>(arg)), nullptr; },
        record);
    ASSERT_TRUE(eventually([&] { return peek(record->state) == CLIENT_WILL_PENDING; }));
    usleep(20000);
    EXPECT_EQ(peek(record->used), 1) << "not before the other is done";
    {
        ScopedLock lock(record->send_lock);
        client::side_at(0).flushing = 0;
    }
    pthread_join(closer, nullptr);
    expect_released(record);
}

TEST_F(Close, by_two_threads_happens_once)
{
    for (int round = 0; round < 200; ++round) {
        mqtt_client_t *const record = client(1);
        give_will(record, 30);
        g_will_delay_client_count = 0;
        const auto close_it       = [](void *arg) -> void       *{
            const client_ref pin(static_cast<mqtt_client_t *>(arg));
            client_close(pin.get());
            return nullptr;
        };
        pthread_t        threads[2];
        const client_ref pin(record);
        for (pthread_t &thread : threads)
            pthread_create(&thread, nullptr, close_it, record);
        for (const pthread_t thread : threads)
            pthread_join(thread, nullptr);
        const int starts = g_will_delay_client_count;
        ASSERT_GE(starts, 1);
        ASSERT_LE(starts, 2); // a thread that came when the first was done closes the waiting record again
        record->will_sent = 1;
        client_close(record);
    }
}
