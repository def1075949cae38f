// subscribe_internal.h - the property block that both SUBSCRIBE and UNSUBSCRIBE encoders write.
#ifndef TARN_CODEC_SUBSCRIBE_INTERNAL_H
#define TARN_CODEC_SUBSCRIBE_INTERNAL_H

#include "wire.h"

namespace tarn::codec {

// QUIRK(subscription-identifier-item): the Subscription Identifier is written as 03 0B 01 id, one value byte behind
// a 01 that the standard does not have, instead of a variable byte integer [MQTT 5.0 3.8.2.1.2]; in UNSUBSCRIBE it
// has no place at all [MQTT 5.0 3.10.2.1]. Users of these encoders rely on the four bytes; this codec's decoders
// read 01.
//   standard profile: stays: a broker sends neither packet; hosts that call these exported encoders meet it
//   test: subscribe_encode.only_the_low_byte_of_the_subscription_identifier
inline void put_subscription_properties(Writer &body, uint32_t level, uint32_t identifier)
{
    if (level != 5)
        return;
    if (identifier == 0)
        body.u8(0x00);
    else
        body.u8(0x03).u8(0x0B).u8(0x01).u8(static_cast<uint8_t>(identifier));
}

} // namespace tarn::codec

#endif
