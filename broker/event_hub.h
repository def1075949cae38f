// event_hub.h - the library takes one event callback; through here several parts of the program have theirs.
#ifndef TARN_BROKER_EVENT_HUB_H
#define TARN_BROKER_EVENT_HUB_H

#include <cstdint>

typedef struct broker_t broker_t;

namespace tarn::broker {

using EventListener = void (*)(broker_t *broker, uint32_t kind, const char *text); // see broker_event_cb_t

// From now until the instance is deinitialised the listener is called, behind those that came before it. To be called
// before start.
void listen_to_events(broker_t *broker, EventListener listener);

} // namespace tarn::broker

#endif
