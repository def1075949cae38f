#include "terminal.h"

#include "child.h"
#include "support/timing.h"

#include <csignal>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utility>

namespace tarn::test {

OnTerminal::OnTerminal(const std::vector<std::string> &command)
{
    const std::vector<char *> argv = words_of(command);
    pid_                           = forkpty(&fd_, nullptr, nullptr, nullptr);
    if (pid_ != 0)
        return;
    execvp(argv[0], argv.data());
    _exit(127);
}

OnTerminal::~OnTerminal()
{
    hang_up();
    if (pid_ < 0)
        return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

bool OnTerminal::shows(const std::string &text)
{
    while (shown_.find(text) == shown_.npos)
        if (!read_some())
            return false;
    return true;
}

bool OnTerminal::echoes() const
{
    termios terminal{};
    EXPECT_EQ(tcgetattr(fd_, &terminal), 0);
    return terminal.c_lflag & ECHO;
}

void OnTerminal::type(const std::string &text)
{
    EXPECT_EQ(write(fd_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

void OnTerminal::hang_up()
{
    if (fd_ >= 0)
        close(std::exchange(fd_, -1));
}

int OnTerminal::wait()
{
    while (read_some()) {}
    int status = 0;
    if (!wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }))
        return -1;
    pid_ = -1;
    return exit_code_of(status);
}

bool OnTerminal::read_some()
{
    char          some[256];
    const ssize_t count = fd_ < 0 ? 0 : read(fd_, some, sizeof some);
    if (count > 0)
        shown_.append(some, static_cast<size_t>(count));
    return count > 0;
}

} // namespace tarn::test
