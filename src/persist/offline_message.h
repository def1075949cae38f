// offline_message.h - a message that is kept for a client that is away.
#ifndef TARN_PERSIST_OFFLINE_MESSAGE_H
#define TARN_PERSIST_OFFLINE_MESSAGE_H

#include "persist_types.h"

namespace tarn::persist {

// With an identifier of its own. Longer payloads are cut.
void make_message(persist_msg_t &message, const char *topic, const uint8_t *payload, uint32_t payload_len,
                  uint8_t qos) noexcept;

} // namespace tarn::persist

#endif
