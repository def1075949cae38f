// scan.cpp - retransmission with a doubling interval, expiry, and the two threads that drive both.
#include "../base/wakeable_pause.h"
#include "../base/clock.h"
#include "../base/memory.h"
#include "../base/text.h"
#include "../base/thread.h"
#include "../client/client.hpp"
#include "../codec/codec.hpp"
#include "../log/log.h"
#include "qos_internal.h"

#include <climits>
#include <cstring>

constinit tarn::Shared<uint8_t>   g_scan_running = 0;
constinit tarn::Shared<pthread_t> g_scan_thread  = 0;

namespace tarn::qos {
namespace {

constexpr uint64_t kFullWalkPeriod_ms = 500; // an entry edited by hand is noticed after this time at the latest
constexpr uint64_t kSharedTurn_ms     = 50;  // a scan thread leaves out its turn when the other one had it just now
constexpr uint64_t kNever             = UINT64_MAX;

// A scan thread lets go of the lock after so much work, which takes less than a millisecond, and pauses for as long:
// who waits for the lock, such as the I/O thread with an acknowledgement, gets it meanwhile.
constexpr int      kStepWork     = 4096;
constexpr int      kWorkToLook   = 1;  // at an entry
constexpr int      kWorkToSend   = 8;  // it again, without a line
constexpr int      kWorkToSay    = 50; // what became of it, in a line
constexpr uint32_t kStepPause_ms = 1;

constinit uint64_t g_next_due_ms GUARDED_BY(g_queue_mutex) = kNever;
constinit bool g_turn_runs       GUARDED_BY(g_queue_mutex) = false; // a scan thread walks
constinit Shared<uint64_t>       g_last_walk_ms            = 0;
constinit Shared<uint64_t>       g_last_turn_ms            = 0;
constinit SendBatch              g_batch{}; // of the scan thread that walks; others send what they resend one by one

struct ScanResult {
    int resent  = 0;
    int dropped = 0;
};

// QUIRK(expiry-after-send): a delivery ends with its expiry even when it was sent and is half acknowledged
// [MQTT-4.3.3-7]: an entry that nobody completes is not kept for longer than its message is worth.
//   standard profile: lifted (delivery)
//   test: scan.drops_an_expired_entry_in_any_state
bool has_expired(const qos_packet_t &entry, uint64_t now_ms) REQUIRES(g_queue_mutex)
{
    return entry.expiry_s != 0 && entry.create_ms + uint64_t{entry.expiry_s} * 1000 <= now_ms;
}

// The state first: it stands beside what else the walk reads, in the same line of the processor's cache.
bool waits_for_client(const qos_packet_t &entry) REQUIRES(g_queue_mutex)
{
    return (entry.qos2_state == QOS2_PUBREL_SENT || entry.qos2_state == QOS2_PUBCOMP_SENT) && entry.qos == 2;
}

uint64_t due_at(const qos_packet_t &entry) REQUIRES(g_queue_mutex)
{
    const uint64_t expires_ms = entry.expiry_s ? entry.create_ms + uint64_t{entry.expiry_s} * 1000 : kNever;
    if (waits_for_client(entry))
        return expires_ms;
    const uint64_t retry_ms = entry.last_send_ms + entry.retry_interval_ms + 1;
    return retry_ms < expires_ms ? retry_ms : expires_ms;
}

enum class Looked { NothingDue, Waits, Resent, Failed, Dropped };

// What is due for the entry that `link` points to. Waits: the batch is to be sent first.
Looked resend_or_drop(qos_packet_t **link, uint64_t now_ms, SendBatch *batch, ScanResult &result)
    REQUIRES(g_queue_mutex)
{
    qos_packet_t &entry = **link;
    if (has_expired(entry, now_ms)) {
        LOG_WARN("[QoS/Expiry] 消息已过期，自动丢弃: msg_id=%u, topic=%s", entry.msg_id, entry.topic);
    } else {
        if (waits_for_client(entry))
            return Looked::NothingDue;
        if (elapsed(now_ms, entry.last_send_ms) <= entry.retry_interval_ms)
            return Looked::NothingDue;
        if (entry.retry_count < QOS_RETRIES_MAX) {
            if (batch && entry.client && batch->is_due(*entry.client))
                return Looked::Waits;
            if (resend(&entry, now_ms, batch) != 0)
                return Looked::Failed;
            ++result.resent;
            return Looked::Resent;
        }
        LOG_ERROR("[QoS] 报文重试次数超限(msg_id=%d)，丢弃", entry.msg_id);
    }
    remove_at(link);
    ++result.dropped;
    return Looked::Dropped;
}

int work_of(Looked looked)
{
    switch (looked) {
    case Looked::NothingDue:
        return kWorkToLook;
    case Looked::Resent:
        return log_passes(AGENT_LOG_INFO) ? kWorkToSay : kWorkToSend;
    default:
        return kWorkToSay;
    }
}

// QUIRK(timed-retransmission): deliveries are repeated while the connection stands, where MQTT repeats them after a
// reconnect only [MQTT-4.4.0-1], and are given up after five times [MQTT-4.3.2-3, MQTT-4.3.3-3]: a client that lost a
// packet need not reconnect, and one that never answers is not kept in memory.
//   standard profile: lifted (delivery)
//   test: scan.the_first_retransmission_carries_dup_0_and_later_ones_dup_1
//
// QUIRK(newest-first): what is due at one time goes out newest first, messages kept for an absent client included
// [MQTT-4.6.0-5]: it gets them in the reverse of the order in which they were published. The list has its newest entry
// at the head, and its order is visible. Where the order matters, the payload carries a number or a time.
//   standard profile: lifted (delivery)
//   test: scan.what_is_due_at_one_time_goes_newest_first, offline.three_kept_messages_come_a_second_after_the_connack
//
// Goes on from the entry that `link` points to, until the list ends, this much work is done, or the batch is to be sent.
void walk_on(qos_packet_t **&link, uint64_t now_ms, int work, SendBatch *batch, ScanResult &result)
    REQUIRES(g_queue_mutex)
{
    while (*link && work > 0) {
        const Looked looked = resend_or_drop(link, now_ms, batch, result);
        if (looked == Looked::Waits)
            return;
        work -= work_of(looked);
        if (looked == Looked::Dropped)
            continue;
        note_due(due_at(**link));
        link = &(*link)->next;
    }
}

void begin_walk(uint64_t now_ms) REQUIRES(g_queue_mutex)
{
    g_last_walk_ms = now_ms;
    g_next_due_ms  = kNever; // what the walk sees and what comes meanwhile lower it again
}

void log_walk(const ScanResult &result)
{
    if (result.resent || result.dropped)
        LOG_DEBUG("[QoS] 队列扫描完成：重发%d条，丢弃%d条", result.resent, result.dropped);
}

// One step of a walk, begun with `begins`, and the writes that it made worthwhile. True when there is more.
bool take_step(bool begins, uint64_t now_ms, ScanResult &result) EXCLUDES(g_queue_mutex)
{
    bool more;
    {
        QueueLock lock;
        if (begins) {
            begin_walk(now_ms);
            g_walk = &g_pending_queue;
        }
        walk_on(g_walk, now_ms, kStepWork, &g_batch, result);
        more = *g_walk != nullptr;
    }
    g_batch.send(SendBatch::Part::Worthwhile);
    return more;
}

void walk_in_steps(uint64_t now_ms)
{
    const bool on_thread = g_scan_running; // its end ends the walk
    ScanResult result;
    bool       more = take_step(true, now_ms, result);
    while (more && !(on_thread && !g_scan_running)) {
        pause_ms(kStepPause_ms);
        more = take_step(false, now_ms, result);
    }
    g_batch.send(SendBatch::Part::All);
    log_walk(result);
    QueueLock lock;
    g_walk      = nullptr;
    g_turn_runs = false;
}

// True for one thread at a time, and when an entry may be due.
bool may_take_turn(uint64_t now_ms)
{
    QueueLock  lock;
    const bool nothing_due = now_ms < g_next_due_ms && elapsed(now_ms, g_last_walk_ms) < kFullWalkPeriod_ms;
    if (g_turn_runs || !g_pending_queue || nothing_due)
        return false;
    return g_turn_runs = true;
}

// ---- the scan threads

struct ScanThread {
    pthread_t   handle;
    ScanThread *next;
};
constinit Mutex                 g_threads_mutex{};
constinit ScanThread *g_threads GUARDED_BY(g_threads_mutex) = nullptr;
constinit WakeablePause         g_end_of_scanning;

void *scan_queue_thread(void *)
{
    LOG_DEBUG("[QoS] 队列扫描线程启动");
    while (g_scan_running) {
        scan_turn(mono_ms());
        g_end_of_scanning.pause_while(g_scan_running, QOS_SCAN_PERIOD_MS);
    }
    LOG_DEBUG("[QoS] 队列扫描线程退出");
    return nullptr;
}

// 0 or the errno value.
int start_scan_thread()
{
    owned<ScanThread> thread = allocate<ScanThread>(1);
    if (!thread)
        return ENOMEM;
    if (const int error = start_thread(&thread[0].handle, "tarn-qos-scan", scan_queue_thread, nullptr, WakesUp::ToWait))
        return error;
    ScopedLock lock(g_threads_mutex);
    g_scan_thread  = thread[0].handle;
    thread[0].next = g_threads;
    g_threads      = thread.release();
    return 0;
}

} // namespace

int resend(qos_packet_t *entry, uint64_t now_ms, SendBatch *batch)
{
    mqtt_client_t *const client = entry->client;
    LOG_DEBUG("[QoS_SEND] msg_id=%d, client=%s", entry->msg_id, client ? id_of(*client).text : "null");
    if (!client) {
        LOG_ERROR("[QoS] 重发报文参数错误：pkt/客户端为空");
        return -1;
    }
    if (!entry->payload || entry->payload_len < 1 || entry->payload_len > QOS_PAYLOAD_MAX) {
        LOG_ERROR("[QoS] 重发报文参数错误：payload为空/长度超限（最大支持%d字节，当前%d字节）", QOS_PAYLOAD_MAX,
                  static_cast<int>(entry->payload_len));
        return -1;
    }
    if (codec::level_of(client->codec) == 0) {
        LOG_ERROR("[QoS] 重发报文失败：客户端编解码上下文未初始化(client=%s)", id_of(*client).text);
        return -1;
    }

    // QUIRK(first-retry-without-dup): DUP is set from the second retransmission on; [MQTT-3.3.1-1] wants it on every
    // one. The first repeat of an offline message is its first transmission, and both share this path.
    //   standard profile: lifted (delivery)
    //   test: scan.the_first_retransmission_carries_dup_0_and_later_ones_dup_1
    const codec::PublishView message{.topic   = {entry->topic, strnlen(entry->topic, QOS_TOPIC_CHARS)},
                                     .payload = {entry->payload, entry->payload_len},
                                     .qos     = entry->qos,
                                     .msg_id  = entry->msg_id,
                                     .dup     = entry->dup};

    const size_t         size = entry->payload_len + QOS_ENCODE_EXTRA;
    const owned<uint8_t> room = allocate<uint8_t>(size);
    if (!room) {
        LOG_ERROR("[QoS] 重发报文失败：分配发送缓冲区失败（需要%d字节）", static_cast<int>(size));
        return -1;
    }
    std::span<uint8_t> packet(room.get(), size);
    if (const codec::Result encoded = codec::encode_publish(client->codec, message, packet); failed(encoded)) {
        LOG_ERROR("[QoS] 重发报文失败(msg_id=%d)：编码错误（错误码：%d，描述：%s）", entry->msg_id,
                  codec::code_of(encoded), codec::error_text(encoded));
        return -1;
    }
    const client_ref pin(client);
    if (const uint32_t result = queue_packet(*client, {packet}); result != 0) {
        LOG_ERROR("[QoS] 重发报文失败(msg_id=%d)：发送错误（返回码：%d）", entry->msg_id, static_cast<int>(result));
        return -1;
    }
    if (batch)
        batch->add(*client);
    else
        see_to_sending(*client);

    entry->dup          = 1;
    entry->last_send_ms = now_ms;
    ++entry->retry_count;
    entry->retry_interval_ms =
        entry->retry_interval_ms < QOS_MAX_RETRY_MS / 2 ? entry->retry_interval_ms * 2 : uint32_t{QOS_MAX_RETRY_MS};
    LOG_INFO("[QoS] 重发QoS%d报文成功(msg_id=%d)，重试次数=%d，下次间隔=%dms，载荷长度=%d", entry->qos, entry->msg_id,
             static_cast<int>(entry->retry_count), static_cast<int>(entry->retry_interval_ms),
             static_cast<int>(entry->payload_len));
    return 0;
}

void note_due(uint64_t due_ms)
{
    if (due_ms < g_next_due_ms)
        g_next_due_ms = due_ms;
}

void scan(uint64_t now_ms)
{
    ScanResult result;
    {
        QueueLock lock;
        begin_walk(now_ms);
        qos_packet_t **link = &g_pending_queue;
        walk_on(link, now_ms, INT_MAX, nullptr, result);
    }
    log_walk(result);
}

void scan_turn(uint64_t now_ms)
{
    if (elapsed(now_ms, g_last_turn_ms) < kSharedTurn_ms)
        return;
    g_last_turn_ms = now_ms;
    if (may_take_turn(now_ms))
        walk_in_steps(now_ms);
}

void stop_scan_threads()
{
    g_scan_running = 0;
    g_end_of_scanning.wake();
    ScanThread *threads;
    {
        ScopedLock lock(g_threads_mutex);
        threads   = g_threads;
        g_threads = nullptr;
    }
    while (ScanThread *const thread = threads) {
        threads = thread->next;
        join_or_detach(thread->handle);
        free(thread);
    }
}

bool init() noexcept
{
    g_scan_running = 1;
    if (const int error = start_scan_thread()) {
        LOG_ERROR("[QoS] 创建扫描线程失败，Linux错误码：%d（描述：%s）", error, strerror(error));
        g_scan_running = 0;
        return false;
    }
    LOG_INFO("[QoS] 可靠投递模块初始化成功");
    return true;
}

void destroy() noexcept
{
    g_scan_running = 0;
    LOG_DEBUG("[QoS] 开始销毁可靠投递模块");
    stop_scan_threads();
    int removed;
    {
        QueueLock lock;
        removed = remove_all();
        free_spare_entries();
    }
    LOG_INFO("[QoS] 可靠投递模块已销毁，共清理%d条未完成报文", removed);
}

} // namespace tarn::qos
