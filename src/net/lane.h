// lane.h - the lane threads: packets that wait for a disk, a password or a pause are served here, so that no other
// connection waits with them. A connection that is aside is a lane's alone until end_turn() gives it back.
#ifndef TARN_NET_LANE_H
#define TARN_NET_LANE_H

#include "netip_internal.h"

namespace tarn::net {

// Slots in the order they came, linked by their errands. g_lane_mutex.
class SlotQueue {
public:
    [[nodiscard]] bool     empty() const { return first_ == 0; }
    [[nodiscard]] uint32_t front() const { return first_ - 1; }

    void push(uint32_t handle)
    {
        side_of(handle).errand.next = 0;
        if (first_ == 0)
            first_ = handle + 1;
        else
            side_of(last_ - 1).errand.next = handle + 1;
        last_ = handle + 1;
    }
    uint32_t pop()
    {
        const uint32_t handle = first_ - 1;
        first_                = side_of(handle).errand.next;
        return handle;
    }

private:
    uint32_t first_ = 0; // handle + 1, 0 = none
    uint32_t last_  = 0;
};

// The connection's next packet or its end goes to a lane. False when there is no lane thread and none could be started:
// then the caller serves it.
bool give_to_lane(const SlotPin &pin, Work work, uint32_t group, uint32_t start) noexcept;

// To the lanes goes what this thread gave in the round. Called behind it, so that no answer of a lane leaves while the
// round that read the packet is going on: who has the answer knows that the round's look at UDP is over.
void hand_over_to_lanes(uint32_t start) noexcept;

// While turns wait for a lane, the I/O thread looks after at most patience_ms() whether they are taken, and calls
// hurry_lanes(). `has_waited`: for so long, without an event.
int  patience_ms(int timeout_ms) noexcept;
void hurry_lanes(bool has_waited) noexcept;

// `finish` is called kClosePause_ms from now. The same result.
bool pause_on_lane(const SlotPin &pin, const Finish &finish, uint32_t start) noexcept;

// ---- connections with packets left in their buffers, for the next round

void               list_for_round(Connection connection) noexcept; // the list takes over a pin
[[nodiscard]] bool has_listed() noexcept;
uint32_t           listed_count() noexcept;
// All that are listed; the caller adopts their pins (errand.generation).
SlotQueue take_listed() noexcept;

// ---- down

void stop_lanes() noexcept;   // waits for the threads, but for the calling one
void empty_queues() noexcept; // no thread of the layer runs any more, but for the calling one

} // namespace tarn::net

#endif
