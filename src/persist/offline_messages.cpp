// offline_messages.cpp - keeping a message for a client that is away, and taking one back.
#include "../base/clock.h"
#include "../base/text.h"
#include "../log/log.h"
#include "message_files.h"
#include "offline_message.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace tarn::persist {
namespace {

// Stored messages have identifiers of their own, 1..65535, from a generator of their own: rand() belongs to the host.
uint16_t draw_message_id() noexcept
{
    static constinit Mutex    seed_mutex{};
    static constinit uint32_t seed = 0; // under seed_mutex; 0 = not yet seeded
    ScopedLock                lock(seed_mutex);
    if (seed == 0)
        seed = static_cast<uint32_t>(wall_ms()) | 1;
    return static_cast<uint16_t>(static_cast<uint32_t>(rand_r(&seed)) % 65535 + 1);
}

// The place of a new message; the oldest one goes when all are taken.
// QUIRK(offline-bounds): an absent client is kept a hundred messages at most, the first 1024 bytes of each, and none
// without a payload, although all belong to its session [MQTT-4.5.0-1]: they are one small file, written anew each
// time. How many of them come back is another matter, see files-read-in-part.
//   standard profile: lifted (sessions): limits that a host can set bound it; beyond them the newest is not kept
//   test: limits.the_100th_message_drops_none_and_the_101st_the_oldest, limits.payloads_are_stored_up_to_1024_bytes
persist_msg_t &place_for_one(persist_session_t &record)
{
    if (record.msg_count < PERSIST_MSGS_MAX)
        return record.msgs[record.msg_count++];
    LOG_WARN("[persist][定位] 离线消息溢出，丢弃最早一条: %s", record.client_id);
    memmove(&record.msgs[0], &record.msgs[1], sizeof record.msgs[0] * (PERSIST_MSGS_MAX - 1));
    return record.msgs[PERSIST_MSGS_MAX - 1];
}

} // namespace

// QUIRK(offline-unexpiring): a kept message has no expiry interval: it is delivered however long its client was away,
// and without one [MQTT-3.3.2-5, MQTT-3.3.2-6]. The file has no room for it.
//   standard profile: lifted (sessions)
//   test: golden.message_file
void make_message(persist_msg_t &message, const char *topic, const uint8_t *payload, uint32_t payload_len,
                  uint8_t qos) noexcept
{
    memset(&message, 0, sizeof message);
    message.qos   = qos;
    message.msgid = draw_message_id();
    copy_text(message.topic, topic, sizeof message.topic - 1);
    message.payload_len = std::min<uint32_t>(payload_len, PERSIST_MSG_PAYLOAD_MAX);
    memcpy(message.payload, payload, message.payload_len);
    message.store_time = static_cast<uint64_t>(wall_s());
}

bool LockedSession::add_message(const char *topic, const uint8_t *payload, uint32_t payload_len, uint8_t qos) noexcept
{
    if (!is_known())
        return false;
    make_message(place_for_one(*record_), topic, payload, payload_len, qos);
    write_messages();
    return true;
}

void LockedSession::write_messages() noexcept
{
    if (!record_->client_id[0])
        return;
    if (!found_.messages_unread) {
        const Surroundings around = {true, found_, record_->sub_count, {stamps_[0], stamps_[1], stamps_[2]}};
        saves_                    = !put_messages(*record_, &around);
        return;
    }
    Path path;
    client_path(path, Kind::Messages, record_->client_id);
    path.usable = false;
    safe_write(path, "");
}

bool LockedSession::remove_message(uint16_t msgid) noexcept
{
    if (!is_loaded() || !is_known())
        return false;
    auto       &messages = record_->msgs;
    auto       &count    = record_->msg_count;
    auto *const end      = std::remove_if(messages, messages + count,
                                          [&](const persist_msg_t &message) { return message.msgid == msgid; });
    count                = static_cast<int32_t>(end - messages);
    write_messages();
    return true;
}

} // namespace tarn::persist
