#include "client_fixture.h"
#include "support/log_lines/client.h"

#include <fstream>

using namespace tarn;
using namespace tarn::test;

TEST(expired_sessions, are_deleted_once_their_deadline_has_passed)
{
    const ManualClock clock;
    const Manager     manager;
    const auto        waiting_until = [](uint32_t handle, const char *id, int64_t deadline_s) {
        mqtt_client_t *const client     = log_in(handle, id);
        client->session_expiry_deadline = static_cast<uint64_t>(deadline_s);
        return client;
    };
    const int64_t        now  = clock.wall_s();
    mqtt_client_t *const past = waiting_until(1, "past", now - 1);
    waiting_until(2, "now", now);
    waiting_until(3, "future", now + 1);
    waiting_until(4, "none", 0);
    waiting_until(5, "unused", 1)->used = 0;
    waiting_until(6, "old", 5);
    LogCapture log;
    client_clean_expired_sessions();
    EXPECT_THAT(log.take(), ElementsAre(logged::session_deletion_started(), logged::session_deleted("past", 1799999999),
                                        logged::session_deleted("old", 5), logged::session_deletion_ended()));
    EXPECT_THAT(take_calls(), ElementsAre("persist_remove past", "persist_remove old"));
    EXPECT_EQ(past->session_expiry_deadline, static_cast<uint64_t>(now - 1)) << "stays";
    g_client_mgr.blocks[0].records[4].used = 1;
}

TEST(expired_sessions, are_deleted_in_portions)
{
    const Manager manager(300);
    for (const uint32_t count : {63u, 64u, 65u, 200u}) {
        for (uint32_t i = 0; i < count; ++i)
            log_in(i, ("dev" + std::to_string(i)).c_str())->session_expiry_deadline = 1;
        take_calls();
        client_clean_expired_sessions();
        const std::vector<std::string> calls = take_calls();
        ASSERT_THAT(calls, SizeIs(count));
        EXPECT_EQ(calls.back(), "persist_remove dev" + std::to_string(count - 1));
        for (uint32_t i = 0; i < count; ++i)
            client_close(client_find_by_handle(i));
    }
}

TEST(expired_sessions, without_a_pool_are_none)
{
    LogCapture log;
    client_clean_expired_sessions();
    EXPECT_THAT(log.take(), ElementsAre(logged::session_deletion_started(), logged::session_deletion_ended()));
}

namespace {

bool is_zero(const persist_session_t &session)
{
    static const persist_session_t zero{};
    return memcmp(&session, &zero, sizeof zero) == 0;
}

} // namespace

TEST(clear_session, clears_what_counts_and_told_places_say_was_written)
{
    const Manager      manager;
    mqtt_client_t     &client  = *log_in(1, "dev1");
    persist_session_t &session = client.session;
    strcpy(session.client_id, "dev1");
    session.will_correlation_len = 7;
    strcpy(session.subs[1].topic, "a");
    session.sub_count = 2;
    strcpy(session.msgs[0].topic, "b");
    session.msg_count = 1;
    clear_session(client);
    EXPECT_TRUE(is_zero(session));

    session_written(client, 64, 3);
    session_written(client, 1, 1); // lower: does not count
    strcpy(session.subs[63].topic, "a");
    session.msgs[2].qos = 1;
    clear_session(client);
    EXPECT_TRUE(is_zero(session));
}

TEST(clear_session, leaves_pages_alone_that_nobody_wrote)
{
    const Manager      manager;
    mqtt_client_t     &client  = *log_in(1, "dev1");
    persist_session_t &session = client.session;
    session_written(client, 64, 100);
    clear_session(client);
    session.subs[5].qos = 1; // not told
    session.msgs[5].qos = 1;
    clear_session(client);
    EXPECT_EQ(session.subs[5].qos, 1);
    EXPECT_EQ(session.msgs[5].qos, 1);
}

#ifndef TARN_SANITIZED
TEST(clear_session, spends_no_memory_on_lists_that_stay_empty)
{
    const Manager manager(1000);
    const auto    resident_kib = [] {
        std::ifstream statm("/proc/self/statm");
        long          size, resident;
        statm >> size >> resident;
        return resident * 4;
    };
    const LogCapture quiet(4);
    const long       before_kib = resident_kib();
    for (uint32_t i = 0; i < 1000; ++i) {
        mqtt_client_t *const client = log_in(i, ("dev" + std::to_string(i)).c_str());
        clear_session(*client);
        strcpy(client->session.client_id, "dev");
    }
    EXPECT_LT(resident_kib() - before_kib, 6000) << "a page a client, and another one where the id is on the next";
}
#endif

TEST(clear_session, believes_no_count_beyond_the_arrays)
{
    const Manager  manager;
    mqtt_client_t &client    = *log_in(1, "dev1");
    mqtt_client_t &next      = *log_in(2, "dev2");
    client.session.sub_count = 1000000;
    client.session.msg_count = -5;
    session_written(client, -1, 1000000);
    clear_session(client);
    EXPECT_TRUE(is_zero(client.session));
    EXPECT_STREQ(next.client_id, "dev2");
}

TEST(clear_session, of_an_own_record_clears_all)
{
    OwnRecord own;
    memset(&own->session, 7, sizeof own->session);
    session_written(*own, 1, 1);
    clear_session(*own);
    EXPECT_TRUE(is_zero(own->session));
}

// ---- the session of a released record

namespace {

void write_session(mqtt_client_t &client)
{
    persist_session_t &session = client.session;
    strcpy(session.client_id, "dev1");
    session.will_flag = 1;
    strcpy(session.subs[2].topic, "a");
    session.sub_count = 3;
    strcpy(session.msgs[1].topic, "b");
    session.msg_count = 2;
}

void expect_nobodys(const persist_session_t &session)
{
    EXPECT_STREQ(session.client_id, "");
    EXPECT_EQ(session.will_flag, 0);
    EXPECT_EQ(session.sub_count, 0);
    EXPECT_EQ(session.msg_count, 0);
}

} // namespace

TEST(released_session, is_nobodys)
{
    const Manager  manager;
    mqtt_client_t &client = *log_in(1, "dev1");
    write_session(client);
    client_close(&client);
    expect_nobodys(client.session);
    ASSERT_EQ(client_create(2, "", 0, nullptr), &client);
    expect_nobodys(client.session);
    clear_session(client);
    EXPECT_TRUE(is_zero(client.session)) << "the lists behind the counts are not forgotten";
}

TEST(released_session, that_is_still_held_is_nobodys_already)
{
    const Manager    manager;
    const client_ref client(log_in(1, "dev1"));
    write_session(*client);
    client_close(client.get());
    expect_nobodys(client->session);
}

TEST(released_session, written_by_a_late_holder_is_nobodys_when_used_again)
{
    const Manager        manager;
    mqtt_client_t *const record = log_in(1, "dev1");
    {
        const client_ref client(record);
        client_close(record);
        write_session(*client); // a CONNECT that was under way, say
    }
    ASSERT_EQ(client_create(2, "", 0, nullptr), record);
    expect_nobodys(record->session);
    clear_session(*record);
    EXPECT_TRUE(is_zero(record->session));
}

TEST(released_session, held_while_the_manager_goes_down_is_nobodys)
{
    const Manager manager;
    client_ref    client(log_in(1, "dev1"));
    write_session(*client);
    client_mgr_deinit();
    expect_nobodys(client->session);
    write_session(*client);
    mqtt_client_t *const record = client.get();
    client.reset();
    ASSERT_EQ(client_create(2, "", 0, nullptr), record);
    expect_nobodys(record->session);
}

#ifndef TARN_SANITIZED
TEST(released_session, costs_no_memory_when_nothing_was_in_it)
{
    const LogCapture quiet(4);
    const Manager    manager(1000);
    const auto       resident_kib = [] {
        std::ifstream statm("/proc/self/statm");
        long          size, resident;
        statm >> size >> resident;
        return resident * 4;
    };
    const long before_kib = resident_kib();
    for (uint32_t i = 0; i < 1000; ++i)
        client_create(i, "", 0, nullptr);
    for (uint32_t i = 0; i < 1000; ++i)
        client_close(client_find_by_handle(i));
    EXPECT_LT(resident_kib() - before_kib, 5400) << "a page a client, and for one in ten the next one";
}
#endif
