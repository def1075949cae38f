#include "client_fixture.h"

#include "base/clock.h"
#include "support/log_lines/client.h"

#include <algorithm>

using namespace tarn;
using namespace tarn::test;

namespace {

struct Timeout : testing::Test {
    ManualClock clock;

    static mqtt_client_t *client(uint32_t handle, uint32_t keepalive_s)
    {
        mqtt_client_t *const made = log_in(handle, ("dev" + std::to_string(handle)).c_str());
        if (keepalive_s)
            client_set_keepalive(made, static_cast<uint16_t>(keepalive_s));
        return made;
    }
    // A turn of ten blocks after so much time.
    uint32_t scan_after(int64_t ms, uint32_t default_ms = 300000)
    {
        clock.advance_ms(ms);
        return client_clean_timeout(default_ms);
    }
};

int lines_that_begin(LogCapture &log, const char *text)
{
    const std::vector<LogLine> lines = log.lines();
    return static_cast<int>(
        std::ranges::count_if(lines, [&](const LogLine &line) { return line.text.starts_with(text); }));
}
int visits(LogCapture &log) // of records that the scan looked at
{
    return lines_that_begin(log, "[超时扫描-详细]");
}

} // namespace

TEST_F(Timeout, comes_at_one_and_a_half_times_the_keepalive)
{
    const Manager        manager(1000);
    mqtt_client_t *const record = client(1, 10);
    EXPECT_EQ(scan_after(14999), 0u);
    EXPECT_EQ(record->used, 1);
    EXPECT_EQ(scan_after(1), 1u);
    EXPECT_EQ(record->used, 0);
    EXPECT_EQ(g_mqtt_stats.timeout, 1u);
}

TEST_F(Timeout, of_a_client_without_keepalive_is_the_default)
{
    const Manager        manager(1000);
    mqtt_client_t *const record = client(1, 0);
    EXPECT_EQ(record->keepalive_ms, 0u);
    EXPECT_EQ(scan_after(299999), 0u);
    EXPECT_EQ(scan_after(1), 1u);
}

TEST_F(Timeout, of_keepalive_0_in_connect_is_90_seconds)
{
    const Manager        manager(1000);
    mqtt_client_t *const record = client(1, 0);
    client_set_keepalive(record, 0);
    EXPECT_EQ(scan_after(89999), 0u);
    EXPECT_EQ(scan_after(1), 1u);
}

TEST_F(Timeout, threshold_is_a_32_bit_product)
{
    const Manager        manager(1000);
    mqtt_client_t *const record = client(1, 0);
    record->keepalive_ms        = 0x60000000; // times 3 wraps to 0x20000000
    EXPECT_EQ(scan_after(0x10000000 - 1), 0u);
    EXPECT_EQ(scan_after(1), 1u);
    record->keepalive_ms       = 0;
    client(1, 0)->keepalive_ms = 3; // 4 and a half rounds down
    EXPECT_EQ(scan_after(3), 0u);
    EXPECT_EQ(scan_after(1), 1u);
}

TEST_F(Timeout, activity_newer_than_the_scan_counts_as_none)
{
    const Manager        manager(1000);
    mqtt_client_t *const record = client(1, 10);
    record->last_active         = clock.mono_ms() + 5;
    EXPECT_EQ(client::close_silent(clock.mono_ms(), 1000), 0u);
    EXPECT_EQ(record->used, 1);
}

TEST_F(Timeout, tells_every_step)
{
    const Manager manager(1000);
    client(1, 10);
    mqtt_client_t *const silent  = client(2, 10);
    mqtt_client_t *const waiting = client(3, 10);
    mqtt_client_t *const fresh   = client_create(4, "", 0, nullptr);
    waiting->state               = CLIENT_WILL_PENDING;
    silent->disconnect_received  = 1;
    const uint64_t then          = clock.mono_ms();
    clock.advance_ms(15000);
    client_update_active(client_find_by_handle(1));
    const uint64_t now = clock.mono_ms();
    LogCapture     log;
    EXPECT_EQ(client_clean_timeout(60000), 1u);
    EXPECT_THAT(
        own_lines(log),
        ElementsAre(logged::timeout_scan_started(now, 0), logged::timeout_looks_at(0, 0, 1, 2, "dev1", 1, now, 10000),
                    logged::timeout_computed("dev1", 0, 15000, "否"),
                    logged::timeout_looks_at(0, 1, 1, 2, "dev2", 2, then, 10000),
                    logged::timeout_computed("dev2", 15000, 15000, "是"), logged::timeout_noted("dev2", 15000),
                    logged::timeout_looks_at(0, 2, 1, 3, "dev3", 3, then, 10000),
                    debug("[超时跳过] cid=dev3 | 状态不是在线状态(state=3)"),
                    logged::timeout_looks_at(0, 3, 1, 1, "空ID", 4, then, 0),
                    logged::timeout_computed("", 15000, 60000, "否"), logged::timeout_block_empty(1),
                    logged::timeout_block_empty(2), logged::timeout_block_empty(3), logged::timeout_block_empty(4),
                    logged::timeout_block_empty(5), logged::timeout_block_empty(6), logged::timeout_block_empty(7),
                    logged::timeout_block_empty(8), logged::timeout_block_empty(9), logged::timeout_scan_ended(1),
                    logged::timeout_closes("dev2", 2, 2), logged::max_packet_size_at_close(4096, "dev2"),
                    logged::client_closed("dev2"), logged::close_completed(""), logged::timeout_closed(""),
                    logged::timeout_scan_closed(1)));
    EXPECT_EQ(fresh->used, 1);
}

TEST_F(Timeout, without_work_ends_with_a_debug_line)
{
    const Manager manager(100);
    LogCapture    log;
    EXPECT_EQ(client_clean_timeout(1000), 0u);
    const std::vector<LogLine> lines = log.take();
    ASSERT_THAT(lines, SizeIs(13));
    EXPECT_EQ(lines[11], logged::timeout_scan_ended(0));
    EXPECT_EQ(lines[12], debug("[超时清理] 本次无客户端需要清理"));
}

TEST_F(Timeout, a_waiting_client_shows_its_id_to_the_end)
{
    const Manager        manager(1000);
    mqtt_client_t *const record = client(1, 10);
    client_set_will_msg(record, "gone", nullptr, 0, 0, 0);
    LogCapture log(2);
    EXPECT_EQ(scan_after(15000), 1u);
    EXPECT_THAT(log.take(), ElementsAre(logged::timeout_noted("dev1", 15000), logged::timeout_closes("dev1", 2, 1),
                                        logged::will_delayed("dev1", 0), logged::timeout_closed("dev1")));
}

TEST_F(Timeout, does_nothing_while_the_manager_is_down)
{
    LogCapture log;
    EXPECT_EQ(client_clean_timeout(0), 0u);
    {
        const Manager        manager(100);
        mqtt_client_t *const record = client(1, 10);
        clock.advance_ms(20000);
        log.take();
        g_client_mgr.running = 0;
        EXPECT_EQ(client_clean_timeout(0), 0u);
        EXPECT_EQ(record->used, 1);
        g_client_mgr.running = 1;
        const int32_t blocks = std::exchange(g_client_mgr.block_count, 0);
        EXPECT_EQ(client_clean_timeout(0), 0u);
        g_client_mgr.block_count = blocks;
        EXPECT_THAT(log.take(), IsEmpty());
    }
}

TEST_F(Timeout, three_thousand_clients_take_three_scans)
{
    const Manager    manager(3000);
    const LogCapture quiet(3);
    for (uint32_t i = 0; i < 3000; ++i)
        client(i, 10);
    clock.advance_ms(15000);
    for (int scan = 0; scan < 3; ++scan) {
        EXPECT_EQ(client_clean_timeout(0), 256u);
        for (int block = 0; block < 30; ++block) {
            const int in_turn  = block - scan * 10; // 256 of the ten blocks' thousand fit the list
            const int expected = in_turn < 0 || in_turn > 2 ? -1 : in_turn < 2 ? 0 : 44;
            if (expected >= 0) {
                EXPECT_EQ(g_client_mgr.blocks[block].used, expected) << block;
            }
            if (in_turn > 2) {
                EXPECT_EQ(g_client_mgr.blocks[block].used, 100) << block;
            }
        }
    }
    EXPECT_EQ(g_client_mgr.used_count, 3000 - 3 * 256);
    EXPECT_EQ(client_clean_timeout(0), 256u) << "from the first block again";
    EXPECT_EQ(g_client_mgr.blocks[2].used, 0);
}

TEST_F(Timeout, a_place_is_looked_at_once_in_so_many_scans_as_the_limit_has_thousands)
{
    const LogCapture quiet(3);
    for (const int limit : {1000, 5000, 11000}) {
        const Manager manager(limit);
        const auto    scans_until_closed = [&] {
            client(0, 2);
            clock.advance_ms(3000);
            int scans = 1;
            while (client_clean_timeout(0) == 0)
                ++scans;
            return scans;
        };
        (void)scans_until_closed(); // the first block has just had its turn
        EXPECT_EQ(scans_until_closed(), limit / 1000);
    }
}

TEST_F(Timeout, a_full_list_ends_the_trace)
{
    const Manager manager(1000);
    {
        const LogCapture quiet(3);
        for (uint32_t i = 0; i < 300; ++i)
            client(i, 10);
        clock.advance_ms(15000);
    }
    LogCapture log;
    EXPECT_EQ(client_clean_timeout(0), 256u);
    EXPECT_EQ(visits(log), 256);
    EXPECT_TRUE(log.has(logged::timeout_scan_ended(256)));
    EXPECT_TRUE(log.has(logged::timeout_scan_closed(256)));
    EXPECT_EQ(g_mqtt_stats.timeout, 256u);
}

TEST_F(Timeout, a_small_pool_is_visited_again_but_its_clients_close_once)
{
    const Manager manager(300); // three blocks: the first is visited four times
    client(1, 10);
    clock.advance_ms(15000);
    LogCapture log;
    EXPECT_EQ(client_clean_timeout(0), 1u);
    EXPECT_EQ(visits(log), 4);
    EXPECT_EQ(lines_that_begin(log, "[超时计算]"), 4);
    EXPECT_EQ(log.count(logged::timeout_noted("dev1", 15000)), 1);
    EXPECT_EQ(g_mqtt_stats.timeout, 1u);
    log.take();
    client_clean_timeout(0);
    EXPECT_EQ(log.lines().front(), logged::timeout_scan_started(clock.mono_ms(), 1));
}

TEST_F(Timeout, the_cursor_restarts_when_the_pool_is_smaller_than_before)
{
    {
        const Manager manager(3000);
        client_clean_timeout(0); // leaves it at 10
    }
    const Manager manager(100);
    client(1, 10);
    EXPECT_EQ(scan_after(15000), 1u);
}

TEST_F(Timeout, passes_over_records_that_are_not_whole)
{
    const Manager        manager(100);
    mqtt_client_t *const unused   = client(1, 10);
    mqtt_client_t *const handless = client(2, 10);
    unused->used                  = 0;
    handless->handle              = NETIP_NO_HANDLE;
    client(3, 10);
    g_client_mgr.blocks[0].used_flags[2] = 0;
    LogCapture log;
    EXPECT_EQ(scan_after(15000), 0u);
    EXPECT_EQ(visits(log), 0);
    g_client_mgr.blocks[0].used = 0;
    log.take();
    EXPECT_EQ(client_clean_timeout(0), 0u);
    EXPECT_EQ(log.count(logged::timeout_block_empty(0)), 10);
    unused->used                         = 1;
    g_client_mgr.blocks[0].used_flags[2] = 1;
    g_client_mgr.blocks[0].used          = 3;
}

TEST_F(Timeout, marks_whom_it_closes_and_activity_unmarks)
{
    const Manager        manager(100);
    mqtt_client_t *const record = client(1, 10);
    client_set_will_msg(record, "gone", nullptr, 0, 0, 0);
    scan_after(15000);
    EXPECT_EQ(record->timeout_closing, 1);
    client_update_active(record);
    EXPECT_EQ(record->timeout_closing, 0);
}

TEST_F(Timeout, one_scan_at_a_time)
{
    const Manager        manager(100);
    mqtt_client_t *const record = client(1, 10);
    client_set_will_msg(record, "gone", nullptr, 0, 0, 0);
    client(2, 10);
    uint32_t nested = 99;
    g_calls.on_will = [&](mqtt_client_t &) { nested = client_clean_timeout(0); };
    EXPECT_EQ(scan_after(15000), 2u);
    EXPECT_EQ(nested, 0u);
}

TEST_F(Timeout, a_listed_record_cannot_become_another_client)
{
    const Manager        manager(100);
    mqtt_client_t *const first  = client(1, 10);
    mqtt_client_t *const second = client(2, 10);
    client_set_will_msg(first, "gone", nullptr, 0, 0, 0);
    mqtt_client_t *newcomer = nullptr;
    g_calls.on_will         = [&](mqtt_client_t &) { // while the first is closed, somebody takes the second's place
        client_close(second);
        newcomer = log_in(9, "dev9");
    };
    EXPECT_EQ(scan_after(15000), 2u);
    EXPECT_NE(newcomer, second);
    EXPECT_EQ(newcomer->state, uint32_t{CLIENT_LOGINED});
}

TEST_F(Timeout, a_listed_client_that_was_closed_meanwhile_is_not_closed_again)
{
    const Manager        manager(100);
    mqtt_client_t *const first  = client(1, 10);
    mqtt_client_t *const second = client(2, 10);
    for (mqtt_client_t *const willing : {first, second})
        client_set_will_msg(willing, "gone", nullptr, 0, 0, 0);
    client_set_will_enhance(second, 30, 0, 0, nullptr, nullptr, nullptr, 0);
    g_calls.on_will = [&](mqtt_client_t &) { client_close(second); }; // while the first is closed
    EXPECT_EQ(scan_after(15000), 2u);
    EXPECT_EQ(second->state, uint32_t{CLIENT_WILL_PENDING});
    EXPECT_EQ(g_will_delay_client_count, 2);
}

TEST(keepalive, is_set_in_milliseconds_and_counts_as_activity)
{
    ManualClock          clock;
    const Manager        manager;
    mqtt_client_t *const client = log_in(0x1A, "dev1");
    clock.advance_ms(500);
    LogCapture log;
    client_set_keepalive(client, 10);
    EXPECT_EQ(client->keepalive_ms, 10000u);
    EXPECT_EQ(client->last_active, clock.mono_ms());
    client_set_keepalive(client, 65535);
    EXPECT_EQ(client->keepalive_ms, 65535000u);
    EXPECT_THAT(log.take(), ElementsAre(logged::keepalive_set(0x0000001A, "dev1", 10, 15),
                                        logged::keepalive_set(0x0000001A, "dev1", 65535, 98302)));
}

TEST(keepalive, zero_becomes_sixty_seconds)
{
    const Manager        manager;
    mqtt_client_t *const client = log_in(1, "dev1");
    LogCapture           log;
    client_set_keepalive(client, 0);
    EXPECT_EQ(client->keepalive_ms, 60000u);
    EXPECT_THAT(log.take(), ElementsAre(logged::keepalive_set(0x00000001, "dev1", 0, 90)));
}

TEST(keepalive, is_refused_for_a_record_without_a_connection)
{
    LogCapture log;
    OwnRecord  record(7);
    client_set_keepalive(nullptr, 10);
    record->state = CLIENT_CLOSED;
    client_set_keepalive(record.get(), 10);
    record->state  = CLIENT_CONNECTED;
    record->handle = NETIP_NO_HANDLE;
    client_set_keepalive(record.get(), 10);
    EXPECT_EQ(record->keepalive_ms, 0u);
    EXPECT_THAT(log.take(),
                ElementsAre(logged::keepalive_refused(0x00000000, -1), logged::keepalive_refused(0x00000007, 4),
                            logged::keepalive_refused(0xFFFFFFFF, 1)));
}

TEST(activity, is_now_unless_the_record_is_closed)
{
    const ManualClock clock;
    LogCapture        log;
    OwnRecord         record;
    record->timeout_closing = 1;
    record->state           = CLIENT_CLOSED;
    client_update_active(record.get());
    EXPECT_EQ(record->last_active, 0u);
    EXPECT_EQ(record->timeout_closing, 1);
    client_update_active(nullptr);
    record->state = CLIENT_WILL_PENDING;
    client_update_active(record.get());
    EXPECT_EQ(record->last_active, clock.mono_ms());
    EXPECT_EQ(record->timeout_closing, 0);
    EXPECT_THAT(log.take(), IsEmpty());
}
