// message_text.cpp - see message_text.h.
#include "message_text.h"

#include "../base/text.h"

#include <algorithm>

namespace tarn::persist {
namespace {

constexpr std::string_view kBegin = "{\"msgs\":[";
constexpr std::string_view kEnd   = "]}";

constexpr std::string_view kEmptied = "\"}"; // behind where a payload begins

// Returns where the payload begins.
size_t append_object(Text &text, const persist_msg_t &message)
{
    text.append_format("{\"msgid\":%d,\"qos\":%d,\"topic\":\"", message.msgid, message.qos);
    text.append_escaped(text_of(message.topic), true);
    text.append("\",\"payload\":\"");
    const size_t payload = text.chars().size();
    text.append_hex(message.payload, std::min<uint32_t>(message.payload_len, sizeof message.payload));
    text.append("\"}");
    return payload;
}

struct Extent {
    size_t begin;
    size_t payload;
    size_t end;
};

// One more message stands in the text. A load takes what it finds up to the first that it does not read to its end; of
// one that it reads in part the payload comes back empty, or nothing if its topic is that long.
void note_message(Reread &reread, int number, const Extent &message)
{
    if (!reread.is_known() || reread.count != number || message.end > PERSIST_MSGS_READ_MAX)
        return;
    const bool is_cut = message.end - message.begin > PERSIST_MSG_OBJECT_MAX;
    if (reread.is_empty || (is_cut && message.payload - message.begin > PERSIST_MSG_OBJECT_MAX))
        reread = {};
    else
        reread = {is_cut ? message.payload : message.end, number + 1, is_cut};
}

} // namespace

void MessageText::set(const persist_session_t &record) noexcept
{
    const int count = std::clamp<int>(record.msg_count, 0, PERSIST_MSGS_MAX);
    text_.append(kBegin);
    reread_ = {kBegin.size()};
    for (int number = 0; number < count; ++number) {
        if (number > 0)
            text_.append(",");
        const size_t begin   = text_.chars().size();
        const size_t payload = append_object(text_, record.msgs[number]);
        note_message(reread_, number, {begin, payload, text_.chars().size()});
    }
    text_.append(kEnd);
}

LastMessage::LastMessage(const persist_msg_t &message) noexcept
{
    constexpr size_t kEnough = 1024; // but for long topics and payloads
    text_.reserve(kEnough);
    text_.append(",");
    payload_ = append_object(text_, message);
    text_.append(kEnd);
}

bool LastMessage::append_to(GrowArray<char> &text, Reread &reread) const noexcept
{
    if (!text_.ok() || !reread.is_known() || reread.count >= PERSIST_MSGS_MAX)
        return false;
    const std::string_view emptied  = reread.is_empty ? kEmptied : "";
    const size_t           last_end = reread.end + emptied.size();
    const size_t           left_out = reread.count > 0 ? 0 : 1; // the comma
    const size_t           added    = text_.chars().size() - left_out;
    if (!text.reserve(last_end + added))
        return false;
    text.resize_down(reread.end);
    (void)text.append(emptied.data(), emptied.size());
    (void)text.append(text_.chars().data() + left_out, added);
    reread = {last_end, reread.count};
    note_message(reread, reread.count,
                 {last_end + 1 - left_out, last_end + payload_ - left_out, last_end + added - kEnd.size()});
    return true;
}

} // namespace tarn::persist
