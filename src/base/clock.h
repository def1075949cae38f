// clock.h - the times the broker uses. The only callers of the system clocks.
#ifndef TARN_BASE_CLOCK_H
#define TARN_BASE_CLOCK_H

#include <cstdint>

namespace tarn {

uint64_t mono_us() noexcept; // CLOCK_MONOTONIC
uint64_t mono_ms() noexcept; // the same
int64_t  wall_s() noexcept;  // time()
uint64_t wall_ms() noexcept; // gettimeofday()

// mono_ms() and mono_us() for what a packet does to several clients: the reading with which this thread's packet began,
// as long as a PacketTime exists, else a new one.
uint64_t packet_ms() noexcept;
uint64_t packet_us() noexcept;

// A callback of the host's has returned, which may have taken long: the packet's reading is replaced by a new one, unless
// the system's tick shows that it is a few milliseconds old at most.
void renew_packet_time() noexcept;

// Around the packets that a thread of the network layer handles one after another. Small packets take a microsecond or
// less, of which the clock would be a part: while they are that quick, some of them share a reading, but none that is more
// than a tick old.
class PacketTime {
public:
    PacketTime() noexcept;
    ~PacketTime() noexcept;
    PacketTime(const PacketTime &)            = delete;
    PacketTime &operator=(const PacketTime &) = delete;

    // Returns a new reading, in us. For what came behind the one before.
    uint64_t read() noexcept;
    // Another packet begins. Returns the reading that it goes by, in us.
    uint64_t next() noexcept;

private:
    static constexpr uint64_t kQuick_us = 16; // between two readings
    static constexpr int      kShare    = 8;  // packets that may share one then

    uint64_t outer_us_;
    int      sharing_ = 0; // packets still to come that go by the reading before
};

void pause_ms(uint32_t ms) noexcept;

// now - then, never below zero: a clock that was read first may be the older one.
constexpr uint64_t elapsed(uint64_t now, uint64_t then) noexcept
{
    return now > then ? now - then : 0;
}

} // namespace tarn

#endif
