// serve.cpp - which thread serves a connection, and how one packet is handed up.
//
// A connection is served by one thread at a time (Server): by I/O threads when epoll tells of it, by the next round
// while whole packets are left in its buffer, by a lane, or by nobody until it is resumed. In the last two cases it
// leaves epoll as soon as that tells of it, or what it sends meanwhile would be told again and again. Most send nothing
// before they have their answer, and so stay.
#include "../base/clock.h"
#include "../log/log.h"
#include "framing.h"
#include "lane.h"

namespace tarn::net {
namespace {

using ChooseHook = Choice (*)(Connection connection, std::span<const uint8_t> packet) noexcept;

constinit std::atomic<ChooseHook> g_choose{nullptr};
constinit Shared<uint16_t>        g_asked_types = 0;

constinit thread_local Finish *t_finish = nullptr; // for finish_later(), while the thread can see to it

bool is_asked_about(const SlotPin &pin, std::span<const uint8_t> packet)
{
    if (packet.empty() || side_of(pin.handle()).asks_about_all)
        return true;
    return (g_asked_types >> (packet[0] >> 4) & 1) != 0;
}

void forget_resume(const SlotPin &pin)
{
    SlotLock slot(pin.handle(), SlotLock::Always);
    side_of(pin.handle()).resumed = 0;
}

// False when the connection was resumed since the hook was asked, which is to be asked again.
bool wait_for_resume(const SlotPin &pin)
{
    SlotLock slot(pin.handle(), SlotLock::Always);
    if (!pin.is_current())
        return true;
    if (side_of(pin.handle()).resumed)
        return false;
    side_of(pin.handle()).server = Server::Nobody;
    return true;
}

Finish hand_up(const SlotPin &pin, const EventSink &sink)
{
    const netip_conn_t &slot = pin.slot();
    LOG_INFO("[NETIP] 完整报文长度: %d", slot.pkt_len);
    LOG_HEXDUMP("[NETIP] 完整报文", received_bytes(pin), slot.pkt_len);
    Finish finish;
    t_finish = &finish;
    sink.data(pin.connection(), received_bytes(pin), static_cast<uint32_t>(slot.pkt_len));
    t_finish = nullptr;
    return finish;
}

} // namespace

bool finish_later(uint32_t handle, void (*finish)(Connection, uint32_t) noexcept, uint32_t word) noexcept
{
    const Connection current = current_connection();
    if (!t_finish || current.generation == 0 || current.handle != handle)
        return false;
    *t_finish = {finish, word};
    return true;
}

void set_way_hook(WayHook hook) noexcept
{
    g_choose.store(hook.choose, std::memory_order_release);
    g_asked_types = hook.types;
}

void ask_about_all(Connection connection, bool all) noexcept
{
    SlotLock slot(connection.handle);
    if (slot && is_current(connection))
        side_of(connection.handle).asks_about_all = all;
}

void resume(Connection connection) noexcept
{
    {
        SlotLock slot(connection.handle);
        if (!slot || !is_current(connection))
            return;
        SlotSide &side = side_of(connection.handle);
        side.resumed   = 1;
        if (side.server != Server::Nobody)
            return;
        side.server = Server::List;
        side.pins.fetch_add(1, std::memory_order_relaxed);
    }
    list_for_round(connection);
    wake_io_thread();
}

bool serves_here(const SlotPin &pin, std::span<const uint8_t> packet, uint32_t start) noexcept
{
    if (!is_asked_about(pin, packet))
        return true;
    const ChooseHook choose = g_choose.load(std::memory_order_acquire);
    if (!choose)
        return true;
    for (;;) {
        forget_resume(pin);
        const Choice choice = choose(pin.connection(), packet);
        if (choice.way == Way::Now)
            return true;
        if (choice.way == Way::Aside)
            return !give_to_lane(pin, packet.empty() ? Work::End : Work::Packet, choice.group, start);
        if (wait_for_resume(pin))
            return false;
    }
}

bool hand_up_first(const SlotPin &pin, const EventSink &sink, uint32_t start) noexcept
{
    const Finish finish = hand_up(pin, sink);
    if (!pin.is_current())
        return false; // the callback closed the connection: what follows is not its packet any more
    drop_packet(pin);
    if (!finish.call)
        return true;
    if (pause_on_lane(pin, finish, start))
        return false;
    pause_ms(kClosePause_ms);
    finish.call(pin.connection(), finish.word);
    return pin.is_current();
}

void hear_nothing_aside(const SlotPin &pin) noexcept
{
    SlotLock   slot(pin.handle(), SlotLock::Always);
    SlotSide  &side     = side_of(pin.handle());
    const bool is_aside = side.server == Server::Lane || side.server == Server::Nobody;
    if (!pin.is_current() || !is_aside || side.unwatched)
        return;
    unwatch(pin.handle());
    side.unwatched = 1;
}

bool step_aside(const SlotPin &pin, Server server) noexcept
{
    SlotLock slot(pin.handle(), SlotLock::Always);
    if (!pin.is_current())
        return false;
    side_of(pin.handle()).server = server;
    side_of(pin.handle()).pins.fetch_add(1, std::memory_order_relaxed);
    return true;
}

void end_turn(const SlotPin &pin, const EventSink &sink, bool is_put_off) noexcept
{
    SlotSide  &side     = side_of(pin.handle());
    const bool has_more = is_put_off || packet_is_whole(pin.slot());
    if (!has_more && !side.unwatched && side.server == Server::Rounds)
        return;
    bool heard_of = true;
    {
        SlotLock slot(pin.handle(), SlotLock::Always);
        if (!pin.is_current())
            return;
        poke_release(side.server, has_more ? Server::List : Server::Rounds); // with the buffer as this thread left it
        if (has_more)
            side.pins.fetch_add(1, std::memory_order_relaxed);
        else if (side.unwatched && !side.paused)
            heard_of = watch(pin.handle());
    }
    if (has_more)
        list_for_round(pin.connection());
    else if (!heard_of)
        hang_up(pin, sink); // nothing would ever be heard of it
}

} // namespace tarn::net
