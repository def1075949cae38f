// shared_choice.h - the choice of one member per "$share/" group, for match lists of either shape.
#ifndef TARN_HANDLER_SHARED_CHOICE_H
#define TARN_HANDLER_SHARED_CHOICE_H

#include "../base/memory.h"
#include "../sub/sub_types.h"

#include <span>
#include <string_view>

namespace tarn::handler {

// One shared entry of a match list. Entries without a second slash behind the prefix are members of nothing.
struct ShareMember {
    std::string_view group;
    uint32_t         entry; // place in the match list; members stand in list order
    uint8_t          chosen;
};

// The members of one match list, and working storage that is kept from call to call.
struct ShareChoice {
    struct Group {
        uint32_t first; // place in `order`
        uint32_t own;   // entries of exactly this name, from `first` on
        uint32_t size;  // the same and all others whose name it begins
    };
    GrowArray<ShareMember> members;
    GrowArray<uint32_t>    order; // members by group name, then by place
    GrowArray<Group>       groups;
    GrowArray<uint32_t>    among; // members of one group with several names
};

// Marks one member of every group as chosen. False, with nothing marked, when memory ran out.
[[nodiscard]] bool choose_members(ShareChoice &choice) noexcept;
// The same for whole entries: sets the byte of each that is chosen.
void mark_chosen(std::span<const sub_entry_t> matches, uint8_t *selected) noexcept;

} // namespace tarn::handler

#endif
