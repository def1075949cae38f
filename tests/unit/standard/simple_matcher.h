// simple_matcher.h - whether a filter matches a topic, so simply that it can be seen to be right.
#ifndef TARN_TESTS_UNIT_STANDARD_SIMPLE_MATCHER_H
#define TARN_TESTS_UNIT_STANDARD_SIMPLE_MATCHER_H

#include <string_view>

namespace tarn::test {

inline bool levels_match(std::string_view filter, std::string_view topic)
{
    if (filter == "#")
        return true;
    const size_t           filter_slash = filter.find('/'), topic_slash = topic.find('/');
    const std::string_view level = filter.substr(0, filter_slash);
    if (level != "+" && level != topic.substr(0, topic_slash))
        return false;
    if (filter_slash == filter.npos)
        return topic_slash == topic.npos;
    if (topic_slash == topic.npos)
        return filter.substr(filter_slash) == "/#";
    return levels_match(filter.substr(filter_slash + 1), topic.substr(topic_slash + 1));
}

inline bool matches_simply(std::string_view filter, std::string_view topic)
{
    const bool begins_with_wildcard = filter.starts_with('+') || filter.starts_with('#');
    return !(topic.starts_with('$') && begins_with_wildcard) && levels_match(filter, topic);
}

} // namespace tarn::test

#endif
