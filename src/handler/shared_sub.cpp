// shared_sub.cpp - shared subscriptions: which member of each "$share/" group receives a message.
//
// A global round robin: one counter for all groups and all messages, one step a group and message. Groups take their
// turns in the order in which the match list first names them.
#include "shared_sub.h"

#include "../base/relaxed.h"
#include "../base/text.h"
#include "../sub/share.h"
#include "shared_choice.h"

#include <algorithm>

constinit tarn::Shared<int32_t> g_rr_counter = 0;

namespace tarn::handler {
namespace {

// Sorted by name, the members of a group and of every group whose name it begins stand side by side.
bool sort_by_group(ShareChoice &choice)
{
    const GrowArray<ShareMember> &members = choice.members;
    choice.order.clear();
    for (uint32_t at = 0; at < members.size(); at++)
        if (!choice.order.push(at))
            return false;
    std::sort(choice.order.begin(), choice.order.end(), [&](uint32_t left, uint32_t right) {
        const std::string_view one = members[left].group, other = members[right].group;
        const bool             same  = one.data() == other.data() && one.size() == other.size();
        const int              names = same ? 0 : one.compare(other);
        return names != 0 ? names < 0 : left < right;
    });
    return true;
}

// The group whose first member in `order` is `first`.
ShareChoice::Group group_at(const ShareChoice &choice, uint32_t first)
{
    const std::string_view name   = choice.members[choice.order[first]].group;
    const auto             extent = [&](auto belongs) {
        const uint32_t *const begin = choice.order.begin() + first;
        const uint32_t *const end   = std::partition_point(
                          begin, choice.order.end(), [&](uint32_t at) { return belongs(choice.members[at].group); });
        return static_cast<uint32_t>(end - begin);
    };
    return {first, extent([&](std::string_view other) { return other == name; }),
            extent([&](std::string_view other) { return other.starts_with(name); })};
}

bool list_groups(ShareChoice &choice)
{
    choice.groups.clear();
    for (uint32_t first = 0; first < choice.order.size();) {
        const ShareChoice::Group group = group_at(choice, first);
        first += group.own;
        if (choice.members[choice.order[group.first]].group.size() <= PACKET_SHARE_GROUP_CHARS &&
            !choice.groups.push(group))
            return false;
    }
    std::sort(choice.groups.begin(), choice.groups.end(), [&](const auto &left, const auto &right) {
        return choice.order[left.first] < choice.order[right.first];
    });
    return choice.among.reserve(choice.order.size());
}

// The group's `turn`th member, counted in list order.
uint32_t member_at(ShareChoice &choice, const ShareChoice::Group &group, uint32_t turn)
{
    if (group.size == group.own)
        return choice.order[group.first + turn];
    choice.among.clear();
    for (uint32_t at = group.first; at < group.first + group.size; at++)
        (void)choice.among.push(choice.order[at]); // reserved
    std::nth_element(choice.among.begin(), choice.among.begin() + turn, choice.among.end());
    return choice.among[turn];
}

} // namespace

// QUIRK(group-prefix): members of group "ab" are members of group "a" too, so one of them can be given a message for
// either and then nobody of group "a" itself gets it; MQTT keeps groups apart [MQTT 5.0 4.8.2].
//   standard profile: lifted (wildcards)
//   test: shared_sub.a_group_takes_in_the_groups_its_name_begins
bool choose_members(ShareChoice &choice) noexcept
{
    if (!sort_by_group(choice) || !list_groups(choice))
        return false;
    for (const ShareChoice::Group &group : choice.groups) {
        const auto turn = static_cast<uint32_t>(bump(g_rr_counter)); // wraps, never negative
        choice.members[member_at(choice, group, turn % group.size)].chosen = 1;
    }
    return true;
}

void mark_chosen(std::span<const sub_entry_t> matches, uint8_t *selected) noexcept
{
    ShareChoice choice;
    for (uint32_t entry = 0; entry < matches.size(); entry++) {
        const std::optional<sub::Share> share = sub::share_of(text_of(matches[entry].topic_filter));
        if (share && !choice.members.push({share->group, entry, 0}))
            return;
    }
    if (!choose_members(choice))
        return;
    for (const ShareMember &member : choice.members)
        if (member.chosen)
            selected[member.entry] = 1;
}

} // namespace tarn::handler
