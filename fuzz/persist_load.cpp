// persist_load.cpp - any bytes as one of a client's three files: loaded, written again and loaded once more.
//
// input:  which:u8  file      which: 0 session, 1 subscription, 2 message (modulo 3)
#include "memory_files.h"
#include "persist/persist.h"
#include "promise.h"

#include <cstddef>
#include <string>

using namespace tarn::fuzz;

namespace {

constexpr const char *kFiles[] = {"session/id.json", "subscription/id.json", "message/id.json"};

persist_session_t g_first, g_again;

template <class Entry> bool is_untouched(const Entry &entry)
{
    static const std::string all(sizeof entry, '\xEE');
    return memcmp(&entry, all.data(), sizeof entry) == 0;
}

// All 0xEE but the counts. Of its 150 KB only what the last load wrote is written again, which is behind no count.
void clear(persist_session_t &record)
{
    memset(static_cast<void *>(&record), 0xEE, offsetof(persist_session_t, subs));
    memset(static_cast<void *>(record.subs), 0xEE, sizeof record.subs[0] * static_cast<size_t>(record.sub_count));
    memset(static_cast<void *>(record.msgs), 0xEE, sizeof record.msgs[0] * static_cast<size_t>(record.msg_count));
    record.sub_count = record.msg_count = 0;
}

// Whatever the files hold, fields that no key names keep what they held.
void load(persist_session_t &record)
{
    clear(record);
    memcpy(record.client_id, "id", 3);
    record.clean_session = 0;
    PROMISE(persist_load(&record) == 0);
    PROMISE(strcmp(record.client_id, "id") == 0 && record.clean_session == 0);
    PROMISE(record.sub_count >= 0 && record.sub_count <= PERSIST_SUBS_MAX);
    PROMISE(record.msg_count >= 0 && record.msg_count <= PERSIST_MSGS_MAX);
    PROMISE(record.sub_count == PERSIST_SUBS_MAX || is_untouched(record.subs[record.sub_count]));
    PROMISE(record.msg_count == PERSIST_MSGS_MAX || is_untouched(record.msgs[record.msg_count]));
}

void check(const persist_session_t &record)
{
    for (int i = 0; i < record.sub_count; ++i)
        PROMISE(terminated(record.subs[i].topic));
    for (int i = 0; i < record.msg_count; ++i) {
        PROMISE(terminated(record.msgs[i].topic));
        PROMISE(record.msgs[i].payload_len <= PERSIST_MSG_PAYLOAD_MAX);
        PROMISE(record.msgs[i].store_time == 0);
    }
    if (record.will_flag == 1) {
        PROMISE(record.will_topic[0] == '\0' || record.will_topic[0] == '\xEE');
        PROMISE(record.will_qos == 0 || record.will_qos == 0xEE);
    }
    PROMISE(record.last_online == 0xEEEEEEEEEEEEEEEE && record.will_correlation_data[0] == 0xEE);
}

// What was read and written reads the same again, as far as it lies in the bytes that are read.
void check_subscriptions_again(persist_session_t &first, persist_session_t &again)
{
    persist_mark(&first, PERSIST_SUBSCRIPTIONS);
    load(again);
    const bool whole = size_of(kFiles[1]) <= PERSIST_TEXT_READ_MAX;
    PROMISE(first.sub_count == 0 || (whole ? again.sub_count == first.sub_count : again.sub_count <= first.sub_count));
    for (int i = 0; whole && i < first.sub_count; ++i) {
        PROMISE(strcmp(again.subs[i].topic, first.subs[i].topic) == 0);
        PROMISE(again.subs[i].qos == first.subs[i].qos);
    }
}

void check_messages_again(persist_session_t &first, persist_session_t &again)
{
    persist_mark(&first, PERSIST_MESSAGES);
    load(again);
    const bool whole = size_of(kFiles[2]) <= PERSIST_MSG_OBJECT_MAX; // of which no object is longer
    PROMISE(whole ? again.msg_count == first.msg_count : again.msg_count <= first.msg_count);
    for (int i = 0; whole && i < first.msg_count; ++i) {
        const persist_msg_t &was = first.msgs[i], &is = again.msgs[i];
        PROMISE(strcmp(is.topic, was.topic) == 0 && is.qos == was.qos && is.msgid == was.msgid);
        PROMISE(is.payload_len == was.payload_len && memcmp(is.payload, was.payload, was.payload_len) == 0);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    format_all_lines();
    enter_data_directory();
    g_first.sub_count = g_again.sub_count = PERSIST_SUBS_MAX; // to be cleared as a whole
    g_first.msg_count = g_again.msg_count = PERSIST_MSGS_MAX;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t which = data[0] % 3;
    remove_files();
    write_file(kFiles[which], data + 1, size - 1);

    load(g_first);
    check(g_first);
    if (which == 1)
        check_subscriptions_again(g_first, g_again);
    if (which == 2)
        check_messages_again(g_first, g_again);
    return 0;
}
