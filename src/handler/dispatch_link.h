// dispatch_link.h - packets handed up by the bridge, which has found and pinned their client.
#ifndef TARN_HANDLER_DISPATCH_LINK_H
#define TARN_HANDLER_DISPATCH_LINK_H

#include "../client/client_types.h"

namespace tarn::handler {

// packet_dispatch for a client that the caller has pinned.
int dispatch(mqtt_client_t &client, const uint8_t *bytes, uint32_t length) noexcept;

} // namespace tarn::handler

#endif
