// packet_id.cpp - the one generator of packet identifiers for everything the broker sends by itself. (Messages kept for
// the absent have identifiers of their own in their file, drawn by persist/offline_messages.cpp.)
//
// Hosts can set the seed and so see how often and in which order identifiers are drawn: every caller draws exactly as
// often as stated.
#include "../base/clock.h"
#include "handler_internal.h"

#include <cstdlib>

uint32_t     msgid_seed  = 0;
tarn_mutex_t msgid_mutex = {};

namespace tarn::handler {
namespace {

uint32_t draw() REQUIRES(msgid_mutex)
{
    if (msgid_seed == 0)
        msgid_seed = static_cast<uint32_t>(wall_s());
    return static_cast<uint32_t>(rand_r(&msgid_seed)) % 65533 + 1;
}

} // namespace

uint16_t draw_packet_id() noexcept
{
    ScopedLock lock(msgid_mutex);
    return static_cast<uint16_t>(draw());
}

// QUIRK(delivery-identifier): identifiers are random and may repeat one that is still in flight, or be 0, about once in
// 65800 deliveries at QoS 1 or 2; MQTT wants unused, non-zero ones [MQTT-2.2.1-3]. That one delivery is refused by the
// encoder and lost, with the ERROR line "QoS1/2 requires non-zero Packet ID", although its publisher is acknowledged
// [MQTT-4.3.2-4]; its other receivers get the message. What must not be lost carries a number that its receiver checks.
// The byte mix of two draws is part of the contract.
//   standard profile: lifted (delivery)
//   test: packet_id.a_delivery_mixes_the_bytes_of_two_draws,
//   publish.a_delivery_with_identifier_0_is_lost_and_its_publisher_acknowledged,
//   routes_rare.an_identifier_of_0, delivery.an_identifier_of_0_loses_one_delivery_and_nothing_else
uint16_t draw_delivery_id() noexcept
{
    ScopedLock     lock(msgid_mutex);
    const uint32_t first  = draw();
    const uint32_t second = draw();
    return static_cast<uint16_t>((second >> 8 & 0xFF) * 256 + (first & 0xFF));
}

} // namespace tarn::handler
