// connections.h - connections as the network layer knows them: by a handle, from the moment they are open.
//
// One that never says CONNECT holds a place among the clients, so it is closed after a while. One whose peer is gone
// without a word holds its place until its keep-alive is over, which may be for ever; so the kernel probes it.
#ifndef TARN_BROKER_CONNECTIONS_H
#define TARN_BROKER_CONNECTIONS_H

#include <cstddef>
#include <cstdint>

namespace tarn::broker {

// From now on the kernel probes who connects. Behind start.
void probe_connections();

// By any thread; no memory is needed. UDP senders are left alone: the end of one closes the socket of all.
bool connection_opened(uint32_t handle, int64_t now_ms); // false when it is none of TCP
void connection_closed(uint32_t handle);

// Closes those that are open for longer than that and have no CONNECT that was accepted. Returns how many.
size_t close_silent_connections(int64_t now_ms, int64_t limit_ms);

// While it lives, nobody else can open the UDP port: the library then serves TCP alone.
class HeldUdpPort {
public:
    HeldUdpPort();
    ~HeldUdpPort();
    HeldUdpPort(const HeldUdpPort &)            = delete;
    HeldUdpPort &operator=(const HeldUdpPort &) = delete;

private:
    int fd_;
};

} // namespace tarn::broker

#endif
