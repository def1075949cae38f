// filter.h - topic filters as rules use them: what a filter takes in, and whether one takes in all of another.
//
// Wildcards are those of MQTT; as in the library they also match topics that begin with '$'.
#ifndef TARN_BROKER_ACCESS_FILTER_H
#define TARN_BROKER_ACCESS_FILTER_H

#include <string>
#include <string_view>

namespace tarn::broker {

// A topic that may be published to: UTF-8, not empty, no wildcards.
bool is_topic(std::string_view text);

// What is wrong with a filter, empty when nothing is.
std::string filter_mistake(std::string_view filter);

// What a filter asks for: of a shared one, "$share/GROUP/FILTER", it is FILTER.
std::string_view without_group(std::string_view filter);

// True when everything that `filter` matches is matched by `rule`. A topic is a filter that matches itself. Where this
// cannot be said level by level it is false, as for "+/#" and "#".
bool covers(std::string_view rule, std::string_view filter);

} // namespace tarn::broker

#endif
