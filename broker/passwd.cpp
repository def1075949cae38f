#include "passwd.h"

#include "access/users.h"
#include "file_lock.h"
#include "serve.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <string>
#include <termios.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <tarn_sdk_mqtt_broker/codec/mqtt_codec.h>

namespace tarn::broker {
namespace {

constexpr size_t kPasswordMax = sizeof(mqtt_connect_para_t::password) - 1; // bytes; the library takes no longer ones

int fail(const std::string &text)
{
    fprintf(stderr, "tarn-broker: %s\n", text.c_str());
    return kCannotServe;
}

// ---- reading a password

volatile sig_atomic_t g_signal; // that came while the terminal did not echo

void note_signal(int number)
{
    g_signal = number;
}

// No echo while this lives. Signals that end or stop the program come in only while it waits for input, so that none
// is missed, and act when the terminal is as it was.
class NoEcho {
public:
    NoEcho()
    {
        struct sigaction action {};
        action.sa_handler = note_signal;
        g_signal          = 0;
        sigset_t mine;
        sigemptyset(&mine);
        for (const int number : kNumbers)
            sigaddset(&mine, number);
        sigprocmask(SIG_BLOCK, &mine, &mask_before_);
        for (size_t i = 0; i < kSignals; ++i)
            sigaction(kNumbers[i], &action, &before_[i]);
        tcgetattr(STDIN_FILENO, &terminal_);
        termios quiet = terminal_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    }
    ~NoEcho()
    {
        tcsetattr(STDIN_FILENO, TCSANOW, &terminal_);
        fputc('\n', stderr); // the one that was typed was not shown
        for (size_t i = 0; i < kSignals; ++i)
            sigaction(kNumbers[i], &before_[i], nullptr);
        sigprocmask(SIG_SETMASK, &mask_before_, nullptr);
        if (g_signal)
            raise(g_signal);
    }
    NoEcho(const NoEcho &)            = delete;
    NoEcho &operator=(const NoEcho &) = delete;

    // Until there is something to read, or a signal (false).
    bool wait_for_input() const
    {
        pollfd input{STDIN_FILENO, POLLIN, 0};
        while (!g_signal)
            if (ppoll(&input, 1, nullptr, &mask_before_) >= 0 || errno != EINTR)
                return true;
        return false;
    }

private:
    static constexpr int    kNumbers[] = {SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGTSTP};
    static constexpr size_t kSignals   = sizeof kNumbers / sizeof kNumbers[0];
    struct sigaction        before_[kSignals];
    sigset_t                mask_before_;
    termios                 terminal_{};
};

// One line of standard input without its end; false when there is none, or a signal came.
bool read_line(std::string &line, const NoEcho *terminal = nullptr)
{
    line.clear();
    for (char c;;) {
        if (terminal && !terminal->wait_for_input())
            return false;
        const ssize_t count = read(STDIN_FILENO, &c, 1);
        if (count != 1)
            return count == 0 && !line.empty();
        if (c == '\n')
            return true;
        line += c;
    }
}

bool ask(const char *question, std::string &answer)
{
    fputs(question, stderr);
    const NoEcho quiet;
    return read_line(answer, &quiet);
}

std::string check_password(const std::string &password)
{
    if (password.empty())
        return "the password is empty";
    if (password.size() > kPasswordMax)
        return "the password has more than " + std::to_string(kPasswordMax) + " bytes";
    if (password.find('\0') != password.npos)
        return "the password contains a NUL character";
    return {};
}

std::string read_password(std::string &password)
{
    if (!isatty(STDIN_FILENO)) {
        if (!read_line(password))
            return "no password on standard input";
        return check_password(password);
    }
    std::string again;
    if (!ask("Password: ", password))
        return "no password was given";
    if (std::string mistake = check_password(password); !mistake.empty())
        return mistake;
    if (!ask("Once more: ", again) || again != password)
        return "the two passwords differ";
    return {};
}

// ---- the file

bool is_line_of(std::string_view line, std::string_view name)
{
    line = trimmed(line);
    return line.starts_with(name) && line.substr(name.size()).starts_with(':');
}

// The file's text, if it can be changed as wished. One that is not there yet is empty, unless a user is to be removed.
Mistake read_users(const std::string &path, const std::string &name, bool remove, std::string &text)
{
    text.clear();
    if (!remove && access(path.c_str(), F_OK) != 0 && errno == ENOENT)
        return {};
    Users users;
    if (Mistake mistake = read_file(path, text); !mistake.empty())
        return mistake;
    if (Mistake mistake = users.parse(path, text); !mistake.empty())
        return mistake;
    return remove && !users.has(name) ? path + " has no user '" + name + "'" : "";
}

std::string ask_for_hash(std::string &hash)
{
    std::string password;
    if (std::string mistake = read_password(password); !mistake.empty())
        return mistake;
    hash = hash_password(password);
    explicit_bzero(password.data(), password.size());
    return hash.empty() ? "the system cannot hash passwords with yescrypt" : "";
}

// To change a file of users, the directory it is in is locked: the file itself is replaced, and may not be there yet.
Mistake lock_directory_of(const std::string &path, FileLock &lock)
{
    const std::string target    = link_target(path);
    const size_t      slash     = target.rfind('/');
    const std::string directory = slash == target.npos ? "." : target.substr(0, slash + 1);
    if (lock.wait_for_directory(directory) || errno == ENOENT) // without a directory, writing fails and says so
        return {};
    return "cannot lock " + directory + ": " + strerror(errno);
}

// The file is read before the password is asked for, to tell its mistakes first, and again when others have to wait.
int change_file(const std::string &path, const std::string &name, bool remove)
{
    std::string text, hash;
    FileLock    lock;
    Mistake     mistake = read_users(path, name, remove, text);
    if (mistake.empty() && !remove)
        mistake = ask_for_hash(hash);
    if (mistake.empty())
        mistake = lock_directory_of(path, lock);
    if (mistake.empty())
        mistake = read_users(path, name, remove, text);
    if (mistake.empty())
        mistake = replace_file(path, with_user(text, name, hash));
    return mistake.empty() ? kEnded : fail(mistake);
}

} // namespace

std::string with_user(std::string_view text, std::string_view name, std::string_view hash)
{
    const std::string own = hash.empty() ? std::string() : std::string(name) + ':' + std::string(hash) + '\n';
    std::string       result;
    bool              placed = false;
    while (!text.empty()) {
        const size_t           end  = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (is_line_of(line, name)) {
            result += std::exchange(placed, true) ? "" : own;
        } else {
            result += line;
            result += '\n';
        }
    }
    return placed ? result : result + own;
}

int passwd_command(int argc, char *const *argv)
{
    std::vector<std::string> words(argv + 1, argv + argc);
    if (!words.empty() && words[0] == "--help") {
        fputs(kPasswdUsage, stdout);
        return kEnded;
    }
    const bool remove = !words.empty() && words[0] == "--delete";
    if (remove)
        words.erase(words.begin());
    if (!words.empty() && words[0] == "--")
        words.erase(words.begin());
    else if (!words.empty() && words[0].starts_with("-")) {
        fail("unknown option '" + words[0] + "'");
        words.clear();
    }
    if (words.size() != 2 || words[0].empty()) {
        fputs(kPasswdUsage, stderr);
        return kBadOption;
    }
    if (const Mistake mistake = check_user_name(words[1]); !mistake.empty()) {
        fail(mistake);
        return kBadOption;
    }
    return change_file(words[0], words[1], remove);
}

const char *const kPasswdUsage = "Usage: tarn-broker passwd FILE NAME            set a user's password\n"
                                 "       tarn-broker passwd --delete FILE NAME   take a user out\n";

} // namespace tarn::broker
