// route.h - the matches of one topic as routing needs them: who, at which QoS, in which shared group. Copying
// whole entries, of 2 KB, is for hosts; this copies only what a delivery looks at.
#ifndef TARN_SUB_ROUTE_H
#define TARN_SUB_ROUTE_H

#include "../base/memory.h"
#include "sub_types.h"

#include <string_view>

namespace tarn::sub {

struct Route {
    char     client_id[CODEC_CLIENT_ID_MAX + 1];
    uint8_t  shared;        // the filter begins with "$share/"
    uint8_t  qos;           // granted
    uint8_t  clean_session; // of the subscriber, when it subscribed
    uint16_t group_size;    // characters of the group name at `group`
    uint32_t group;         // offset of the group name in RouteList::names; group_size 0xFFFF = no second slash
    int32_t  index;         // place in the subscription table, in which order routes stand
};
constexpr uint16_t kNoGroup = 0xFFFF;

struct RouteList {
    GrowArray<Route> routes;
    GrowArray<char>  names; // group names of shared routes

    std::string_view group_of(const Route &route) const { return {names.data() + route.group, route.group_size}; }
};

// Fills `list` with the subscriptions that match, in table order, with the log lines of sub_match. Returns the number,
// or -1 when memory ran out. Takes and drops g_sub_mgr.lock. `list` keeps its memory for the next call.
int match_routes(const char *topic, RouteList &list) noexcept;

} // namespace tarn::sub

#endif
