// timeout_scan.cpp - finds online clients that have been silent for too long and closes them, ten blocks a turn.
//
// A turn first lists, then closes. The listed records are pinned, so that none of them can become another client
// between the two.
#include "../base/clock.h"
#include "../stats/stats.hpp"
#include "client_internal.h"

#include <utility>

namespace tarn::client {
namespace {

// QUIRK(keepalive-late): a client that fell silent is closed when its place is next looked at, not after one and a half
// times its keep-alive [MQTT-3.1.2-22]. Every ten seconds a thousand of the places that max_clients makes are looked
// at, taken or not, so the close, and with it the will, comes up to 50 s late at the 5000 places of the default and up
// to 110 s late at 11000. A smaller max_clients makes it sooner: with 1000 it is 10 s.
//   standard profile: lifted (keep-alive): within some 10 ms; but a packet above 4096 bytes may take its time
//   test: Timeout.a_place_is_looked_at_once_in_so_many_scans_as_the_limit_has_thousands,
//   housekeeping_turn.each_task_comes_when_its_period_is_over_and_not_a_second_earlier
constexpr int kBlocksATurn = 10;
constexpr int kListMax     = 256;

constinit int32_t              s_scan_block = 0;
constinit std::atomic<uint8_t> g_scanning{0};

class CloseList {
public:
    bool full() const { return count_ == kListMax; }
    int  count() const { return count_; }
    bool has(const mqtt_client_t *client) const
    {
        for (int i = 0; i < count_; ++i)
            if (clients_[i].get() == client)
                return true;
        return false;
    }
    void        add(client_ref client) { clients_[count_++] = std::move(client); }
    client_ref &operator[](int i) { return clients_[i]; }

private:
    client_ref clients_[kListMax];
    int        count_ = 0;
};

struct Visit {
    int32_t  block;
    int      at;
    uint64_t now_ms;
    uint32_t default_threshold_ms;
};

uint32_t threshold_of(mqtt_client_t &client, uint32_t default_ms)
{
    const uint32_t keepalive_ms = client.keepalive_ms;
    return keepalive_ms != 0 ? keepalive_ms * 3 / 2 : default_ms;
}

void log_visited(const Visit &visit, mqtt_client_t &client, const client_id_text &id, uint64_t last_active_ms)
{
    LOG_DEBUG("[超时扫描-详细] block=%d, idx=%d | used=%d | state=%d | cid=%s | handle=0x%x | last_active=%lu | "
              "keepalive=%lu",
              visit.block, visit.at, 1, static_cast<int>(client.state), id.text[0] ? id.text : "空ID",
              uint32_t{client.handle}, static_cast<unsigned long>(last_active_ms),
              static_cast<unsigned long>(client.keepalive_ms));
}

void log_idle(const client_id_text &id, uint64_t idle_ms, uint32_t threshold_ms, bool timed_out)
{
    LOG_DEBUG("[超时计算] cid=%s | 不活跃=%lu ms | 阈值=%lu ms | 已超时? %s", id.text,
              static_cast<unsigned long>(idle_ms), static_cast<unsigned long>(threshold_ms), timed_out ? "是" : "否");
}

void look_at(const Visit &visit, client_ref client, CloseList &list)
{
    const bool           traced         = log_passes(AGENT_LOG_DEBUG);
    const uint64_t       last_active_ms = client->last_active;
    const client_id_text id             = traced ? stored_id(*client) : client_id_text{};
    if (traced)
        log_visited(visit, *client, id, last_active_ms);

    if (!is_online(*client)) {
        LOG_DEBUG("[超时跳过] cid=%s | 状态不是在线状态(state=%d)", id.text, static_cast<int>(client->state));
        return;
    }
    const uint64_t idle_ms      = elapsed(visit.now_ms, last_active_ms); // activity may be newer than now: 0
    const uint32_t threshold_ms = threshold_of(*client, visit.default_threshold_ms);
    const bool     timed_out    = idle_ms >= threshold_ms;
    if (traced)
        log_idle(id, idle_ms, threshold_ms, timed_out);
    if (!timed_out || list.has(client.get())) // a small pool is visited several times a turn
        return;

    client->timeout_closing = 1;
    LOG_WARN("[超时待关闭] 加入关闭列表 → cid=%s | 不活跃%lu ms", stored_id(*client).text,
             static_cast<unsigned long>(idle_ms));
    list.add(std::move(client));
}

bool is_in_use(const client_pool_block_t &block, int at, mqtt_client_t &client)
{
    return block.used_flags[at] && peek_acquire(client.used) && client.handle != NETIP_NO_HANDLE;
}

void visit_block(client_pool_block_t &block, Visit visit, CloseList &list)
{
    if (block.used <= 0) {
        LOG_DEBUG("[超时扫描] block=%d 无客户端，跳过", visit.block);
        return;
    }
    for (visit.at = 0; visit.at < CLIENT_BLOCK_RECORDS && !list.full(); ++visit.at) {
        mqtt_client_t &record = block.records[visit.at];
        if (!is_in_use(block, visit.at, record))
            continue;
        client_ref client(&record);
        if (is_in_use(block, visit.at, record))
            look_at(visit, std::move(client), list);
    }
}

void list_timed_out(uint64_t now_ms, uint32_t default_threshold_ms, CloseList &list)
{
    for (int visits = 0; visits < kBlocksATurn; ++visits) {
        const int32_t              count  = peek_acquire(g_client_mgr.block_count);
        client_pool_block_t *const blocks = peek_acquire(g_client_mgr.blocks);
        if (count <= 0 || !blocks)
            return; // the manager went down
        if (s_scan_block >= count)
            s_scan_block = 0;
        visit_block(blocks[s_scan_block], {s_scan_block, 0, now_ms, default_threshold_ms}, list);
        ++s_scan_block;
    }
}

void close_listed(mqtt_client_t &client)
{
    LOG_WARN("[超时执行关闭] 真实关闭 → cid=%s, state=%d, handle=0x%x", id_of(client).text,
             static_cast<int>(client.state), uint32_t{client.handle});
    close_seen(client, CLIENT_LOGINED); // online, that is, when it was listed
    stats::count(stats::Counter::timeout);
    LOG_WARN("[超时完成] 客户端已关闭 → cid=%s", id_of(client).text); // empty once the record is released
}

uint32_t scan(uint64_t now_ms, uint32_t default_threshold_ms)
{
    CloseList list;
    LOG_DEBUG("[超时清理] 开始扫描 | 当前时间 ms = %lu | 扫描块起点 = %d", static_cast<unsigned long>(now_ms),
              s_scan_block);
    list_timed_out(now_ms, default_threshold_ms, list);
    LOG_DEBUG("[超时清理] 本次扫描完成，待关闭客户端数量 = %d", list.count());
    for (int i = 0; i < list.count(); ++i) {
        close_listed(*list[i]);
        list[i].reset();
    }
    if (list.count() > 0)
        LOG_INFO("[超时清理] 本次成功清理 %d 个超时客户端", list.count());
    else
        LOG_DEBUG("[超时清理] 本次无客户端需要清理");
    return static_cast<uint32_t>(list.count());
}

} // namespace

uint32_t close_silent(uint64_t now_ms, uint32_t default_threshold_ms) noexcept
{
    if (!g_client_mgr.running || g_client_mgr.block_count <= 0)
        return 0;
    if (g_scanning.exchange(1, std::memory_order_acquire))
        return 0; // another thread scans
    const uint32_t closed = scan(now_ms, default_threshold_ms);
    g_scanning.store(0, std::memory_order_release);
    return closed;
}

} // namespace tarn::client
