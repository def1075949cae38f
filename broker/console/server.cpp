#include "server.h"

#include "address.h"
#include "../shortage.h"
#include "commands.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace tarn::broker {
namespace {

int64_t now_s()
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int new_socket()
{
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

// Removes a socket that nobody listens to. Returns why the path cannot be used, or "".
std::string make_way(const std::string &path, const sockaddr_un &address)
{
    struct stat there {};
    if (lstat(path.c_str(), &there) != 0)
        return ""; // nothing there, or bind tells
    if (!S_ISSOCK(there.st_mode))
        return "there is something that is no socket";
    const int fd     = new_socket();
    const int result = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const int error  = result == 0 ? 0 : errno;
    close(fd);
    if (error != ECONNREFUSED)
        return error == 0 || error == EAGAIN ? "another program listens there" : strerror(error);
    return unlink(path.c_str()) == 0 || errno == ENOENT ? "" : strerror(errno);
}

} // namespace

ConsoleServer::~ConsoleServer()
{
    while (!consoles_.empty())
        close_console(consoles_.begin());
    if (listen_fd_ < 0)
        return;
    loop_.forget(listen_fd_);
    close(listen_fd_);
    struct stat there {};
    if (lstat(path_.c_str(), &there) == 0 && there.st_dev == device_ && there.st_ino == inode_)
        unlink(path_.c_str());
}

std::string ConsoleServer::open(const std::string &path)
{
    sockaddr_un address;
    if (!unix_address(path, address))
        return "the path is longer than " + std::to_string(sizeof address.sun_path - 1) + " bytes";
    if (std::string fault = make_way(path, address); !fault.empty())
        return fault;

    const int    fd     = new_socket();
    const mode_t before = umask(0177); // 0600 from the first moment on
    const bool   bound  = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    const int    error  = errno;
    umask(before);
    struct stat made {};
    if (!bound || lstat(path.c_str(), &made) != 0 || listen(fd, kConsolesMax) != 0) {
        close(fd);
        return strerror(bound ? errno : error);
    }
    listen_fd_ = fd;
    path_      = path;
    device_    = made.st_dev;
    inode_     = made.st_ino;
    return "";
}

void ConsoleServer::serve(broker_t *broker)
{
    broker_ = broker;
    loop_.on_readable(listen_fd_, [this] { accept_console(); });
    loop_.every(std::chrono::seconds(10), [this] { close_stalled(); });
}

void ConsoleServer::accept_console()
{
    const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0)
        return;
    if (consoles_.size() >= kConsolesMax) {
        constexpr char kFull[] = "error: too many consoles\n";
        send(fd, kFull, sizeof kFull - 1, MSG_DONTWAIT | MSG_NOSIGNAL);
        close(fd);
        return;
    }
    if (!unless_short([&] { consoles_.push_back(Console{fd, "", "", now_s()}); })) {
        close(fd);
        return;
    }
    const Place console = std::prev(consoles_.end());
    if (!unless_short([&] { loop_.on_readable(fd, guarded(&ConsoleServer::receive, console)); }))
        close_console(console);
}

Loop::Act ConsoleServer::guarded(Act act, Place console)
{
    return [this, act, console] {
        if (!unless_short([&] { (this->*act)(console); }))
            close_console(console);
    };
}

void ConsoleServer::receive(Place console)
{
    char          bytes[4096];
    const ssize_t count = recv(console->fd, bytes, sizeof bytes, 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count < 0) {
        close_console(console);
        return;
    }
    console->ended = count == 0;
    console->line.append(bytes, static_cast<size_t>(count));
    if (console->ended && !console->line.empty())
        console->line += '\n'; // what came before the end is a line as well
    turn(console);
}

// One command at a time: then it is the turn of the others, and of signals.
void ConsoleServer::turn(Place console)
{
    if (!send_answer(*console)) {
        close_console(console);
        return;
    }
    if (console->answer.empty() && !answer_next(*console)) {
        if (console->ended) {
            close_console(console);
        } else {
            loop_.forget(console->fd);
            loop_.on_readable(console->fd, guarded(&ConsoleServer::receive, console));
        }
        return;
    }
    loop_.forget(console->fd);
    loop_.on_writable(console->fd, guarded(&ConsoleServer::turn, console));
}

bool ConsoleServer::answer_next(Console &console)
{
    const size_t end = console.line.find('\n');
    if (std::min(end, console.line.size()) > kLineMax) {
        console.answer = "error: the line is longer than " + std::to_string(kLineMax) + " bytes\n";
        console.line.clear();
        console.ended = true;
    } else if (end == console.line.npos) {
        return false;
    } else {
        console.answer = answer_command(broker_, std::string_view(console.line).substr(0, end));
        console.line.erase(0, end + 1);
    }
    console.moved_at_s = now_s();
    return true;
}

bool ConsoleServer::send_answer(Console &console)
{
    while (!console.answer.empty()) {
        const ssize_t count = send(console.fd, console.answer.data(), console.answer.size(), MSG_NOSIGNAL);
        if (count < 0)
            return errno == EAGAIN || errno == EINTR;
        console.answer.erase(0, static_cast<size_t>(count));
        console.moved_at_s = now_s();
    }
    return true;
}

void ConsoleServer::close_console(Place console)
{
    loop_.forget(console->fd);
    close(console->fd);
    consoles_.erase(console);
}

void ConsoleServer::close_stalled()
{
    for (Place next = consoles_.begin(); next != consoles_.end();) {
        const Place console = next++;
        if (!console->answer.empty() && now_s() - console->moved_at_s > kPatience_s)
            close_console(console);
    }
}

} // namespace tarn::broker
