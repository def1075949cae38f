// events.h - what happens in the broker, one JSON object a line:
//   {"time":"2026-01-31T23:59:59.042Z","event":"publish","clientId":"a","topic":"home/x","qos":1}
//
// The library tells of an event in a text of 255 characters at most in which id and topic stand unescaped. So:
// - An id or topic may contain what stands between the two in the text. When the text can be read in more than one way,
//   clientId and topic are null, and "text" has all of it.
// - A text of 255 characters may have been cut. Then "cut" is true, topic is how the topic begins, qos is null.
// - Bytes that are no UTF-8 are shown as U+FFFD, controls as \uXXXX.
//
// What clients were refused comes from this program and is never cut; "what" is login, publish, subscribe, will or connect:
//   {"time":...,"event":"refused","clientId":"a","topic":"home/x","qos":null,"what":"publish","user":"alice",
//    "address":"10.0.0.7:50000","reason":"no rule allows it"}
//
// When client records are used up, see used_records.h: {"time":...,"event":"records","used":4000,"of":5000}
//
// When the reader is so slow that lines are lost, {"time":...,"event":"lost","count":N} stands in their place.
#ifndef TARN_BROKER_EVENTS_H
#define TARN_BROKER_EVENTS_H

#include "line_writer.h"
#include "refusals.h"

#include <cstdint>
#include <string>
#include <string_view>

typedef struct broker_t broker_t;

namespace tarn::broker {

std::string event_line(int64_t time_ms, uint32_t kind, std::string_view text); // wall clock
std::string refused_line(int64_t time_ms, const Refusal &refusal);
std::string used_records_line(int64_t time_ms, size_t used, size_t records);
std::string lost_line(int64_t time_ms, uint64_t count);

// From now until the instance is deinitialised its events go to `writer`, which lives longer than that. To be called
// before start.
void write_events(broker_t *broker, LineWriter &writer);

// Nothing when events go nowhere, as the next.
void write_refusal(const Refusal &refusal);
void write_used_records(size_t used, size_t records);

std::string tell_lost_events(uint64_t count); // for the writer

} // namespace tarn::broker

#endif
