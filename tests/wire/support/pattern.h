// pattern.h - expected bytes in which ".." stands for any one byte, as in "32 07 | 00 01 'a' | .. .. | 'hi'".
#ifndef TARN_TESTS_WIRE_PATTERN_H
#define TARN_TESTS_WIRE_PATTERN_H

#include "support/wire.h"

namespace tarn::test {

// The bytes that stood where the pattern said "..", in order.
struct Captured {
    Bytes    bytes;
    unsigned id(size_t index = 0) const // the index-th pair of them as a packet identifier, 0 when there is none
    {
        return bytes.size() < 2 * index + 2 ? 0u : unsigned{bytes[2 * index]} << 8 | bytes[2 * index + 1];
    }
};

class Pattern {
public:
    Pattern(std::string_view transcript);
    Pattern(const char *transcript) : Pattern(std::string_view(transcript)) {}
    Pattern(Bytes exact) : bytes_(std::move(exact)), any_(bytes_.size()) {}

    size_t      size() const { return bytes_.size(); }
    bool        matches_front(const Bytes &got) const; // as far as both reach
    Captured    capture(const Bytes &got) const;
    std::string text() const;
    Pattern    &append(const Pattern &more);

private:
    Bytes             bytes_;
    std::vector<bool> any_;
};

} // namespace tarn::test

#endif
