// send_thread.cpp - sends what threads outside the I/O rounds queued, and tries again what sockets did not take.
//
// Records whose sockets are full stay with the thread, which tries them every 10 ms; when the network layer sees one
// writable, the I/O thread sends in between (round_flush.cpp). Twice a second the thread looks at the whole pool, for
// rings that were filled by hand and for memory to give back.
#include "../base/clock.h"
#include "../base/thread.h"
#include "client_internal.h"

#include <algorithm>
#include <climits>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

tarn::Shared<uint8_t> g_send_running = 0;
pthread_t             g_send_thread  = 0;

namespace tarn::client {
namespace {

constexpr uint32_t kRetry_ms = 10;  // while records are listed or I/O rounds are watched
constexpr uint32_t kIdle_ms  = 100; // otherwise
constexpr uint32_t kWalk_ms  = 500;
constexpr int      kRefusals = 10; // from then on a record is tried with each walk only

constinit std::atomic<uint32_t> g_asleep{0};   // the thread waits in the kernel on this word
constinit std::atomic<uint8_t>  g_is_asked{0}; // to drain the send list. What a round lists alone does not ask for it.

constinit Mutex          g_start_mutex{};
constinit bool g_started GUARDED_BY(g_start_mutex) = false; // there is a thread to join

static_assert(sizeof g_asleep == sizeof(uint32_t), "a futex word");

bool nothing_to_do()
{
    return g_is_asked.load() == 0 && g_send_running;
}

// False when the whole time passed. The time is relative, so it passes also while a test holds the clocks.
bool sleep_until_woken(uint32_t ms)
{
    g_asleep.store(1);
    bool timed_out = false;
    if (nothing_to_do()) {
        const timespec wait{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
        timed_out =
            syscall(SYS_futex, &g_asleep, FUTEX_WAIT_PRIVATE, 1, &wait, nullptr, 0) != 0 && g_asleep.load() != 0;
    }
    g_asleep.store(0);
    return !timed_out;
}

void wake()
{
    if (g_asleep.load() != 0 && g_asleep.exchange(0) != 0)
        syscall(SYS_futex, &g_asleep, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

// The thread's own list of records to try again.
class RetryList {
public:
    ~RetryList()
    {
        for (int32_t i = 0; i < count_; ++i)
            side_at(places_[i]).awaits_retry.store(0);
    }
    bool empty() const { return count_ == 0; }
    // The record is flushed, and kept when packets stay.
    void serve(int32_t index)
    {
        Side &side = side_at(index);
        side.awaits_retry.store(0); // first: a packet that comes behind the flush lists the record
        const client_ref client(record_at(index));
        const Flushed    result = flush_ring(*client, true);
        if (result == Flushed::Partly) {
            hand_to_send_thread(index);
            return;
        }
        if (result == Flushed::Refused && side.refusals.load(std::memory_order_relaxed) >= kRefusals)
            return; // no connection, it seems: the walks go on trying
        count_refusal(side, result);
        if (result == Flushed::Full || result == Flushed::Refused)
            keep(*client, index, side);
    }
    void try_again()
    {
        const int32_t count = count_;
        count_              = 0;
        for (int32_t i = 0; i < count; ++i) { // serve() writes at or before i
            is_kept_[places_[i]] = false;
            serve(places_[i]);
        }
    }

private:
    void keep(mqtt_client_t &client, int32_t index, Side &side)
    {
        side.awaits_retry.store(1);
        if (!has_packets(client)) // the socket was writable again a moment ago, and the I/O thread has sent the rest
            side.awaits_retry.store(0);
        if (!is_kept_[index])
            places_[count_++] = index;
        is_kept_[index] = true;
    }
    static void count_refusal(Side &side, Flushed result)
    {
        const uint8_t before = side.refusals.load(std::memory_order_relaxed);
        side.refusals.store(result == Flushed::Refused ? static_cast<uint8_t>(before + 1) : uint8_t{0},
                            std::memory_order_relaxed);
    }

    int32_t places_[CLIENT_MAX]; // each record at most once
    bool    is_kept_[CLIENT_MAX] = {};
    int32_t count_               = 0;
};

bool has_unsent(mqtt_client_t &client)
{
    return is_online(client) && peek(client.send_queue) && has_packets(client);
}

void send_unlisted(mqtt_client_t &client, int32_t index, RetryList &retries)
{
    if (index == kOutside)
        (void)flush_ring(client, true);
    else if (const Side &side = side_at(index); side.listed.load() == 0 && side.awaits_retry.load() == 0)
        retries.serve(index);
}

// Looks first and pins where there is something to do: most records rest.
void walk(RetryList &retries)
{
    int32_t place = 0;
    while (mqtt_client_t *const record = next_flagged(place)) {
        if (has_unsent(*record)) {
            const client_ref client(record);
            send_unlisted(*client, index_of(record), retries);
        }
    }
}

uint32_t next_pause_ms(bool nothing_waits, bool watching, uint64_t next_try_ms)
{
    if (nothing_waits)
        return watching ? kRetry_ms : kIdle_ms;
    const uint64_t now_ms = mono_ms();
    return next_try_ms > now_ms ? std::min(kRetry_ms, static_cast<uint32_t>(next_try_ms - now_ms)) : 1;
}

void run()
{
    RetryList retries;
    uint64_t  next_walk_ms = 0;
    uint64_t  next_try_ms  = 0;
    uint32_t  quiet_ms     = kWalk_ms; // time slept through since the last walk
    int       quiet_turns  = 0;
    bool      woken        = false;
    do {
        g_is_asked.store(0);
        drain_send_list([&](int32_t index) { retries.serve(index); });
        const uint64_t now_ms = mono_ms();
        if (!woken || now_ms >= next_try_ms) {
            retries.try_again();
            next_try_ms = now_ms + kRetry_ms;
        }
        const bool watching = rounds_are_watched(quiet_turns);
        if (quiet_ms >= kWalk_ms || now_ms >= next_walk_ms) {
            walk(retries);
            next_walk_ms = now_ms + kWalk_ms;
            quiet_ms     = 0;
        }
        const uint32_t pause = next_pause_ms(retries.empty(), watching, next_try_ms);
        woken                = sleep_until_woken(pause);
        quiet_ms += woken ? 0 : pause;
    } while (g_send_running);
}

// The thread takes no lock that its joiner holds, and runs no callback of the host's.
void stop_thread() REQUIRES(g_start_mutex)
{
    g_send_running = 0;
    wake_send_thread();
    if (g_started)
        join_or_detach(g_send_thread);
    g_started     = false;
    g_send_thread = 0;
}

} // namespace

void wake_send_thread() noexcept
{
    g_is_asked.store(1);
    wake();
}

// The wake-up is needed for a record that a round listed, too: the round may be a long one.
void hand_to_send_thread(int32_t index) noexcept
{
    if (side_at(index).awaits_retry.load() != 0)
        return;
    list_for_sending(index);
    wake_send_thread();
}

} // namespace tarn::client

using namespace tarn;
using namespace tarn::client;

void *send_thread_proc(void *)
{
    LOG_INFO("[SEND_THREAD] 发送线程启动");
    if (g_send_running)
        run();
    LOG_INFO("[SEND_THREAD] 发送线程退出");
    return nullptr;
}

void tarn::client::start_send_thread() noexcept
{
    ScopedLock lock(g_start_mutex);
    if (g_started && g_send_running)
        return;
    stop_thread(); // one that was ended through the flag alone
    g_send_running = 1;
    g_started      = start_thread(&g_send_thread, "tarn-send", send_thread_proc, nullptr) == 0;
}

void tarn::client::stop_send_thread() noexcept
{
    ScopedLock lock(g_start_mutex);
    stop_thread();
}
