#include "line_limit.h"

#include <algorithm>
#include <utility>

namespace tarn::broker {
namespace {

constexpr size_t           kKindBytes = 64;
constexpr std::string_view kManyKinds = "[of many kinds]";

// "[2026-01-31 23:59:59.042] " is not part of a kind.
std::string_view without_time(std::string_view line)
{
    const size_t end = line.find("] [");
    return line.starts_with("[2") && end != line.npos ? line.substr(end + 2) : line;
}

bool is_blank_or_end(std::string_view text, size_t at)
{
    return at >= text.size() || text[at] == ' ';
}

// Whether a value may begin here. Brackets at the front of a line are tags.
bool ends_kind(std::string_view text, size_t at)
{
    const char c = text[at];
    if ((c >= '0' && c <= '9') || c == '=' || c == '\'' || c == '"' || c == '(')
        return true;
    if (c == '[')
        return at > 0 && text[at - 1] != ' ' && text[at - 1] != ']';
    constexpr std::string_view kWideColon = "：", kWideBracket = "（";
    if (text.substr(at).starts_with(kWideBracket))
        return true;
    return (c == ':' && is_blank_or_end(text, at + 1)) || text.substr(at).starts_with(kWideColon);
}

} // namespace

std::string_view kind_of_line(std::string_view line)
{
    const std::string_view text = without_time(line);
    const size_t           most = std::min(text.size(), kKindBytes);
    size_t                 end  = 0;
    while (end < most && !ends_kind(text, end))
        ++end;
    return text.substr(0, end);
}

bool LineLimit::takes(std::string_view line, int64_t now_s)
{
    if (lines_ == 0)
        return true;
    begin_second(now_s);
    Count &count = count_of(kind_of_line(line));
    if (count.told < lines_) {
        ++count.told;
        return true;
    }
    ++count.left_out;
    return false;
}

void LineLimit::begin_second(int64_t now_s)
{
    if (now_s == second_)
        return;
    second_            = now_s;
    const Counts ended = std::exchange(counts_, {});
    for (const auto &[kind, count] : ended)
        if (count.left_out > 0)
            tell_more_(count.left_out, kind);
}

LineLimit::Count &LineLimit::count_of(std::string_view kind)
{
    if (const auto found = counts_.find(kind); found != counts_.end())
        return found->second;
    return counts_[std::string(counts_.size() < kKindsMax ? kind : kManyKinds)];
}

} // namespace tarn::broker
