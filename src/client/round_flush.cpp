// round_flush.cpp - packets that an I/O thread queues while it handles a round of events are sent by that thread when
// the round ends: many packets in one write, and no other thread has to wake up for them.
//
// A callback of the host can hold a round up. The send thread therefore drains the send list every 10 ms while rounds
// queue packets, and sends in its place.
#include "client_internal.h"

#include <utility>

namespace tarn::client {
namespace {

constinit std::atomic<uint32_t> g_rounds{0};
constinit std::atomic<uint8_t>  g_rounds_watched{0}; // the send thread looks every 10 ms
constinit std::atomic<uint8_t>  g_queued_since{0};

constinit thread_local uint32_t t_round    = 0;
constinit thread_local int32_t  t_answered = kOutside;
constinit thread_local int      t_listed   = 0; // records, by this thread since it last sent

// A socket that blocked takes bytes again. What is queued from now on need not wait for the send thread's next try,
// which finds the ring sent.
void send_to_writable(uint32_t handle) noexcept
{
    const client_ref client = find_client_by_handle(handle);
    if (!client)
        return;
    if (Side *const side = side_of(client.get()))
        side->awaits_retry.store(0);
    hand_over_rest(*client, flush_when_free(*client, true));
}

void have_rounds_watched()
{
    if (g_queued_since.load(std::memory_order_relaxed) == 0)
        g_queued_since.store(1);
    if (g_rounds_watched.load() == 0) {
        g_rounds_watched.store(1);
        wake_send_thread();
    }
}

void send_listed(int32_t index)
{
    const client_ref client(record_at(index)); // of whichever client has the record now
    hand_over_rest(*client, flush_ring(*client, true));
}

void send_all_listed()
{
    t_listed = 0;
    drain_send_list(send_listed);
}

} // namespace

void begin_io_round() noexcept
{
    do
        t_round = g_rounds.fetch_add(1, std::memory_order_relaxed) + 1;
    while (t_round == 0);
}

void end_io_round() noexcept
{
    t_round = 0;
    drop_round_clients();
    send_kept_answer();
    send_all_listed();
}

bool send_in_io_round() noexcept
{
    constexpr int kFew = 2; // a publisher, for its acknowledgements, and one receiver

    if (t_listed == 0 || t_listed > kFew)
        return false;
    send_all_listed();
    return true;
}

bool is_own_answer(const mqtt_client_t &client) noexcept
{
    return net::on_lane() && net::current_connection().handle == client.handle;
}

void keep_answer(int32_t index) noexcept
{
    t_answered = index;
    have_rounds_watched(); // or the send thread would wake in the middle of the round that has the client's next packet
}

uint32_t io_round() noexcept
{
    return t_round;
}

void list_in_round(int32_t index) noexcept
{
    t_listed += list_for_sending(index);
    have_rounds_watched();
}

bool rounds_are_watched(int &quiet_turns) noexcept
{
    constexpr int kQuietTurns = 20; // turns without a packet until nobody looks any more

    quiet_turns = g_queued_since.exchange(0) ? 0 : quiet_turns + 1;
    if (quiet_turns < kQuietTurns)
        return true;
    quiet_turns = kQuietTurns;
    g_rounds_watched.store(0);
    if (g_queued_since.load() == 0)
        return false;
    g_rounds_watched.store(1); // one was queued just now, by a thread that still saw us watching
    return true;
}

void use_network_hooks() noexcept
{
    static constexpr Profile kNative{.opened   = nullptr,
                                     .packet   = nullptr,
                                     .closed   = nullptr,
                                     .writable = send_to_writable,
                                     .rounds   = {begin_io_round, end_io_round, send_in_io_round},
                                     .way      = {kAskedTypes, way_of},
                                     .measure  = nullptr};
    const Profile *const     used    = profile_in_use();
    const Profile           &profile = used ? *used : kNative;
    net::set_round_hooks(profile.rounds);
    net::set_writable_hook(profile.writable);
    net::set_way_hook(profile.way);
    net::set_measure_hook(profile.measure);
}

} // namespace tarn::client

void tarn::send_answer_now(mqtt_client_t &client) noexcept
{
    using namespace client;
    if (net::on_lane())
        send_kept_answer();
    else if (io_round() != 0)
        hand_over_rest(client, flush_ring(client, true));
}

void tarn::send_kept_answer() noexcept
{
    if (const int32_t index = std::exchange(client::t_answered, client::kOutside); index != client::kOutside)
        client::send_listed(index);
}
