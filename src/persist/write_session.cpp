// write_session.cpp - a client's three files from its session record.
#include "../base/text.h"
#include "message_files.h"

#include <algorithm>

namespace tarn::persist {
namespace {

const char *truth(uint8_t flag)
{
    return flag & 1 ? "true" : "false";
}

int subscriptions_in(const persist_session_t &record)
{
    return std::clamp<int>(record.sub_count, 0, PERSIST_SUBS_MAX);
}
int messages_in(const persist_session_t &record)
{
    return std::clamp<int>(record.msg_count, 0, PERSIST_MSGS_MAX);
}

// QUIRK(session-file-cut): the session file ends after 227 characters, usually inside the will; what lies behind is
// lost with a restart, although a session's will belongs to its state [MQTT-3.1.2-8]. The reader takes the keys it
// finds. One call that writes other files with it has a larger buffer for all, so the cut comes later; the broker
// itself writes one file at a time.
//   standard profile: lifted (sessions)
//   test: session_file.is_cut_at_227_characters, session_file.written_with_others_is_cut_where_their_buffer_ends
size_t session_characters(const persist_session_t &record, uint8_t what)
{
    int size = PERSIST_SESSION_TEXT_SIZE;
    if (what & PERSIST_SUBSCRIPTIONS)
        size += PERSIST_SUB_TEXT_SIZE * subscriptions_in(record);
    if (what & PERSIST_MESSAGES)
        size += PERSIST_MSG_TEXT_SIZE * messages_in(record);
    return static_cast<size_t>(size) - 1; // the last one is the terminator's
}

// These are false when the file is to be saved by the caller.
bool put_session(const persist_session_t &record, size_t characters)
{
    const auto will_bytes = std::min<uint32_t>(record.will_len, sizeof record.will_payload);

    Text text;
    text.append("{\"client_id\":\"");
    text.append_escaped(text_of(record.client_id));
    text.append_format("\",\"clean_session\":%s,\"clean_start\":%s,\"session_expiry_interval\":%u,",
                       truth(record.clean_session), truth(record.clean_start), record.session_expiry_interval);
    text.append_format("\"session_expiry_deadline\":%llu,\"last_online\":%llu,\"will_flag\":%s,\"will_topic\":\"",
                       static_cast<unsigned long long>(record.session_expiry_deadline),
                       static_cast<unsigned long long>(record.last_online), truth(record.will_flag));
    text.append_escaped(text_of(record.will_topic));
    text.append_format("\",\"will_qos\":%d,\"will_len\":%lu,\"will_payload\":\"", record.will_qos,
                       static_cast<unsigned long>(record.will_len));
    text.append_hex(record.will_payload, will_bytes);
    text.append_format("\",\"will_delay_interval\":%lu,\"will_msg_expiry_interval\":%lu,\"will_payload_format\":%d,",
                       static_cast<unsigned long>(record.will_delay_interval),
                       static_cast<unsigned long>(record.will_msg_expiry_interval), record.will_payload_format);
    text.append("\"will_content_type\":\"");
    text.append_escaped(text_of(record.will_content_type));
    text.append("\",\"will_response_topic\":\"");
    text.append_escaped(text_of(record.will_response_topic));
    text.append_format("\",\"will_correlation_len\":%lu}", static_cast<unsigned long>(record.will_correlation_len));
    text.cut(characters);
    return !text.ok() || put_text(Kind::Session, record.client_id, text);
}

bool put_subscriptions(const persist_session_t &record)
{
    const int count = subscriptions_in(record);
    if (count == 0)
        return true; // an old file stays

    Text text;
    text.append("{\"subs\":[");
    for (int i = 0; i < count; ++i) {
        text.append(i ? ",{\"topic\":\"" : "{\"topic\":\"");
        text.append_escaped(text_of(record.subs[i].topic));
        text.append_format("\",\"qos\":%d}", record.subs[i].qos);
    }
    text.append("]}");
    return !text.ok() || put_text(Kind::Subscriptions, record.client_id, text);
}

// The disk is waited for with no lock held.
template <class Put> void write(Kind kind, const persist_session_t &record, const Put &put)
{
    bool is_seen_to;
    {
        ScopedLock files(files_mutex(record.client_id));
        if (kind != Kind::Messages)
            forget_surroundings(record.client_id);
        is_seen_to = put();
    }
    if (!is_seen_to)
        save_file(kind, record.client_id);
}

} // namespace

void write_session(persist_session_t &record, uint8_t what) noexcept
{
    if (record.clean_session & 1)
        return;
    terminate_id(record);
    if (what & PERSIST_SESSION)
        write(Kind::Session, record, [&] { return put_session(record, session_characters(record, what)); });
    if (what & PERSIST_SUBSCRIPTIONS)
        write(Kind::Subscriptions, record, [&] { return put_subscriptions(record); });
    if (what & PERSIST_MESSAGES)
        write(Kind::Messages, record, [&] { return put_messages(record, nullptr); });
}

void save(persist_session_t &record, uint8_t what) noexcept
{
    if (record.client_id[0] && !(record.clean_session & 1))
        write_session(record, what);
}

} // namespace tarn::persist
