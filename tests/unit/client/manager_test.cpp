#include "client_fixture.h"

#include "qos/qos_reliable.h"
#include "support/log_lines/client.h"

#include <thread>

using namespace tarn;
using namespace tarn::test;

namespace {

constexpr uint32_t kFailed = 0xFFFFFFFF;

} // namespace

TEST(client_mgr_init, makes_whole_blocks_for_the_limit)
{
    LogCapture log;
    Fail       no_threads(Call::ThreadCreate, 1, 11, 2); // whose lines would come in between
    g_calls.qos_stands_in = true;
    ASSERT_EQ(client_mgr_init(150), 0u);
    EXPECT_THAT(take_calls(), ElementsAre("qos_reliable_init"));
    EXPECT_THAT(log.take(), ElementsAre(logged::client_manager_ready(150)));
    EXPECT_EQ(g_client_mgr.block_count, 2);
    EXPECT_EQ(g_client_mgr.capacity, 200);
    EXPECT_EQ(g_client_mgr.used_count, 0);
    EXPECT_EQ(g_client_mgr.running, 1);
    EXPECT_EQ(g_mqtt_max_clients, 150);
    EXPECT_EQ(g_send_running, 1);
    for (int block = 0; block < 2; ++block) {
        EXPECT_EQ(g_client_mgr.blocks[block].used, 0);
        EXPECT_EQ(g_client_mgr.blocks[block].capacity, 100);
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(g_client_mgr.blocks[block].used_flags[i], 0);
            EXPECT_EQ(g_client_mgr.blocks[block].records[i].state, 0u);
        }
    }
    client_mgr_deinit();
}

TEST(client_mgr_init, takes_1_to_11000_clients)
{
    LogCapture log(2);
    for (const int32_t wrong : {0, -1, 11001}) {
        EXPECT_EQ(client_mgr_init(wrong), kFailed);
        EXPECT_THAT(log.take(), ElementsAre(error("max_clients " + std::to_string(wrong) + " invalid, must <= 11000")));
        EXPECT_EQ(g_mqtt_max_clients, 11000) << "untouched";
    }
    for (const auto &[clients, blocks] : {std::pair{1, 1}, {100, 1}, {101, 2}, {11000, 110}}) {
        EXPECT_EQ(client_mgr_init(clients), 0u);
        EXPECT_EQ(g_client_mgr.block_count, blocks);
        client_mgr_deinit();
    }
}

TEST(client_mgr_init, fails_without_memory_for_the_block_list)
{
    LogCapture log;
    {
        Fail no_memory(Call::Allocate);
        EXPECT_EQ(client_mgr_init(10), kFailed);
    }
    EXPECT_THAT(log.take(), ElementsAre(error("malloc pools failed")));
    EXPECT_EQ(g_client_mgr.running, 0);
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_EQ(client_mgr_init(10), 0u) << "the next try is an ordinary one";
    client_mgr_deinit();
}

TEST(client_mgr_init, fails_silently_without_memory_for_a_block)
{
    LogCapture log;
    for (const int succeed : {0, 1, 1}) { // reserve; reserve, block; block, block
        g_calls.memory_fails_after = succeed;
        EXPECT_EQ(client_mgr_init(150), kFailed) << succeed;
        EXPECT_EQ(g_client_mgr.blocks, nullptr);
        EXPECT_EQ(g_client_mgr.block_count, 0);
        EXPECT_EQ(g_client_mgr.capacity, 0);
        EXPECT_EQ(g_client_mgr.running, 0);
        g_calls.memory_fails_after = -1;
    }
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_THAT(take_calls(), IsEmpty());
}

TEST(client_mgr_init, tears_down_again_when_reliable_delivery_fails)
{
    g_calls.qos_fails = true;
    LogCapture log;
    EXPECT_EQ(client_mgr_init(10), kFailed);
    EXPECT_THAT(take_calls(), ElementsAre("qos_reliable_init", "qos_reliable_destroy"));
    const std::vector<LogLine> lines = log.take();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.front(), error("QoS reliable init failed"));
    EXPECT_EQ(lines.back(), logged::client_manager_down());
    EXPECT_EQ(g_client_mgr.block_count, 0);
    EXPECT_EQ(g_client_mgr.running, 0);
    EXPECT_EQ(g_send_running, 0) << "no send thread was started";
}

TEST(client_mgr_init, does_not_check_whether_the_send_thread_started)
{
    LogCapture log(1);
    g_calls.qos_stands_in = true;
    Fail no_thread(Call::ThreadCreate);
    EXPECT_EQ(client_mgr_init(10), 0u);
    EXPECT_EQ(g_send_running, 1);
    EXPECT_TRUE(log.has(logged::client_manager_ready(10)));
    client_mgr_deinit(); // joins nothing
    EXPECT_EQ(g_send_running, 0);
}

TEST(client_mgr_init, over_a_live_manager_empties_it_silently)
{
    LogCapture log(2);
    ASSERT_EQ(client_mgr_init(10), 0u);
    mqtt_client_t *const client = log_in(3, "dev1");
    client->keepalive_ms        = 777;
    send(client, wire("D0 00"));
    client_set_will_msg(client, "t", text("x").data(), 1, 0, 0);
    const pthread_t sender = g_send_thread;
    log.take();

    ASSERT_EQ(client_mgr_init(120), 0u);
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ(g_send_thread, sender) << "one send thread";
    EXPECT_EQ(g_client_mgr.used_count, 0);
    EXPECT_EQ(g_client_mgr.block_count, 2);
    EXPECT_EQ(client_find_by_handle(3), nullptr);
    EXPECT_EQ(client_find_by_cid("dev1"), nullptr);
    mqtt_client_t *const next = client_create(4, "", 0, nullptr);
    EXPECT_EQ(next, client) << "the first slot again";
    EXPECT_EQ(next->keepalive_ms, 0u) << "as zero as a fresh one";
    EXPECT_EQ(next->will_topic, nullptr);
    client_mgr_deinit();
}

TEST(client_mgr_init, over_a_live_manager_drops_its_deliveries)
{
    const LogCapture quiet;
    ASSERT_EQ(client_mgr_init(10), 0u);
    ASSERT_EQ(qos_reliable_add_packet(log_in(3, "dev1"), 1, 1, "t", "x", 1), 0);
    ASSERT_EQ(client_mgr_init(10), 0u);
    EXPECT_EQ(g_pending_queue, nullptr) << "or the next client in the slot would get it";
    client_mgr_deinit();
}

TEST(client_mgr_deinit, ends_the_send_thread)
{
    LogCapture log;
    // A line that meets another thread's is dropped, so it is looked for more than once.
    EXPECT_TRUE(wait_until([&] {
        EXPECT_EQ(client_mgr_init(10), 0u);
        client_mgr_deinit();
        return log.has(logged::send_thread_ended());
    }));
}

TEST(client_mgr_deinit, frees_all_and_leaves_nothing_to_find)
{
    LogCapture log;
    ASSERT_EQ(client_mgr_init(10), 0u);
    mqtt_client_t *const client = log_in(3, "dev1");
    send(client, wire("D0 00"));
    client_set_will_msg(client, "t", text("x").data(), 1, 0, 0);
    take_calls();
    log.take();

    client_mgr_deinit();
    EXPECT_THAT(take_calls(), ElementsAre("qos_reliable_destroy"));
    EXPECT_EQ(log.lines().back(), logged::client_manager_down());
    EXPECT_EQ(g_client_mgr.running, 0);
    EXPECT_EQ(g_client_mgr.blocks, nullptr);
    EXPECT_EQ(g_client_mgr.block_count, 0);
    EXPECT_EQ(g_client_mgr.capacity, 0);
    EXPECT_EQ(g_client_mgr.used_count, 0);
    EXPECT_EQ(g_send_running, 0);
    EXPECT_EQ(client_find_by_handle(3), nullptr);
    EXPECT_EQ(client_find_by_cid("dev1"), nullptr);
    EXPECT_EQ(client_get_connected_count(), 0u);
    EXPECT_EQ(client->send_queue, nullptr) << "late readers see zeros";
    EXPECT_EQ(client->will_topic, nullptr);
    EXPECT_EQ(client->state, 0u);
}

TEST(client_mgr_deinit, repeated_or_alone_only_says_its_line)
{
    LogCapture log(1);
    client_mgr_deinit();
    client_mgr_deinit();
    EXPECT_EQ(log.count(logged::client_manager_down()), 2);
    EXPECT_EQ(g_client_mgr.blocks, nullptr);
}

TEST(client_mgr_deinit, leaves_a_record_that_somebody_holds_to_its_holder)
{
    const LogCapture quiet;
    ASSERT_EQ(client_mgr_init(10), 0u);
    mqtt_client_t *const client    = log_in(3, "dev1");
    mqtt_client_t *const neighbour = log_in(4, "dev2");
    neighbour->keepalive_ms        = 5;
    neighbour->session.sub_count   = 1;
    strcpy(neighbour->session.subs[0].topic, "a");
    client_ref held(client);
    client_mgr_deinit();
    EXPECT_STREQ(client->client_id, "dev1") << "still held";
    EXPECT_EQ(client->state, uint32_t{CLIENT_CLOSED});
    EXPECT_TRUE(is_released(client));
    EXPECT_STREQ(neighbour->client_id, "");
    EXPECT_EQ(neighbour->keepalive_ms, 0u) << "scrubbed, since its page stays";
    EXPECT_EQ(neighbour->session.subs[0].topic[0], '\0');
    EXPECT_EQ(send(client, wire("D0 00")), kFailed);

    ASSERT_EQ(client_mgr_init(10), 0u);
    EXPECT_EQ(client_create(5, "", 0, nullptr), neighbour) << "the held slot is passed over";
    held.reset();
    EXPECT_STREQ(client->client_id, "");
    EXPECT_EQ(client_create(6, "", 0, nullptr), client);
    client_mgr_deinit();
}

TEST(send_thread, says_when_it_starts_and_ends)
{
    LogCapture log;
    g_send_running = 0;
    EXPECT_EQ(send_thread_proc(nullptr), nullptr);
    EXPECT_THAT(log.take(), ElementsAre(logged::send_thread_started(), logged::send_thread_ended()));

    mqtt_start_send_thread();
    mqtt_start_send_thread(); // runs already
    EXPECT_EQ(g_send_running, 1);
    EXPECT_TRUE(eventually([&] { return log.has(logged::send_thread_started()); }));
    mqtt_stop_send_thread();
    EXPECT_EQ(g_send_running, 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::send_thread_started(), logged::send_thread_ended()));
    mqtt_stop_send_thread(); // does not run
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(send_thread, started_by_several_at_once_is_one)
{
    LogCapture log;
    for (int round = 0; round < 50; ++round) {
        std::vector<std::thread> starters;
        for (int i = 0; i < 4; ++i)
            starters.emplace_back(mqtt_start_send_thread);
        for (std::thread &starter : starters)
            starter.join();
        mqtt_stop_send_thread();
        EXPECT_THAT(log.take(), ElementsAre(logged::send_thread_started(), logged::send_thread_ended()));
    }
}

TEST(send_thread, ended_through_its_flag_can_be_started_again)
{
    LogCapture log;
    mqtt_start_send_thread();
    g_send_running = 0;
    EXPECT_TRUE(eventually([&] { return log.count(logged::send_thread_ended()) == 1; }));
    mqtt_start_send_thread();
    EXPECT_TRUE(eventually([&] { return log.count(logged::send_thread_started()) == 2; }));
    mqtt_stop_send_thread();
}
