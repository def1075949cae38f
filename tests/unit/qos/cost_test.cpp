// What pending deliveries cost others: looks at their entries, memory, and time that the lock is held.
#include "base/clock.h"
#include "qos/qos_internal.h"
#include "qos_fixture.h"
#include "support/log_lines/qos.h"

#include <atomic>
#include <string>
#include <thread>

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

void add_many(mqtt_client_t *client, int count)
{
    for (int id = 1; id <= count; ++id)
        ASSERT_EQ(add(client, static_cast<uint16_t>(id)), 0);
}

size_t bytes_taken()
{
    tarn::ScopedLock lock(g_queue_mutex);
    return tarn::qos::bytes_taken();
}

// As routing does it: one message to each of these.
tarn::qos::Added send(mqtt_client_t *client, uint16_t id, const std::string &payload, tarn::qos::PayloadCopy &copy)
{
    static constexpr uint8_t  kHead[] = {0x32, 5, 0, 1, 't', 0, 1};
    const tarn::qos::Delivery delivery{.client  = *client,
                                       .msg_id  = id,
                                       .qos     = 1,
                                       .topic   = "t",
                                       .payload = {reinterpret_cast<const uint8_t *>(payload.data()), payload.size()},
                                       .tracked = true,
                                       .remembered = false,
                                       .copy       = &copy};
    return tarn::qos::send_and_track(delivery, kHead).added;
}

} // namespace

// The others' entries lead nowhere meanwhile: who walked through them would not come back.
TEST(cost, dropping_a_clients_deliveries_looks_at_no_entry_of_others)
{
    RingClient client, other("dev2"), third("dev3");
    add_many(third, 100);
    add_many(client, 100);
    add_many(other, 100);
    qos_packet_t *entry = g_pending_queue;
    for (int i = 0; i < 50; ++i)
        entry = entry->next;
    qos_packet_t *const rest = entry->next;
    entry->next              = reinterpret_cast<qos_packet_t *>(0x10);
    qos_reliable_clean_client_packets(client);
    entry->next = rest;
    EXPECT_EQ(pending_count(), 200);
    qos_reliable_clean_client_packets(other);
    qos_reliable_clean_client_packets(third);
    EXPECT_EQ(g_pending_queue, nullptr);
}

TEST(cost, dropping_takes_edits_by_hand_literally_in_a_long_list)
{
    RingClient client, other("dev2");
    add_many(other, 100);
    add_many(client, 100);
    g_pending_queue->next->next->client = other;
    LogCapture log;
    qos_reliable_clean_client_packets(client);
    EXPECT_THAT(log.take(), ElementsAre(logged::deliveries_dropped_of("dev1"), logged::deliveries_dropped("dev1", 99)));
    EXPECT_EQ(pending_count(), 101);
    qos_reliable_clean_client_packets(other);
    EXPECT_EQ(g_pending_queue, nullptr);
}

TEST(cost, the_deliveries_of_one_message_share_its_payload)
{
    RingClient        one, two("dev2"), three("dev3");
    const std::string payload(1000, 'x'), later(1000, 'y');
    {
        tarn::qos::PayloadCopy copy;
        EXPECT_EQ(send(one, 1, payload, copy), tarn::qos::Added::Yes);
        const size_t with_one = bytes_taken();
        EXPECT_EQ(send(two, 2, payload, copy), tarn::qos::Added::Yes);
        EXPECT_EQ(send(three, 3, later, copy), tarn::qos::Added::Yes); // a will's payload depends on the receiver
        EXPECT_EQ(bytes_taken() - with_one, with_one + with_one - 1000);
    }
    const qos_packet_t *const third = g_pending_queue, *const second = third->next, *const first = second->next;
    EXPECT_EQ(first->payload, second->payload);
    EXPECT_NE(third->payload, second->payload);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(first->payload), first->payload_len), payload);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(third->payload), third->payload_len), later);

    qos_reliable_handle_ack(one, 1, 4);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(second->payload), second->payload_len), payload);
    qos_reliable_handle_ack(two, 2, 4);
    qos_reliable_handle_ack(three, 3, 4);
    EXPECT_EQ(bytes_taken(), 0u);
}

TEST(cost, a_short_payload_and_one_without_memory_for_its_list_are_the_entrys_own)
{
    RingClient             one, two("dev2");
    const std::string      payload(1000, 'x');
    tarn::qos::PayloadCopy copy, short_copy;
    send(one, 1, "hello", short_copy);
    send(two, 1, "hello", short_copy);
    EXPECT_NE(g_pending_queue->payload, g_pending_queue->next->payload);
    {
        Fail fail(Call::Allocate, 3); // entry, payload, its place in the list
        EXPECT_EQ(send(one, 2, payload, copy), tarn::qos::Added::Yes);
    }
    send(two, 2, payload, copy);
    EXPECT_NE(g_pending_queue->payload, g_pending_queue->next->payload);
}

// A host may put a payload of its own into an entry, or take the entry out.
TEST(cost, shared_payloads_outlive_entries_edited_by_hand)
{
    RingClient        one, two("dev2"), three("dev3");
    const std::string payload(1000, 'x');
    {
        tarn::qos::PayloadCopy copy;
        send(one, 1, payload, copy);
        send(two, 2, payload, copy);
        send(three, 3, payload, copy);
    }
    uint8_t *const shared        = g_pending_queue->payload;
    g_pending_queue->payload     = static_cast<uint8_t *>(calloc(1, 10));
    g_pending_queue->payload_len = 10;
    EXPECT_EQ(qos_reliable_handle_ack(three, 3, 4), 0);
    EXPECT_EQ(qos_reliable_handle_ack(two, 2, 4), 0);
    ASSERT_EQ(g_pending_queue->payload, shared);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(shared), 1000), payload);
    g_pending_queue->payload = nullptr; // taken over: it is the host's now
    EXPECT_EQ(qos_reliable_handle_ack(one, 1, 4), 0);
    free(shared);
}

// Clients outside the pool, which are told apart by their address alone.
TEST(cost, all_deliveries_together_have_a_bound_and_clients_with_few_have_more)
{
    constexpr size_t              kClients = 400;
    const std::unique_ptr<char[]> area(new char[kClients * 64]);
    const auto                    client = [&](size_t i) { return reinterpret_cast<mqtt_client_t *>(&area[i * 64]); };
    const std::string             payload(2048, 'x');
    LogCapture                    log(4);
    size_t                        count = 0;
    const auto                    fill  = [&](size_t who) {
        int own = 0;
        while (own < 1000 && add(client(who), static_cast<uint16_t>(own + 1), 1, "t", payload.c_str()) == 0)
            ++own;
        count += static_cast<size_t>(own);
        return own;
    };
    size_t who = 0;
    while (fill(who) == 1000)
        ++who;
    EXPECT_GT(count, 20000u);
    EXPECT_LE(bytes_taken(), tarn::qos::kPendingBytes);
    EXPECT_GT(bytes_taken() + 4096, tarn::qos::kPendingBytes);
    for (size_t next = who + 1; next < kClients; ++next)
        EXPECT_EQ(fill(next), tarn::qos::kFewEntries);

    LogCapture said(3);
    EXPECT_EQ(add(client(who), 1, 1, "t", payload.c_str()), -1);
    const auto lines = said.take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0] == error("[QoS] 添加报文失败：分配报文节点内存失败") ||
                lines[0] == error("[QoS] 添加报文失败：分配payload内存失败（需要2048字节）"));

    for (int id = 1; id <= 1000; ++id) // room for others
        EXPECT_EQ(qos_reliable_handle_ack(client(0), static_cast<uint16_t>(id), 4), 0);
    qos_reliable_destroy();
    EXPECT_EQ(bytes_taken(), 0u);
}

TEST(cost, entries_that_a_host_takes_out_do_not_count_for_ever)
{
    RingClient client;
    add_many(client, 2);
    qos_packet_t *const taken = g_pending_queue->next;
    g_pending_queue->next     = nullptr;
    free(taken->payload);
    free(taken);
    qos_reliable_handle_ack(client, 2, 4);
    ASSERT_EQ(g_pending_queue, nullptr);
    EXPECT_EQ(bytes_taken(), 0u);
}

// Which entries were tried is seen by another thread while the walk goes on.
TEST(cost, a_scan_lets_go_of_the_lock_on_its_way)
{
    constexpr int kEntries = 1000;
    RingClient    one, two("dev2"), three("dev3"), four("dev4"), five("dev5");
    LogCapture    log(4);
    for (RingClient *client : {&one, &two, &three, &four, &five})
        add_many(*client, kEntries);
    for (qos_packet_t *entry = g_pending_queue; entry; entry = entry->next)
        entry->retry_count = QOS_RETRIES_MAX; // dropped when due
    std::atomic<bool> ended{false};
    std::thread       walker([&] {
        tarn::qos::scan_turn(tarn::mono_ms() + 2000);
        ended = true;
    });
    bool              seen_between = false;
    while (!ended) {
        tarn::ScopedLock lock(g_queue_mutex);
        const int        left = pending_count();
        seen_between          = seen_between || (left > 0 && left < 5 * kEntries);
    }
    walker.join();
    EXPECT_TRUE(seen_between);
    EXPECT_EQ(pending_count(), 0);
}

// Acknowledged, dropped with their client and added on the way, at the very place where the walk goes on.
TEST(cost, a_scan_goes_on_where_it_stopped_whatever_became_of_the_entries_there)
{
    ManualClock   clock;
    constexpr int kEntries = 1000;
    RingClient    one, two("dev2"), three("dev3");
    LogCapture    log(4);
    for (int id = 1; id <= kEntries; ++id)
        for (RingClient *client : {&one, &two, &three})
            ASSERT_EQ(add(*client, static_cast<uint16_t>(id)), 0);
    clock.advance_ms(1001);
    std::atomic<bool> ended{false};
    std::thread       walker([&] {
        tarn::qos::scan_turn(clock.mono_ms());
        ended = true;
    });
    int               newer = 0;
    for (int id = kEntries; id > 0; --id) { // newest first, as the walk
        qos_reliable_handle_ack(one, static_cast<uint16_t>(id), 4);
        if (id == kEntries / 2)
            qos_reliable_clean_client_packets(two);
        if (id % 100 == 0)
            newer += add(two, static_cast<uint16_t>(id)) == 0;
        if (!ended)
            tarn::pause_ms(1);
    }
    walker.join();
    int of_one = 0, of_two = 0, of_three = 0;
    for (const qos_packet_t *entry = g_pending_queue; entry; entry = entry->next) {
        of_one += entry->client == static_cast<mqtt_client_t *>(one);
        of_two += entry->client == static_cast<mqtt_client_t *>(two);
        of_three += entry->client == static_cast<mqtt_client_t *>(three);
    }
    EXPECT_EQ(of_one, 0);
    EXPECT_GE(newer, of_two);
    EXPECT_GE(of_two, 5); // those behind the clean
    EXPECT_EQ(of_three, kEntries);
}
