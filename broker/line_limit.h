// line_limit.h - how many lines of one kind the log takes in a second. A client that sends the same wrong packet again
// and again makes the library write the same line each time; what is too much of one kind is counted and told in one
// line.
//
// What the library prints is text, its formats are not known here. Lines are of one kind when they begin alike: level
// and text up to the first digit, '=', quote, bracket behind a word, or colon that ends a word, where values begin.
#ifndef TARN_BROKER_LINE_LIMIT_H
#define TARN_BROKER_LINE_LIMIT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace tarn::broker {

// The part of a line, without its time, that all lines of its kind begin with: "[WARN] ACK decode".
std::string_view kind_of_line(std::string_view line);

class LineLimit {
public:
    static constexpr size_t kKindsMax = 1000; // in a second; what is beyond counts as one kind

    using TellMore = std::function<void(uint64_t count, const std::string &kind)>;

    // 0 lines = no limit. tell_more gets what a second left out.
    LineLimit(size_t lines, TellMore tell_more) : lines_(lines), tell_more_(std::move(tell_more)) {}

    // By one thread at a time. True when the line is to be written; time on a steady clock.
    bool takes(std::string_view line, int64_t now_s);

    // To be called when no line comes, and at the end: tells what the second before left out.
    void begin_second(int64_t now_s);

private:
    struct Count {
        size_t   told     = 0;
        uint64_t left_out = 0;
    };
    using Counts = std::map<std::string, Count, std::less<>>;

    Count &count_of(std::string_view kind);

    const size_t   lines_;
    const TellMore tell_more_;
    int64_t        second_ = -1;
    Counts         counts_; // of this second
};

} // namespace tarn::broker

#endif
