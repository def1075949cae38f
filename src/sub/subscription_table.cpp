// subscription_table.cpp - adding, removing, matching and counting subscriptions.
//
// On a host's thread, adding and removing walk through the table, so that they see it as it is, also what that host
// wrote into it; an entry of another client costs them one look at its id. At DEBUG every look is a line, and matching
// walks, too. Otherwise the index names the few entries to look at; what is returned, written and logged is the same.
#include "../base/thread.h"
#include "../log/log.h"
#include "match_memo.h"

namespace tarn::sub {

constinit uint64_t g_entries_moved = 0;

namespace {

// The text becomes the array's, and what stood behind stays zero up to the old text's end: an entry's bytes depend on
// its fields only.
template <size_t N> void put_text(char (&array)[N], std::string_view text) noexcept
{
    const size_t before = strnlen(array, N);
    memcpy(array, text.data(), text.size());
    if (before > text.size())
        memset(array + text.size(), 0, before - text.size());
    array[std::min(text.size(), N - 1)] = '\0';
}

// Copies live bytes only: an entry has 2 KB, its texts rarely a hundred.
void put_entry(sub_entry_t &to, const sub_entry_t &from) noexcept
{
    put_text(to.client_id, text_of(from.client_id));
    put_text(to.topic_filter, text_of(from.topic_filter));
    to.qos            = from.qos;
    to.clean_session  = from.clean_session;
    to.sub_identifier = from.sub_identifier;
}

// Whether the array holds this text, which is not longer than it may be.
template <size_t N> bool holds(const char (&array)[N], std::string_view text) noexcept
{
    return array[text.size()] == '\0' && memcmp(array, text.data(), text.size()) == 0;
}

// ---- adding

struct Subscription {
    std::string_view id;
    std::string_view filter;
    uint32_t         qos;
    uint8_t          clean_session;
    uint32_t         identifier; // 0 = none given: an update keeps the old one
};

struct UpsertResult {
    Added    what; // New, Updated or Full
    uint32_t old_qos;
    int32_t  count; // entries afterwards
};

// A host that edits the table by hand does so on a thread of its own.
bool may_ask_index() noexcept
{
    return !log_passes(AGENT_LOG_DEBUG) && on_library_thread();
}

int32_t find_by_index(const sub_mgr_t &manager, const Subscription &wanted) noexcept REQUIRES(manager.lock)
{
    EntrySet candidates;
    int32_t  found = -1;
    check_pairs(manager);
    find_pair(manager, wanted.id, wanted.filter, candidates);
    candidates.for_each([&](int32_t i) {
        const sub_entry_t &entry = manager.subs[i];
        if (holds(entry.client_id, wanted.id) && holds(entry.topic_filter, wanted.filter))
            found = i;
        return found < 0;
    });
    return found;
}

int32_t find(const sub_mgr_t &manager, const Subscription &wanted, bool traced) noexcept REQUIRES(manager.lock)
{
    if (may_ask_index())
        return find_by_index(manager, wanted);
    const int32_t count = entries_in(manager);
    for (int32_t i = 0; i < count; ++i) {
        const sub_entry_t &entry = manager.subs[i];
        fetch_ahead(entry.client_id);
        if (traced)
            LOG_DEBUG("[TRACE] sub_add：检查重复订阅（索引=%d, client_id=%s, topic_filter=%s）", i, entry.client_id,
                      entry.topic_filter);
        if (holds(entry.client_id, wanted.id) && holds(entry.topic_filter, wanted.filter))
            return i;
    }
    return -1;
}

void append(sub_mgr_t &manager, const Subscription &wanted) noexcept REQUIRES(manager.lock)
{
    const int32_t count = entries_in(manager);
    sub_entry_t  &entry = manager.subs[count];
    put_text(entry.client_id, wanted.id);
    put_text(entry.topic_filter, wanted.filter);
    entry.qos            = wanted.qos;
    entry.clean_session  = wanted.clean_session;
    entry.sub_identifier = wanted.identifier;
    fit_index(manager);
    manager.sub_count = count + 1;
    note_written(manager);
    index_appended(manager);
}

UpsertResult upsert(sub_mgr_t &manager, const Subscription &wanted, bool traced) noexcept REQUIRES(manager.lock)
{
    const int32_t count = entries_in(manager);
    const int32_t found = find(manager, wanted, traced);
    if (found >= 0) {
        sub_entry_t   &entry   = manager.subs[found];
        const uint32_t old_qos = entry.qos;
        entry.qos              = wanted.qos;
        entry.clean_session    = wanted.clean_session;
        if (wanted.identifier)
            entry.sub_identifier = wanted.identifier;
        return {Added::Updated, old_qos, count};
    }
    if (!manager.subs || count >= SUB_CAPACITY)
        return {Added::Full, 0, count};
    append(manager, wanted);
    return {Added::New, 0, count + 1};
}

void log_outcome(const UpsertResult &upserted, const char *client_id, const char *filter, uint32_t qos,
                 uint8_t clean) noexcept
{
    switch (upserted.what) {
    case Added::Updated:
        LOG_DEBUG(
            "[DEBUG] sub_add：发现重复订阅，更新QoS和CleanSession（client_id=%s, topic_filter=%s, 旧QoS=%d, 新QoS=%d）",
            client_id, filter, upserted.old_qos, qos);
        LOG_INFO("MQTT标准：更新订阅：ClientID=%s, Topic=%s, QoS=%d", client_id, filter, qos);
        break;
    case Added::Full:
        LOG_ERROR("[DEBUG] sub_add：订阅数量超限（当前=%d, 最大=%d）", upserted.count, SUB_CAPACITY);
        LOG_ERROR("订阅数量超限（max=%d）", SUB_CAPACITY);
        break;
    case Added::New:
        LOG_DEBUG("[DEBUG] sub_add：新增订阅成功（client_id=%s, topic_filter=%s, 总数=%d）", client_id, filter,
                  upserted.count);
        LOG_INFO("MQTT标准：新增订阅：ClientID=%s, Topic=%s, QoS=%d, CleanSession=%d", client_id, filter, qos, clean);
        break;
    default:
        break;
    }
}

// ---- removing

using Filters = std::span<const std::string_view>; // cut, CODEC_FILTERS_MAX at most; none = all of the client's

struct Marked {
    EntrySet going;
    int32_t  of[CODEC_FILTERS_MAX] = {}; // entries that go because of this filter; with none, of the first
};

// The first of the filters that the entry has, or -1.
int32_t filter_of(const sub_entry_t &entry, Filters filters) noexcept
{
    if (filters.empty())
        return 0;
    for (size_t at = 0; at < filters.size(); ++at)
        if (holds(entry.topic_filter, filters[at]))
            return static_cast<int32_t>(at);
    return -1;
}

// Marks what is to go. The log numbers entries as if each removed one had gone at once and the rest moved up.
void mark_by_walk(const sub_mgr_t &manager, std::string_view id, Filters filters, Marked &marked) noexcept
    REQUIRES(manager.lock)
{
    const bool    traced = log_passes(AGENT_LOG_DEBUG);
    const int32_t count  = entries_in(manager);
    int32_t       at     = 0;
    for (int32_t i = 0; i < count; ++i) {
        const sub_entry_t &entry = manager.subs[i];
        fetch_ahead(entry.client_id);
        if (traced)
            LOG_DEBUG("[TRACE] sub_remove：检查订阅（索引=%d, client_id=%s, topic_filter=%s）", at, entry.client_id,
                      entry.topic_filter);
        const int32_t filter = holds(entry.client_id, id) ? filter_of(entry, filters) : -1;
        if (filter < 0) {
            ++at;
            continue;
        }
        if (traced)
            LOG_DEBUG("[TRACE] sub_remove：移除订阅（索引=%d, topic_filter=%s）", at, entry.topic_filter);
        marked.going.add(i);
        ++marked.of[filter];
    }
}

void mark(const sub_mgr_t &manager, std::string_view id, Filters filters, Marked &marked) noexcept
    REQUIRES(manager.lock)
{
    if (!may_ask_index())
        return mark_by_walk(manager, id, filters, marked);
    EntrySet candidates;
    check_pairs(manager);
    if (filters.empty())
        find_client(manager, id, candidates);
    for (const std::string_view filter : filters)
        find_pair(manager, id, filter, candidates);
    candidates.for_each([&](int32_t i) {
        const sub_entry_t &entry  = manager.subs[i];
        const int32_t      filter = holds(entry.client_id, id) ? filter_of(entry, filters) : -1;
        if (filter >= 0) {
            marked.going.add(i);
            ++marked.of[filter];
        }
        return true;
    });
}

// Takes the marked entries out in one pass; the rest keeps its order. Returns how many remain.
int32_t take_out(sub_mgr_t &manager, const EntrySet &going) noexcept REQUIRES(manager.lock)
{
    const int32_t count = entries_in(manager);
    const int32_t first = going.first();
    if (first < 0)
        return count;

    fit_index(manager);
    int32_t kept = first;
    for (int32_t i = first; i < count; ++i)
        if (!going.has(i))
            put_entry(manager.subs[kept++], manager.subs[i]);
    g_entries_moved += static_cast<uint64_t>(kept - first);
    for (int32_t i = kept; i < count; ++i)
        put_entry(manager.subs[i], {});
    manager.sub_count = kept;
    index_removed(manager, going);
    return kept;
}

// What lines call the filter of a removal of all.
const char *or_all(const char *filter) noexcept
{
    return filter ? filter : "所有";
}

void log_removed(const char *client_id, const char *filter, int32_t removed) noexcept
{
    LOG_INFO("MQTT标准：移除订阅：ClientID=%s, Topic=%s, 移除数量=%d", client_id, or_all(filter), removed);
}

// `filter` is null for all of the client's; else it is the one of `only`.
int32_t remove_where(const char *client_id, const char *filter, Filters only) noexcept
{
    if (!log_remove_begins(client_id, filter))
        return 0;
    int32_t removed = 0;
    int32_t left    = 0;
    {
        ScopedLock lock(g_sub_mgr.lock);
        LOG_DEBUG("[TRACE] sub_remove：已加锁，当前订阅数=%d", int32_t{g_sub_mgr.sub_count});
        Marked marked;
        mark(g_sub_mgr, cut(client_id, kClientIdChars), only, marked);
        removed = marked.of[0];
        left    = take_out(g_sub_mgr, marked.going);
    }
    LOG_DEBUG("[DEBUG] sub_remove：移除订阅完成（client_id=%s, 移除数量=%d, 剩余订阅数=%d）", client_id, removed, left);
    log_removed(client_id, filter, removed);
    return removed;
}

// ---- matching

// Hands the matching entries to `take` in table order, until it returns false. Returns how many it took. The topic ends
// with a NUL.
template <class Take>
int walk_matches(const sub_mgr_t &manager, std::string_view topic, Trust trust, Take take) noexcept
    REQUIRES(manager.lock)
{
    int  taken = 0;
    auto visit = [&](int32_t i) {
        const sub_entry_t &entry = manager.subs[i];
        LOG_DEBUG("[TRACE] sub_match：检查订阅（索引=%d, client_id=%s, topic_filter=%s）", i, entry.client_id,
                  entry.topic_filter);
        if (!matches(entry.topic_filter, topic.data()))
            return true;
        const bool more = take(i, entry);
        ++taken;
        LOG_DEBUG("[TRACE] sub_match：匹配成功（索引=%d, client_id=%s）", i, entry.client_id);
        return more;
    };

    if (log_passes(AGENT_LOG_DEBUG)) {
        for (int32_t i = 0; i < entries_in(manager); ++i)
            if (!visit(i))
                break;
        return taken;
    }
    check_index(manager, trust);
    for (const int32_t i : remembered_matches(manager, topic)) {
        ++taken;
        if (!take(i, manager.subs[i]))
            break;
    }
    if (taken != 0)
        return taken;
    do {
        EntrySet candidates;
        candidates_for(manager, topic, candidates);
        candidates.for_each(visit);
        if (taken != 0 && taken == candidates.count())
            remember_matches(manager, topic, candidates);
    } while (taken == 0 && trust == Trust::Usual && index_was_wrong(manager));
    return taken;
}

// The lines around a match and its lock; the walk itself is the caller's.
template <class Take> int match(const char *topic, const void *into, int32_t room, Trust trust, Take take) noexcept
{
    LOG_DEBUG("[DEBUG] sub_match：开始匹配订阅（topic=%s, max_matched=%d）", or_null(topic), room);
    if (!into || !topic || room < 1) {
        LOG_ERROR("[DEBUG] sub_match：入参无效（topic=%p, matched=%p, max_matched=%d）",
                  static_cast<const void *>(topic), into, room);
        return 0;
    }
    int found;
    {
        ScopedLock lock(g_sub_mgr.lock);
        LOG_DEBUG("[TRACE] sub_match：已加锁，当前订阅数=%d", int32_t{g_sub_mgr.sub_count});
        found = walk_matches(g_sub_mgr, topic, trust, take);
    }
    LOG_DEBUG("[DEBUG] sub_match：匹配完成（topic=%s, 匹配数量=%d）", topic, found);
    LOG_INFO("MQTT标准：Topic=%s 匹配到 %d 个订阅者", topic, found);
    return found;
}

// ---- matches for routing

[[nodiscard]] bool add_group(MatchList &list, Match &match, std::string_view filter) noexcept
{
    match.shared                     = is_shared(filter);
    const std::optional<Share> share = share_of(filter);
    if (!share)
        return true;
    match.group_size = static_cast<uint16_t>(share->group.size());
    if (!list.matches.empty()) {
        const Match &before = list.matches[list.matches.size() - 1];
        if (before.group_size == match.group_size && list.group_of(before) == share->group) {
            match.group = before.group; // members of one group often stand together
            return true;
        }
    }
    for (const char c : share->group)
        if (!list.names.push(c))
            return false;
    return true;
}

[[nodiscard]] bool add_match(MatchList &list, int32_t index, const sub_entry_t &entry) noexcept
{
    Match match;
    memcpy(match.client_id, entry.client_id, sizeof match.client_id);
    match.client_id[kClientIdChars] = '\0';
    match.shared                    = 0;
    match.qos                       = static_cast<uint8_t>(entry.qos);
    match.clean_session             = entry.clean_session;
    match.group                     = static_cast<uint32_t>(list.names.size());
    match.group_size                = kNoGroup;
    match.index                     = index;
    const bool may_be_shared        = entry.topic_filter[0] == '$';
    return (!may_be_shared || add_group(list, match, text_of(entry.topic_filter))) && list.matches.push(match);
}

} // namespace

// A host that edits the table by hand and then publishes does so on a thread of its own. The library's threads route
// what clients send, message after message.
int list_matches(const char *topic, MatchList &list) noexcept
{
    list.matches.clear();
    list.names.clear();
    bool        stored = true;
    const Trust trust  = on_library_thread() ? Trust::Usual : Trust::Sure;
    const int   found  = match(topic, &list, SUB_MATCH_CAPACITY, trust, [&](int32_t i, const sub_entry_t &entry) {
        stored = add_match(list, i, entry);
        return stored;
    });
    return stored ? found : -1;
}

// ---- calls

bool log_add_begins(const char *client_id, const char *filter, uint32_t qos, uint8_t clean_session) noexcept
{
    LOG_DEBUG("[DEBUG] sub_add：开始添加订阅（client_id=%s, topic_filter=%s, qos=%d, clean_session=%d）",
              or_null(client_id), or_null(filter), qos, clean_session);
    if (has_text(client_id) && has_text(filter))
        return true;
    LOG_ERROR("[DEBUG] sub_add：无效的订阅参数（client_id=%s, topic_filter=%s）", or_null(client_id), or_null(filter));
    return false;
}

// QUIRK(subscription-update): subscribing again keeps the subscription identifier of before when none is given,
// although the new subscription should replace the old one whole [MQTT-3.8.4-3].
//   standard profile: lifted (wire)
//   test: adding_with_id.identifier_survives_an_update_without_one
Added add(const char *client_id, const char *filter, uint32_t qos, uint8_t clean_session) noexcept
{
    if (!log_add_begins(client_id, filter, qos, clean_session))
        return Added::NoText;
    if (qos > 2) {
        LOG_ERROR("[DEBUG] sub_add：无效的QoS=%d（仅支持0/1/2）", qos);
        return Added::BadQos;
    }
    if (!is_valid_filter(filter)) {
        LOG_ERROR("[DEBUG] sub_add：非法过滤器拒绝订阅（client_id=%s, filter=%s）", client_id, filter);
        return Added::BadFilter;
    }

    const Subscription wanted = {cut(client_id, kClientIdChars), cut(filter, kFilterChars), qos, clean_session, 0};
    UpsertResult       upserted;
    {
        ScopedLock lock(g_sub_mgr.lock);
        LOG_DEBUG("[TRACE] sub_add：已加锁，当前订阅数=%d，最大容量=%d", int32_t{g_sub_mgr.sub_count}, SUB_CAPACITY);
        upserted = upsert(g_sub_mgr, wanted, log_passes(AGENT_LOG_DEBUG));
    }
    log_outcome(upserted, client_id, filter, qos, clean_session);
    return upserted.what;
}

Added add_with_id(const char *client_id, const char *filter, uint32_t qos, uint8_t clean_session,
                  uint32_t identifier) noexcept
{
    if (qos > 2)
        return Added::BadQos;
    if (!is_valid_filter(filter)) {
        LOG_ERROR("[DEBUG] sub_add_with_id：非法过滤器拒绝订阅（client_id=%s, filter=%s）", client_id, filter);
        return Added::BadFilter;
    }

    const Subscription wanted = {cut(client_id, kClientIdChars), cut(filter, kFilterChars), qos, clean_session,
                                 identifier};
    ScopedLock         lock(g_sub_mgr.lock);
    return upsert(g_sub_mgr, wanted, false).what;
}

bool log_remove_begins(const char *client_id, const char *filter) noexcept
{
    LOG_DEBUG("[DEBUG] sub_remove：开始移除订阅（client_id=%s, topic_filter=%s）", or_null(client_id), or_all(filter));
    if (has_text(client_id))
        return true;
    LOG_ERROR("[DEBUG] sub_remove：无效的ClientID（空指针/空字符串）");
    return false;
}

int32_t remove(const char *client_id, const char *filter) noexcept
{
    const std::string_view only[] = {cut(filter, kFilterChars)};
    return remove_where(client_id, filter, only);
}

int32_t remove_all_of(const char *client_id) noexcept
{
    return remove_where(client_id, nullptr, {});
}

Removal::Removal(const char *client_id, std::span<const char *const> filters) noexcept
    : client_id_(client_id), filters_(filters), one_by_one_(log_passes(AGENT_LOG_DEBUG) || !has_text(client_id))
{
    if (one_by_one_ || filters.empty())
        return;
    std::string_view only[CODEC_FILTERS_MAX];
    for (size_t at = 0; at < filters.size(); ++at)
        only[at] = cut(filters[at], kFilterChars);
    Marked     marked;
    ScopedLock lock(g_sub_mgr.lock);
    mark(g_sub_mgr, cut(client_id, kClientIdChars), {only, filters.size()}, marked);
    (void)take_out(g_sub_mgr, marked.going);
    std::copy(std::begin(marked.of), std::end(marked.of), removed_);
}

int32_t Removal::log_and_count(size_t at) noexcept
{
    if (one_by_one_)
        return remove(client_id_, filters_[at]);
    log_removed(client_id_, filters_[at], removed_[at]);
    return removed_[at];
}

int copy_matches(const char *topic, sub_entry_t *matched, int32_t room) noexcept
{
    int32_t next = 0;
    return match(topic, matched, room, Trust::Sure, [&](int32_t, const sub_entry_t &entry) {
        matched[next++] = entry;
        return next < room;
    });
}

bool log_count_begins(const char *client_id) noexcept
{
    LOG_DEBUG("[DEBUG] sub_get_client_sub_count：开始统计（client_id=%s）", or_null(client_id));
    if (has_text(client_id))
        return true;
    LOG_ERROR("[DEBUG] sub_get_client_sub_count：无效的ClientID（空指针/空字符串）");
    return false;
}

int32_t count_of(const char *client_id) noexcept
{
    const std::string_view id    = cut(client_id, kClientIdChars);
    int32_t                count = 0;
    {
        ScopedLock lock(g_sub_mgr.lock);
        LOG_DEBUG("[TRACE] sub_get_client_sub_count：已加锁，当前订阅数=%d", int32_t{g_sub_mgr.sub_count});
        for (int32_t i = 0; i < entries_in(g_sub_mgr); ++i) {
            LOG_DEBUG("[TRACE] sub_get_client_sub_count：检查订阅（索引=%d, client_id=%s）", i,
                      g_sub_mgr.subs[i].client_id);
            if (text_of(g_sub_mgr.subs[i].client_id) != id)
                continue;
            LOG_DEBUG("[TRACE] sub_get_client_sub_count：匹配到客户端订阅（索引=%d）", i);
            ++count;
        }
    }
    LOG_DEBUG("[DEBUG] sub_get_client_sub_count：统计完成（client_id=%s, 订阅数量=%d）", client_id, count);
    LOG_INFO("sub_get_client_sub_count：ClientID=%s, 订阅数量=%d", client_id, count);
    return count;
}

bool find_by_identifier(uint32_t identifier, sub_entry_t &out) noexcept
{
    ScopedLock lock(g_sub_mgr.lock);
    for (int32_t i = 0; i < entries_in(g_sub_mgr); ++i) {
        if (g_sub_mgr.subs[i].sub_identifier == identifier) {
            out = g_sub_mgr.subs[i];
            return true;
        }
    }
    return false;
}

} // namespace tarn::sub
