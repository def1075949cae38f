// sub_internal.h - what the files of the subscription module share.
#ifndef TARN_SUB_SUB_INTERNAL_H
#define TARN_SUB_SUB_INTERNAL_H

#include "../base/relaxed.h"
#include "../base/text.h"
#include "share.h"
#include "sub.hpp"

#include <algorithm>
#include <string_view>

namespace tarn::sub {

// ---- filters

enum class FilterFault { None, Empty, HashNotLast, HashNotAlone, PlusNotAlone, PlusBeforeHash };

struct FilterVerdict {
    FilterFault fault;
    int         at; // index of the character at fault
};

// Logs nothing; is_valid_filter is the same with its log lines.
[[nodiscard]] FilterVerdict judge_filter(std::string_view filter) noexcept;

// What of a filter is compared with topics: all of it, or what stands behind "$share/<group>/".
[[nodiscard]] constexpr std::string_view compared_part(std::string_view filter) noexcept
{
    const std::optional<Share> share = share_of(filter);
    return share ? share->filter : filter;
}

// ---- the table

constexpr size_t kClientIdChars = sizeof(sub_entry_t::client_id) - 1;
constexpr size_t kFilterChars   = sizeof(sub_entry_t::topic_filter) - 1;

// Ids and filters are cut to what an entry holds before they are compared.
[[nodiscard]] inline std::string_view cut(const char *text, size_t limit) noexcept
{
    return {text, strnlen(text, limit)};
}

[[nodiscard]] inline bool has_text(const char *text) noexcept
{
    return text && *text;
}

// Entries in use, whatever a host wrote into the count. Needs the lock.
[[nodiscard]] inline int32_t entries_in(const sub_mgr_t &manager) noexcept REQUIRES(manager.lock)
{
    return manager.subs ? std::clamp<int32_t>(manager.sub_count, 0, SUB_CAPACITY) : 0;
}

// To be told when an entry was appended: see give_back_unused_entries().
void note_written(const sub_mgr_t &manager) noexcept REQUIRES(manager.lock);

// Asks the memory for what a walk through the table will look at soon: entries are 2 KB apart, and the hardware does
// not guess the next one. Past the table's end it does nothing. What is looked at once is kept out of the larger caches,
// where the messages' own memory is.
inline void fetch_ahead(const char *text) noexcept
{
    constexpr uintptr_t kDistance = 12 * sizeof(sub_entry_t);
    __builtin_prefetch(reinterpret_cast<const void *>(reinterpret_cast<uintptr_t>(text) + kDistance), 0, 0);
}

// Entries that removals have moved up so far, which is what a removal from a full table costs. Under g_sub_mgr.lock.
extern uint64_t g_entries_moved;

[[nodiscard]] inline int32_t retained_in(const sub_mgr_t &manager) noexcept REQUIRES(manager.lock)
{
    return manager.retains ? std::clamp<int32_t>(manager.retain_count, 0, RETAIN_CAPACITY) : 0;
}

// ---- the first line of a call

// Each logs that its call begins. False, with another line, when a text is missing and the call cannot go on. Pointers
// may be null.
[[nodiscard]] bool log_add_begins(const char *client_id, const char *filter, uint32_t qos,
                                  uint8_t clean_session) noexcept;
[[nodiscard]] bool log_remove_begins(const char *client_id, const char *filter) noexcept; // null filter = all
[[nodiscard]] bool log_count_begins(const char *client_id) noexcept;
[[nodiscard]] bool log_retain_begins(const char *topic, size_t payload_len, uint32_t qos) noexcept;
[[nodiscard]] bool log_get_begins(const char *topic, const retain_msg_t *out) noexcept;
[[nodiscard]] bool log_delete_begins(const char *topic) noexcept;

} // namespace tarn::sub

#endif
