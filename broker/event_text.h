// event_text.h - the text in which the library tells of an event, {"clientId":"...","topic":"...","qos":N}, taken apart.
//
// It has 255 characters at most, and id and topic stand in it unescaped: see events.h for what follows from that.
#ifndef TARN_BROKER_EVENT_TEXT_H
#define TARN_BROKER_EVENT_TEXT_H

#include <cstdint>
#include <optional>
#include <string_view>

namespace tarn::broker {

struct EventText {                               // views of the text that was read
    std::optional<std::string_view> client_id;   // nothing, as the topic, when it is not certain where the two meet
    std::optional<std::string_view> topic;       // as much as there is of it
    std::optional<char>             qos;         // its digit
    bool                            cut = false; // the text may go on: then there is no QoS
};

EventText read_event_text(uint32_t kind, std::string_view text); // kind: BROKER_EVENT_*

} // namespace tarn::broker

#endif
