#include "output.h"

#include "text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <unistd.h>

#include <tarn_sdk_mqtt_broker/log/agent_log.h>

namespace tarn::broker {
namespace {

bool is_plain_ascii(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < 0x7F; });
}

// Waits for the reader, as printing always did. What he does not take because he is gone is lost.
void write_out(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR)
            return;
        if (count > 0)
            bytes.remove_prefix(static_cast<size_t>(count));
    }
}

// Called under the stream's lock, so by one thread at a time.
ssize_t take_printed(void *lines, const char *bytes, size_t count)
{
    static_cast<PrintedLines *>(lines)->take({bytes, count});
    return static_cast<ssize_t>(count);
}

} // namespace

void PrintedLines::take(std::string_view piece)
{
    const bool ends = piece.ends_with('\n');
    if (ends && begun_.empty() && is_plain_ascii(piece.substr(0, piece.size() - 1))) {
        put_(piece);
        return;
    }
    begun_ += piece;
    if (ends)
        begun_.pop_back();
    else if (begun_.size() < kLineMax)
        return;
    put_(escaped(begun_) + '\n');
    begun_.clear();
}

// A stream without a buffer hands on what one printf makes as one piece; one that collects whole lines would not.
void escape_standard_output()
{
    static PrintedLines *const lines =
        new PrintedLines(write_out); // for good: the library's threads may print till the end
    fflush(stdout);
    FILE *const stream =
        fopencookie(lines, "w", {.read = nullptr, .write = take_printed, .seek = nullptr, .close = nullptr});
    if (!stream)
        return; // out of memory before anything began; the start will fail of it
    setvbuf(stream, nullptr, _IONBF, 0);
    stdout = stream;
}

void log_warning(const std::string &text)
{
    char stamp[64];
    platform_get_localtime_str(stamp, sizeof stamp);
    printf("[%s] [WARN] %s\n", stamp, text.c_str());
}

} // namespace tarn::broker
