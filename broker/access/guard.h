// guard.h - makes the library ask Access and Quotas, and watches its connections.
#ifndef TARN_BROKER_ACCESS_GUARD_H
#define TARN_BROKER_ACCESS_GUARD_H

#include "../refusals.h"
#include "access.h"
#include "quotas.h"

#include <functional>

typedef struct broker_t broker_t;

namespace tarn::broker {

// What is to be told of a refusal; on the library's threads.
using TellRefusal = std::function<void(const Refusal &)>;

// From now until the instance is deinitialised. `access` and `quotas` live longer than that. To be called before start.
// Unless it asks, everybody may do everything, and only connections are watched.
void guard(broker_t *broker, Access &access, Quotas &quotas, bool asks, TellRefusal tell);

// To be called as soon as start has returned, also when it failed.
void guard_connections(broker_t *broker);

// To be called every few seconds, not in a callback: forgets ids that are gone for good, saves whose sessions are, and
// closes clients of users that are no more.
void guard_turn(broker_t *broker, Access &access, Quotas &quotas);

} // namespace tarn::broker

#endif
