// log_capture.h - the log lines that the library prints while a LogCapture lives.
#ifndef TARN_TESTS_LOG_CAPTURE_H
#define TARN_TESTS_LOG_CAPTURE_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace tarn::test {

struct LogLine {
    std::string level; // "DEBUG" ... "FATAL"
    std::string text;
    bool        operator==(const LogLine &) const = default;
};
std::ostream &operator<<(std::ostream &out, const LogLine &line);

int rank_of(const LogLine &line); // 0 DEBUG ... 4 FATAL

// Builds one expected line: info("text"), error("text") ...
LogLine debug(std::string text);
LogLine info(std::string text);
LogLine warn(std::string text);
LogLine error(std::string text);
LogLine fatal(std::string text);

// A text with its values, as printf() makes it.
std::string printed(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Redirects standard output and sets the log level (and console output alone) until destroyed; the level and output
// before are put back. Threads of the library log too: compare whole sequences only while none of them runs.
class LogCapture {
public:
    explicit LogCapture(uint32_t level = 0);
    ~LogCapture();
    LogCapture(const LogCapture &)            = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LogLine> lines();                             // all so far
    std::vector<LogLine> take();                              // the same, then forgotten
    std::vector<LogLine> take_from(const std::string &level); // only lines of this level name or above, then forgotten
    bool                 has(const LogLine &line);
    int                  count(const LogLine &line);
    std::string          raw(); // standard output as printed

private:
    int      saved_stdout_;
    int      memory_;
    size_t   taken_ = 0;
    uint32_t saved_level_;
    uint32_t saved_output_;
};

} // namespace tarn::test

#endif
