// topic.h - which texts are topic names and topic filters (4.7, shared subscriptions 4.8.2).
#ifndef TARN_CODEC_STANDARD_TOPIC_H
#define TARN_CODEC_STANDARD_TOPIC_H

#include <string_view>

namespace tarn::codec::standard {

// At least one character [MQTT-4.7.3-1] and no wildcard [MQTT-3.3.2-2].
[[nodiscard]] bool is_topic_name(std::string_view topic) noexcept;

// The same of bytes that may be anything: a topic name of ASCII characters but U+0000, as most are. It takes one look at
// eight of them.
[[nodiscard]] bool is_ascii_topic_name(std::string_view bytes) noexcept;

// A filter as a client sent it, in its parts.
struct TopicFilter {
    std::string_view group;  // of "$share/group/filter"; empty if the subscription is not shared
    std::string_view filter; // without "$share/group/"

    [[nodiscard]] bool is_shared() const noexcept { return !group.empty(); }
};

// False if it is no filter: "#" stands last and alone in its level [MQTT-4.7.1-1], "+" alone in its level
// [MQTT-4.7.1-2]; behind "$share/" stands a group of at least one character [MQTT-4.8.2-1] without wildcards, "/" and a
// filter [MQTT-4.8.2-2]. Shared subscriptions are of 5.0, but 3.1.1 leaves topics with a "$" to the server, so both
// levels have them.
[[nodiscard]] bool parse_filter(std::string_view text, TopicFilter &parsed) noexcept;

} // namespace tarn::codec::standard

#endif
