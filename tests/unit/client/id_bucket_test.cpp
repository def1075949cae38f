// Clients whose ids share an entry of the id table: the one set last is found, and when it leaves, the one before it.
#include "client_fixture.h"

#include "base/clock.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <set>
#include <sys/mman.h>
#include <thread>

using namespace tarn;
using namespace tarn::test;

namespace {

Shared<mqtt_client_t *> &entry_of(const std::string &id)
{
    return g_client_mgr.by_cid[client::hash_of(id.c_str()) % CLIENT_MAX];
}

struct id_bucket : testing::Test {
    const LogCapture               quiet{4};
    const Manager                  manager{300};
    const std::string              id     = "dev1";
    const std::vector<std::string> ids    = ids_in_the_bucket_of("dev1", 3); // under other locks
    mqtt_client_t *const           hidden = log_in(1, id.c_str());
    mqtt_client_t *const           rival  = log_in(2, ids[0].c_str());

    void SetUp() override { ASSERT_EQ(client_find_by_cid(id.c_str()), nullptr) << "as long as both are there"; }
};

void give_will(mqtt_client_t *client, uint32_t delay_s)
{
    client_set_will_msg(client, "gone", text("x").data(), 1, 0, 0);
    client_set_will_enhance(client, delay_s, 0, 0, "", "", nullptr, 0);
}

} // namespace

TEST_F(id_bucket, who_was_hidden_is_found_when_the_other_is_closed)
{
    client_close(rival);
    EXPECT_EQ(client_find_by_cid(id.c_str()), hidden);
    client_close(hidden);
    EXPECT_EQ(entry_of(id), nullptr);
}

TEST_F(id_bucket, who_was_hidden_is_found_while_the_other_waits_for_its_will)
{
    give_will(rival, 30);
    client_close(rival);
    ASSERT_EQ(rival->state, uint32_t{CLIENT_WILL_PENDING});
    EXPECT_EQ(client_find_by_cid(id.c_str()), hidden);
    rival->will_delay_deadline = mono_ms();
    client_will_delay_scan();
    ASSERT_EQ(rival->used, 0);
    EXPECT_EQ(client_find_by_cid(id.c_str()), hidden);
}

TEST_F(id_bucket, who_was_hidden_is_found_when_the_other_takes_another_id)
{
    client_set_cid(rival, "elsewhere");
    EXPECT_EQ(client_find_by_cid(id.c_str()), hidden);
    EXPECT_EQ(client_find_by_cid("elsewhere"), rival);
    client_close(rival);
    EXPECT_EQ(client_find_by_cid(id.c_str()), hidden);
    EXPECT_EQ(client_find_by_cid("elsewhere"), nullptr);
}

TEST_F(id_bucket, who_was_hidden_is_found_when_the_other_is_released_without_a_close)
{
    rival->state = CLIENT_CLOSED;
    pool_free(rival);
    EXPECT_EQ(client_find_by_cid(id.c_str()), hidden);
}

TEST_F(id_bucket, whose_id_is_set_again_is_the_last)
{
    client_set_cid(hidden, id.c_str());
    EXPECT_EQ(client_find_by_cid(id.c_str()), hidden);
    EXPECT_EQ(client_find_by_cid(ids[0].c_str()), nullptr);
    client_close(hidden);
    EXPECT_EQ(client_find_by_cid(ids[0].c_str()), rival);
}

TEST_F(id_bucket, of_several_hidden_ones_the_one_set_last_is_found_that_is_online)
{
    mqtt_client_t *const third  = log_in(3, ids[1].c_str());
    mqtt_client_t *const fourth = log_in(4, ids[2].c_str());
    client_close(rival); // the entry is not its own
    EXPECT_EQ(client_find_by_cid(ids[2].c_str()), fourth);
    third->state = CLIENT_WILL_PENDING; // it has yet to leave the tables
    client_close(fourth);
    EXPECT_EQ(client_find_by_cid(id.c_str()), hidden);
    client_close(hidden);
    EXPECT_EQ(entry_of(id), nullptr);
}

TEST_F(id_bucket, of_two_clients_of_one_id_the_earlier_is_found_again)
{
    mqtt_client_t *const again = log_in(3, id.c_str());
    EXPECT_EQ(client_find_by_cid(id.c_str()), again);
    client_close(again);
    EXPECT_EQ(client_find_by_cid(ids[0].c_str()), rival);
    client_close(rival);
    EXPECT_EQ(client_find_by_cid(id.c_str()), hidden);
}

TEST_F(id_bucket, an_entry_that_a_host_changed_stays_as_it_is)
{
    OwnRecord own;
    entry_of(id) = nullptr;
    client_close(rival);
    EXPECT_EQ(entry_of(id), nullptr);
    log_in(3, ids[1].c_str());
    entry_of(id) = own.get();
    client_close(client_find_by_handle(3));
    EXPECT_EQ(entry_of(id), own.get());
    entry_of(id) = nullptr;
}

TEST_F(id_bucket, a_record_outside_the_pool_hides_others_and_is_not_remembered)
{
    OwnRecord own;
    client_set_cid(own.get(), ids[1].c_str());
    EXPECT_EQ(client_find_by_cid(ids[1].c_str()), own.get());
    client_close(own.get());
    EXPECT_EQ(client_find_by_cid(ids[0].c_str()), rival);

    OwnRecord hidden_own;
    client_set_cid(hidden_own.get(), ids[1].c_str());
    client_set_cid(rival, ids[0].c_str());
    client_close(rival);
    EXPECT_EQ(client_find_by_cid(id.c_str()), hidden) << "the owner of the other may have freed it";
}

TEST_F(id_bucket, an_id_that_a_host_wrote_into_the_record_names_the_entry_that_is_cleared)
{
    strcpy(rival->client_id, "by hand");
    entry_of("by hand") = rival;
    client_close(rival);
    EXPECT_EQ(entry_of("by hand"), nullptr);
    EXPECT_EQ(client_find_by_cid(id.c_str()), hidden);
}

TEST_F(id_bucket, clients_of_a_manager_before_are_forgotten)
{
    client_mgr_deinit();
    ASSERT_EQ(client_mgr_init(100), 0u);
    mqtt_client_t *const nameless = client_create(1, "", 0, nullptr); // where the hidden one was
    ASSERT_EQ(nameless, hidden);
    client_close(log_in(2, ids[0].c_str()));
    EXPECT_EQ(entry_of(id), nullptr);
}

TEST_F(id_bucket, closing_looks_at_no_record_of_others)
{
    for (uint32_t handle = 3; handle <= 300; ++handle)
        ASSERT_TRUE(log_in(handle, ("other" + std::to_string(handle)).c_str()));
    const size_t bytes = 100 * sizeof(mqtt_client_t) / 4096 * 4096;
    for (int block : {1, 2})
        ASSERT_EQ(mprotect(g_client_mgr.blocks[block].records, bytes, PROT_NONE), 0);
    client_close(rival); // a look at one of the 200 would end the test here
    for (int block : {1, 2})
        ASSERT_EQ(mprotect(g_client_mgr.blocks[block].records, bytes, PROT_READ | PROT_WRITE), 0);
    EXPECT_EQ(client_find_by_cid(id.c_str()), hidden);
}

TEST(id_buckets, name_after_thousands_of_steps_who_they_should)
{
    struct Bucket {
        std::vector<std::string>     ids;
        std::vector<mqtt_client_t *> online; // the one set last at the end
        mqtt_client_t               *entry = nullptr;
    };
    struct Client {
        mqtt_client_t *record = nullptr;
        Bucket        *bucket = nullptr;
    };
    const LogCapture      quiet(4);
    const Manager         manager(100);
    std::vector<Bucket>   buckets(3);
    std::array<Client, 8> clients;
    std::minstd_rand      random(1);
    for (Bucket &bucket : buckets)
        bucket.ids = ids_in_the_bucket_of(("b" + std::to_string(&bucket - buckets.data())).c_str(), 4);

    const auto leave = [](Client &client, bool cleared) {
        if (!client.bucket)
            return;
        std::erase(client.bucket->online, client.record);
        if (client.bucket->entry == client.record && (cleared || !client.bucket->online.empty()))
            client.bucket->entry = client.bucket->online.empty() ? nullptr : client.bucket->online.back();
        client.bucket = nullptr;
    };
    for (int step = 0; step < 10000; ++step) {
        const auto handle = static_cast<uint32_t>(random() % clients.size());
        Client    &client = clients[handle];
        if (client.record && random() % 3 == 0) {
            leave(client, true);
            client_close(std::exchange(client.record, nullptr));
        } else {
            if (!client.record)
                client.record = client_create(handle, "", 0, nullptr);
            Bucket &bucket = buckets[random() % buckets.size()];
            if (client.bucket != &bucket)
                leave(client, false); // an entry that nobody else can have stays
            client_set_cid(client.record, bucket.ids[random() % bucket.ids.size()].c_str());
            std::erase(bucket.online, client.record);
            bucket.online.push_back(client.record);
            bucket.entry  = client.record;
            client.bucket = &bucket;
        }
        for (const Bucket &bucket : buckets)
            ASSERT_EQ(entry_of(bucket.ids[0]), bucket.entry) << "step " << step;
    }
}

TEST(id_buckets, leave_200_clients_found_after_11000_visits_by_others)
{
    const LogCapture         quiet(4);
    const Manager            manager(1000);
    std::vector<std::string> ids;
    std::set<uint32_t>       buckets;
    for (int i = 0; ids.size() < 200; ++i)
        if (const std::string id = "sub" + std::to_string(i);
            buckets.insert(client::hash_of(id.c_str()) % CLIENT_MAX).second)
            ids.push_back(id);
    for (uint32_t i = 0; i < 200; ++i)
        log_in(i, ids[i].c_str());

    std::minstd_rand random(1);
    int              hidden = 0;
    for (uint32_t visit = 0; visit < 11000; ++visit) {
        const uint32_t handle = 1000 + visit % 500; // so many are there at a time
        if (mqtt_client_t *const before = client_find_by_handle(handle))
            client_close(before);
        const std::string visitor = "visitor" + std::to_string(random());
        hidden += static_cast<int>(buckets.count(client::hash_of(visitor.c_str()) % CLIENT_MAX));
        ASSERT_TRUE(log_in(handle, visitor.c_str()));
    }
    EXPECT_GT(hidden, 100);
    for (uint32_t handle = 1000; handle < 1500; ++handle)
        client_close(client_find_by_handle(handle));
    for (uint32_t i = 0; i < 200; ++i)
        EXPECT_EQ(client_find_by_cid(ids[i].c_str()), client_find_by_handle(i)) << ids[i];
}

// Closed one after the other, every client that is left has to come up. Returns how many did.
namespace {

size_t close_all_found(const std::vector<std::string> &ids)
{
    size_t closed = 0;
    while (mqtt_client_t *const client = entry_of(ids[0])) {
        EXPECT_TRUE(is_online(*client));
        EXPECT_EQ(client_find_by_cid(client->client_id), client);
        client_close(client);
        ++closed;
    }
    return closed;
}

} // namespace

TEST(id_buckets, of_many_threads_lose_nobody)
{
    constexpr uint32_t             kThreads = 4, kHandlesEach = 6;
    const LogCapture               quiet(4);
    const Manager                  manager(100);
    const std::vector<std::string> here  = ids_in_the_bucket_of("dev1", 5);
    const std::vector<std::string> there = ids_in_the_bucket_of("dev2", 5);
    const auto any_id = [&](std::minstd_rand &random) { return (random() % 2 ? here : there)[random() % 5]; };

    std::vector<std::thread> threads;
    for (uint32_t first = 0; first < kThreads * kHandlesEach; first += kHandlesEach)
        threads.emplace_back([&, first] {
            std::minstd_rand random(first + 1);
            for (int visit = 0; visit < 20000; ++visit) {
                const uint32_t handle = first + static_cast<uint32_t>(random() % kHandlesEach);
                client_ref     client = find_client_by_handle(handle);
                switch (random() % 4) {
                case 0: // another thread may close it first
                    if (const client_ref any = find_client_by_id(any_id(random).c_str()))
                        client_close(any.get());
                    break;
                case 1:
                    if (client)
                        client_close(client.get());
                    break;
                default:
                    if (!client)
                        client = client::create_client(handle, "", 0, nullptr, {});
                    ASSERT_TRUE(client);
                    client_set_cid(client.get(), any_id(random).c_str());
                }
            }
        });
    for (std::thread &thread : threads)
        thread.join();

    size_t online[2] = {};
    for (uint32_t handle = 0; handle < kThreads * kHandlesEach; ++handle)
        if (mqtt_client_t *const client = client_find_by_handle(handle))
            ++online[&entry_of(client->client_id) == &entry_of(there[0])];
    EXPECT_GT(online[0] + online[1], 0u);
    EXPECT_EQ(close_all_found(here), online[0]);
    EXPECT_EQ(close_all_found(there), online[1]);
    EXPECT_EQ(g_client_mgr.used_count, 0);
}
