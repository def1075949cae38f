// Everything at once, for the sanitizers: host publishes from two threads while one thread connects, subscribes,
// publishes and disconnects clients of the pool and another closes them from outside.
#include "handler_fixture.h"

#include <atomic>
#include <thread>

using namespace tarn;
using namespace tarn::test;

namespace {

constexpr int kRounds = 150;

// What the I/O thread does for one connection, from accept to close.
void serve(Handling &broker, uint32_t handle, const std::string &id)
{
    const client_ref client(client_create(handle, "10.0.0.1", 4711, &broker.host.broker));
    ASSERT_TRUE(client);
    sends(client.get(), handle % 2 ? connect_v4(id) : connect_v5(id));
    sends(client.get(), wire("82 06 | 00 01 | 00 01 't' 01"));
    sends(client.get(), wire("82 0F | 00 02 | 00 0A '$share/g/t' 01"));
    sends(client.get(), wire("32 06 | 00 01 't' 00 07 'x'"));
    sends(client.get(), wire("31 04 | 00 01 'r' 'x'"));
    sends(client.get(), wire("40 02 00 07"));
    if (handle % 3)
        sends(client.get(), wire("E0 00"));
    client_close(client.get());
}

} // namespace

TEST(threads, publish_connect_and_close_at_once)
{
    Handling broker;
    g_log_config.level = uint32_t{AGENT_LOG_FATAL};
    std::atomic<bool> done{false};

    const auto publish = [&] {
        while (!done)
            packet_handler_broker_publish("t", reinterpret_cast<const uint8_t *>("payload"), 7, 1, 1, 60);
    };
    const auto close = [&] {
        while (!done)
            for (const char *id : {"dev0", "dev1", "dev2"})
                if (const client_ref client = find_client_by_id(id)) {
                    packet_cancel_will(client.get());
                    send_retained_msg_to_client(client.get(), "#");
                    packet_handler_remove_client_subs(id, 1);
                    client_close(client.get());
                }
    };
    std::thread first(publish), second(publish), closer(close);
    for (uint32_t round = 0; round < kRounds; round++)
        serve(broker, 1 + round % 7, "dev" + std::to_string(round % 3));
    done = true;
    first.join();
    second.join();
    closer.join();
    EXPECT_EQ(g_client_mgr.used_count, 0);
}

// Three parties meet at a delayed will: who closes the client, the scan, and a CONNECT of the client itself or of the one
// that came back.
TEST(threads, delayed_wills_end_while_clients_come_back)
{
    ManualClock clock;
    Handling    broker;
    g_log_config.level = uint32_t{AGENT_LOG_FATAL};
    std::atomic<bool> done{false}, armed{false}; // armed: the client has its will and its delay
    const Bytes       connect = packet(0x10, wire("00 04 'MQTT' 05 04 00 3C | 05 27 00 00 10 00 | 00 04 'dev1'"
                                                        "| 05 18 00 00 00 01 | 00 01 'w' | 00 01 'x'"));

    std::thread scan([&] {
        while (!done) {
            clock.advance_ms(400);
            client_will_delay_scan();
        }
    });
    std::thread closer([&] {
        while (!done)
            if (const client_ref client = find_client_by_id("dev1"); client && armed && is_online(*client))
                client_close(client.get()); // once each: a second close would count the will again
    });
    for (uint32_t round = 0; round < kRounds; round++) {
        const client_ref client(client_create(1 + round % 7, "10.0.0.1", 4711, &broker.host.broker));
        ASSERT_TRUE(client);
        sends(client.get(), connect);
        armed = true;
        sends(client.get(), wire("82 07 | 00 01 00 | 00 01 'w' 01"));
        sends(client.get(), connect);
        while (is_online(*client))
            std::this_thread::yield();
        armed = false;
    }
    done = true;
    scan.join();
    closer.join();
    clock.advance_ms(1000);
    client_will_delay_scan();
    EXPECT_EQ(g_will_delay_client_count, 0);
    EXPECT_EQ(g_client_mgr.used_count, 0);
    EXPECT_LE(g_mqtt_stats.will_sent, kRounds);
}

TEST(threads, a_message_stored_while_others_are_restored_is_not_lost)
{
    constexpr int kMessages = 60; // all of them are read back from one file
    Handling      broker;
    Client        client(broker, 4, "dev1");
    g_log_config.level = uint32_t{AGENT_LOG_FATAL};
    std::atomic<bool> done{false};

    std::thread store([&] {
        for (int i = 0; i < kMessages; i++)
            persist_add_offline_msg("dev1", "t", reinterpret_cast<const uint8_t *>("x"), 1, 1);
        done = true;
    });
    while (!done)
        packet_handler_restore_offline_msgs(client);
    store.join();
    packet_handler_restore_offline_msgs(client);
    EXPECT_EQ(pending_count(), kMessages);
}
