// match_list.h - the matches of one topic as routing needs them: who, at which QoS, in which shared group. Copying
// whole entries, of 2 KB, is for hosts; this copies only what a delivery looks at.
#ifndef TARN_SUB_MATCH_LIST_H
#define TARN_SUB_MATCH_LIST_H

#include "../base/memory.h"
#include "sub_types.h"

#include <string_view>

namespace tarn::sub {

struct Match {
    char     client_id[CODEC_CLIENT_ID_MAX + 1]; // bytes behind the terminator mean nothing
    uint8_t  shared;                             // the filter begins with "$share/"
    uint8_t  qos;                                // granted
    uint8_t  clean_session;                      // of the subscriber, when it subscribed
    uint16_t group_size;                         // characters of the group name at `group`
    uint32_t group; // offset of the group name in MatchList::names; group_size 0xFFFF = no second slash
    int32_t  index; // place in the subscription table, in whose order matches stand
};
constexpr uint16_t kNoGroup = 0xFFFF;

struct MatchList {
    GrowArray<Match> matches;
    GrowArray<char>  names; // group names of shared subscriptions

    std::string_view group_of(const Match &match) const { return {names.data() + match.group, match.group_size}; }
};

// Fills `list` with the subscriptions that match, in table order, with the log lines of sub_match. Returns the number,
// or -1 when memory ran out. Takes and drops g_sub_mgr.lock. `list` keeps its memory for the next call.
int list_matches(const char *topic, MatchList &list) noexcept;

} // namespace tarn::sub

#endif
