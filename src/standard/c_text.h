// c_text.h - a text with a terminator, for callbacks of the host.
#ifndef TARN_STANDARD_C_TEXT_H
#define TARN_STANDARD_C_TEXT_H

#include "../base/memory.h"

#include <string_view>

namespace tarn::standard {

// Short ones take no memory.
class CText {
public:
    explicit CText(std::string_view text) noexcept
    {
        char *to = short_;
        if (text.size() >= sizeof short_) {
            long_ = allocate<char>(text.size() + 1);
            to    = long_.get();
        }
        if (to)
            to[text.copy(to, text.size())] = '\0';
        text_ = to;
    }
    CText(const CText &)            = delete;
    CText &operator=(const CText &) = delete;

    explicit    operator bool() const noexcept { return text_ != nullptr; } // false: there was no memory
    const char *get() const noexcept { return text_; }

private:
    char        short_[256];
    owned<char> long_;
    const char *text_;
};

} // namespace tarn::standard

#endif
