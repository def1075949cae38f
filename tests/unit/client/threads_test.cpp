// Many threads on few records: creating, finding, sending, flushing, closing and scanning at random. What holds is
// checked at the end; what must not happen in between is the business of the sanitizers.
#include "client_fixture.h"

#include "base/clock.h"
#include "qos/qos_reliable.h"

#include <atomic>
#include <random>
#include <thread>

using namespace tarn;
using namespace tarn::test;

namespace {

constexpr uint32_t kHandles = 40;

std::string id_of_handle(uint32_t handle)
{
    return "dev" + std::to_string(handle);
}

void connect_one(uint32_t handle)
{
    client_ref client = client::create_client(handle, "10.0.0.1", 1, nullptr, {});
    if (!client)
        return;
    client_set_keepalive(client.get(), 1);
    client_set_cid(client.get(), id_of_handle(handle).c_str());
    if (handle % 3 == 0) {
        client_set_will_msg(client.get(), "gone", text("x").data(), 1, 0, 0);
        client_set_will_enhance(client.get(), handle % 2, 0, 0, "t", "r", text("c").data(), 1);
    }
    {
        ScopedLock lock(session_mutex(*client));
        clear_session(*client);
        client->session.sub_count = 1;
    }
    (void)mark_logged_in(*client);
}

void send_one(uint32_t handle)
{
    if (const client_ref client = find_client_by_id(id_of_handle(handle).c_str())) {
        EXPECT_TRUE(id_of(*client).text[0] == 'd' || is_released(client.get()));
        send(client.get(), Bytes(handle + 1, static_cast<uint8_t>(handle)));
        qos_reliable_add_packet(client.get(), static_cast<uint16_t>(handle + 1), 1, "t", "x", 1);
    }
}

void close_one(uint32_t handle)
{
    if (const client_ref client = find_client_by_handle(handle))
        client_close(client.get());
}

void act(std::mt19937 &random, const std::atomic<bool> &stop)
{
    while (!stop) {
        const uint32_t handle = random() % kHandles;
        switch (random() % 12) {
        case 0:
        case 1:
            connect_one(handle);
            break;
        case 2:
        case 3:
        case 4:
        case 5:
            send_one(handle);
            break;
        case 6:
            if (const client_ref client = find_client_by_handle(handle))
                flush_client(*client);
            break;
        case 7:
            close_one(handle);
            break;
        case 8:
            client_will_delay_scan();
            break;
        case 9:
            client_clean_timeout(random() % 50 ? 1000 : 0);
            break;
        case 10: {
            char list[512];
            client_fill_id_list(list, sizeof list);
            break;
        }
        case 11:
            client::begin_io_round();
            send_one(handle);
            send_one((handle + 1) % kHandles);
            client::end_io_round();
            break;
        }
    }
}

} // namespace

TEST(threads, create_find_send_and_close_at_random)
{
    const LogCapture quiet(4);
    ASSERT_EQ(client_mgr_init(60), 0u);
    std::vector<std::unique_ptr<Socket>> sockets;
    for (uint32_t handle = 0; handle < kHandles; handle += 2) // and the others have none
        sockets.push_back(std::make_unique<Socket>(handle));

    std::atomic<bool>        stop{false};
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed)
        threads.emplace_back([seed, &stop] {
            std::mt19937 random(seed);
            act(random, stop);
        });
    const uint64_t end_ms = mono_ms() + 2000;
    while (mono_ms() < end_ms) {
        for (const auto &socket : sockets)
            socket->drain();
        usleep(1000);
    }
    stop = true;
    for (std::thread &thread : threads)
        thread.join();

    int32_t used = 0;
    for (int32_t place = 0; mqtt_client_t *const record = client::record_in_order(place); ++place) {
        used += record->used;
        EXPECT_EQ(record->used, g_client_mgr.blocks[place / 100].used_flags[place % 100]) << place;
        EXPECT_TRUE(client::is_idle(place)) << "no pin was left: " << place;
        if (!record->used) {
            EXPECT_EQ(record->send_queue, nullptr);
            EXPECT_EQ(record->will_topic, nullptr);
            EXPECT_STREQ(record->client_id, "");
        }
    }
    EXPECT_EQ(used, g_client_mgr.used_count);
    for (uint32_t handle = 0; handle < kHandles; ++handle)
        close_one(handle);
    client_mgr_deinit();
    EXPECT_EQ(g_pending_queue, nullptr);
}

TEST(threads, no_more_clients_are_made_than_the_limit_allows)
{
    const LogCapture      quiet(4);
    const Manager         manager(50);
    std::atomic<uint32_t> next_handle{0};
    for (int round = 0; round < 100; ++round) {
        std::atomic<int>         waiting{4};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&] {
                for (--waiting; waiting > 0; std::this_thread::yield()) {}
                for (int tries = 0; tries < 20; ++tries)
                    client_create(next_handle++ % CLIENT_MAX, "", 0, nullptr);
            });
        for (std::thread &thread : threads)
            thread.join();
        ASSERT_EQ(g_client_mgr.used_count, 50);
        int32_t place = 0;
        while (const client_ref client = next_client(place))
            client_close(client.get());
        ASSERT_EQ(g_client_mgr.used_count, 0);
    }
}

TEST(threads, the_manager_goes_down_and_up_under_callers)
{
    const LogCapture         quiet(4);
    std::atomic<bool>        stop{false};
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 2; ++seed)
        threads.emplace_back([seed, &stop] {
            std::mt19937 random(seed);
            act(random, stop);
        });
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(client_mgr_init(60), 0u);
        usleep(2000);
        client_mgr_deinit();
    }
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    client_mgr_deinit();
    EXPECT_EQ(g_client_mgr.used_count, 0);
    for (int32_t index = 0; index < 100; ++index)
        EXPECT_TRUE(client::is_idle(index)) << index;
}
