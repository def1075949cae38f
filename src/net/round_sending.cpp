// round_sending.cpp - see round_sending.h.
#include "round_sending.h"

#include "../base/clock.h"

#include <algorithm>
#include <sched.h>
#include <sys/socket.h>
#include <utility>

namespace tarn::net {
namespace {

constexpr uint64_t         kLongestHandling_us = 10'000;
constexpr uint64_t         kTimesSending       = 4;
constinit Shared<uint64_t> g_handling_us       = 0; // that turns of this round may take together; as its end sent

constexpr uint32_t kFewConnections = 2;
constexpr int      kFewestPackets  = 16; // between two sendings: a write for each packet would cost more than it brings

struct Round {
    uint64_t began_us;
    uint64_t sent_us;    // when it sent last, or began
    uint64_t sending_us; // what the last sending took, of this round or an earlier one
    int      packets;    // since then
    bool     is_small;
    uint32_t peer; // whose processor was looked at last in this round
    bool     is_peer_elsewhere;
};
constinit thread_local Round t_round{};

// A peer on this machine sends on the processor it runs on. One that shares this thread's would not work meanwhile, but
// only be switched to more often. Packets from elsewhere come in on whichever processor the system chose for them.
bool runs_elsewhere(const SlotPin &pin)
{
    if (std::exchange(t_round.peer, pin.handle()) == pin.handle())
        return t_round.is_peer_elsewhere;
    int       processor = -1;
    socklen_t length    = sizeof processor;
    SlotLock  slot(pin.handle(), SlotLock::Always);
    return t_round.is_peer_elsewhere = pin.is_current() &&
                                       getsockopt(slot->fd, SOL_SOCKET, SO_INCOMING_CPU, &processor, &length) == 0 &&
                                       processor != sched_getcpu();
}

} // namespace

void begin_round(uint32_t connections) noexcept
{
    t_round.began_us = t_round.sent_us = mono_us();
    t_round.packets                    = 0;
    t_round.is_small                   = connections <= kFewConnections;
    t_round.peer                       = NETIP_NO_HANDLE;
    call_round_begin();
}

void end_round() noexcept
{
    const uint64_t began_us = mono_us();
    call_round_end();
    t_round.sending_us = elapsed(mono_us(), began_us);
    g_handling_us      = std::min(kTimesSending * t_round.sending_us, kLongestHandling_us);
}

bool round_is_long() noexcept
{
    constexpr uint64_t kLong_us = 2000;
    return elapsed(packet_us(), t_round.began_us) >= kLong_us;
}

bool round_may_end_turns(uint64_t now_us) noexcept
{
    return elapsed(now_us, t_round.began_us) >= g_handling_us;
}

bool send_meanwhile(const SlotPin &pin, uint64_t now_us) noexcept
{
    if (++t_round.packets < kFewestPackets || !t_round.is_small ||
        elapsed(now_us, t_round.sent_us) < t_round.sending_us)
        return false;
    t_round.packets = 0;
    t_round.sent_us = mono_us();
    if (!runs_elsewhere(pin) || !call_round_send())
        return false;
    const uint64_t began_us = std::exchange(t_round.sent_us, mono_us());
    t_round.sending_us      = elapsed(t_round.sent_us, began_us);
    return true;
}

} // namespace tarn::net
