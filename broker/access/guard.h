// guard.h - makes the library ask Access.
#ifndef TARN_BROKER_ACCESS_GUARD_H
#define TARN_BROKER_ACCESS_GUARD_H

#include "access.h"

typedef struct broker_t broker_t;

namespace tarn::broker {

// From now until the instance is deinitialised. `access` lives longer than that.
void guard(broker_t *broker, Access &access);

// To be called every few seconds, not in a callback: forgets ids that are gone for good, saves whose sessions are, and
// closes clients of users that are no more.
void look_after(broker_t *broker, Access &access);

} // namespace tarn::broker

#endif
