#include "qos/qos.hpp"
#include "qos_fixture.h"
#include "support/log_lines/qos.h"

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(add, fills_an_entry_and_puts_it_first)
{
    ManualClock clock;
    RingClient  client;
    LogCapture  log;
    ASSERT_EQ(add(client, 7, 1, "a/b", "hello"), 0);
    clock.advance_ms(5);
    ASSERT_EQ(add(client, 8, 2), 0);
    EXPECT_THAT(log.take(),
                ElementsAre(logged::delivery_added(1, 7, "dev1", 5), logged::delivery_added(2, 8, "dev1", 1)));

    const qos_packet_t *newest = g_pending_queue;
    EXPECT_EQ(newest->msg_id, 8);
    EXPECT_EQ(newest->qos2_state, 1u);
    const qos_packet_t *entry = newest->next;
    EXPECT_EQ(entry->next, nullptr);
    EXPECT_EQ(entry->msg_id, 7);
    EXPECT_EQ(entry->qos, 1);
    EXPECT_STREQ(entry->topic, "a/b");
    EXPECT_EQ(std::string(reinterpret_cast<char *>(entry->payload), entry->payload_len), "hello");
    EXPECT_EQ(entry->dup, 0);
    EXPECT_EQ(entry->last_send_ms, 1000000u);
    EXPECT_EQ(entry->create_ms, 1000000u);
    EXPECT_EQ(entry->retry_count, 0u);
    EXPECT_EQ(entry->retry_interval_ms, 1000u);
    EXPECT_EQ(entry->qos2_state, 0u);
    EXPECT_EQ(entry->client, static_cast<mqtt_client_t *>(client));
    EXPECT_EQ(entry->expiry_s, 0u);
}

TEST(add, refuses_in_this_order)
{
    RingClient        client;
    const std::string big(2049, 'x');
    LogCapture        log;
    EXPECT_EQ(qos_reliable_add_packet(nullptr, 1, 9, nullptr, nullptr, 0), -1);
    EXPECT_EQ(qos_reliable_add_packet(client, 1, 9, nullptr, nullptr, 0), -1);
    EXPECT_EQ(qos_reliable_add_packet(client, 1, 9, "", nullptr, 0), -1);
    EXPECT_EQ(qos_reliable_add_packet(client, 1, 9, "t", nullptr, 1), -1);
    EXPECT_EQ(qos_reliable_add_packet(client, 1, 9, "t", "x", 0), -1);
    EXPECT_EQ(qos_reliable_add_packet(client, 1, 9, "t", big.data(), 2049), -1);
    EXPECT_EQ(qos_reliable_add_packet(client, 1, 0, "t", "x", 1), -1);
    EXPECT_EQ(qos_reliable_add_packet(client, 1, 3, "t", "x", 1), -1);
    EXPECT_THAT(log.take(), ElementsAre(error("[QoS] 添加报文参数错误：客户端为空"), logged::delivery_without_topic(),
                                        logged::delivery_without_topic(), logged::delivery_without_payload(),
                                        logged::delivery_without_payload(),
                                        error("[QoS] 添加报文参数错误：payload长度超限（最大2048字节，当前2049字节）"),
                                        logged::delivery_of_bad_qos(0), logged::delivery_of_bad_qos(3)));
    EXPECT_EQ(qos_reliable_add_packet(client, 1, 1, "t", big.data(), 2048), 0);
    EXPECT_EQ(pending_count(), 1);
}

TEST(add, cuts_the_topic_at_255_characters)
{
    RingClient        client;
    const std::string topic(300, 't');
    ASSERT_EQ(add(client, 1, 1, topic.c_str()), 0);
    EXPECT_EQ(strlen(g_pending_queue->topic), 255u);
}

TEST(add, takes_1000_entries_of_one_client)
{
    RingClient client, other("dev2");
    LogCapture log(3);
    for (int i = 1; i <= 1000; ++i)
        ASSERT_EQ(add(client, static_cast<uint16_t>(i)), 0);
    EXPECT_EQ(add(client, 1001), -1);
    EXPECT_THAT(log.take(), ElementsAre(logged::deliveries_full("dev1")));
    EXPECT_EQ(add(other, 1), 0);
    qos_reliable_handle_ack(client, 500, 4);
    EXPECT_EQ(add(client, 1001), 0);
}

// The next owner of the record must not get it.
TEST(add, keeps_nothing_for_a_record_that_is_being_released)
{
    LogCapture             log(4);
    const tarn::client_ref client(client_create(7, "10.0.0.1", 4711, nullptr));
    ASSERT_TRUE(client);
    EXPECT_EQ(add(client.get(), 1), 0);
    EXPECT_EQ(pending_count(), 1);
    client->state = CLIENT_CLOSED;
    pool_free(client.get()); // pinned: still ours
    EXPECT_EQ(pending_count(), 0);
    EXPECT_EQ(add(client.get(), 2), 0);
    EXPECT_EQ(pending_count(), 0);
}

TEST(add, names_the_allocation_that_failed)
{
    RingClient client;
    LogCapture log;
    {
        Fail fail(Call::Allocate, 1);
        EXPECT_EQ(add(client, 1), -1);
    }
    {
        Fail fail(Call::Allocate, 2);
        EXPECT_EQ(add(client, 1, 1, "t", "hello"), -1);
    }
    EXPECT_THAT(log.take(), ElementsAre(error("[QoS] 添加报文失败：分配报文节点内存失败"),
                                        error("[QoS] 添加报文失败：分配payload内存失败（需要5字节）")));
    EXPECT_EQ(g_pending_queue, nullptr);
    Fail fail(Call::Allocate, 3); // the count of this client: the list does without
    EXPECT_EQ(add(client, 1), 0);
    EXPECT_EQ(add(client, 2), 0);
    EXPECT_EQ(qos_reliable_handle_ack(client, 1, 4), 0);
    EXPECT_EQ(pending_count(), 1);
}

TEST(add, takes_the_entry_of_a_delivery_that_has_ended)
{
#if defined(TARN_SANITIZED)
    GTEST_SKIP() << "each entry is one of its own, so that the use of one that is free is seen";
#endif
    RingClient client;
    add(client, 1);
    add(client, 2);
    EXPECT_EQ(qos_reliable_handle_ack(client, 1, 4), 0);
    {
        Fail fail(Call::Allocate, 2); // the payload is the first
        EXPECT_EQ(add(client, 3, 1, "t", "hello"), 0);
        EXPECT_EQ(fail.failed(), 0);
    }
    EXPECT_EQ(g_pending_queue->msg_id, 3);
    EXPECT_STREQ(g_pending_queue->topic, "t");
    EXPECT_EQ(g_pending_queue->retry_count, 0u);
    EXPECT_EQ(qos_reliable_handle_ack(client, 2, 4), 0);
    (void)tarn::qos::bytes_left_over(); // housekeeping gives back what is not in use
    LogCapture log;
    Fail       fail(Call::Allocate, 1);
    EXPECT_EQ(add(client, 4), -1);
    EXPECT_THAT(log.take(), ElementsAre(error("[QoS] 添加报文失败：分配报文节点内存失败")));
}

TEST(clean, drops_the_entries_of_one_client)
{
    RingClient client, other("dev2");
    for (const uint16_t id : {1, 2, 3}) {
        add(client, id);
        add(other, id);
    }
    LogCapture log;
    qos_reliable_clean_client_packets(client);
    EXPECT_THAT(log.take(), ElementsAre(logged::deliveries_dropped_of("dev1"), logged::deliveries_dropped("dev1", 3)));
    EXPECT_EQ(pending_count(), 3);
    qos_reliable_clean_client_packets(client);
    qos_reliable_clean_client_packets(nullptr);
    EXPECT_THAT(log.take(),
                ElementsAre(logged::deliveries_dropped_of("dev1"), logged::deliveries_dropped("dev1", 0),
                            logged::deliveries_dropped_of("null"), warn("[QoS] 清理客户端报文失败：客户端为空")));
}

TEST(list, edited_by_hand_is_taken_literally)
{
    RingClient client, other("dev2");
    add(client, 1);
    add(client, 2);
    auto *const own = static_cast<qos_packet_t *>(calloc(1, sizeof(qos_packet_t)));
    own->msg_id     = 9;
    own->qos        = 1;
    own->client     = other;
    own->payload    = static_cast<uint8_t *>(malloc(1));
    own->next       = g_pending_queue;
    g_pending_queue = own;

    EXPECT_EQ(add(client, 3), 0);
    EXPECT_EQ(qos_reliable_handle_ack(other, 9, 4), 0);
    EXPECT_EQ(qos_reliable_handle_ack(client, 1, 4), 0);
    EXPECT_EQ(pending_count(), 2);
    qos_reliable_clean_client_packets(client);
    EXPECT_EQ(g_pending_queue, nullptr);
    EXPECT_EQ(add(client, 4), 0);
    EXPECT_EQ(qos_reliable_handle_ack(client, 4, 4), 0);
}

TEST(list, an_identifier_edited_by_hand_is_taken_literally)
{
    RingClient client;
    for (const uint16_t id : {1, 2, 3})
        add(client, id);
    g_pending_queue->next->msg_id = 9;
    EXPECT_EQ(qos_reliable_handle_ack(client, 2, 4), -1);
    EXPECT_EQ(qos_reliable_handle_ack(client, 9, 4), 0);
    EXPECT_EQ(add(client, 4), 0);
    for (const uint16_t id : {4, 1, 3})
        EXPECT_EQ(qos_reliable_handle_ack(client, id, 4), 0);
    EXPECT_EQ(g_pending_queue, nullptr);
}

TEST(list, a_client_edited_by_hand_is_taken_literally)
{
    RingClient client, other("dev2");
    for (const uint16_t id : {1, 2, 3})
        add(client, id);
    g_pending_queue->next->client = other;
    EXPECT_EQ(qos_reliable_handle_ack(client, 2, 4), -1);
    EXPECT_EQ(qos_reliable_handle_ack(other, 2, 4), 0);
    EXPECT_EQ(pending_count(), 2);
}

TEST(list, edits_are_noticed_again_when_a_long_list_has_become_short)
{
    RingClient client;
    for (uint16_t id = 1; id <= 100; ++id)
        add(client, id);
    for (uint16_t id = 3; id <= 100; ++id)
        qos_reliable_handle_ack(client, id, 4);
    g_pending_queue->next->msg_id = 300;
    EXPECT_EQ(qos_reliable_handle_ack(client, 300, 4), 0);
}

// Clients are told apart by their address alone; with so many of them some share a bucket of the index with the first.
TEST(list, counts_clients_apart)
{
    constexpr size_t              kClients = 20000;
    const std::unique_ptr<char[]> area(new char[kClients * 64]);
    const auto                    client = [&](size_t i) { return reinterpret_cast<mqtt_client_t *>(&area[i * 64]); };
    LogCapture                    log(4);
    for (uint16_t id = 1; id < 1000; ++id)
        ASSERT_EQ(add(client(0), id), 0);
    for (size_t i = 1; i < kClients; ++i)
        for (const uint16_t id : {1, 2})
            ASSERT_EQ(add(client(i), id), 0) << i;
    for (size_t i = 1; i < kClients; ++i)
        for (const uint16_t id : {1, 2})
            ASSERT_EQ(qos_reliable_handle_ack(client(i), id, 4), 0);
    EXPECT_EQ(pending_count(), 999);
    qos_reliable_destroy();
}

namespace {

// Entries as many, so that the index is believed or checked; the oldest has identifier 1.
void add_many(RingClient &client, int count)
{
    for (int id = 1; id <= count; ++id)
        ASSERT_EQ(add(client, static_cast<uint16_t>(id)), 0);
}
qos_packet_t *entry_of_host(RingClient &client, uint16_t id, qos_packet_t *next)
{
    auto *const entry        = static_cast<qos_packet_t *>(calloc(1, sizeof(qos_packet_t)));
    entry->msg_id            = id;
    entry->qos               = 1;
    entry->client            = client;
    entry->payload           = static_cast<uint8_t *>(calloc(1, 1));
    entry->payload_len       = 1;
    entry->retry_interval_ms = 1000;
    entry->retry_count       = 5;
    entry->next              = next;
    return entry;
}

} // namespace

TEST(list, an_entry_put_in_behind_the_head_is_taken_literally)
{
    RingClient client, other("dev2");
    add_many(client, 64);
    g_pending_queue->next = entry_of_host(other, 9, g_pending_queue->next);
    EXPECT_EQ(qos_reliable_handle_ack(other, 9, 4), 0);
    EXPECT_EQ(pending_count(), 64);
    qos_reliable_clean_client_packets(client);
    EXPECT_EQ(g_pending_queue, nullptr);
}

TEST(list, an_entry_put_into_a_long_list_is_dropped_by_the_scan)
{
    ManualClock clock;
    RingClient  client, other("dev2");
    for (const uint16_t before : {1, 2}) { // it follows an entry that goes, or stands alone
        add_many(client, 100);
        qos_packet_t *place = g_pending_queue->next;
        place->retry_count  = before == 1 ? 5 : 0;
        place->next         = entry_of_host(other, 9, place->next);
        clock.advance_ms(1001);
        qos_reliable_scan_queue();
        EXPECT_EQ(pending_count(), before == 1 ? 99 : 100);
        EXPECT_EQ(qos_reliable_handle_ack(other, 9, 4), -1);
        EXPECT_EQ(qos_reliable_handle_ack(client, 50, 4), 0);
        qos_reliable_clean_client_packets(client);
        EXPECT_EQ(g_pending_queue, nullptr);
    }
}

TEST(list, an_edit_by_hand_is_found_once_a_long_list_is_short_again)
{
    RingClient client;
    for (const int acknowledged : {3, 40}) { // to fewer than are looked at each time, and far below
        add_many(client, 66);
        for (uint16_t id = 1; id <= acknowledged; ++id)
            EXPECT_EQ(qos_reliable_handle_ack(client, id, 4), 0);
        qos_packet_t *entry = g_pending_queue;
        while (entry->msg_id != 50)
            entry = entry->next;
        entry->msg_id = 900;
        EXPECT_EQ(qos_reliable_handle_ack(client, 50, 4), -1);
        EXPECT_EQ(qos_reliable_handle_ack(client, 900, 4), 0);
        EXPECT_EQ(pending_count(), 65 - acknowledged);
        qos_reliable_clean_client_packets(client);
        EXPECT_EQ(g_pending_queue, nullptr);
    }
}

TEST(list, that_ends_earlier_by_hand_is_that_short_once_a_long_list_is_short_again)
{
    RingClient client;
    add_many(client, 66);
    for (uint16_t id = 1; id <= 40; ++id)
        EXPECT_EQ(qos_reliable_handle_ack(client, id, 4), 0);
    qos_packet_t *last = g_pending_queue;
    while (last->msg_id != 50)
        last = last->next;
    qos_packet_t *const cut_off = std::exchange(last->next, nullptr);
    EXPECT_EQ(qos_reliable_handle_ack(client, 45, 4), -1);
    EXPECT_EQ(qos_reliable_handle_ack(client, 55, 4), 0);
    EXPECT_EQ(pending_count(), 16);
    last->next = cut_off;
    qos_reliable_clean_client_packets(client);
    EXPECT_EQ(g_pending_queue, nullptr);
}

TEST(list, an_entry_taken_out_by_hand_is_gone)
{
    RingClient client;
    add_many(client, 3);
    qos_packet_t *const middle = g_pending_queue->next;
    g_pending_queue->next      = middle->next;
    free(middle->payload);
    free(middle);
    EXPECT_EQ(qos_reliable_handle_ack(client, 2, 4), -1);
    EXPECT_EQ(qos_reliable_handle_ack(client, 1, 4), 0);
    EXPECT_EQ(qos_reliable_handle_ack(client, 3, 4), 0);
    EXPECT_EQ(g_pending_queue, nullptr);
}

// The same identifier may be queued twice; the newer one is found first.
TEST(list, finds_the_newest_of_one_identifier)
{
    RingClient client;
    add(client, 5, 1, "old");
    add(client, 5, 1, "new");
    qos_reliable_handle_ack(client, 5, 4);
    ASSERT_EQ(pending_count(), 1);
    EXPECT_STREQ(g_pending_queue->topic, "old");
}

TEST(list, random_adds_acks_and_cleans_leave_what_a_plain_list_leaves)
{
    std::vector<std::unique_ptr<RingClient>>          clients;
    std::vector<std::pair<mqtt_client_t *, uint16_t>> model; // newest last
    LogCapture                                        log(4);
    unsigned                                          seed = 1;
    for (int i = 0; i < 7; ++i)
        clients.push_back(std::make_unique<RingClient>());
    for (int step = 0; step < 20000; ++step) {
        mqtt_client_t *const client = *clients[static_cast<size_t>(rand_r(&seed)) % clients.size()];
        const auto           id     = static_cast<uint16_t>(rand_r(&seed) % 40 + 1);
        const int            choice = rand_r(&seed) % 100;
        if (choice < 55) {
            add(client, id);
            model.emplace_back(client, id);
        } else if (choice < 98) {
            const bool found = qos_reliable_handle_ack(client, id, 4) == 0;
            const auto at    = std::find(model.rbegin(), model.rend(), std::pair{client, id});
            ASSERT_EQ(found, at != model.rend());
            if (found)
                model.erase(std::next(at).base());
        } else {
            qos_reliable_clean_client_packets(client);
            std::erase_if(model, [&](const auto &entry) { return entry.first == client; });
        }
    }
    const qos_packet_t *entry = g_pending_queue;
    for (auto at = model.rbegin(); at != model.rend(); ++at, entry = entry->next) {
        ASSERT_NE(entry, nullptr);
        ASSERT_EQ(entry->client, at->first);
        ASSERT_EQ(entry->msg_id, at->second);
    }
    EXPECT_EQ(entry, nullptr);
}
