// round_sending.h - how long a round is, and when what it brought leaves: at its end, so that what it brought one client
// leaves in one write. Two things depend on how long that sending takes.
//
// Where it takes longer than handling, as with a message for a thousand clients, a round of short turns would send each
// message alone. So turns do not end before the round has taken some times as long as the sending of the round before.
//
// Where one client sends to another, each of them would sleep until the round is over, and the broker until they have
// answered. So in a round of one or two connections what is there for one or two leaves as soon as handling has taken
// as long as the last sending did: broker and clients work at the same time, and rarely have to be woken.
#ifndef TARN_NET_ROUND_SENDING_H
#define TARN_NET_ROUND_SENDING_H

#include "netip_internal.h"

namespace tarn::net {

void begin_round(uint32_t connections) noexcept; // that have a turn in it
void end_round() noexcept;                       // sends

// A turn that has lasted may end for the others' sake.
bool round_may_end_turns(uint64_t now_us) noexcept;

// Between two packets of the connection: sends, if it is time to. True: it did, and some time has passed.
bool send_meanwhile(const SlotPin &pin, uint64_t now_us) noexcept;

} // namespace tarn::net

#endif
