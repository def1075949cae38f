// gate.h - stands between the network and the library, on the thread of each packet: knows which connection a callback
// is about, which the library does not tell when it asks for a password, and can take the will out of a CONNECT, which
// the library does not ask for at all. Out of the packet, not out of the client's record: from CONNECT on any thread may
// close a client and publish its will, so a will that must not go out must never have been there.
#ifndef TARN_BROKER_ACCESS_GATE_H
#define TARN_BROKER_ACCESS_GATE_H

#include "connect_will.h"

#include <string>

namespace tarn::broker {

struct DroppedWill {
    ConnectWill will;
    const char *why;
};

// Why the will must go, null when it may stay. Called before the library sees the packet, so also before it asks for the
// password.
using WillJudge = const char *(*)(const ConnectWill &will);

// Puts the gate into the way of the library's network events. To be called as soon as start has returned, also when it
// failed. Packets that come before go past it.
void install_gate(WillJudge judge);

// For callbacks: whether the packet under way passed the gate. Waits for install_gate() first, as far as start may take.
bool passed_gate();

// Of the CONNECT that the calling thread has under way; null when it keeps its will or leaves none.
const DroppedWill *dropped_will();

std::string peer_ip();      // without its port
std::string peer_address(); // IP:PORT of the connection that the calling thread has a packet of, or ""

} // namespace tarn::broker

#endif
