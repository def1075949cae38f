// stored_id.h - client identifiers in the form that records, callbacks and lists have room for.
#ifndef TARN_STANDARD_STORED_ID_H
#define TARN_STANDARD_STORED_ID_H

#include "../client/client.hpp"
#include "state/state.h"

namespace tarn::standard {

// An identifier of up to CLIENT_ID_CHARS bytes is its own form, unless it looks like the other one: "~" and 32 hex
// digits, a hash of 128 bits under a key of the data directory's own, so that nobody finds two that share it.
client_id_text stored_id(std::string_view id, const IdKey &key) noexcept;
bool           is_stored_whole(std::string_view id) noexcept; // it is its own form, without a key

// For a client without one [MQTT-3.1.3-6]: "auto_" and digits, from the system's random numbers.
client_id_text made_up_id() noexcept;

bool make_key(IdKey &key) noexcept; // false: the system gives no random numbers

} // namespace tarn::standard

#endif
