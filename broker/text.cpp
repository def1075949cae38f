#include "text.h"

#include <algorithm>
#include <cstdio>
#include <cstdint>
#include <unordered_set>

namespace tarn::broker {
namespace {

std::string hex(const char *format, unsigned value)
{
    char text[16];
    snprintf(text, sizeof text, format, value);
    return text;
}

// The answer of a command ends with such a line, so no name may look like one.
bool looks_like_an_end(std::string_view word)
{
    return word == "ok" || word.starts_with("error:");
}

bool is_plain(std::string_view word)
{
    if (word.empty() || word.front() == '"' || looks_like_an_end(word))
        return false;
    for (std::string_view rest = word; !rest.empty();) {
        const Decoded next = decode_utf8(rest);
        if (next.character == kNoCharacter || next.character == ' ' || next.character == '\\' ||
            is_control(next.character))
            return false;
        rest.remove_prefix(next.bytes);
    }
    return true;
}

// Moves one character from the front of rest to result: as it is, or as \n, \r, \t or \xHH when it is a control or
// none.
void take_escaped(std::string_view &rest, std::string &result)
{
    const Decoded next = decode_utf8(rest);
    const char    c    = rest.front();
    if (c == '\n' || c == '\r' || c == '\t')
        result.append({'\\', c == '\n' ? 'n' : c == '\r' ? 'r' : 't'});
    else if (next.character == kNoCharacter || is_control(next.character))
        for (const char bad : rest.substr(0, next.bytes))
            result += hex("\\x%02x", static_cast<unsigned char>(bad));
    else
        result += rest.substr(0, next.bytes);
    rest.remove_prefix(next.bytes);
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// What stands behind a backslash; false when nobody knows it. Takes it from the front of rest.
bool take_escape(std::string_view &rest, std::string &word)
{
    constexpr std::string_view kLetters = "\"\\nrt", kMeanings = "\"\\\n\r\t";
    if (rest.empty())
        return false;
    const char letter = rest.front();
    rest.remove_prefix(1);
    if (const size_t at = kLetters.find(letter); at != kLetters.npos) {
        word += kMeanings[at];
        return true;
    }
    if (letter != 'x' || rest.size() < 2 || hex_digit(rest[0]) < 0 || hex_digit(rest[1]) < 0)
        return false;
    const int value = hex_digit(rest[0]) * 16 + hex_digit(rest[1]);
    rest.remove_prefix(2);
    word += static_cast<char>(value);
    return value != 0; // texts end at NUL in the library, so none may contain one
}

// rest begins behind the opening quote and ends behind the closing one. Returns what is wrong.
const char *take_quoted(std::string_view &rest, std::string &word)
{
    while (!rest.empty() && rest.front() != '"') {
        const char c = rest.front();
        rest.remove_prefix(1);
        if (c != '\\')
            word += c;
        else if (!take_escape(rest, word))
            return "in quotes \\ is followed by \" \\ n r t or x and two hex digits other than 00";
    }
    if (rest.empty())
        return "a quote is not closed";
    rest.remove_prefix(1);
    return rest.empty() || rest.front() == ' ' || rest.front() == '\t' ? "" : "a blank must follow a closing quote";
}

} // namespace

Decoded decode_utf8(std::string_view text)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto lead = byte(0);
    if (lead < 0x80)
        return {lead, 1};
    const size_t count = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < count)
        return {kNoCharacter, 1};
    char32_t character = lead & (0x7FU >> count);
    for (size_t i = 1; i < count; ++i) {
        if ((byte(i) & 0xC0) != 0x80)
            return {kNoCharacter, 1};
        character = character << 6 | (byte(i) & 0x3FU);
    }
    constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool         surrogate   = character >= 0xD800 && character < 0xE000;
    if (character < kSmallest[count] || character > 0x10FFFF || surrogate)
        return {kNoCharacter, 1};
    return {character, count};
}

bool is_utf8(std::string_view text)
{
    const auto is_ascii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
    text.remove_prefix(static_cast<size_t>(std::find_if_not(text.begin(), text.end(), is_ascii) - text.begin()));
    while (!text.empty()) {
        const Decoded next = decode_utf8(text);
        if (next.character == kNoCharacter)
            return false;
        text.remove_prefix(next.bytes);
    }
    return true;
}

bool is_control(char32_t character)
{
    const auto within = [character](char32_t first, char32_t last) { return character >= first && character <= last; };
    return character < 0x20 || within(0x7F, 0x9F) || character == 0x061C || within(0x200E, 0x200F) ||
           within(0x2028, 0x202E) || within(0x2066, 0x2069);
}

std::string escaped(std::string_view text)
{
    std::string result;
    while (!text.empty())
        take_escaped(text, result);
    return result;
}

std::string json_string(std::string_view text)
{
    std::string json = "\"";
    while (!text.empty()) {
        const Decoded next = decode_utf8(text);
        if (next.character == kNoCharacter)
            json += "\xEF\xBF\xBD";
        else if (next.character == '"' || next.character == '\\')
            json.append({'\\', static_cast<char>(next.character)});
        else if (is_control(next.character))
            json += hex("\\u%04x", next.character);
        else
            json += text.substr(0, next.bytes);
        text.remove_prefix(next.bytes);
    }
    return json + '"';
}

std::string quote_word(std::string_view word)
{
    if (is_plain(word))
        return std::string(word);
    std::string quoted = "\"";
    while (!word.empty()) {
        if (word.front() == '"' || word.front() == '\\')
            quoted += '\\';
        take_escaped(word, quoted);
    }
    return quoted + '"';
}

Words split_words(std::string_view line)
{
    Words result;
    for (;;) {
        line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
        if (line.empty())
            return result;
        std::string word;
        if (line.front() == '"') {
            line.remove_prefix(1);
            result.error = take_quoted(line, word);
            if (!result.error.empty())
                return result;
        } else {
            const size_t end = std::min(line.find_first_of(" \t"), line.size());
            word             = line.substr(0, end);
            line.remove_prefix(end);
        }
        result.words.push_back(std::move(word));
    }
}

std::vector<std::string_view> pieces_of(std::string_view list, char separator)
{
    std::vector<std::string_view> pieces;
    if (list.empty())
        return pieces;
    for (size_t end; (end = list.find(separator)) != list.npos; list.remove_prefix(end + 1))
        pieces.push_back(list.substr(0, end));
    pieces.push_back(list);
    return pieces;
}

std::vector<std::string> names_in_list(std::string_view list, char separator, size_t max_bytes,
                                       const std::function<bool(const std::string &)> &exists)
{
    const std::vector<std::string_view>        pieces = pieces_of(list, separator);
    std::vector<std::string>                   names;
    const std::unordered_set<std::string_view> plain(pieces.begin(), pieces.end());
    if (plain.size() == pieces.size() &&
        std::all_of(pieces.begin(), pieces.end(), [&](std::string_view piece) { return exists(std::string(piece)); })) {
        names.assign(pieces.begin(), pieces.end()); // the usual case
        return names;
    }

    std::unordered_set<std::string> seen;
    for (size_t from = 0; from < pieces.size();) {
        size_t      taken = 0;
        std::string run, longest;
        for (size_t count = 1; from + count <= pieces.size(); ++count) {
            run += pieces[from + count - 1];
            if (run.size() > max_bytes)
                break;
            if (!seen.contains(run) && exists(run)) {
                taken   = count;
                longest = run;
            }
            run += separator;
        }
        if (taken > 0) {
            seen.insert(longest);
            names.push_back(longest);
        }
        from += std::max<size_t>(taken, 1);
    }
    return names;
}

} // namespace tarn::broker
