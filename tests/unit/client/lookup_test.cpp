#include "client_fixture.h"
#include "support/log_lines/client.h"

#include <cstdio>
#include <random>
#include <set>

using namespace tarn;
using namespace tarn::test;

namespace {

constexpr const char *kPrefixes[] = {"", "a", "dev", "sensor-", "lamp.kitchen.", "house/4/", "01234567890123456789"};

} // namespace

TEST(client_hash, is_31_times_plus_signed_bytes)
{
    EXPECT_EQ(client::hash_of(""), 0u);
    EXPECT_EQ(client::hash_of("a"), 97u);
    EXPECT_EQ(client::hash_of("ab"), 97u * 31 + 98);
    EXPECT_EQ(client::hash_of("\xff"), 0xFFFFFFFFu);
    EXPECT_EQ(client::hash_of("zzzzzzzzzz"), [] {
        uint32_t h = 0;
        for (int i = 0; i < 10; ++i)
            h = h * 31 + 'z';
        return h;
    }());
}

// What docs/deviations.md promises of ids that never share a bucket.
TEST(client_hash, a_prefix_and_a_number_of_three_digits_have_a_bucket_of_their_own)
{
    for (const char *prefix : kPrefixes) {
        std::set<uint32_t> buckets;
        for (int i = 0; i < 1000; ++i) {
            char number[16];
            snprintf(number, sizeof number, "%03d", i);
            buckets.insert(client::hash_of((std::string(prefix) + number).c_str()) % CLIENT_MAX);
        }
        EXPECT_EQ(buckets.size(), 1000u) << prefix;
    }
}

TEST(client_hash, a_prefix_and_four_digits_have_a_bucket_of_their_own_up_to_2075)
{
    for (const char *prefix : kPrefixes) {
        std::set<uint32_t> buckets;
        for (int i = 0; i < 2076; ++i) {
            char number[16];
            snprintf(number, sizeof number, "%04d", i);
            buckets.insert(client::hash_of((std::string(prefix) + number).c_str()) % CLIENT_MAX);
        }
        EXPECT_EQ(buckets.size(), 2076u) << prefix;
    }
}

TEST(client_hash, a_prefix_and_three_letters_of_which_the_first_is_a_to_k_have_a_bucket_of_their_own)
{
    for (const char *prefix : kPrefixes) {
        std::set<uint32_t> buckets;
        for (char first = 'a'; first <= 'k'; ++first)
            for (char second = 'a'; second <= 'z'; ++second)
                for (char third = 'a'; third <= 'z'; ++third) {
                    const std::string id = std::string(prefix) + first + second + third;
                    buckets.insert(client::hash_of(id.c_str()) % CLIENT_MAX);
                }
        EXPECT_EQ(buckets.size(), 7436u) << prefix;
    }
}

TEST(client_hash, random_ids_share_buckets)
{
    std::mt19937       random(1);
    std::set<uint32_t> buckets;
    for (int i = 0; i < 1000; ++i) {
        char id[16];
        snprintf(id, sizeof id, "mqttjs_%08x", static_cast<unsigned>(random()));
        buckets.insert(client::hash_of(id) % CLIENT_MAX);
    }
    EXPECT_GT(buckets.size(), 920u); // some 45 of the thousand are hidden behind others
    EXPECT_LT(buckets.size(), 980u);
}

TEST(client_lock, is_chosen_by_handle_or_by_hash)
{
    EXPECT_EQ(&client::mutex_of_handle(0), &g_client_mgr.locks[0]);
    EXPECT_EQ(&client::mutex_of_handle(99), &g_client_mgr.locks[0]);
    EXPECT_EQ(&client::mutex_of_handle(100), &g_client_mgr.locks[1]);
    EXPECT_EQ(&client::mutex_of_handle(10999), &g_client_mgr.locks[109]);
    EXPECT_EQ(&client::mutex_of_handle(11000), &g_client_mgr.locks[0]);
    EXPECT_EQ(&client::mutex_of_handle(NETIP_NO_HANDLE), &g_client_mgr.locks[0]);
}

TEST(client_id, is_cut_to_63_characters_and_told)
{
    const Manager        manager;
    mqtt_client_t *const client = client_create(7, "", 0, nullptr);
    LogCapture           log;
    const std::string    id64(64, 'k');
    const std::string    id63(63, 'k');
    client_set_cid(client, id64.c_str());
    EXPECT_EQ(std::string(client->client_id), id63);
    EXPECT_THAT(log.take(), ElementsAre(logged::client_id_set(7, id63)));
    EXPECT_EQ(client_find_by_cid(id63.c_str()), client);
    EXPECT_EQ(client_find_by_cid(id64.c_str()), nullptr) << "compared exactly";
    EXPECT_EQ(g_client_mgr.by_cid[client::hash_of(id63.c_str()) % 11000], client);
}

TEST(client_id, of_an_absent_or_closed_client_is_not_set)
{
    const Manager manager;
    LogCapture    log;
    client_set_cid(nullptr, "dev1");
    mqtt_client_t *const client = client_create(7, "", 0, nullptr);
    log.take();
    client->state = CLIENT_CLOSED;
    client_set_cid(client, "dev1");
    EXPECT_STREQ(client->client_id, "");
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(client_id, two_empty_ids_within_a_second_are_one_id)
{
    const ManualClock    clock;
    const Manager        manager;
    mqtt_client_t *const first  = client_create(1, "", 0, nullptr);
    mqtt_client_t *const second = client_create(2, "", 0, nullptr);
    LogCapture           log;
    client_set_cid(first, "");
    client_set_cid(second, nullptr);
    EXPECT_STREQ(first->client_id, "auto_1800000000");
    EXPECT_STREQ(second->client_id, "auto_1800000000");
    EXPECT_EQ(client_find_by_cid("auto_1800000000"), second);
    EXPECT_THAT(log.take(),
                ElementsAre(logged::client_id_generated("auto_1800000000"), logged::client_id_set(1, "auto_1800000000"),
                            logged::client_id_generated("auto_1800000000"),
                            logged::client_id_set(2, "auto_1800000000")));
}

TEST(client_id, set_again_leaves_the_old_entry)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "old");
    client_set_cid(client, "new");
    EXPECT_EQ(client_find_by_cid("new"), client);
    EXPECT_EQ(client_find_by_cid("old"), nullptr) << "the text differs";
    EXPECT_EQ(g_client_mgr.by_cid[client::hash_of("old") % 11000], client);
}

TEST(client_id, of_a_client_that_is_closed_meanwhile_makes_no_entry)
{
    const Manager        manager;
    mqtt_client_t *const client = client_create(7, "", 0, nullptr);
    const uint32_t       hash   = client::hash_of("dev1");
    while_it_waits(
        g_client_mgr.locks[hash % 111], [&] { client_set_cid(client, "dev1"); },
        [&] {
            EXPECT_TRUE(eventually([&] { return client::stored_id(*client).text == std::string("dev1"); }));
            client->state = CLIENT_CLOSED; // its closing found no entry to clear
        });
    EXPECT_EQ(g_client_mgr.by_cid[hash % 11000], nullptr);
}

TEST(client_id, works_for_an_own_record)
{
    OwnRecord own(5);
    client_set_cid(own.get(), "own");
    EXPECT_EQ(client_find_by_cid("own"), own.get());
    own->used = 0;
    EXPECT_EQ(client_find_by_cid("own"), nullptr) << "not in use";
    g_client_mgr.by_cid[client::hash_of("own") % 11000] = nullptr;
}

TEST(find_by_cid, finds_of_two_ids_in_a_bucket_the_one_set_last)
{
    const Manager        manager;
    const std::string    rival_id = ids_in_the_bucket_of("dev1", 1)[0];
    mqtt_client_t *const first    = log_in(1, "dev1");
    mqtt_client_t *const rival    = log_in(2, rival_id.c_str());
    EXPECT_EQ(client_find_by_cid("dev1"), nullptr);
    EXPECT_EQ(client_find_by_cid(rival_id.c_str()), rival);
    client_close(first);
    EXPECT_EQ(client_find_by_cid(rival_id.c_str()), rival) << "the entry was not the closed one's";
    client_close(rival);
    EXPECT_EQ(client_find_by_cid(rival_id.c_str()), nullptr);
    EXPECT_EQ(g_client_mgr.by_cid[client::hash_of("dev1") % 11000], nullptr);
}

TEST(find_by_cid, needs_an_id_and_a_live_record)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    EXPECT_EQ(client_find_by_cid(nullptr), nullptr);
    EXPECT_EQ(client_find_by_cid(""), nullptr);
    EXPECT_EQ(client_find_by_cid("dev"), nullptr);
    EXPECT_EQ(client_find_by_cid("dev1"), client);
    client->state = CLIENT_WILL_PENDING;
    EXPECT_EQ(client_find_by_cid("dev1"), client) << "while the entry stands";
    client->state = CLIENT_CLOSED;
    EXPECT_EQ(client_find_by_cid("dev1"), nullptr);
    client->state = CLIENT_LOGINED;
    client->used  = 0;
    EXPECT_EQ(client_find_by_cid("dev1"), nullptr);
    client->used = 1;
}

TEST(find_by_cid, passes_over_a_stale_entry)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    client->state               = CLIENT_CLOSED;
    pool_free(client); // without leaving the tables
    ASSERT_EQ(log_in(2, "dev2"), client);
    EXPECT_EQ(client_find_by_cid("dev1"), nullptr);
    EXPECT_EQ(client_find_by_handle(1), nullptr);
    EXPECT_EQ(client_find_by_cid("dev2"), client);
}

TEST(find_by_handle, asks_for_the_very_handle)
{
    const Manager        manager;
    mqtt_client_t *const client = client_create(5, "", 0, nullptr);
    EXPECT_EQ(client_find_by_handle(5), client);
    EXPECT_EQ(client_find_by_handle(11005), nullptr) << "same bucket";
    EXPECT_EQ(client_find_by_handle(6), nullptr);
    EXPECT_EQ(client_find_by_handle(NETIP_NO_HANDLE), nullptr);
    client->state = CLIENT_WILL_PENDING;
    EXPECT_EQ(client_find_by_handle(5), client);
    client->state = CLIENT_CLOSED;
    EXPECT_EQ(client_find_by_handle(5), nullptr);
}

TEST(find_by_handle, finds_a_record_that_a_host_planted)
{
    OwnRecord own(12);
    g_client_mgr.by_handle[12] = own.get();
    EXPECT_EQ(client_find_by_handle(12), own.get());
    g_client_mgr.by_handle[12] = nullptr;
}

TEST(find_client, pins_what_it_finds)
{
    const Manager        manager;
    mqtt_client_t *const client    = log_in(1, "dev1");
    const client_ref     by_handle = find_client_by_handle(1);
    const client_ref     by_cid    = find_client_by_id("dev1");
    EXPECT_EQ(by_handle.get(), client);
    EXPECT_EQ(by_cid.get(), client);
    client_close(client);
    EXPECT_STREQ(client->client_id, "dev1");
    EXPECT_FALSE(find_client_by_handle(1));
    EXPECT_FALSE(find_client_by_id("dev1"));
}
