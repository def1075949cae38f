// send_ring.h - what the broker queued for a client, by its record alone.
#ifndef TARN_TESTS_SEND_RING_H
#define TARN_TESTS_SEND_RING_H

#include "client/client_types.h"
#include "wire.h"

#include <vector>

namespace tarn::test {

// The packets queued so far, taken out.
inline std::vector<Bytes> take_queued(mqtt_client_t &client)
{
    std::vector<Bytes> packets;
    while (client.send_queue && client.send_head != client.send_tail) {
        client_send_slot_t &slot = client.send_queue[client.send_head];
        packets.emplace_back(slot.data, slot.data + slot.length);
        slot.ready       = 0;
        client.send_head = static_cast<uint8_t>((client.send_head + 1) % CLIENT_SEND_SLOTS);
    }
    return packets;
}

} // namespace tarn::test

#endif
