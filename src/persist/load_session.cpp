// load_session.cpp - a session record back from the client's three files.
//
// Nothing here is a JSON parser, and file layouts depend on it: each key is searched as text, anywhere, and its value
// is read a fixed distance behind the key's first character. Some distances are not the key's length, so those values
// come back cut or empty; the table says which. Whatever is found is taken, whatever is missing stays as it was.
//
// Reading is silent. What a load counts and says is made from what it found, after the lock is dropped.
#include "../base/text.h"
#include "../log/log.h"
#include "../stats/stats.hpp"
#include "message_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tarn::persist {
namespace {

// Behind the text lie zeroes, so that a value searched behind the last key ends.
constexpr size_t kSlack = 64;
using SessionText       = char[PERSIST_TEXT_READ_MAX + 1 + kSlack];

constexpr size_t kMessageTextRoom = PERSIST_MSGS_READ_MAX + 1 + kSlack;

FILE *open_file(const Path &path)
{
    errno = ENOENT;
    return path.usable ? open_stream(path.text, "re") : nullptr;
}

// Whether there is no such file, as far as the error tells: not when descriptors ran out, for example.
bool says_there_is_none(int error)
{
    return error == ENOENT || error == ENOTDIR || error == EISDIR;
}

// False when there is no such file.
bool read_file(const Path &path, char *text, size_t limit)
{
    FILE *const file = open_file(path);
    if (!file)
        return false;
    const size_t got = fread(text, 1, limit, file);
    text[got]        = '\0';
    fclose(file);
    return true;
}

// From `from` up to the next quote, or nothing when there is none.
std::string_view up_to_quote(const char *from)
{
    const char *const quote = strchr(from, '"');
    return quote ? std::string_view(from, static_cast<size_t>(quote - from)) : std::string_view();
}

// ---- session file

struct SessionKey {
    const char *key;
    size_t      distance;  // from the key's first character to the value's
    bool        will_only; // looked at only when will_flag is set
    void (*store)(persist_session_t &record, const char *value);
};

unsigned long long number(const char *value)
{
    return strtoull(value, nullptr, 10);
}
uint8_t holds_true(const char *value)
{
    return strstr(value, "true") != nullptr;
}
void store_will_payload(persist_session_t &record, const char *value)
{
    record.will_len = static_cast<uint32_t>(unhex(record.will_payload, sizeof record.will_payload, up_to_quote(value)));
}

template <size_t N> void store_text(char (&field)[N], const char *value)
{
    unescape(field, N - 1, up_to_quote(value));
}

// With what the distance makes of the value, where it is not simply restored.
// QUIRK(session-distances): of a saved session the end loses its first two digits and the will its topic, payload and
// QoS, so that it is never published, though both belong to the session [MQTT-3.1.2-8, MQTT-3.1.2-5]. Files of
// earlier versions hold the same, and a restart must treat them the same.
//   standard profile: lifted (sessions)
//   test: session_file.distances_of_the_loader, session_file.a_will_payload_comes_back_empty
constexpr SessionKey kSessionKeys[] = {
    {"\"session_expiry_interval\":", 26, false,
     [](persist_session_t &r, const char *v) { r.session_expiry_interval = static_cast<uint32_t>(number(v)); }},
    {"\"session_expiry_deadline\":", 28, false, // the first two digits are lost
     [](persist_session_t &r, const char *v) { r.session_expiry_deadline = number(v); }},
    {"\"clean_start\":", 0, false, // "true" anywhere behind the key
     [](persist_session_t &r, const char *v) { r.clean_start = holds_true(v); }},
    {"\"will_flag\":", 0, false, // likewise
     [](persist_session_t &r, const char *v) { r.will_flag = holds_true(v); }},
    {"\"will_topic\":\"", 13, true, // on the opening quote: restored empty
     [](persist_session_t &r, const char *v) { store_text(r.will_topic, v); }},
    {"\"will_qos\":", 10, true, // on the colon: 0
     [](persist_session_t &r, const char *v) { r.will_qos = static_cast<uint8_t>(number(v)); }},
    {"\"will_len\":", 11, true,
     [](persist_session_t &r, const char *v) { r.will_len = static_cast<uint32_t>(number(v)); }},
    {"\"will_payload\":\"", 15, true, store_will_payload}, // on the opening quote: no bytes
    {"\"will_delay_interval\":", 22, false,
     [](persist_session_t &r, const char *v) { r.will_delay_interval = static_cast<uint32_t>(number(v)); }},
    {"\"will_msg_expiry_interval\":", 26, false, // on the colon: 0
     [](persist_session_t &r, const char *v) { r.will_msg_expiry_interval = static_cast<uint32_t>(number(v)); }},
    {"\"will_payload_format\":", 22, false,
     [](persist_session_t &r, const char *v) { r.will_payload_format = static_cast<uint8_t>(number(v)); }},
    {"\"will_content_type\":\"", 20, false, // on the opening quote: restored empty
     [](persist_session_t &r, const char *v) { store_text(r.will_content_type, v); }},
    {"\"will_response_topic\":\"", 22, false, // likewise
     [](persist_session_t &r, const char *v) { store_text(r.will_response_topic, v); }},
    {"\"will_correlation_len\":", 23, false,
     [](persist_session_t &r, const char *v) { r.will_correlation_len = static_cast<uint32_t>(number(v)); }},
};

void take_session(persist_session_t &record, const char *text)
{
    for (const SessionKey &row : kSessionKeys) {
        if (row.will_only && !(record.will_flag & 1))
            continue;
        if (const char *const key = strstr(text, row.key))
            row.store(record, key + row.distance);
    }
}

// ---- subscription file

// QUIRK(files-read-in-part): of a subscription file 2047 bytes are read, of a message file 4095, and 1023 of one
// message; what lies beyond is not resumed, or without its payload [MQTT-3.1.2-5, MQTT-4.5.0-1]. A payload takes two
// characters a byte there. So an absent client gets no payload above some 480 bytes, and of many messages the oldest
// that fit (of payloads of 20 bytes on a topic of 24, 36), because the file is read before each newer one is added.
// Loading has bounded buffers.
//   standard profile: lifted (sessions): what is kept is bounded by limits that a host can set, and comes back whole
//   test: limits.of_a_subscription_file_2047_bytes_are_read, limits.of_a_message_file_4095_bytes_are_read,
//   limits.of_a_message_1023_characters_are_looked_at, limits.of_many_messages_the_oldest_come_back,
//   limits.a_payload_above_some_480_bytes_does_not_come_back
//
// {"subs":[{"topic":"...","qos":N},...]}. False when there is no list.
bool take_subscriptions(persist_session_t &record, const char *text)
{
    constexpr std::string_view kTopic = "\"topic\":\"";
    constexpr std::string_view kQos   = "\",\"qos\":";

    record.sub_count = 0;
    const char *at   = strstr(text, "\"subs\":[");
    if (!at)
        return false;
    while ((at = strstr(at, kTopic.data())) && record.sub_count < PERSIST_SUBS_MAX) {
        const char *const topic = at + kTopic.size();
        const char *const end   = strstr(topic, kQos.data());
        if (!end)
            break;
        persist_sub_t &sub = record.subs[record.sub_count++];
        unescape(sub.topic, sizeof sub.topic - 1, {topic, static_cast<size_t>(end - topic)});
        at      = end + kQos.size();
        sub.qos = static_cast<uint8_t>(number(at));
    }
    return true;
}

// ---- message file

// A topic ends at the first quote that is not escaped.
std::string_view up_to_open_quote(const char *from)
{
    const char *end = from;
    while (*end && *end != '"')
        end += *end == '\\' && end[1] ? 2 : 1;
    return *end ? std::string_view(from, static_cast<size_t>(end - from)) : std::string_view();
}

// {"msgid":N,"qos":N,"topic":"...","payload":"hex"}. False when a key is missing.
bool take_message(persist_msg_t &message, const char *object)
{
    const char *const msgid   = strstr(object, "\"msgid\":");
    const char *const qos     = strstr(object, "\"qos\":");
    const char *const topic   = strstr(object, "\"topic\":\"");
    const char *const payload = strstr(object, "\"payload\":\"");
    if (!msgid || !qos || !topic || !payload)
        return false;
    memset(&message, 0, sizeof message);
    message.msgid = static_cast<uint16_t>(number(msgid + 8));
    message.qos   = static_cast<uint8_t>(number(qos + 6));
    unescape(message.topic, sizeof message.topic - 1, up_to_open_quote(topic + 9));
    message.payload_len =
        static_cast<uint32_t>(unhex(message.payload, sizeof message.payload, up_to_quote(payload + 11)));
    return true;
}

// {"msgs":[{...},...]}. False when there is no list.
bool take_messages(persist_session_t &record, const char *text)
{
    record.msg_count = 0;
    const char *at   = strstr(text, "\"msgs\":[");
    if (!at)
        return false;
    char object[PERSIST_MSG_OBJECT_MAX + 1];
    while (record.msg_count < PERSIST_MSGS_MAX && (at = strchr(at, '{'))) {
        const char *const end = strchr(at, '}');
        if (!end)
            break;
        const auto length = std::min<size_t>(static_cast<size_t>(end + 1 - at), PERSIST_MSG_OBJECT_MAX);
        memcpy(object, at, length);
        object[length] = '\0';
        record.msg_count += take_message(record.msgs[record.msg_count], object);
        at = end + 1;
    }
    return true;
}

// ---- the three files

// What the file is about to be counts, if it is not saved yet. False when there is no such file.
bool read_small_file(Kind kind, const char *client_id, const Path &path, SessionText &text)
{
    owned<char> unsaved;
    switch (read_unsaved(kind, client_id, unsaved, PERSIST_TEXT_READ_MAX, sizeof text)) {
    case Unsaved::Removed:
        return false;
    case Unsaved::Text:
        if (unsaved)
            memcpy(text, unsaved.get(), sizeof text);
        return unsaved != nullptr;
    case Unsaved::No:
        break;
    }
    return read_file(path, text, PERSIST_TEXT_READ_MAX);
}

bool read_session_file(persist_session_t &record, const Path &path)
{
    SessionText text{};
    if (!read_small_file(Kind::Session, record.client_id, path, text))
        return false;
    take_session(record, text);
    return true;
}

bool read_subscription_file(persist_session_t &record, const Path &path, bool &has_list)
{
    SessionText text{};
    if (!read_small_file(Kind::Subscriptions, record.client_id, path, text))
        return false;
    has_list = take_subscriptions(record, text);
    return true;
}

Found::Messages take_listed(persist_session_t &record, const char *text)
{
    return take_messages(record, text) ? Found::Messages::Taken : Found::Messages::NoList;
}

// Messages of which an error left only the first are not taken at all: with those, the others would be overwritten.
Found::Messages read_message_file(persist_session_t &record, const Path &path, bool &unread)
{
    FILE *const file = open_file(path);
    if (!file) {
        unread = !says_there_is_none(errno);
        return Found::Messages::NoFile;
    }
    auto found = Found::Messages::NoMemory;
    if (const owned<char> text = allocate_zeroed<char>(kMessageTextRoom)) {
        const size_t got       = fread(text.get(), 1, PERSIST_MSGS_READ_MAX, file);
        unread                 = ferror(file) && !says_there_is_none(errno);
        text[unread ? 0 : got] = '\0';
        found                  = take_listed(record, text.get());
    }
    fclose(file);
    return found;
}

// Likewise.
Found::Messages read_messages(persist_session_t &record, const Path &path, bool &unread)
{
    owned<char> text;
    switch (read_unsaved(Kind::Messages, record.client_id, text, PERSIST_MSGS_READ_MAX, kMessageTextRoom)) {
    case Unsaved::Removed:
        return Found::Messages::NoFile;
    case Unsaved::Text:
        return text ? take_listed(record, text.get()) : Found::Messages::NoMemory;
    case Unsaved::No:
        break;
    }
    return read_message_file(record, path, unread);
}

} // namespace

Loaded read_session(persist_session_t &record, Found &found) noexcept
{
    if (!record.client_id[0])
        return Loaded::NoId;
    terminate_id(record);
    const owned<Path> path = allocate<Path>(1);
    if (!path)
        return Loaded::NoMemory;
    found.certainly_none = !may_have_files(record.client_id);
    if (found.certainly_none)
        return Loaded::Yes;
    const PersistLock lock;
    client_path(path[0], Kind::Session, record.client_id);
    found.session_file = read_session_file(record, path[0]);
    client_path(path[0], Kind::Subscriptions, record.client_id);
    found.subscription_file = read_subscription_file(record, path[0], found.subscription_list);
    client_path(path[0], Kind::Messages, record.client_id);
    found.messages = read_messages(record, path[0], found.messages_unread);
    return Loaded::Yes;
}

void count_and_log(const char *client_id, int32_t subscriptions, const Found &found) noexcept
{
    if (found.session_file)
        stats::count(stats::Counter::persist_read);
    if (found.subscription_list)
        LOG_INFO("[persist] ✅ 恢复订阅成功: %s 共 %d 条", client_id, subscriptions);
    if (found.messages != Found::Messages::NoFile)
        stats::count(stats::Counter::persist_read);

    switch (found.messages) {
    case Found::Messages::NoFile: {
        if (!log_passes(AGENT_LOG_DEBUG))
            break;
        Path path;
        client_path(path, Kind::Messages, client_id);
        LOG_DEBUG("[persist][定位] 无离线消息文件：%s", path.text);
        break;
    }
    case Found::Messages::NoMemory:
        LOG_ERROR("[persist] 内存分配失败");
        break;
    case Found::Messages::NoList:
        LOG_WARN("[persist][定位] 消息格式错误：找不到 msgs 节点");
        break;
    case Found::Messages::Taken:
        break;
    }
}

Loaded load_session(persist_session_t &record, Found &found) noexcept
{
    const Loaded loaded = read_session(record, found);
    if (loaded == Loaded::Yes)
        count_and_log(record.client_id, record.sub_count, found);
    return loaded;
}

bool keep_if_subscribed(persist_session_t &record) noexcept
{
    terminate_id(record);
    Path path;
    client_path(path, Kind::Subscriptions, record.client_id);
    SessionText text{};
    if (!read_small_file(Kind::Subscriptions, record.client_id, path, text))
        return false;
    stats::count(stats::Counter::persist_read);
    record.clean_session = 0;
    return true;
}

} // namespace tarn::persist
