// sub.hpp - subscriptions and retained messages, for the other modules of the library. Hosts have the same as sub.h and
// retain.h: sub_c.cpp turns away null pointers, calls this, and makes plain numbers of the results.
//
// No pointer may be null where nothing else is said. Ids, filters and topics are cut to what an entry holds. All but the
// two questions about filters take and drop g_sub_mgr.lock.
#ifndef TARN_SUB_SUB_HPP
#define TARN_SUB_SUB_HPP

#include "match_list.h"
#include "share.h"
#include "sub.h"

#include <span>

namespace tarn::sub {

[[nodiscard]] bool init() noexcept; // empties both arrays; false when there is no memory for them
void               deinit() noexcept;

// ---- filters

[[nodiscard]] bool is_valid_filter(const char *filter) noexcept; // a line says what is wrong with it
[[nodiscard]] bool matches(const char *filter, const char *topic) noexcept;

// One filter for many topics: it is validated once. The text stays as long as this.
class TopicFilter {
public:
    explicit TopicFilter(const char *filter) noexcept;
    [[nodiscard]] bool matches(const char *topic) const noexcept; // as sub::matches, with its lines

private:
    enum class Kind : uint8_t { Exact, Wildcards, Traced }; // Traced: each match has lines
    const char *filter_;
    const char *compared_; // behind "$share/<group>/"
    Kind        kind_;
};

// ---- subscriptions; the matches of a topic are in match_list.h

enum class Added : uint8_t { New, Updated, NoText, BadQos, BadFilter, Full };
[[nodiscard]] constexpr bool is_subscribed(Added added) noexcept
{
    return added == Added::New || added == Added::Updated;
}

// NoText: id or filter is empty. An update keeps the subscription identifier.
Added add(const char *client_id, const char *filter, uint32_t qos, uint8_t clean_session) noexcept;
// The same with an identifier, not 0, and without the lines of one that was entered.
Added add_with_id(const char *client_id, const char *filter, uint32_t qos, uint8_t clean_session,
                  uint32_t identifier) noexcept;

// Gives back the memory behind the last entry, as far as entries that were removed since left some.
void give_back_unused_entries() noexcept;

// Both return how many were removed.
int32_t remove(const char *client_id, const char *filter) noexcept;
int32_t remove_all_of(const char *client_id) noexcept;

// Several filters of one client, which leave the table in one pass. The lines of each come when it is asked for; at
// DEBUG, where every look at an entry is a line, it is removed then. The texts stay until then.
class Removal {
public:
    Removal(const char *client_id, std::span<const char *const> filters) noexcept; // CODEC_FILTERS_MAX at most
    int32_t log_and_count(size_t at) noexcept; // how many entries of this filter were removed

private:
    const char                  *client_id_;
    std::span<const char *const> filters_;
    bool                         one_by_one_;
    int32_t                      removed_[CODEC_FILTERS_MAX] = {};
};

int32_t            count_of(const char *client_id) noexcept;
[[nodiscard]] bool find_by_identifier(uint32_t identifier, sub_entry_t &out) noexcept; // the first one with it
// Whole entries that match, in table order, at most `room`. Topic and array may be null: a line says so, and it is 0.
int copy_matches(const char *topic, sub_entry_t *matched, int32_t room) noexcept;

// ---- retained messages

struct RetainedMessage {
    const char              *topic;
    std::span<const uint8_t> payload; // empty: the topic's message is deleted
    uint32_t                 qos;
    uint32_t                 expiry_s = 0; // 0: as the message before, or RETAIN_DEFAULT_LIFE_S
};

enum class Stored : uint8_t { New, Updated, Deleted, Nothing, NoTopic, Full };

Stored             retain(const RetainedMessage &message) noexcept;              // saves the store when it changed
[[nodiscard]] bool copy_retained(const char *topic, retain_msg_t &out) noexcept; // false when there is none
[[nodiscard]] bool delete_retained(const char *topic) noexcept;                  // likewise; saves the store
void               discard_expired_retained() noexcept;                          // saves it once for all
// Topics, each with a line feed, as far as they fit into `size` bytes, which is above 0. Returns how many.
int32_t list_retained_topics(char *buf, int32_t size) noexcept;

} // namespace tarn::sub

#endif
