#include "client.h"

#include "../text.h"
#include "address.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

namespace tarn::broker {
namespace {

enum Status { kWell = 0, kFailed = 1, kMisused = 2 };

constexpr char kUsage[] = "Usage: tarn-broker ctl PATH [COMMAND [ARGUMENT]...]\n"
                          "Sends a command to the broker that was started with --control PATH; the command 'help'\n"
                          "lists them. Without one, commands are read from standard input, a line each.\n";

// Bytes from a descriptor, cut into lines.
class Lines {
public:
    explicit Lines(int fd) : fd_(fd) {}

    // Without the newline; nothing at the end. Waits, but with `other` no longer than until that one can be read.
    std::optional<std::string> next(int other = -1)
    {
        for (;;) {
            const size_t end = text_.find('\n');
            if (end != text_.npos || (ended_ && !text_.empty())) {
                std::string line = text_.substr(0, end);
                text_.erase(0, end == text_.npos ? end : end + 1);
                return line;
            }
            if (ended_ || !wait(other))
                return {};
            char          bytes[4096];
            const ssize_t count = read(fd_, bytes, sizeof bytes);
            if (count > 0)
                text_.append(bytes, static_cast<size_t>(count));
            else if (count == 0 || errno != EINTR)
                ended_ = true;
        }
    }

private:
    bool wait(int other) const
    {
        pollfd fds[] = {{fd_, POLLIN, 0}, {other, POLLIN, 0}};
        while (poll(fds, 2, -1) < 0 && errno == EINTR) {}
        return fds[1].revents == 0 || fds[0].revents != 0;
    }

    int         fd_;
    bool        ended_ = false;
    std::string text_;
};

int connect_to(const char *path)
{
    sockaddr_un address;
    if (!unix_address(path, address)) {
        fprintf(stderr, "tarn-broker: %s: the path is too long\n", path);
        return -1;
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return fd;
    fprintf(stderr, "tarn-broker: %s: %s\n", path, strerror(errno));
    close(fd);
    return -1;
}

bool send_all(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count > 0)
            bytes.remove_prefix(static_cast<size_t>(count));
        else if (errno != EINTR)
            return false;
    }
    return true;
}

enum class End { Ok, Error, Lost };

// Sends a line and prints the answer. A single command's "ok" is told by the exit status alone.
End ask(int fd, Lines &answers, const std::string &line, bool show_ok)
{
    send_all(fd, line + '\n'); // when it fails, there may still be a last word to read
    while (const std::optional<std::string> answer = answers.next()) {
        if (*answer == "ok") {
            if (show_ok)
                puts("ok");
            return End::Ok;
        }
        if (answer->starts_with("error: ")) {
            fflush(stdout);
            fprintf(stderr, "%s\n", answer->c_str());
            return End::Error;
        }
        puts(answer->c_str());
    }
    return End::Lost;
}

// Unasked, that is a last word or the end.
bool broker_speaks(int fd)
{
    char byte;
    return recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 || errno != EAGAIN;
}

int tell_lost()
{
    fflush(stdout);
    fprintf(stderr, "tarn-broker: the broker has closed the connection\n");
    return kFailed;
}

int run_command(int fd, int argc, char **argv)
{
    std::string line;
    for (int i = 0; i < argc; ++i)
        line += (i > 0 ? " " : "") + quote_word(argv[i]);
    Lines     answers(fd);
    const End end = ask(fd, answers, line, false);
    return end == End::Lost ? tell_lost() : end == End::Ok ? kWell : kFailed;
}

int run_lines(int fd)
{
    const bool prompts = isatty(STDIN_FILENO) && isatty(STDOUT_FILENO);
    Lines      answers(fd), commands(STDIN_FILENO);
    int        status = kWell;
    for (;;) {
        if (prompts)
            fputs("tarn> ", stdout);
        fflush(stdout);
        const std::optional<std::string> line = commands.next(fd);
        if (!line && broker_speaks(fd)) {
            while (const std::optional<std::string> last = answers.next())
                fprintf(stderr, "%s\n", last->c_str());
            return tell_lost();
        }
        if (!line || *line == "quit" || *line == "exit")
            break;
        const End end = ask(fd, answers, *line, true);
        if (end == End::Lost)
            return tell_lost();
        if (end == End::Error)
            status = kFailed;
    }
    if (prompts)
        putchar('\n');
    return status;
}

} // namespace

int run_console(int argc, char **argv)
{
    if (argc < 2 || argv[1][0] == '-') {
        const bool asked = argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0);
        fputs(kUsage, asked ? stdout : stderr);
        return asked ? kWell : kMisused;
    }
    const int fd = connect_to(argv[1]);
    if (fd < 0)
        return kFailed;
    const int status = argc > 2 ? run_command(fd, argc - 2, argv + 2) : run_lines(fd);
    close(fd);
    return status;
}

} // namespace tarn::broker
