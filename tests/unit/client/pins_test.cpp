#include "client_fixture.h"

using namespace tarn;
using namespace tarn::test;

namespace {

void release(mqtt_client_t *client)
{
    client->state = CLIENT_CLOSED;
    pool_free(client);
}

} // namespace

TEST(pin, keeps_texts_and_slot_until_it_goes)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    client_ref           pin(client);
    EXPECT_FALSE(is_released(client));
    release(client);
    EXPECT_EQ(client->used, 0) << "the release shows at once";
    EXPECT_EQ(client->state, uint32_t{CLIENT_CLOSED});
    EXPECT_TRUE(is_released(client));
    EXPECT_STREQ(client->client_id, "dev1") << "but the texts stay";
    EXPECT_STREQ(id_of(*client).text, "") << "for those who ask it is gone";
    mqtt_client_t *const next = client_create(2, "", 0, nullptr);
    EXPECT_NE(next, client) << "the slot is not free yet";
    pin.reset();
    EXPECT_STREQ(client->client_id, "");
    EXPECT_STREQ(client->ip, "");
    EXPECT_TRUE(is_released(client));
    EXPECT_EQ(client_create(3, "", 0, nullptr), client);
    EXPECT_FALSE(is_released(client));
}

TEST(pin, several_of_them_wipe_with_the_last)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    client_ref           first(client);
    client_ref           second = find_client_by_id("dev1");
    client_ref           third(std::move(second));
    EXPECT_FALSE(second);
    release(client);
    first.reset();
    EXPECT_STREQ(client->client_id, "dev1");
    first = std::move(third);
    EXPECT_STREQ(client->client_id, "dev1");
    first = client_ref();
    EXPECT_STREQ(client->client_id, "");
}

TEST(pin, frees_what_was_stored_after_the_release)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    {
        const client_ref pin(client);
        release(client);
        client_set_will_msg(client, "t", text("x").data(), 1, 0, 0);
        EXPECT_NE(client->will_topic, nullptr);
    }
    EXPECT_EQ(client->will_topic, nullptr);
    EXPECT_EQ(client->will_payload, nullptr);
}

TEST(pin, of_an_own_record_does_nothing)
{
    OwnRecord own;
    strcpy(own->client_id, "own");
    const client_ref pin(own.get());
    EXPECT_EQ(pin.get(), own.get());
    EXPECT_FALSE(is_released(own.get()));
    EXPECT_FALSE(is_released(nullptr));
    own->used = 0;
    EXPECT_FALSE(is_released(own.get()));
    EXPECT_STREQ(id_of(*own).text, "own");
    OwnRecord other;
    EXPECT_EQ(&session_mutex(*own), &session_mutex(*other));
    const client::Claim claim(*own);
    EXPECT_TRUE(claim);
    EXPECT_TRUE(client::Claim(*own)) << "always wins";
}

TEST(pin, only_exact_record_addresses_belong_to_the_pool)
{
    const Manager        manager(200);
    mqtt_client_t *const first = g_client_mgr.blocks[0].records;
    EXPECT_EQ(client::index_of(first), 0);
    EXPECT_EQ(client::index_of(&g_client_mgr.blocks[1].records[99]), 199);
    EXPECT_EQ(client::record_at(199), &g_client_mgr.blocks[1].records[99]);
    const auto *inside = reinterpret_cast<const mqtt_client_t *>(reinterpret_cast<const char *>(first) + 8);
    EXPECT_EQ(client::index_of(inside), client::kOutside);
    EXPECT_EQ(client::index_of(first - 1), client::kOutside);
    EXPECT_EQ(client::index_of(nullptr), client::kOutside);
    EXPECT_EQ(client::index_of(first + 100), client::kOutside) << "between two blocks";
}

TEST(claim, has_one_winner)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    {
        const client::Claim claim(*client);
        EXPECT_TRUE(claim);
        EXPECT_FALSE(client::Claim(*client));
        EXPECT_FALSE(client::Claim(*client)) << "who did not get it does not give it back";
    }
    EXPECT_TRUE(client::Claim(*client));
    EXPECT_TRUE(client::Claim(*client));
}

TEST(session_mutex, is_one_for_each_pool_record)
{
    const Manager manager;
    EXPECT_NE(&session_mutex(*log_in(1, "a")), &session_mutex(*log_in(2, "b")));
}

TEST(mark_logged_in, only_a_client_that_is_not_closed)
{
    OwnRecord own;
    for (const uint32_t from : {0u, 1u, 2u}) {
        own->state = from;
        EXPECT_TRUE(mark_logged_in(*own));
        EXPECT_EQ(own->state, uint32_t{CLIENT_LOGINED});
    }
    for (const uint32_t from : {3u, 4u}) {
        own->state = from;
        EXPECT_FALSE(mark_logged_in(*own));
        EXPECT_EQ(own->state, from);
    }
}

TEST(next_client, walks_used_records_in_pool_order)
{
    const Manager        manager(200);
    mqtt_client_t *const a = log_in(9, "a");
    mqtt_client_t *const b = log_in(8, "b");
    mqtt_client_t *const c = log_in(7, "c");
    b->state               = CLIENT_CLOSED;
    pool_free(b);
    int32_t index = 0;
    {
        const client_ref first = next_client(index);
        EXPECT_EQ(first.get(), a);
        EXPECT_EQ(index, 1);
        release(a);
        EXPECT_STREQ(a->client_id, "a") << "pinned";
    }
    EXPECT_EQ(next_client(index).get(), c);
    EXPECT_EQ(index, 3);
    EXPECT_FALSE(next_client(index));
    EXPECT_EQ(index, 200);
}

TEST(next_client, passes_over_a_record_whose_own_flag_is_clear)
{
    const Manager manager;
    log_in(1, "a")->used = 0;
    int32_t index        = 0;
    EXPECT_FALSE(next_client(index));
    g_client_mgr.blocks[0].records[0].used = 1;
}
