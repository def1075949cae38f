// packet_scope.h - a client's packet while it is handled.
#ifndef TARN_CLIENT_PACKET_SCOPE_H
#define TARN_CLIENT_PACKET_SCOPE_H

#include "../net/net.hpp"
#include "../persist/save_behind.h"
#include "client.hpp"

namespace tarn::client {

struct Held;

// While one exists, the thread does not wait for the disk: what the packet changes is saved behind it, and its answers
// leave when that is done. If the packet ends the connection, the peer sees that then, too. For records of the pool; any
// other is answered as soon as its changes are saved.
class PacketScope {
public:
    explicit PacketScope(const client_ref &client) noexcept; // which stays pinned
    ~PacketScope();
    PacketScope(const PacketScope &)            = delete;
    PacketScope &operator=(const PacketScope &) = delete;

private:
    static persist::SaveWaiter *ask(void *scope) noexcept;

    mqtt_client_t      &client_;
    Held               *held_ = nullptr; // made with the first change
    net::LateClose      late_close_;
    persist::SaveBehind behind_;
};

} // namespace tarn::client

#endif
