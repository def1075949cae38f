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

LastMessage::LastMessage(const persist_msg_t &message) noexcept
{
    constexpr size_t kEnough = 1024; // but for long topics and payloads
    text_.reserve(kEnough);
    text_.append(",");
    append_object(text_, message);
    text_.append(kEnd);
}

bool LastMessage::append_to(GrowArray<char> &text, Reread &reread) const noexcept
{
    if (!text_.ok() || !reread.is_known() || reread.count >= PERSIST_MSGS_MAX)
        return false;
    const size_t left_out = reread.count > 0 ? 0 : 1; // the comma
    const size_t added    = text_.chars().size() - left_out;
    if (!text.reserve(reread.end + added))
        return false;
    const size_t end   = reread.end + added - kEnd.size();
    const size_t begin = reread.end + 1 - left_out;
    text.resize_down(reread.end);
    (void)text.append(text_.chars().data() + left_out, added);
    note_message(reread, reread.count, begin, end);
    return true;
}

} // namespace tarn::persist
