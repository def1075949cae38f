// io_thread.cpp - the I/O threads: wait for events, read, cut packets, hand them up or over to a lane.
//
// A thread only repeats one round. With several threads the rounds take turns, because they share the event array and
// because packets of one connection must come in order.
#include "../base/clock.h"
#include "../log/log.h"
#include "framing.h"
#include "lane.h"
#include "round_sending.h"

#include <cerrno>
#include <sys/socket.h>
#include <utility>

namespace tarn::net {
namespace {

// A connection's turn, one in a round, ends with the packet or read that reaches one of these. Level triggering brings
// what is not read in the next round, the list what is left in the buffer.
constexpr int      kReadsPerTurn   = 32;
constexpr ssize_t  kBytesPerTurn   = 64 * 1024;
constexpr uint64_t kTimePerTurn_us = 2000;

constexpr uint32_t kFailurePause_ms = 100;

constinit Mutex g_io_round_mutex{};

class RoundLock {
public:
    RoundLock() noexcept NO_LOCK_ANALYSIS : held_(peek(g_io_thread_num) > 1)
    {
        if (held_)
            g_io_round_mutex.lock();
        t_round_lock = this;
    }
    ~RoundLock()
    {
        give_up();
        t_round_lock = nullptr;
    }
    RoundLock(const RoundLock &)            = delete;
    RoundLock &operator=(const RoundLock &) = delete;

    void give_up() noexcept NO_LOCK_ANALYSIS
    {
        if (held_)
            g_io_round_mutex.unlock();
        held_ = false;
    }
    static RoundLock *of_this_thread() noexcept { return t_round_lock; }

private:
    bool                                     held_;
    static constinit thread_local RoundLock *t_round_lock;
};
constinit thread_local RoundLock *RoundLock::t_round_lock = nullptr;

// One recv behind the bytes held. If the buffer is still full because the callback objected to the end, recv is asked
// for 0 bytes and returns 0 as soon as another byte waits.
ssize_t receive_bytes(const SlotPin &pin)
{
    move_to_front(pin);
    SlotLock slot(pin.handle(), SlotLock::Always);
    if (!pin.is_current())
        return -1;
    const ssize_t got = recv(slot->fd, received_bytes(pin) + slot->rx_len, room_for_more(pin), MSG_DONTWAIT);
    if (got > 0) {
        slot->rx_len += static_cast<int32_t>(got);
        slot->last_active = wall_ms();
    }
    return got;
}

// Hundreds of connections may end at once, each with pending deliveries to drop. They end in as many rounds as it takes,
// so that what others sent is served in between.
class Ends {
public:
    bool has_time()
    {
        if (std::exchange(is_first_, false))
            began_us_ = mono_us();
        return elapsed(mono_us(), began_us_) < kEndsPerRound_us;
    }

private:
    static constexpr uint64_t kEndsPerRound_us = 4000;

    bool     is_first_ = true;
    uint64_t began_us_ = 0;
};

// What a turn left behind.
enum class Left {
    Nothing, // for now
    More,    // perhaps, for the next round
    End,     // nothing that could ever be read
    NotOurs, // a lane has the connection, it waits, it was closed, or the layer goes down
};

Left serve_whole_packets(const SlotPin &pin, const EventSink &sink, uint32_t start, uint64_t began_us, PacketTime &time)
{
    const netip_conn_t &slot = pin.slot();
    while (packet_is_whole(slot)) {
        const auto length = static_cast<size_t>(slot.pkt_len);
        if (length == 0)
            return Left::End; // refused
        if (!layer_runs(start) || !serves_here(pin, {received_bytes(pin), length}, start) ||
            !hand_up_first(pin, sink, start))
            return Left::NotOurs;
        const uint64_t now_us = time.next();
        if (send_meanwhile(pin, now_us))
            (void)time.read();
        if (!pin.is_current())
            return Left::NotOurs;
        if (elapsed(now_us, began_us) >= kTimePerTurn_us && round_may_end_turns(now_us))
            return Left::More;
    }
    return Left::Nothing;
}

// A read that leaves room has taken all there was, and what comes later is told of again. A broken connection is read to
// its end at once.
//
// QUIRK(packet-size): a packet above 4096 bytes ends the connection without a word, whatever Maximum Packet Size was
// announced and with no DISCONNECT 0x95 [MQTT-3.2.2-15]. It stays because the receive buffer is part of the slot:
// memory is bounded by the table, and nobody has to read what cannot be kept.
//   standard profile: lifted (sizes): up to the limit that the host set, 10 MiB by default; above it DISCONNECT 0x95
//   test: stream.a_packet_of_4097_bytes_ends_the_connection
Left read_and_serve(const SlotPin &pin, const EventSink &sink, uint32_t start, bool broken)
{
    netip_conn_t  &slot = pin.slot();
    PacketTime     time;
    const uint64_t began_us = time.read();
    ssize_t        total    = 0;
    // Of an earlier turn first.
    if (const Left left = serve_whole_packets(pin, sink, start, began_us, time); left != Left::Nothing)
        return left;
    for (int reads = 0; reads < kReadsPerTurn && total < kBytesPerTurn && layer_runs(start); ++reads) {
        const auto    room = static_cast<ssize_t>(room_for_more(pin));
        const ssize_t got  = receive_bytes(pin);
        if (got < 1)
            return got == 0 ? Left::End : Left::Nothing;
        total += got;
        (void)time.read(); // what came now came after the reading before
        LOG_DEBUG("[NETIP] 开始解析客户端数据 handle=%d 缓存长度=%d", static_cast<int>(pin.handle()), slot.rx_len);
        measure(pin);
        if (const Left left = serve_whole_packets(pin, sink, start, began_us, time); left != Left::Nothing)
            return left;
        if (room_for_more(pin) == 0)
            return Left::End; // the packet in front will never be whole
        if (got < room && !broken)
            return Left::Nothing;
    }
    return Left::More;
}

// The peer may be gone (`broken`), but what it sent before still waits here and comes first. A turn that ends before all
// of it is read goes on in the next round, as the broken connection is reported until it is closed.
void take_turn(const SlotPin &pin, const EventSink &sink, uint32_t start, bool broken, Ends &ends)
{
    const Left left = read_and_serve(pin, sink, start, broken);
    if (left == Left::NotOurs || !pin.is_current())
        return;
    const bool has_ended  = left == Left::End || (broken && left == Left::Nothing);
    const bool is_put_off = has_ended && !ends.has_time();
    if (has_ended && !is_put_off) {
        if (!serves_here(pin, {}, start))
            return;
        hang_up(pin, sink);
    }
    end_turn(pin, sink, is_put_off);
}

void note_writable(const SlotPin &pin)
{
    bool wanted;
    {
        SlotLock slot(pin.handle(), SlotLock::Always);
        wanted = pin.is_current() && forget_writable(pin.handle());
    }
    if (wanted)
        call_writable_hook(pin.handle());
}

void handle_event(const epoll_event &event, const EventSink &sink, uint32_t start, Ends &ends)
{
    const Connection connection{static_cast<uint32_t>(event.data.u64), static_cast<uint32_t>(event.data.u64 >> 32)};
    if (connection.generation == 0)
        return; // the listener or g_wake_fd: connections are the accept thread's
    const SlotPin pin(connection);
    if (!pin)
        return; // closed earlier in this round
    const bool broken = event.events & (EPOLLERR | EPOLLHUP);
    if (!broken && (event.events & EPOLLOUT))
        note_writable(pin);
    if (peek_acquire(side_of(pin.handle()).server) != Server::Rounds)
        return hear_nothing_aside(pin); // its turn comes from the list, or not from here
    if (broken || (event.events & EPOLLIN))
        take_turn(pin, sink, start, broken, ends);
}

void serve_listed(SlotQueue listed, const EventSink &sink, uint32_t start, Ends &ends)
{
    while (!listed.empty()) {
        const uint32_t handle = listed.pop();
        const SlotPin  pin({handle, side_of(handle).errand.generation}, SlotPin::Counted);
        if (pin.is_current() && layer_runs(start))
            take_turn(pin, sink, start, false, ends);
    }
}

void handle_events(int count, uint32_t start)
{
    const EventSink sink   = event_sink();
    const uint32_t  turns  = listed_count() + static_cast<uint32_t>(count);
    const SlotQueue listed = take_listed();
    Ends            ends;
    begin_round(turns);
    for (int i = 0; i < count && layer_runs(start); ++i)
        handle_event(g_epoll_events[i], sink, start, ends);
    serve_listed(listed, sink, start, ends); // one turn a round for each: what the events list is for the next round
    if (layer_runs(start))
        receive_datagram(sink);
    end_round();
    hand_over_to_lanes(start);
}

} // namespace

int run_round(uint32_t start, int timeout_ms) noexcept
{
    RoundLock turn;
    if (!layer_runs(start))
        return 0;
    const bool listed  = has_listed();
    const int  wait_ms = listed ? 0 : patience_ms(timeout_ms);
    const int  count   = epoll_wait(netip_epoll_fd, g_epoll_events, NETIP_EPOLL_EVENTS, wait_ms);
    if (count < 0)
        LOG_ERROR("[IO] epoll_wait 错误, errno=%d", errno);
    hurry_lanes(count == 0 && !listed);
    if (count > 0 || (count == 0 && listed))
        handle_events(count, start);
    if (count >= 0 && layer_runs(start))
        resume_watching(count == 0 && !listed && wait_ms == timeout_ms);
    return count;
}

void give_up_round() noexcept
{
    if (RoundLock *turn = RoundLock::of_this_thread())
        turn->give_up();
}

void *io_thread(void *arg) noexcept
{
    const auto start = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg));
    {
        ScopedLock until_published(g_netip_lock);
    }
    for (int failures = 0; layer_runs(start);) {
        failures = run_round(start, NETIP_EPOLL_WAIT_MS) < 0 ? failures + 1 : 0;
        if (failures > 1)
            pause_ms(kFailurePause_ms); // it may fail for ever
    }
    return nullptr;
}

} // namespace tarn::net
