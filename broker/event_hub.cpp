#include "event_hub.h"

#include "shortage.h"

#include <vector>

#include <tarn_sdk_mqtt_broker.h>

namespace tarn::broker {
namespace {

std::vector<EventListener> g_listeners; // complete before threads of the library read it

// One that finds no memory keeps nothing from the others.
void on_event(broker_t *broker, uint32_t kind, const char *text)
{
    for (const EventListener listener : g_listeners)
        unless_short([&] { listener(broker, kind, text); });
}

} // namespace

void listen_to_events(broker_t *broker, EventListener listener)
{
    g_listeners.push_back(listener);
    tarn_sdk_mqtt_broker_register_event_callback(broker, on_event);
}

} // namespace tarn::broker
