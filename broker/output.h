// output.h - standard output while the broker serves. The library's log goes there as it is, with ids, filters and
// topics as clients chose them; so all that is printed passes through one place, line by line, and leaves it with
// nothing in it that acts on a terminal or looks like the beginning of another line.
#ifndef TARN_BROKER_OUTPUT_H
#define TARN_BROKER_OUTPUT_H

#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace tarn::broker {

// Makes lines of what is printed. The library prints a line of its log in one piece, so a newline ends a line only where
// it is the last byte of a piece; any other came from a client.
class PrintedLines {
public:
    static constexpr size_t kLineMax = 65536; // bytes; longer ones are handed on in parts

    using Put = std::function<void(std::string_view line)>; // escaped, with its newline

    explicit PrintedLines(Put put) : put_(std::move(put)) {}
    void take(std::string_view piece);

private:
    const Put   put_;
    std::string begun_; // a line whose end is still to come
};

// From now on everything that is printed to `stdout` is escaped, whichever descriptor is the standard output then. To
// be called once, before there are threads.
void escape_standard_output();

// A line of this program in the log, as the library's own are: "[time] [WARN] text". The text is escaped like theirs.
void log_warning(const std::string &text);

} // namespace tarn::broker

#endif
