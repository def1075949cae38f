// topic_match.cpp - does a topic match a filter?
//
// Two cursors walk through filter and topic. The walk decides and keeps what the trace lines need; they are written
// after it, and only at DEBUG.
#include "sub_internal.h"

#include "../log/log.h"

#include <cstring>

namespace tarn::sub {
namespace {

enum class End {
    Hash,      // '#' took the rest of the topic
    Parent,    // the topic ended where "/#" remains: "a/#" matches "a"
    Equal,     // both ended
    Remainder, // one ended before the other
    Different  // a character differs
};

struct Walk {
    End         end    = End::Remainder;
    bool        match  = false;
    int         pluses = 0; // passed on the way
    const char *filter = "";
    const char *topic  = ""; // what was left
};

const char *end_of_level(const char *topic) noexcept
{
    while (*topic && *topic != '/')
        ++topic;
    return topic;
}

// What is left once the topic has ended and the filter has not.
End judge_rest(const char *filter) noexcept
{
    if (*filter == '#')
        return End::Equal;
    return strcmp(filter, "/#") == 0 ? End::Parent : End::Remainder;
}

// QUIRK(plus-empty-level): '+' matches an empty level only where more of the topic follows, so "a/+" does not match
// "a/" [MQTT-4.7.1-2]. A topic that ends in '/' names the level above for the clients in the field.
//   standard profile: lifted (wildcards)
//   test: topic_match.plus_needs_a_topic_that_goes_on
// QUIRK(plus-trailing-slash): a '+' that ends the filter also takes one '/' that ends the topic: "a/+" matches "a/b/"
// and "+" matches "/" [MQTT-4.7.1-2], for the same reason.
//   standard profile: lifted (wildcards)
//   test: topic_match.final_plus_takes_a_final_slash
// QUIRK(dollar-topics): wildcards match topics that begin with '$' [MQTT-4.7.2-1]: the broker publishes none of its own
// and hosts use '$' freely.
//   standard profile: lifted (wildcards)
//   test: topic_match.wildcards_match_dollar_topics
Walk walk(const char *filter, const char *topic) noexcept
{
    Walk w;
    auto stop = [&](End end, bool match) {
        w.end    = end;
        w.match  = match;
        w.filter = filter;
        w.topic  = topic;
        return w;
    };

    while (*filter) {
        if (!*topic) {
            const End end = judge_rest(filter);
            return stop(end, end != End::Remainder);
        }
        if (*filter == '#') // valid filters have it last and alone
            return stop(End::Hash, true);
        if (*filter == '+') {
            ++w.pluses;
            ++filter;
            topic = end_of_level(topic);
            if (*topic == '/') {
                ++topic;
                filter += *filter == '/';
            }
        } else if (*filter++ != *topic++) {
            return stop(End::Different, false);
        }
    }
    return *topic ? stop(End::Remainder, false) : stop(End::Equal, true);
}

void log_walk(const char *filter, const char *topic, const Walk &w) noexcept
{
    for (int i = 0; i < w.pluses; ++i)
        LOG_DEBUG("[TRACE] topic_match_wildcard：匹配+通配符，跳过当前层级");
    if (w.end == End::Hash)
        return;
    if (w.end == End::Parent)
        LOG_DEBUG("[TRACE] topic_match_wildcard：filter剩余/#且topic结束，判定匹配");
    if (w.end == End::Remainder)
        LOG_DEBUG("[DEBUG] topic_match_wildcard：未完全匹配（filter剩余=%s, topic剩余=%s）", w.filter, w.topic);
    LOG_DEBUG("[DEBUG] topic_match_wildcard：匹配结果（filter=%s, topic=%s, match=%d）", filter, topic, w.match);
}

} // namespace

bool matches(const char *filter, const char *topic) noexcept
{
    filter = compared_part(filter).data();
    if (!is_valid_filter(filter))
        return false;

    const Walk w = walk(filter, topic);
    if (log_passes(AGENT_LOG_DEBUG))
        log_walk(filter, topic, w);
    return w.match;
}

TopicFilter::TopicFilter(const char *filter) noexcept : filter_(filter), compared_(compared_part(filter).data())
{
    const std::string_view compared(compared_);
    if (log_passes(AGENT_LOG_DEBUG) || judge_filter(compared).fault != FilterFault::None)
        kind_ = Kind::Traced;
    else
        kind_ = compared.find_first_of("+#") == compared.npos ? Kind::Exact : Kind::Wildcards;
}

bool TopicFilter::matches(const char *topic) const noexcept
{
    switch (kind_) {
    case Kind::Exact:
        return strcmp(compared_, topic) == 0;
    case Kind::Wildcards:
        return walk(compared_, topic).match;
    default:
        return sub::matches(filter_, topic);
    }
}

} // namespace tarn::sub
