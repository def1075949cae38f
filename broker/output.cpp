#include "output.h"

#include "shortage.h"
#include "text.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <new>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tarn_sdk_mqtt_broker/log/agent_log.h>

namespace tarn::broker {
namespace {

bool is_plain_ascii(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < 0x7F; });
}

int64_t now_s()
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string warning_line(const std::string &text)
{
    char stamp[64];
    platform_get_localtime_str(stamp, sizeof stamp);
    return '[' + std::string(stamp) + "] [WARN] " + text;
}

std::string tell_lost_lines(uint64_t count)
{
    return warning_line(std::to_string(count) + " lines are missing here: the log was not read as fast as it came");
}

std::string tell_lost_errors(uint64_t count)
{
    return "tarn-broker: " + std::to_string(count) + " lines are missing here: they were not read in time";
}

bool are_one_file(int first, int second)
{
    struct stat a {
    }, b{};
    return fstat(first, &a) == 0 && fstat(second, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// What is printed when there is no queue any more: out if there is room.
void write_if_room(int fd, std::string_view bytes)
{
    pollfd room = {fd, POLLOUT, 0};
    if (poll(&room, 1, 0) > 0 && write(fd, bytes.data(), bytes.size()) < 0) {
        // nobody is left to be told
    }
}

} // namespace

void PrintedLines::take(std::string_view piece)
{
    const bool ends = piece.ends_with('\n');
    if (ends && begun_.empty()) {
        hand_on(piece.substr(0, piece.size() - 1));
        return;
    }
    begun_ += piece;
    if (ends)
        begun_.pop_back();
    else if (begun_.size() < kLineMax)
        return;
    hand_on(std::exchange(begun_, ""));
}

void PrintedLines::hand_on(std::string_view line)
{
    if (!wants_(line))
        return;
    if (is_plain_ascii(line))
        put_(line);
    else
        put_(escaped(line));
}

// The two streams are made once and for good: threads of the library may print till the end of the process. Each is
// without a buffer, so that what one printf makes comes as one piece.
struct Streams {
    static inline std::mutex g_mutex;  // also of what the output keeps of lines
    static inline Output    *g_output; // null = not queued; under g_mutex

    template <class Take> static ssize_t take(int fd, const char *bytes, size_t count, Take take_piece)
    {
        const std::lock_guard lock(g_mutex);
        unless_short([&] {
            if (g_output)
                take_piece(*g_output, std::string_view(bytes, count));
            else
                write_if_room(fd, {bytes, count});
        });
        return static_cast<ssize_t>(count);
    }
    static ssize_t take_output(void * /*cookie*/, const char *bytes, size_t count)
    {
        return take(STDOUT_FILENO, bytes, count,
                    [](Output &output, std::string_view piece) { output.printed_.take(piece); });
    }
    static ssize_t take_error(void * /*cookie*/, const char *bytes, size_t count)
    {
        return take(STDERR_FILENO, bytes, count,
                    [](Output &output, std::string_view piece) { output.take_error(piece); });
    }

    static FILE *open(cookie_write_function_t *write)
    {
        FILE *const stream =
            fopencookie(nullptr, "w", {.read = nullptr, .write = write, .seek = nullptr, .close = nullptr});
        if (!stream)
            throw std::bad_alloc();
        setvbuf(stream, nullptr, _IONBF, 0);
        return stream;
    }

    static void lead_to(Output *output)
    {
        static const bool opened = [] {
            FILE *const own_output = open(take_output), *const own_error = open(take_error);
            fflush(stdout);
            stdout = own_output;
            stderr = own_error;
            return true;
        }();
        (void)opened;
        const std::lock_guard lock(g_mutex);
        g_output = output;
    }
};

Output::Output(size_t lines_of_a_kind)
    : log_(std::make_shared<LineWriter>(STDOUT_FILENO, tell_lost_lines, LineWriter::Shared)),
      errors_(are_one_file(STDOUT_FILENO, STDERR_FILENO)
                  ? log_
                  : std::make_shared<LineWriter>(STDERR_FILENO, tell_lost_errors, LineWriter::Shared)),
      limit_(lines_of_a_kind,
             [this](uint64_t count, const std::string &kind) {
                 log_->write(
                     warning_line(std::to_string(count) + " more lines in one second that begin: " + escaped(kind)));
             }),
      printed_([this](std::string_view line) { return limit_.takes(line, now_s()); },
               [this](std::string_view line) { log_->write(line); })
{
    Streams::lead_to(this);
}

Output::~Output()
{
    tell_left_out(-1); // no second that is going on
    Streams::lead_to(nullptr);
}

void Output::end_second()
{
    tell_left_out(now_s());
}

void Output::tell_left_out(int64_t now_s)
{
    const std::lock_guard lock(Streams::g_mutex);
    unless_short([&] { limit_.begin_second(now_s); });
}

// This program's own words, in which each newline ends a line. A piece of whole lines, as nearly all are, needs no memory
// here.
void Output::take_error(std::string_view piece)
{
    for (size_t end; (end = piece.find('\n')) != piece.npos; piece.remove_prefix(end + 1)) {
        if (error_.empty()) {
            errors_->write(piece.substr(0, end));
            continue;
        }
        error_ += piece.substr(0, end);
        errors_->write(error_);
        error_.clear();
    }
    error_ += piece;
}

void log_warning(const std::string &text)
{
    printf("%s\n", warning_line(text).c_str());
}

} // namespace tarn::broker
