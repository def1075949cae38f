// output.h - standard output and standard error while the broker serves.
//
// The library's log goes to standard output as it is, with ids, filters and topics as clients chose them; so all that
// is printed passes through one place, line by line, and leaves it with nothing in it that acts on a terminal or looks
// like the beginning of another line.
//
// Nobody who prints ever waits for a reader: lines go into a bounded queue, and a thread writes them. What a reader who
// is too slow makes no room for is lost and counted, and of lines that begin alike only so many a second are written.
#ifndef TARN_BROKER_OUTPUT_H
#define TARN_BROKER_OUTPUT_H

#include "line_limit.h"
#include "line_writer.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace tarn::broker {

// Makes lines of what is printed. The library prints a line of its log in one piece, so a newline ends a line only where
// it is the last byte of a piece; any other came from a client.
class PrintedLines {
public:
    static constexpr size_t kLineMax = 65536; // bytes; longer ones are handed on in parts

    using Wants = std::function<bool(std::string_view line)>; // as it was printed; what is not wanted costs no more
    using Put   = std::function<void(std::string_view line)>; // escaped, without its newline

    PrintedLines(Wants wants, Put put) : wants_(std::move(wants)), put_(std::move(put)) {}
    void take(std::string_view piece);

private:
    void hand_on(std::string_view line);

    const Wants wants_;
    const Put   put_;
    std::string begun_; // a line whose end is still to come
};

// From now on all that is printed to `stdout` and `stderr` goes through queues, to whatever these two descriptors are at
// the time. To be made once, before there are other threads. Throws when there is no memory or no thread.
class Output {
public:
    explicit Output(size_t lines_of_a_kind); // in a second, 0 = no limit
    // Writes what waits, as far as that is possible in time. What is printed later goes out if there is room at once.
    ~Output();
    Output(const Output &)            = delete;
    Output &operator=(const Output &) = delete;

    void end_second(); // to be called every second: tells what the limit left out

private:
    void tell_left_out(int64_t now_s);
    void take_error(std::string_view piece);

    const std::shared_ptr<LineWriter> log_;
    const std::shared_ptr<LineWriter> errors_; // the same one where both are the same file, to keep their order
    LineLimit                         limit_;  // under the mutex of Streams, as the next two
    PrintedLines                      printed_;
    std::string                       error_; // begun

    friend struct Streams;
};

// A line of this program in the log, as the library's own are: "[time] [WARN] text". The text is escaped like theirs.
void log_warning(const std::string &text);

} // namespace tarn::broker

#endif
