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

struct GateKeeper {
    // Why the will must go, null when it may stay. Called before the library sees the packet, so also before it asks for
    // the password. Null: the library serves the standard profile, and asks for wills itself.
    const char *(*judge_will)(uint32_t handle, const ConnectWill &will);

    void (*opened)(uint32_t handle); // a connection; it may be closed from here
    void (*closed)(uint32_t handle);
};

// Puts the gate into the way of the library's network events. To be called as soon as start has returned, also when it
// failed. What comes before goes past it.
void install_gate(const GateKeeper &keeper);

// For callbacks: whether the packet under way passed the gate. Waits for install_gate() first, as far as start may take.
bool passed_gate();

// Of the CONNECT that the calling thread has under way; null when it keeps its will or leaves none.
const DroppedWill *dropped_will();

// Of the packet that the calling thread has under way. A CONNECT leaves a will unless it was dropped.
uint32_t packet_handle(); // NETIP_NO_HANDLE when there is none
bool     packet_leaves_will();
bool     packet_keeps_session();
bool     packet_is_retained(); // a PUBLISH

std::string address_of(uint32_t handle); // without its port, "" when there is no such connection
std::string peer_ip();                   // without its port
std::string peer_address();              // IP:PORT of the connection that the calling thread has a packet of, or ""

} // namespace tarn::broker

#endif
