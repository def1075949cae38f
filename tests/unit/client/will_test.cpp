#include "client_fixture.h"

#include "base/clock.h"
#include "base/thread.h"
#include "support/log_lines/client.h"

#include <optional>

using namespace tarn;
using namespace tarn::test;

namespace {

// A dropped client whose will is due in so many seconds.
mqtt_client_t *make_waiting(uint32_t handle, const char *id, uint32_t delay_s)
{
    mqtt_client_t *const client = log_in(handle, id);
    client_set_will_msg(client, "gone", text("x").data(), 1, 0, 0);
    client_set_will_enhance(client, delay_s, 0, 0, nullptr, nullptr, nullptr, 0);
    client_close(client);
    take_calls();
    return client;
}

} // namespace

TEST(set_will, stores_topic_payload_and_flags)
{
    OwnRecord client;
    strcpy(client->client_id, "dev1");
    client->will_sent = 1;
    LogCapture log;
    client_set_will_msg(client.get(), "a/b", text("gone").data(), 4, 2, 1);
    EXPECT_STREQ(client->will_topic, "a/b");
    EXPECT_EQ(std::string(reinterpret_cast<char *>(peek(client->will_payload)), 4), "gone");
    EXPECT_EQ(client->will_payload_len, 4u);
    EXPECT_EQ(client->will_qos, 2);
    EXPECT_EQ(client->will_retain, 1);
    EXPECT_EQ(client->will_sent, 0);
    EXPECT_EQ(client->will_msg_used, 1);
    EXPECT_THAT(log.take(), ElementsAre(logged::will_given("dev1", "a/b", 4, 2, 1),
                                        logged::will_stored("dev1", "a/b", 4, 2, 1, 1)));
    ScopedLock lock(client->will_lock);
    client::free_will_texts(*client);
}

TEST(set_will, takes_2048_bytes_and_no_more)
{
    OwnRecord   client;
    const Bytes payload(2049, 'p');
    client_set_will_msg(client.get(), "old", payload.data(), 2048, 0, 0);
    EXPECT_EQ(client->will_payload_len, 2048u);
    LogCapture log;
    client_set_will_msg(client.get(), "new", payload.data(), 2049, 1, 0);
    EXPECT_STREQ(client->will_topic, "old") << "nothing changed";
    EXPECT_EQ(client->will_payload_len, 2048u);
    EXPECT_THAT(log.take(), ElementsAre(logged::will_refused(client.get(), "new", 2049, 1)));
    client_set_will_msg(client.get(), "new", payload.data(), 2047, 1, 0);
    EXPECT_EQ(client->will_payload_len, 2047u);
    ScopedLock lock(client->will_lock);
    client::free_will_texts(*client);
}

TEST(set_will, needs_a_client_and_a_topic)
{
    OwnRecord  client;
    LogCapture log;
    client_set_will_msg(nullptr, "t", nullptr, 0, 2, 0);
    client_set_will_msg(client.get(), nullptr, nullptr, 7, 1, 0);
    EXPECT_EQ(client->will_msg_used, 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::will_refused(nullptr, "t", 0, 2),
                                        logged::will_refused(client.get(), "NULL", 7, 1)));
}

TEST(set_will, lowers_a_qos_above_2_to_0)
{
    OwnRecord client;
    strcpy(client->client_id, "dev1");
    LogCapture log;
    client_set_will_msg(client.get(), "t", nullptr, 0, 3, 0);
    EXPECT_EQ(client->will_qos, 0);
    EXPECT_THAT(log.take(),
                ElementsAre(logged::will_given("dev1", "t", 0, 3, 0),
                            warn("[遗嘱调试][QoS降级] ClientID=dev1, 原始QoS=3超出范围（0-2），自动降级为QoS0"),
                            logged::will_stored("dev1", "t", 0, 0, 0, 1)));
    ScopedLock lock(client->will_lock);
    client::free_will_texts(*client);
}

TEST(set_will, takes_an_empty_topic_and_payload)
{
    OwnRecord client;
    client_set_will_msg(client.get(), "", nullptr, 0, 0, 0);
    EXPECT_EQ(client->will_msg_used, 1);
    EXPECT_STREQ(client->will_topic, "");
    EXPECT_NE(client->will_payload, nullptr);
    client_set_will_msg(client.get(), "t", nullptr, 5, 0, 0);
    EXPECT_EQ(client->will_payload_len, 0u) << "no bytes were given";
    ScopedLock lock(client->will_lock);
    client::free_will_texts(*client);
}

TEST(set_will, without_memory_leaves_no_will)
{
    for (const int nth : {1, 2}) {
        OwnRecord client;
        strcpy(client->client_id, "dev1");
        client_set_will_msg(client.get(), "old", text("abc").data(), 3, 2, 1);
        LogCapture log(1);
        {
            Fail no_memory(Call::Allocate, nth);
            client_set_will_msg(client.get(), "new", text("x").data(), 1, 1, 0);
        }
        EXPECT_EQ(client->will_topic, nullptr);
        EXPECT_EQ(client->will_payload, nullptr);
        EXPECT_EQ(client->will_msg_used, 0);
        EXPECT_THAT(log.take(), ElementsAre(logged::will_stored("dev1", "(null)", 3, 2, 1, 0)));
    }
}

TEST(set_will, may_be_given_the_records_own_texts)
{
    OwnRecord client;
    client_set_will_msg(client.get(), "topic", text("abc").data(), 3, 0, 0);
    client_set_will_msg(client.get(), client->will_topic, client->will_payload, 3, 1, 0);
    EXPECT_STREQ(client->will_topic, "topic");
    EXPECT_EQ(client->will_payload[2], 'c');
    ScopedLock lock(client->will_lock);
    client::free_will_texts(*client);
}

TEST(set_will_enhance, stores_the_5_0_properties)
{
    OwnRecord client;
    strcpy(client->client_id, "dev1");
    LogCapture        log;
    const Bytes       data(256, 9);
    const std::string type(64, 't'), topic(257, 'r');
    client_set_will_enhance(client.get(), 30, 60, 1, type.c_str(), topic.c_str(), data.data(), 255);
    EXPECT_EQ(client->will_delay_interval, 30u);
    EXPECT_EQ(client->will_msg_expiry_interval, 60u);
    EXPECT_EQ(client->will_payload_format, 1);
    EXPECT_EQ(std::string(client->will_content_type), std::string(63, 't'));
    EXPECT_EQ(std::string(client->will_response_topic), std::string(256, 'r'));
    EXPECT_EQ(client->will_correlation_len, 255u);
    EXPECT_EQ(client->will_correlation_data[254], 9);
    EXPECT_EQ(client->will_correlation_data[255], 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::will_delay_stored("dev1", 30, 60)));

    client_set_will_enhance(client.get(), 1, 2, 0, nullptr, nullptr, data.data(), 256);
    EXPECT_EQ(client->will_delay_interval, 1u);
    EXPECT_EQ(std::string(client->will_content_type), std::string(63, 't')) << "not given, not changed";
    EXPECT_EQ(std::string(client->will_response_topic), std::string(256, 'r'));
    EXPECT_EQ(client->will_correlation_len, 255u) << "too long, not changed";
    client_set_will_enhance(client.get(), 1, 2, 0, "", "", nullptr, 3);
    EXPECT_STREQ(client->will_content_type, "");
    EXPECT_STREQ(client->will_response_topic, "");
    EXPECT_EQ(client->will_correlation_len, 255u) << "no data, not changed";
    client_set_will_enhance(client.get(), 1, 2, 0, nullptr, nullptr, data.data(), 0);
    EXPECT_EQ(client->will_correlation_len, 0u);
    log.take();
    client_set_will_enhance(nullptr, 1, 2, 0, nullptr, nullptr, nullptr, 0);
    EXPECT_THAT(log.take(), IsEmpty());
}

struct WillScan : testing::Test {
    ManualClock clock;
    Manager     manager;
};

TEST_F(WillScan, publishes_when_due_and_releases_the_record)
{
    mqtt_client_t *const record = make_waiting(1, "dev1", 5);
    EXPECT_TRUE(wills_are_delayed("dev1"));
    LogCapture log(2);
    clock.advance_ms(4999);
    client_will_delay_scan();
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_EQ(record->state, uint32_t{CLIENT_WILL_PENDING});
    clock.advance_ms(1);
    client_will_delay_scan();
    EXPECT_THAT(take_calls(),
                ElementsAre("packet_send_will_message dev1 state 3", "qos_reliable_clean_client_packets dev1"));
    EXPECT_THAT(own_lines(log), ElementsAre(warn("[WILL] 延迟结束，发送并清理 client=dev1")));
    EXPECT_EQ(record->state, uint32_t{CLIENT_CLOSED});
    EXPECT_EQ(record->used, 0);
    EXPECT_EQ(g_client_mgr.used_count, 0);
    EXPECT_EQ(g_will_delay_client_count, 0);
    EXPECT_FALSE(wills_are_delayed("dev1"));
    client_will_delay_scan();
    EXPECT_THAT(take_calls(), IsEmpty());
}

TEST_F(WillScan, publishes_up_to_30_s_late)
{
    make_waiting(1, "dev1", 5);
    clock.advance_ms(35000);
    client_will_delay_scan();
    EXPECT_THAT(take_calls(), testing::Contains("packet_send_will_message dev1 state 3"));
}

TEST_F(WillScan, a_will_overdue_by_more_than_30_s_is_dropped)
{
    mqtt_client_t *const record = make_waiting(1, "dev1", 5);
    LogCapture           log(2);
    clock.advance_ms(35001);
    client_will_delay_scan();
    EXPECT_THAT(take_calls(), ElementsAre("qos_reliable_clean_client_packets dev1"));
    EXPECT_THAT(own_lines(log), ElementsAre(warn("[WILL] 超时30s强制清理 client=dev1")));
    EXPECT_EQ(record->used, 0);
    EXPECT_EQ(g_will_delay_client_count, 0);
}

TEST_F(WillScan, does_not_publish_a_will_that_was_sent)
{
    mqtt_client_t *const record = make_waiting(1, "dev1", 5);
    record->will_sent           = 1;
    clock.advance_ms(35000);
    client_will_delay_scan();
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_EQ(record->state, uint32_t{CLIENT_WILL_PENDING});
    clock.advance_ms(1);
    EXPECT_TRUE(will_delays_running());
    client_will_delay_scan();
    EXPECT_EQ(record->used, 0) << "but frees the record at last";
}

TEST_F(WillScan, looks_at_waiting_records_only)
{
    mqtt_client_t *const online    = log_in(1, "dev1");
    mqtt_client_t *const cancelled = make_waiting(2, "dev2", 1);
    mqtt_client_t *const unused    = make_waiting(3, "dev3", 1);
    online->will_delay_pending     = 1;
    cancelled->will_delay_pending  = 0;
    unused->used                   = 0;
    clock.advance_ms(2000);
    client_will_delay_scan();
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_EQ(online->state, uint32_t{CLIENT_LOGINED});
    EXPECT_EQ(cancelled->state, uint32_t{CLIENT_WILL_PENDING});
    unused->used = 1;
}

TEST_F(WillScan, leaves_a_record_that_another_thread_has_claimed)
{
    mqtt_client_t *const record = make_waiting(1, "dev1", 1);
    clock.advance_ms(1000);
    {
        const client::Claim claim(*record);
        ASSERT_TRUE(claim);
        client_will_delay_scan();
        EXPECT_THAT(take_calls(), IsEmpty());
        EXPECT_TRUE(will_delays_running()) << "looks again on the next turn";
    }
    client_will_delay_scan();
    EXPECT_THAT(take_calls(), SizeIs(2));
}

TEST_F(WillScan, does_not_claim_what_is_not_due)
{
    mqtt_client_t *const         record = make_waiting(1, "dev1", 5);
    std::optional<client::Claim> claim;
    while_it_waits(record->will_lock, client_will_delay_scan, [&] {
        EXPECT_FALSE(client::is_idle(0)) << "the scan looks at it";
        claim.emplace(*record);
    });
    EXPECT_TRUE(*claim) << "as the CONNECT of a client that comes back does, to cancel its will";
}

TEST_F(WillScan, leaves_the_tables_to_the_client_that_came_back)
{
    make_waiting(1, "dev1", 1);
    mqtt_client_t *const back = log_in(1, "dev1");
    EXPECT_EQ(client_find_by_cid("dev1"), back) << "not the old record";
    clock.advance_ms(1000);
    client_will_delay_scan();
    EXPECT_EQ(client_find_by_cid("dev1"), back);
    EXPECT_EQ(client_find_by_handle(1), back);
    EXPECT_EQ(g_client_mgr.used_count, 1);
}

TEST_F(WillScan, clears_entries_that_are_still_its_own)
{
    mqtt_client_t *const record = make_waiting(1, "dev1", 1);
    g_client_mgr.by_handle[1]   = record;
    client_set_cid(record, "dev1");
    EXPECT_EQ(client_find_by_cid("dev1"), record);
    clock.advance_ms(1000);
    client_will_delay_scan();
    EXPECT_EQ(g_client_mgr.by_handle[1], nullptr);
    EXPECT_EQ(g_client_mgr.by_cid[client::hash_of("dev1") % 11000], nullptr);
}

TEST_F(WillScan, publishes_with_no_lock_held)
{
    mqtt_client_t *const record = make_waiting(1, "dev1", 1);
    g_calls.on_will             = [&](mqtt_client_t &) {
        for (Mutex &lock : g_client_mgr.locks)
            ASSERT_TRUE(is_free(lock));
        ASSERT_TRUE(is_free(record->will_lock));
        client_close(record); // claimed already
    };
    clock.advance_ms(1000);
    client_will_delay_scan();
    EXPECT_EQ(record->used, 0);
    EXPECT_EQ(g_will_delay_client_count, 0);
}

TEST_F(WillScan, closes_a_connection_that_is_still_open)
{
    mqtt_client_t *const record = make_waiting(1, "dev1", 1);
    Socket               socket(1);
    (void)record;
    clock.advance_ms(1000);
    client_will_delay_scan();
    EXPECT_TRUE(socket.closed_by_broker());
}

TEST_F(WillScan, costs_nothing_while_nothing_is_due)
{
    client_will_delay_scan();
    EXPECT_FALSE(will_delays_running());
    mqtt_client_t *const first = make_waiting(1, "dev1", 3);
    make_waiting(2, "dev2", 2);
    clock.advance_ms(499);
    EXPECT_FALSE(will_delays_running());
    clock.advance_ms(1);
    EXPECT_TRUE(will_delays_running()) << "the walk twice a second";
    client_will_delay_scan();
    EXPECT_FALSE(will_delays_running());
    clock.advance_ms(400);
    client_will_delay_scan(); // at 900: the walk is due at 1400, 1900
    clock.advance_ms(499);
    client_will_delay_scan(); // at 1399: the next at 1899
    clock.advance_ms(499);
    client_will_delay_scan(); // at 1898
    clock.advance_ms(101);
    EXPECT_FALSE(will_delays_running());
    clock.advance_ms(1);
    EXPECT_TRUE(will_delays_running()) << "the second client's will";
    client_will_delay_scan();
    EXPECT_FALSE(will_delays_running()) << "that one is settled";
    EXPECT_TRUE(wills_are_delayed("dev1"));
    EXPECT_EQ(first->used, 1);
    EXPECT_EQ(g_client_mgr.used_count, 1);
}

// A CONNECT need not look through the wills of all others.
TEST_F(WillScan, the_librarys_threads_are_told_of_wills_of_their_id_only)
{
    mqtt_client_t *const one = make_waiting(1, "dev1", 5);
    make_waiting(2, "dev2", 9);
    const auto on_library_thread = [](const char *id) {
        struct Call {
            const char *id;
            bool        delayed;
        } call{id, false};
        pthread_t thread = 0;
        EXPECT_EQ(start_thread(
                      &thread, "io",
                      [](void *arg) -> void * {
                          auto &it   = *static_cast<Call *>(arg);
                          it.delayed = wills_are_delayed(it.id);
                          return nullptr;
                      },
                      &call),
                  0);
        join_or_detach(thread);
        return call.delayed;
    };
    EXPECT_TRUE(wills_are_delayed("dev3")) << "a host may have edited a record";
    EXPECT_FALSE(on_library_thread("dev3"));
    EXPECT_TRUE(on_library_thread("dev1"));
    EXPECT_TRUE(on_library_thread("dev2"));
    client_set_cid(one, "dev3"); // by a host: the count stays where it was made
    clock.advance_ms(5000);
    client_will_delay_scan();
    EXPECT_EQ(one->used, 0);
    EXPECT_FALSE(on_library_thread("dev1"));
    EXPECT_FALSE(on_library_thread("dev3"));
    EXPECT_TRUE(on_library_thread("dev2"));
}

TEST_F(WillScan, finds_a_will_that_was_set_going_by_hand)
{
    mqtt_client_t *const record = log_in(1, "dev1");
    record->state               = CLIENT_WILL_PENDING;
    record->will_delay_pending  = 1;
    record->will_delay_deadline = clock.mono_ms() + 100;
    clock.advance_ms(100);
    client_will_delay_scan();
    EXPECT_THAT(take_calls(), testing::Contains("packet_send_will_message dev1 state 3"));
}

TEST(will_scan, without_a_pool_returns)
{
    LogCapture log;
    client_will_delay_scan();
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(will_scan, delayed_wills_go_with_the_manager)
{
    const ManualClock clock;
    {
        const Manager manager;
        make_waiting(1, "dev1", 5);
        EXPECT_TRUE(wills_are_delayed("dev1"));
    }
    EXPECT_FALSE(wills_are_delayed("dev1"));
    EXPECT_THAT(take_calls(), ElementsAre("qos_reliable_destroy")) << "dropped unpublished";
}
