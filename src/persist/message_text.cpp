// message_text.cpp - see message_text.h.
#include "message_text.h"

#include "../base/text.h"

#include <algorithm>

namespace tarn::persist {
namespace {

constexpr std::string_view kBegin = "{\"msgs\":[";
constexpr std::string_view kEnd   = "]}";

void append_object(Text &text, const persist_msg_t &message)
{
    text.append_format("{\"msgid\":%d,\"qos\":%d,\"topic\":\"", message.msgid, message.qos);
    text.append_escaped(text_of(message.topic), true);
    text.append("\",\"payload\":\"");
    text.append_hex(message.payload, std::min<uint32_t>(message.payload_len, sizeof message.payload));
    text.append("\"}");
}

// One more message stands in the text, from `begin` to `end`. A load takes what it finds up to the first that it does
// not read to its end; one that it reads in part comes back as something else.
void note_message(Reread &reread, int number, size_t begin, size_t end)
{
    if (!reread.is_known() || reread.count != number || end > PERSIST_MSGS_READ_MAX)
        return;
    if (end - begin > PERSIST_MSG_OBJECT_MAX)
        reread = {};
    else
        reread = {end, number + 1};
}

} // namespace

void MessageText::set(const persist_session_t &record) noexcept
{
    const int count = std::clamp<int>(record.msg_count, 0, PERSIST_MSGS_MAX);
    text_.append(kBegin);
    reread_ = {kBegin.size(), 0};
    for (int number = 0; number < count; ++number) {
        if (number > 0)
            text_.append(",");
        const size_t begin = text_.chars().size();
        append_object(text_, record.msgs[number]);
        note_message(reread_, number, begin, text_.chars().size());
    }
    text_.append(kEnd);
}

bool append_to(GrowArray<char> &text, Reread &reread, const persist_msg_t &message) noexcept
{
    if (!reread.is_known() || reread.count >= PERSIST_MSGS_MAX)
        return false;
    constexpr size_t kEnough = 1024; // but for long topics and payloads
    Text             object;
    object.reserve(kEnough);
    if (reread.count > 0)
        object.append(",");
    const size_t begin = reread.end + object.chars().size();
    append_object(object, message);
    const size_t end = reread.end + object.chars().size();
    object.append(kEnd);
    if (!object.ok() || !text.reserve(reread.end + object.chars().size()))
        return false;
    text.resize_down(reread.end);
    (void)text.append(object.chars().data(), object.chars().size());
    note_message(reread, reread.count, begin, end);
    return true;
}

} // namespace tarn::persist
