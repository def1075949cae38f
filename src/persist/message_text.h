// message_text.h - the text of a message file: {"msgs":[{...},...]}.
#ifndef TARN_PERSIST_MESSAGE_TEXT_H
#define TARN_PERSIST_MESSAGE_TEXT_H

#include "message_files.h"

namespace tarn::persist {

class MessageText {
public:
    void set(const persist_session_t &record) noexcept; // all of its messages

    bool                   ok() const noexcept { return text_.ok(); } // false: memory ran out
    const char            *c_str() noexcept { return text_.c_str(); }
    const GrowArray<char> &chars() const noexcept { return text_.chars(); }
    const Reread          &reread() const noexcept { return reread_; }

private:
    Text   text_;
    Reread reread_;
};

// What one message adds behind another: a comma, the message and the end of the text.
class LastMessage {
public:
    explicit LastMessage(const persist_msg_t &message) noexcept;

    // Adds the message behind those of `text` that a load would find, in place of what it would not. False, and nothing
    // is changed, without memory, when that is not known, or when it finds as many as there may be.
    [[nodiscard]] bool append_to(GrowArray<char> &text, Reread &reread) const noexcept;

private:
    Text   text_;
    size_t payload_; // where it begins
};

} // namespace tarn::persist

#endif
