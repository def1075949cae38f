#include "handler_fixture.h"
#include "support/log_lines/handler.h"

#include <sys/mman.h>

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

void retain(const char *topic, std::string_view payload = "r", uint32_t qos = 0, uint32_t expiry = 0)
{
    retain_msg_set_with_expiry(topic, reinterpret_cast<const uint8_t *>(payload.data()),
                               static_cast<uint32_t>(payload.size()), qos, expiry);
}

// A full store whose memory must not be touched: whoever does ends the test.
class UntouchableStore {
public:
    UntouchableStore()
    {
        for (int i = 0; i < RETAIN_CAPACITY; i++)
            g_sub_mgr.retains[i] = {"t", {'r'}, 1, 0, wall_s(), 0};
        g_sub_mgr.retain_count = RETAIN_CAPACITY;
        protect(PROT_NONE);
    }
    ~UntouchableStore() { protect(PROT_READ | PROT_WRITE); }

private:
    static void protect(int access) // all of it but what shares a page with something else
    {
        const auto page  = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
        const auto begin = (reinterpret_cast<uintptr_t>(g_sub_mgr.retains) + page - 1) / page * page;
        const auto end   = reinterpret_cast<uintptr_t>(g_sub_mgr.retains + RETAIN_CAPACITY) / page * page;
        ASSERT_EQ(mprotect(reinterpret_cast<void *>(begin), end - begin, access), 0);
    }
};

} // namespace

TEST(retained, matching_messages_go_out_in_store_order)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    retain("a/2");
    retain("b");
    retain("a/1");
    LogCapture log(AGENT_LOG_INFO);
    send_retained_msg_to_client(client, "a/+");
    EXPECT_THAT(client.gets(), ElementsAre(wire("31 06 00 03 'a/2' 'r'"), wire("31 06 00 03 'a/1' 'r'")));
    EXPECT_THAT(log.take(),
                ElementsAre(logged::retained_sent("dev1", "a/2", "a/+"), logged::retained_sent("dev1", "a/1", "a/+")));
    EXPECT_EQ(client->codec.last_packet_type, 3u);
}

TEST(retained, the_message_keeps_its_own_qos)
{
    Handling broker;
    Client   client(broker, 5, "dev1");
    retain("t", "r", 2, 600);
    sub_add("dev1", "t", 0, 1);
    const uint16_t id = next_id();
    send_retained_msg_to_client(client, "t");
    EXPECT_THAT(client.gets(), ElementsAre(wire("35 07 00 01 't'") + u16(id) + wire("00 'r'"))); // no expiry
    EXPECT_EQ(pending_count(), 0);                                                               // not tracked
    EXPECT_EQ(client->qos1_pending_msg_id, 0);
}

TEST(retained, every_member_of_a_shared_group_gets_them)
{
    Handling broker;
    Client   first(broker, 4, "dev1"), second(broker, 4, "dev2");
    retain("t");
    for (Client *client : {&first, &second}) {
        send_retained_msg_to_client(*client, "$share/g/t");
        EXPECT_THAT(client->gets(), ElementsAre(wire("31 04 00 01 't' 'r'")));
    }
}

TEST(retained, two_draws_for_every_message)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    retain("a");
    retain("b");
    retain("c");
    sub_add("dev1", "#", 0, 1);
    const uint32_t seed = msgid_seed;
    send_retained_msg_to_client(client, "b");
    EXPECT_EQ(msgid_seed, seed_after(2, seed)); // also at QoS 0
    send_retained_msg_to_client(client, "#");
    EXPECT_EQ(msgid_seed, seed_after(8, seed));
    send_retained_msg_to_client(client, "nothing");
    EXPECT_EQ(msgid_seed, seed_after(8, seed));
}

TEST(retained, an_empty_entry_is_passed_over)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    retain("t");
    g_sub_mgr.retains[0].payload_len = 0;
    send_retained_msg_to_client(client, "t");
    EXPECT_THAT(client.gets(), IsEmpty());
}

TEST(retained, an_oversized_entry_is_cut_to_its_array)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    retain("t", std::string(2043, 'r'));
    g_sub_mgr.retains[0].payload_len = 100000;
    send_retained_msg_to_client(client, "t");
    EXPECT_THAT(client.gets(), IsEmpty()); // 2048 bytes do not fit the delivery buffer
}

TEST(retained, an_empty_store_or_none_sends_nothing)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    send_retained_msg_to_client(client, "#");
    send_retained_msg_to_client(nullptr, "#");
    send_retained_msg_to_client(client, nullptr);
    sub_deinit();
    send_retained_msg_to_client(client, "#");
    EXPECT_THAT(client.gets(), IsEmpty());
}

TEST(retained, a_failing_buffer_loses_that_message_only)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    retain("a");
    retain("b");
    client.sends("C0 00");
    client.gets();
    LogCapture     log(AGENT_LOG_INFO);
    const uint32_t seed = msgid_seed;
    {
        Fail fail(Call::Allocate, 1);
        send_retained_msg_to_client(client, "#");
        EXPECT_EQ(fail.failed(), 1);
    }
    EXPECT_THAT(client.gets(), ElementsAre(wire("31 04 00 01 'b' 'r'")));
    EXPECT_THAT(log.take(), ElementsAre(logged::retained_sent("dev1", "b", "#")));
    EXPECT_EQ(msgid_seed, seed_after(4, seed));
}

TEST(retained, the_line_does_not_ask_whether_it_was_queued)
{
    Handling broker;
    Client   client(broker, 4, "dev1");
    retain("t");
    client->state = CLIENT_CLOSED;
    LogCapture log(AGENT_LOG_INFO);
    send_retained_msg_to_client(client, "t");
    EXPECT_THAT(log.take(), ElementsAre(logged::retained_sent("dev1", "t", "t")));
}

// So it costs other traffic nothing that the store is full; bench/retained_bench.cpp has the figures.
TEST(retained, what_has_nothing_to_do_with_a_full_store_never_looks_at_it)
{
    Handling broker;
    Client   sender(broker, 4, "s"), online(broker, 4, "r"), member(broker, 4, "m"), newcomer(broker);
    sub_add("r", "t", 2, 1);
    sub_add("m", "$share/g/t", 1, 1);
    sub_add("gone", "t", 1, 0);
    const Bytes            encoded = wire("34 06 00 01 't' 00 07 'x'");
    const UntouchableStore store;
    for (const char *packet : {"30 04 00 01 't' 'x'", "32 06 00 01 't' 00 07 'x'", "34 06 00 01 't' 00 07 'x'",
                               "62 02 00 07", "C0 00", "A2 05 00 08 00 01 'u'"})
        EXPECT_EQ(sender.sends(packet), 0);
    EXPECT_EQ(packet_handler_broker_publish("t", encoded.data(), 1, 1, 0, 0), 0);
    packet_handler_broadcast_msg(encoded.data(), static_cast<uint32_t>(encoded.size()), 0);
    packet_handler_publish_test_msg();
    EXPECT_EQ(newcomer.sends(connect_v4("new")), 0);
    qos_reliable_scan_queue();
    EXPECT_EQ(online.gets().size(), 5u);
    EXPECT_EQ(member.gets().size(), 5u);
    EXPECT_EQ(sender.gets().size(), 5u);
    EXPECT_EQ(g_mqtt_stats.offline_msg, 3u);
}
