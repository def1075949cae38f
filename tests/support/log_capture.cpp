#include "log_capture.h"

#include "base/relaxed.h"
#include "log/agent_log.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarn::test {
namespace {

constexpr std::array<const char *, 5> kLevels = {"DEBUG", "INFO", "WARN", "ERROR", "FATAL"};

int rank_of_level(const std::string &level)
{
    const auto at = std::find(kLevels.begin(), kLevels.end(), level);
    return at == kLevels.end() ? 99 : static_cast<int>(at - kLevels.begin());
}

// "[2026-01-31 23:59:59.042] [LEVEL] text": the length of the bracketed time with its blank.
constexpr size_t kStampChars = 26;

bool starts_line(const std::string &line)
{
    return line.size() > kStampChars + 2 && line[0] == '[' && line[5] == '-' && line[24] == ']' && line[26] == '[';
}

} // namespace

std::ostream &operator<<(std::ostream &out, const LogLine &line)
{
    return out << '[' << line.level << "] " << line.text;
}

int rank_of(const LogLine &line)
{
    return rank_of_level(line.level);
}

LogLine debug(std::string text)
{
    return {"DEBUG", std::move(text)};
}
LogLine info(std::string text)
{
    return {"INFO", std::move(text)};
}
LogLine warn(std::string text)
{
    return {"WARN", std::move(text)};
}
LogLine error(std::string text)
{
    return {"ERROR", std::move(text)};
}
LogLine fatal(std::string text)
{
    return {"FATAL", std::move(text)};
}

std::string printed(const char *format, ...)
{
    char    text[4096];
    va_list values;
    va_start(values, format);
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
    return text;
}

LogCapture::LogCapture(uint32_t level)
    : saved_level_(peek(g_log_config.level)), saved_output_(peek(g_log_config.output))
{
    fflush(stdout);
    saved_stdout_ = dup(STDOUT_FILENO);
    memory_       = memfd_create("log", MFD_CLOEXEC);
    dup2(memory_, STDOUT_FILENO);
    g_log_config.level  = level;
    g_log_config.output = uint32_t{AGENT_LOG_TO_CONSOLE};
}

LogCapture::~LogCapture()
{
    const std::string all = raw();
    dup2(saved_stdout_, STDOUT_FILENO);
    if (testing::Test::HasFailure()) // what failed was said there too
        fputs(all.c_str(), stdout);
    close(saved_stdout_);
    close(memory_);
    g_log_config.level  = saved_level_;
    g_log_config.output = saved_output_;
}

std::string LogCapture::raw()
{
    fflush(stdout);
    struct stat status {};
    fstat(memory_, &status);
    std::string   text(static_cast<size_t>(status.st_size), '\0');
    const ssize_t got = pread(memory_, text.data(), text.size(), 0);
    text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return text;
}

std::vector<LogLine> LogCapture::lines()
{
    std::vector<LogLine> found;
    const std::string    text = raw();
    for (size_t at = taken_; at < text.size();) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        const std::string line = text.substr(at, end - at);
        at                     = end + 1;
        if (!starts_line(line)) { // a message with a line break in it
            if (!found.empty())
                found.back().text += "\n" + line;
            continue;
        }
        const size_t close = line.find(']', kStampChars);
        found.push_back({line.substr(kStampChars + 1, close - kStampChars - 1), line.substr(close + 2)});
    }
    return found;
}

std::vector<LogLine> LogCapture::take()
{
    std::vector<LogLine> all = lines();
    taken_                   = raw().size();
    return all;
}

std::vector<LogLine> LogCapture::take_from(const std::string &level)
{
    std::vector<LogLine> all = take();
    std::erase_if(all, [&](const LogLine &line) { return rank_of(line) < rank_of_level(level); });
    return all;
}

bool LogCapture::has(const LogLine &line)
{
    return count(line) > 0;
}

int LogCapture::count(const LogLine &line)
{
    const std::vector<LogLine> all = lines();
    return static_cast<int>(std::count(all.begin(), all.end(), line));
}

} // namespace tarn::test
