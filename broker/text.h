// text.h - texts that clients chose, written so that they cannot break what stands around them: as JSON strings, as
// words of the control socket, and as the lists of names in which the library gives them.
#ifndef TARN_BROKER_TEXT_H
#define TARN_BROKER_TEXT_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::broker {

// One character at the front of text, which is not empty.
struct Decoded {
    char32_t character; // kNoCharacter: the first byte begins none
    size_t   bytes;     // 1..4
};
constexpr char32_t kNoCharacter = 0xFFFFFFFF;
Decoded            decode_utf8(std::string_view text);
bool               is_utf8(std::string_view text); // all of it; the empty text too

// True for what moves a cursor, ends a line, turns the direction of what follows or is not seen: C0, DEL, C1, the two
// Unicode line ends and the bidirectional controls.
bool is_control(char32_t character);

// Nothing in it acts on a terminal: controls and bytes that are no UTF-8 are \n, \r, \t or \xHH, all else stays.
std::string escaped(std::string_view text);

// A JSON string with its quotes, always valid UTF-8 on one line: bytes that are none become U+FFFD, controls \uXXXX.
std::string json_string(std::string_view text);

// A word as split_words() reads it: plain where that can be, else in quotes with \" \\ \n \r \t and \xHH.
std::string quote_word(std::string_view word);

struct Words {
    std::vector<std::string> words;
    std::string              error; // empty when the line could be read
};
Words split_words(std::string_view line);

// What stands between the separators of a list, also nothing; an empty list has no pieces.
std::vector<std::string_view> pieces_of(std::string_view list, char separator);

// The names in a list of the library, in which a name may itself contain the separator: then the longest run of pieces
// that exists is taken for one. Names of up to max_bytes, each once, in the order of the list.
std::vector<std::string> names_in_list(std::string_view list, char separator, size_t max_bytes,
                                       const std::function<bool(const std::string &)> &exists);

} // namespace tarn::broker

#endif
