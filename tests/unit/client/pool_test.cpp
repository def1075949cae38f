#include "client_fixture.h"

#include "base/clock.h"
#include "qos/qos_reliable.h"
#include "support/log_lines/client.h"
#include "support/log_lines/codec.h"
#include "support/log_lines/qos.h"

#include <sys/mman.h>

using namespace tarn;
using namespace tarn::test;

namespace {

mqtt_client_t *create(uint32_t handle)
{
    return client_create(handle, "10.0.0.1", 1000, nullptr);
}

void release(mqtt_client_t *client)
{
    client->state = CLIENT_CLOSED;
    pool_free(client);
}

} // namespace

TEST(client_create, fills_the_record_and_tells_it)
{
    const ManualClock clock;
    const Manager     manager;
    g_default_max_packet_size   = 2000;
    auto *const          broker = reinterpret_cast<broker_t *>(0x1000);
    LogCapture           log;
    mqtt_client_t *const client = client_create(7, "192.0.2.1", 1234, broker);
    ASSERT_NE(client, nullptr);
    EXPECT_THAT(log.take(), ElementsAre(logged::codec_context_ready(),
                                        debug("[MQTT5] Client init max_packet_size = 2000 (default), client="),
                                        debug("Create client: handle=7, ip=192.0.2.1:1234, total=1")));
    EXPECT_EQ(client->handle, 7u);
    EXPECT_STREQ(client->ip, "192.0.2.1");
    EXPECT_EQ(client->port, 1234);
    EXPECT_EQ(client->state, uint32_t{CLIENT_CONNECTED});
    EXPECT_EQ(client->last_active, clock.mono_ms());
    EXPECT_EQ(client->next_msg_id, 1);
    EXPECT_EQ(client->broker, broker);
    EXPECT_EQ(client->used, 1);
    EXPECT_EQ(client->codec.version, 4u);
    EXPECT_EQ(client->max_packet_size, 2000u);
    EXPECT_EQ(client->send_queue, nullptr);
    EXPECT_STREQ(client->client_id, "");
    EXPECT_EQ(client_find_by_handle(7), client);
    EXPECT_EQ(g_client_mgr.by_handle[7], client);
    EXPECT_EQ(g_client_mgr.used_count, 1);
    EXPECT_EQ(g_client_mgr.blocks[0].used, 1);
    EXPECT_EQ(g_client_mgr.blocks[0].used_flags[0], 1);
}

TEST(client_create, cuts_the_address_to_63_characters)
{
    const Manager     manager;
    const std::string longer(64, 'x');
    EXPECT_EQ(std::string(client_create(1, longer.c_str(), 0, nullptr)->ip), std::string(63, 'x'));
    EXPECT_STREQ(client_create(2, nullptr, 0, nullptr)->ip, "");
}

TEST(client_create, clears_what_a_client_before_left)
{
    const Manager        manager;
    mqtt_client_t *const client      = create(1);
    client->disconnect_received      = 1;
    client->send_head                = 5;
    client->send_tail                = 5;
    client->will_payload_len         = 9;
    client->will_qos                 = 2;
    client->will_retain              = 1;
    client->will_delay_interval      = 3;
    client->will_msg_expiry_interval = 4;
    client->will_payload_format      = 1;
    strcpy(client->will_content_type, "a");
    strcpy(client->will_response_topic, "b");
    client->will_correlation_len    = 8;
    client->qos1_pending_msg_id     = 1;
    client->qos2_pending_msg_id     = 2;
    client->next_msg_id             = 99;
    client->keepalive_ms            = 7000;
    client->clean_session           = 1;
    client->session_restored        = 1;
    client->timeout_closing         = 1;
    client->session_expiry_interval = 5;
    client->session_expiry_deadline = 6;
    client->codec.version           = 5;
    release(client);

    ASSERT_EQ(create(2), client);
    EXPECT_EQ(client->disconnect_received, 0);
    EXPECT_EQ(client->send_head, 0);
    EXPECT_EQ(client->send_tail, 0);
    EXPECT_EQ(client->will_payload_len, 0u);
    EXPECT_EQ(client->will_qos, 0);
    EXPECT_EQ(client->will_retain, 0);
    EXPECT_EQ(client->will_delay_interval, 0u);
    EXPECT_EQ(client->will_msg_expiry_interval, 0u);
    EXPECT_EQ(client->will_payload_format, 0);
    EXPECT_STREQ(client->will_content_type, "");
    EXPECT_STREQ(client->will_response_topic, "");
    EXPECT_EQ(client->will_correlation_len, 0u);
    EXPECT_EQ(client->qos1_pending_msg_id, 0);
    EXPECT_EQ(client->qos2_pending_msg_id, 0);
    EXPECT_EQ(client->next_msg_id, 1);
    EXPECT_EQ(client->session_expiry_interval, 0u);
    EXPECT_EQ(client->session_expiry_deadline, 0u);
    EXPECT_EQ(client->codec.version, 4u);
    EXPECT_EQ(client->timeout_closing, 0);
    EXPECT_EQ(client->keepalive_ms, 7000u) << "kept until CONNECT";
    EXPECT_EQ(client->clean_session, 0);
    EXPECT_EQ(client->session_restored, 0);
}

TEST(client_create, refuses_beyond_the_limit)
{
    const Manager manager(150);
    LogCapture    log(2);
    for (uint32_t i = 0; i < 150; ++i)
        ASSERT_NE(create(i), nullptr) << i;
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ(g_client_mgr.blocks[0].used, 100);
    EXPECT_EQ(g_client_mgr.blocks[1].used, 50);
    EXPECT_EQ(create(150), nullptr);
    EXPECT_THAT(log.take(), ElementsAre(logged::client_pool_full(150)));
    EXPECT_EQ(client_find_by_handle(150), nullptr);
    EXPECT_EQ(g_client_mgr.used_count, 150);
}

TEST(client_create, takes_the_lowest_free_slot)
{
    const Manager                manager(200);
    std::vector<mqtt_client_t *> clients;
    for (uint32_t i = 0; i < 120; ++i)
        clients.push_back(create(i));
    for (int i = 0; i < 120; ++i)
        EXPECT_EQ(clients[static_cast<size_t>(i)], &g_client_mgr.blocks[i / 100].records[i % 100]);
    release(clients[110]);
    release(clients[40]);
    release(clients[7]);
    EXPECT_EQ(g_client_mgr.blocks[0].used, 98);
    EXPECT_EQ(create(500), clients[7]);
    EXPECT_EQ(create(501), clients[40]);
    EXPECT_EQ(create(502), clients[110]);
    EXPECT_EQ(create(503), &g_client_mgr.blocks[1].records[20]);
}

TEST(client_create, adds_a_block_when_the_limit_was_raised)
{
    const Manager manager(100);
    for (uint32_t i = 0; i < 100; ++i)
        create(i);
    g_mqtt_max_clients          = 250;
    mqtt_client_t *const client = create(100);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(g_client_mgr.block_count, 2);
    EXPECT_EQ(g_client_mgr.capacity, 200);
    EXPECT_EQ(client, &g_client_mgr.blocks[1].records[0]);
    EXPECT_EQ(g_client_mgr.blocks[1].used, 1);
    EXPECT_EQ(g_client_mgr.blocks[1].capacity, 100);
    EXPECT_EQ(client_find_by_handle(100), client);
}

TEST(client_create, fails_silently_when_no_block_can_be_added)
{
    const Manager manager(100);
    for (uint32_t i = 0; i < 100; ++i)
        create(i);
    g_mqtt_max_clients         = 101;
    g_calls.memory_fails_after = 0;
    LogCapture log;
    EXPECT_EQ(create(100), nullptr);
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ(g_client_mgr.block_count, 1);
    EXPECT_EQ(g_client_mgr.capacity, 100);
    EXPECT_EQ(client_find_by_handle(100), nullptr);
    EXPECT_NE(create(100), nullptr) << "the next try";
}

TEST(client_create, never_makes_more_than_110_blocks)
{
    const Manager manager(11000);
    g_mqtt_max_clients = 20000;
    for (uint32_t i = 0; i < 11000; ++i)
        ASSERT_NE(create(i), nullptr);
    LogCapture log;
    EXPECT_EQ(create(5), nullptr);
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_EQ(g_client_mgr.block_count, 110);
}

TEST(client_create, works_without_an_init)
{
    mqtt_client_t *const client = create(3);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(g_client_mgr.block_count, 1);
    EXPECT_EQ(g_client_mgr.capacity, 100);
    EXPECT_EQ(client_find_by_handle(3), client);
    EXPECT_EQ(client->max_packet_size, 4096u);
}

TEST(client_create, without_an_init_fails_when_there_is_no_memory_for_the_list)
{
    Fail no_memory(Call::Allocate);
    EXPECT_EQ(create(3), nullptr);
    EXPECT_EQ(no_memory.failed(), 1);
}

TEST(client_create, gives_no_table_entry_to_the_handle_that_is_none)
{
    const Manager        manager;
    mqtt_client_t *const client = create(NETIP_NO_HANDLE);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client_find_by_handle(NETIP_NO_HANDLE), nullptr);
    for (const mqtt_client_t *entry : g_client_mgr.by_handle)
        EXPECT_EQ(entry, nullptr);
    client_close(client);
    EXPECT_EQ(g_client_mgr.used_count, 0);
}

TEST(pool_free, clears_the_record_and_frees_the_slot)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    send(client, wire("D0 00"));
    client_set_will_msg(client, "t", text("x").data(), 1, 1, 1);
    client->will_sent               = 1;
    client->will_delay_pending      = 1;
    client->will_delay_deadline     = 5;
    client->session_expiry_interval = 6;
    client->session_expiry_deadline = 7;
    client->timeout_closing         = 1;
    client->session_restored        = 1;
    client->keepalive_ms            = 8;
    client->state                   = CLIENT_WILL_PENDING;
    take_calls();

    pool_free(client);
    EXPECT_THAT(take_calls(), ElementsAre("qos_reliable_clean_client_packets dev1"));
    EXPECT_EQ(client->handle, NETIP_NO_HANDLE);
    EXPECT_EQ(client->state, uint32_t{CLIENT_CLOSED});
    EXPECT_EQ(client->send_queue, nullptr);
    EXPECT_EQ(client->send_head, 0);
    EXPECT_EQ(client->send_tail, 0);
    EXPECT_EQ(client->used, 0);
    EXPECT_EQ(client->timeout_closing, 0);
    EXPECT_STREQ(client->client_id, "");
    EXPECT_STREQ(client->ip, "");
    EXPECT_EQ(client->will_topic, nullptr);
    EXPECT_EQ(client->will_payload, nullptr);
    EXPECT_EQ(client->will_msg_used, 0);
    EXPECT_EQ(client->will_sent, 0);
    EXPECT_EQ(client->will_delay_deadline, 0u);
    EXPECT_EQ(client->will_delay_pending, 0);
    EXPECT_EQ(client->session_expiry_interval, 0u);
    EXPECT_EQ(client->session_expiry_deadline, 0u);
    EXPECT_EQ(client->clean_session, 0);
    EXPECT_EQ(client->session_restored, 0);
    EXPECT_EQ(client->keepalive_ms, 8u) << "kept";
    EXPECT_EQ(g_client_mgr.used_count, 0);
    EXPECT_EQ(g_client_mgr.blocks[0].used, 0);
    EXPECT_EQ(g_client_mgr.blocks[0].used_flags[0], 0);

    pool_free(client); // not in use any more
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_EQ(g_client_mgr.used_count, 0);
}

TEST(pool_free, leaves_other_records_alone)
{
    const Manager manager;
    pool_free(nullptr);

    mqtt_client_t *const online = log_in(1, "dev1");
    pool_free(online);
    EXPECT_EQ(online->used, 1);

    online->state                        = CLIENT_CLOSED;
    g_client_mgr.blocks[0].used_flags[0] = 0;
    pool_free(online);
    EXPECT_EQ(online->used, 1) << "the block does not know it";
    g_client_mgr.blocks[0].used_flags[0] = 1;
    online->used                         = 0;
    pool_free(online);
    EXPECT_EQ(g_client_mgr.blocks[0].used_flags[0], 1) << "the record is not in use";
    online->used = 1;

    OwnRecord own;
    own->state = CLIENT_CLOSED;
    send(own.get(), wire("D0 00"));
    pool_free(own.get());
    EXPECT_EQ(own->used, 1);
    EXPECT_EQ(g_client_mgr.used_count, 1);
}

TEST(pool_free, drops_the_deliveries_of_the_record_and_takes_no_more)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    ASSERT_EQ(qos_reliable_add_packet(client, 1, 1, "t", "x", 1), 0);
    client->state = CLIENT_CLOSED;
    LogCapture log(1);
    g_calls.on_clean = [](mqtt_client_t &cleaned) {
        EXPECT_TRUE(is_released(&cleaned)) << "or one could be added behind the cleaning";
    };
    pool_free(client);
    EXPECT_TRUE(log.has(logged::deliveries_dropped("dev1", 1)));
    EXPECT_EQ(g_pending_queue, nullptr);
    qos_reliable_add_packet(client, 2, 1, "t", "x", 1);
    EXPECT_EQ(g_pending_queue, nullptr);
}

TEST(pool_free, serves_a_block_that_a_caller_planted)
{
    auto                records    = std::make_unique<mqtt_client_t[]>(100);
    Shared<uint8_t>     flags[100] = {};
    client_pool_block_t block{records.get(), flags, 1, 100};
    g_client_mgr.blocks      = &block;
    g_client_mgr.block_count = 1;
    g_client_mgr.used_count  = 1;
    flags[3]                 = 1;
    mqtt_client_t &client    = records[3];
    client.used              = 1;
    client.state             = CLIENT_CONNECTED;
    strcpy(client.client_id, "dev1");
    EXPECT_EQ(client_get_connected_count(), 1u);
    EXPECT_EQ(send(&client, wire("D0 00")), 0xFFFFFFFFu) << "max_packet_size 0";
    client.max_packet_size = 2;
    EXPECT_EQ(send(&client, wire("D0 00")), 0u);
    client.state = CLIENT_CLOSED;
    pool_free(&client);
    EXPECT_EQ(client.send_queue, nullptr);
    EXPECT_STREQ(client.client_id, "");
    EXPECT_EQ(flags[3], 0);
    EXPECT_EQ(block.used, 0);
    EXPECT_EQ(g_client_mgr.used_count, 0);
    g_client_mgr.blocks      = nullptr;
    g_client_mgr.block_count = 0;
}

TEST(pool, costs_no_page_for_records_that_nobody_uses)
{
    const Manager manager(11000);
    char          buf[16];
    int32_t       place = 0;
    client_will_delay_scan();
    client_clean_expired_sessions();
    client_clean_timeout(1000);
    client_fill_id_list(buf, sizeof buf);
    EXPECT_EQ(client_get_connected_count(), 0u);
    EXPECT_FALSE(next_client(place));
    mqtt_start_send_thread();
    mqtt_stop_send_thread(); // walks when it starts
    for (int32_t block = 0; block < 110; ++block) {
        unsigned char in_core[4096];
        const size_t  bytes = 100 * sizeof(mqtt_client_t);
        ASSERT_EQ(mincore(g_client_mgr.blocks[block].records, bytes, in_core), 0);
        for (size_t page = 0; page < bytes / 4096; ++page)
            ASSERT_EQ(in_core[page] & 1, 0) << "block " << block << ", page " << page;
    }
}

namespace {

int pages_of_block(int block)
{
    unsigned char in_core[4096];
    const size_t  bytes = 100 * sizeof(mqtt_client_t);
    EXPECT_EQ(mincore(g_client_mgr.blocks[block].records, bytes, in_core), 0);
    int pages = 0;
    for (size_t page = 0; page < bytes / 4096; ++page)
        pages += in_core[page] & 1;
    return pages;
}

} // namespace

TEST(pool, gives_back_the_memory_of_a_block_that_nobody_used_for_a_while)
{
    const Manager    manager(300);
    const LogCapture quiet(4);
    mqtt_client_t   *clients[150];
    for (uint32_t i = 0; i < 150; ++i)
        clients[i] = create(i);
    client::set_keepalive(*clients[20], 45);
    EXPECT_EQ(client::give_back_unused_blocks(), 0);
    for (int i = 0; i < 149; ++i)
        release(clients[i]);
    EXPECT_EQ(client::give_back_unused_blocks(), 0) << "somebody may have come just now";
    EXPECT_GT(pages_of_block(0), 0);
    EXPECT_EQ(client::give_back_unused_blocks(), 1);
    EXPECT_EQ(pages_of_block(0), 0);
    EXPECT_GT(pages_of_block(1), 0) << "one client is left there";
    EXPECT_EQ(clients[149]->used, 1);
    EXPECT_EQ(client::give_back_unused_blocks(), 0) << "nothing is left";

    release(create(0)); // the lowest place
    EXPECT_EQ(client::give_back_unused_blocks(), 0);
    EXPECT_EQ(client::give_back_unused_blocks(), 1);
    for (uint32_t i = 0; i < 20; ++i)
        EXPECT_EQ(create(i)->keepalive_ms, 0u);
    EXPECT_EQ(create(20), clients[20]);
    EXPECT_EQ(clients[20]->keepalive_ms, 45000u) << "the next client's until its CONNECT, as ever";
    client::set_keepalive(*clients[20], 10);
    release(clients[20]);
    EXPECT_EQ(create(20)->keepalive_ms, 10000u);
}

TEST(pool, keeps_the_memory_of_a_block_while_a_record_of_it_is_held)
{
    const Manager        manager(300);
    const LogCapture     quiet(4);
    mqtt_client_t *const client = create(1);
    {
        const client_ref late(client);
        release(client);
        EXPECT_EQ(client::give_back_unused_blocks(), 0);
        EXPECT_EQ(client::give_back_unused_blocks(), 0);
        EXPECT_GT(pages_of_block(0), 0);
    }
    EXPECT_EQ(client::give_back_unused_blocks(), 1);
    EXPECT_EQ(pages_of_block(0), 0);
    EXPECT_EQ(create(1), client);
}
