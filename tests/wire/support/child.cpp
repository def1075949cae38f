#include "child.h"
#include "support/timing.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace tarn::test {
namespace {

void redirect(int to, const char *name, int flags)
{
    const int fd = open(name, flags | O_CLOEXEC, 0644);
    if (fd < 0 || dup2(fd, to) < 0)
        _exit(127);
}

bool comes(const Child &child, const std::string &text, std::string (Child::*where)() const)
{
    const auto there = [&] { return (child.*where)().find(text) != std::string::npos; };
    return wait_until([&] { return there() || child.ended(); }) && there();
}

} // namespace

std::string tail(const std::string &text, int lines)
{
    size_t from = text.size();
    for (int i = 0; i <= lines && from != std::string::npos && from > 0; ++i)
        from = text.rfind('\n', from - 1);
    return from == std::string::npos || from >= text.size() ? text : text.substr(from + (from ? 1 : 0));
}

std::vector<char *> words_of(const std::vector<std::string> &command)
{
    std::vector<char *> words;
    for (const std::string &word : command)
        words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    return words;
}

int exit_code_of(int status)
{
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

Child::Child(const std::string &name, const std::vector<std::string> &command) : name_(name)
{
    const std::string         out = name + ".log", err = name + ".err";
    const std::vector<char *> argv = words_of(command);
    for (const std::string &file : {out, err}) // of an earlier one: what it said must not be taken for this one's
        unlink(file.c_str());

    pid_ = fork();
    if (pid_ != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    redirect(STDIN_FILENO, "/dev/null", O_RDONLY);
    redirect(STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC);
    redirect(STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC);
    execvp(argv[0], argv.data());
    _exit(127);
}

Child::Child(Child &&other) noexcept
{
    *this = std::move(other);
}

Child &Child::operator=(Child &&other) noexcept
{
    std::swap(name_, other.name_);
    std::swap(pid_, other.pid_);
    return *this;
}

Child::~Child()
{
    if (running())
        wait(0);
}

bool Child::ended() const
{
    siginfo_t info{};
    return !running() ||
           (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0);
}

void Child::signal(int number) const
{
    if (running())
        kill(pid_, number);
}

int Child::exit_code_if_ended()
{
    int         status = 0;
    const pid_t ended  = waitpid(pid_, &status, WNOHANG);
    if (ended == 0)
        return -1;
    pid_ = -1;
    return exit_code_of(status);
}

int Child::wait(int limit_ms)
{
    int code = -1;
    if (!running() || wait_until([&] { return (code = exit_code_if_ended()) >= 0; }, limit_ms))
        return code;
    kill(pid_, SIGKILL);
    waitpid(std::exchange(pid_, -1), nullptr, 0);
    return -1;
}

bool prints(const Child &child, const std::string &text)
{
    return comes(child, text, &Child::output);
}

bool says(const Child &child, const std::string &text)
{
    return comes(child, text, &Child::errors);
}

} // namespace tarn::test
