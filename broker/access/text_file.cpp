#include "text_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace tarn::broker {
namespace {

class File {
public:
    explicit File(int fd) : fd_(fd) {}
    ~File() { close(fd_); }
    File(const File &)            = delete;
    File &operator=(const File &) = delete;
    int   fd() const { return fd_; }

private:
    int fd_;
};

Mistake cannot(const char *what, const std::string &path)
{
    return std::string("cannot ") + what + " " + path + ": " + strerror(errno);
}

bool write_whole(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno != EINTR)
            return false;
        if (count > 0)
            text.remove_prefix(static_cast<size_t>(count));
    }
    return fsync(fd) == 0;
}

// A new file belongs to the user who runs this program; the broker that reads it may run as another user.
bool take_over_owner(int fd, const std::string &path)
{
    struct stat before, now;
    if (stat(path.c_str(), &before) != 0)
        return errno == ENOENT;
    return fstat(fd, &now) == 0 && ((before.st_uid == now.st_uid && before.st_gid == now.st_gid) ||
                                    fchown(fd, before.st_uid, before.st_gid) == 0);
}

} // namespace

Mistake read_file(const std::string &path, std::string &text)
{
    const File file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.fd() < 0)
        return cannot("read", path);
    text.clear();
    char buffer[4096];
    for (;;) {
        const ssize_t count = read(file.fd(), buffer, sizeof buffer);
        if (count == 0)
            return {};
        if (count > 0)
            text.append(buffer, static_cast<size_t>(count));
        else if (errno != EINTR)
            return cannot("read", path);
    }
}

std::string link_target(const std::string &path)
{
    const std::unique_ptr<char, void (*)(void *)> real(realpath(path.c_str(), nullptr), free);
    return real ? real.get() : path;
}

Mistake replace_file(const std::string &path, std::string_view text)
{
    const std::string target = link_target(path);
    std::string       beside = target + ".XXXXXX";
    const File        file(mkostemp(beside.data(), O_CLOEXEC)); // 0600
    if (file.fd() < 0)
        return cannot("make a file beside", target);
    if (take_over_owner(file.fd(), target) && write_whole(file.fd(), text) &&
        rename(beside.c_str(), target.c_str()) == 0)
        return {};
    Mistake mistake = cannot("write", target);
    unlink(beside.c_str());
    return mistake;
}

Mistake for_each_line(const std::string &path, std::string_view text,
                      const std::function<Mistake(std::string_view line)> &take)
{
    for (size_t number = 1; !text.empty(); ++number) {
        const size_t           end  = std::min(text.find('\n'), text.size());
        const std::string_view line = trimmed(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.empty() || line.front() == '#')
            continue;
        if (const Mistake mistake = take(line); !mistake.empty())
            return (path + ":").append(std::to_string(number)).append(": ").append(mistake);
    }
    return {};
}

std::string_view trimmed(std::string_view text)
{
    constexpr const char *kSpace = " \t\r";
    const size_t          first  = text.find_first_not_of(kSpace);
    if (first == text.npos)
        return {};
    return text.substr(first, text.find_last_not_of(kSpace) + 1 - first);
}

} // namespace tarn::broker
