// retain.cpp - the last retained message of each topic.
//
// Changes happen under the manager's lock; the file is written after it is dropped, once for each change, and once for
// all messages that are found to have expired.
#include "../base/clock.h"
#include "../base/memory.h"
#include "../log/log.h"
#include "../persist/persist.hpp"
#include "../stats/stats.hpp"
#include "sub_internal.h"

namespace tarn::sub {
namespace {

constexpr size_t kTopicChars = sizeof(retain_msg_t::topic) - 1;

bool has_topic(const retain_msg_t &entry, std::string_view topic) noexcept
{
    return text_of(entry.topic) == topic;
}

int32_t find(const sub_mgr_t &manager, std::string_view topic) noexcept REQUIRES(manager.lock)
{
    for (int32_t i = 0; i < retained_in(manager); ++i)
        if (has_topic(manager.retains[i], topic))
            return i;
    return -1;
}

void take_out(sub_mgr_t &manager, int32_t at) noexcept REQUIRES(manager.lock)
{
    const int32_t left = retained_in(manager) - 1;
    memmove(manager.retains + at, manager.retains + at + 1, static_cast<size_t>(left - at) * sizeof(retain_msg_t));
    manager.retain_count = left;
}

// QUIRK(retained-life): a retained message without an expiry interval lives seven days, although the standard keeps it
// until it is replaced [MQTT-3.3.1-5]: the store is small and topics that fell silent must not fill it for ever.
//   standard profile: lifted (retained): without an interval until it is replaced; a limit bounds the store, and a host
//   can set it
//   test: retain_expiry.gives_entries_without_interval_seven_days
bool has_ended(const retain_msg_t &entry, int64_t now_s) noexcept
{
    const int64_t life = entry.expiry_interval ? int64_t{entry.expiry_interval} : int64_t{RETAIN_DEFAULT_LIFE_S};
    int64_t       end;
    return !__builtin_add_overflow(entry.store_time, life, &end) && end < now_s;
}

struct Message {
    std::string_view topic; // cut
    const uint8_t   *payload;
    uint32_t         size; // 0 = delete
    uint32_t         qos;
};

void fill(retain_msg_t &entry, const Message &message) noexcept
{
    memcpy(entry.payload, message.payload, message.size);
    entry.payload_len = message.size;
    entry.qos         = message.qos;
    entry.store_time  = wall_s();
}

// QUIRK(retained-expiry-kept): replacing a message keeps the expiry interval of the one before unless the new one
// brings its own [MQTT-3.3.1-5]: an update without an interval is meant to refresh what it updates.
//   standard profile: lifted (retained)
//   test: retain_set.replacing_keeps_place_and_expiry
Stored store(sub_mgr_t &manager, const Message &message) noexcept REQUIRES(manager.lock)
{
    const int32_t found = find(manager, message.topic);
    if (found >= 0 && message.size == 0) {
        take_out(manager, found);
        return Stored::Deleted;
    }
    if (found >= 0) {
        fill(manager.retains[found], message);
        return Stored::Updated;
    }
    if (message.size == 0)
        return Stored::Nothing;

    const int32_t count = retained_in(manager);
    if (!manager.retains || count >= RETAIN_CAPACITY)
        return Stored::Full;
    retain_msg_t &entry = manager.retains[count];
    memset(entry.topic, 0, sizeof entry.topic);
    memcpy(entry.topic, message.topic.data(), message.topic.size());
    fill(entry, message);
    entry.expiry_interval = 0;
    manager.retain_count  = count + 1;
    return Stored::New;
}

// Saves and reports what store() did.
void save_and_log(Stored stored, const char *topic) noexcept
{
    switch (stored) {
    case Stored::Nothing:
    case Stored::NoTopic:
        break;
    case Stored::Full:
        LOG_ERROR("保留消息数量超限（max=%d）", RETAIN_CAPACITY);
        break;
    case Stored::New:
        persist::save_retained();
        LOG_INFO("MQTT标准：新增Topic=%s的保留消息", topic);
        break;
    case Stored::Updated:
        persist::save_retained();
        LOG_INFO("MQTT标准：更新Topic=%s的保留消息", topic);
        break;
    case Stored::Deleted:
        LOG_DEBUG("[DEBUG] retain_msg_set：空Payload，删除旧保留消息（topic=%s）", topic);
        persist::save_retained();
        LOG_INFO("MQTT标准：删除Topic=%s的保留消息（空Payload）", topic);
        break;
    }
}

// Gives the topic's message this interval, if there is one.
void set_expiry(const char *topic, uint32_t expiry_s) noexcept
{
    {
        ScopedLock    lock(g_sub_mgr.lock);
        const int32_t found = find(g_sub_mgr, cut(topic, kTopicChars));
        if (found >= 0)
            g_sub_mgr.retains[found].expiry_interval = expiry_s;
    }
    persist::save_retained();
}

// ---- discarding

using Topic = char[kTopicChars + 1];

int32_t count_ended(const sub_mgr_t &manager, int64_t now_s) noexcept REQUIRES(manager.lock)
{
    int32_t count = 0;
    for (int32_t i = 0; i < retained_in(manager); ++i)
        count += has_ended(manager.retains[i], now_s);
    return count;
}

// Takes out the entries whose life has ended, `limit` at most, and copies their topics. Returns how many.
int32_t take_out_ended(sub_mgr_t &manager, int64_t now_s, int32_t limit, Topic *topics) noexcept REQUIRES(manager.lock)
{
    const int32_t count = retained_in(manager);
    int32_t       kept  = 0;
    int32_t       gone  = 0;
    for (int32_t i = 0; i < count; ++i) {
        if (gone < limit && has_ended(manager.retains[i], now_s)) {
            copy_text(topics[gone++], manager.retains[i].topic, kTopicChars);
            continue;
        }
        if (kept != i)
            manager.retains[kept] = manager.retains[i];
        ++kept;
    }
    manager.retain_count = kept;
    return gone;
}

// One at a time, as far as the lines show: when the file was written for the first of them, all of them are gone from
// it, and for the others it only has to be counted.
void log_and_save_ended(const Topic *topics, int32_t count) noexcept
{
    bool saved = false;
    for (int32_t i = 0; i < count; ++i) {
        LOG_INFO("保留消息已过期，自动清理: topic=%s", topics[i]);
        if (saved)
            stats::count(stats::Counter::persist_write);
        else
            saved = persist::save_retained();
    }
}

} // namespace

bool log_retain_begins(const char *topic, size_t payload_len, uint32_t qos) noexcept
{
    LOG_DEBUG("[DEBUG] retain_msg_set：开始处理（topic=%s, payload_len=%u, qos=%d）", or_null(topic),
              static_cast<uint32_t>(payload_len), qos);
    if (has_text(topic))
        return true;
    LOG_ERROR("[DEBUG] retain_msg_set：无效Topic（空指针/空字符串）");
    return false;
}

Stored retain(const RetainedMessage &message) noexcept
{
    if (!log_retain_begins(message.topic, message.payload.size(), message.qos))
        return Stored::NoTopic;
    discard_expired_retained(); // makes room

    const auto    size = static_cast<uint32_t>(std::min<size_t>(message.payload.size(), CODEC_PAYLOAD_MAX));
    const Message kept = {cut(message.topic, kTopicChars), message.payload.data(), size, message.qos};
    Stored        stored;
    {
        ScopedLock lock(g_sub_mgr.lock);
        LOG_DEBUG("[TRACE] retain_msg_set：已加锁，当前保留消息数量=%d", int32_t{g_sub_mgr.retain_count});
        stored = store(g_sub_mgr, kept);
    }
    save_and_log(stored, message.topic);
    if (message.expiry_s != 0 && stored != Stored::Full)
        set_expiry(message.topic, message.expiry_s);
    return stored;
}

bool log_get_begins(const char *topic, const retain_msg_t *out) noexcept
{
    LOG_DEBUG("[DEBUG] retain_msg_get：开始查询（topic=%s, msg_ptr=%p）", or_null(topic),
              static_cast<const void *>(out));
    if (topic && out)
        return true;
    LOG_ERROR("[DEBUG] retain_msg_get：入参无效（topic=%p, msg=%p）", static_cast<const void *>(topic),
              static_cast<const void *>(out));
    return false;
}

bool copy_retained(const char *topic, retain_msg_t &out) noexcept
{
    bool found = false;
    {
        const std::string_view wanted = cut(topic, kTopicChars);
        ScopedLock             lock(g_sub_mgr.lock);
        LOG_DEBUG("[TRACE] retain_msg_get：已加锁，当前保留消息数量=%d", int32_t{g_sub_mgr.retain_count});
        for (int32_t i = 0; i < retained_in(g_sub_mgr) && !found; ++i) {
            const retain_msg_t &entry = g_sub_mgr.retains[i];
            LOG_DEBUG("[TRACE] retain_msg_get：检查保留消息（索引=%d, topic=%s）", i, entry.topic);
            found = has_topic(entry, wanted);
            if (found)
                out = entry;
        }
    }
    if (!found) {
        LOG_DEBUG("[DEBUG] retain_msg_get：未找到保留消息（topic=%s）", topic);
        return false;
    }
    LOG_DEBUG("[DEBUG] retain_msg_get：找到保留消息（topic=%s, payload_len=%u）", topic, out.payload_len);
    return true;
}

bool log_delete_begins(const char *topic) noexcept
{
    LOG_DEBUG("[DEBUG] retain_msg_delete：开始删除（topic=%s）", or_null(topic));
    if (topic)
        return true;
    LOG_ERROR("[DEBUG] retain_msg_delete：入参无效（topic=%p）", static_cast<const void *>(topic));
    return false;
}

bool delete_retained(const char *topic) noexcept
{
    if (!log_delete_begins(topic))
        return false;
    int32_t left = -1; // after the removal
    {
        const std::string_view wanted = cut(topic, kTopicChars);
        ScopedLock             lock(g_sub_mgr.lock);
        LOG_DEBUG("[TRACE] retain_msg_delete：已加锁，当前保留消息数量=%d", int32_t{g_sub_mgr.retain_count});
        for (int32_t i = 0; i < retained_in(g_sub_mgr) && left < 0; ++i) {
            LOG_DEBUG("[TRACE] retain_msg_delete：检查保留消息（索引=%d, topic=%s）", i, g_sub_mgr.retains[i].topic);
            if (!has_topic(g_sub_mgr.retains[i], wanted))
                continue;
            take_out(g_sub_mgr, i);
            left = g_sub_mgr.retain_count;
        }
    }
    if (left < 0) {
        LOG_DEBUG("[DEBUG] retain_msg_delete：未找到保留消息（topic=%s）", topic);
        return false;
    }
    LOG_DEBUG("[DEBUG] retain_msg_delete：删除保留消息成功（topic=%s, 剩余数量=%d）", topic, left);
    persist::save_retained();
    return true;
}

// At DEBUG, where each save says how many entries it wrote, and without memory for their topics one after another.
void discard_expired_retained() noexcept
{
    const int64_t now_s = wall_s();
    for (;;) {
        Topic        one[1];
        int32_t      gone = 0;
        owned<Topic> all;
        {
            ScopedLock    lock(g_sub_mgr.lock);
            const int32_t ended = count_ended(g_sub_mgr, now_s);
            if (ended == 0)
                return;
            if (ended > 1 && !log_passes(AGENT_LOG_DEBUG))
                all = allocate<Topic>(static_cast<size_t>(ended));
            gone = take_out_ended(g_sub_mgr, now_s, all ? ended : 1, all ? all.get() : one);
        }
        log_and_save_ended(all ? all.get() : one, gone);
    }
}

int32_t list_retained_topics(char *buf, int32_t size) noexcept
{
    const auto room   = static_cast<size_t>(size);
    size_t     used   = 0;
    int32_t    topics = 0;
    ScopedLock lock(g_sub_mgr.lock);
    for (int32_t i = 0; i < retained_in(g_sub_mgr); ++i) {
        const std::string_view topic = text_of(g_sub_mgr.retains[i].topic);
        if (used + topic.size() + 1 >= room)
            continue; // a shorter one may still fit
        memcpy(buf + used, topic.data(), topic.size());
        used += topic.size();
        buf[used++] = '\n';
        ++topics;
    }
    buf[used] = '\0';
    return topics;
}

} // namespace tarn::sub
