#include "pattern.h"

#include <algorithm>

namespace tarn::test {
namespace {

// Position of the next ".." that is not inside quotes.
size_t find_any(std::string_view transcript)
{
    bool quoted = false;
    for (size_t i = 0; i + 1 < transcript.size(); ++i) {
        quoted ^= transcript[i] == '\'';
        if (!quoted && transcript[i] == '.' && transcript[i + 1] == '.')
            return i;
    }
    return std::string_view::npos;
}

} // namespace

Pattern::Pattern(std::string_view transcript)
{
    for (size_t dots; (dots = find_any(transcript)) != std::string_view::npos; transcript.remove_prefix(dots + 2)) {
        append(wire(transcript.substr(0, dots)));
        bytes_.push_back(0);
        any_.push_back(true);
    }
    append(wire(transcript));
}

Pattern &Pattern::append(const Pattern &more)
{
    bytes_.insert(bytes_.end(), more.bytes_.begin(), more.bytes_.end());
    any_.insert(any_.end(), more.any_.begin(), more.any_.end());
    return *this;
}

bool Pattern::matches_front(const Bytes &got) const
{
    for (size_t i = 0; i < std::min(got.size(), bytes_.size()); ++i)
        if (!any_[i] && got[i] != bytes_[i])
            return false;
    return true;
}

Captured Pattern::capture(const Bytes &got) const
{
    Captured captured;
    for (size_t i = 0; i < bytes_.size(); ++i)
        if (any_[i])
            captured.bytes.push_back(got[i]);
    return captured;
}

std::string Pattern::text() const
{
    std::string out;
    for (size_t i = 0; i < bytes_.size(); ++i)
        out += (i ? " " : "") + (any_[i] ? std::string("..") : hex(&bytes_[i], 1));
    return out;
}

} // namespace tarn::test
