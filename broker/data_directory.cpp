#include "data_directory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace tarn::broker {
namespace {

bool can_write(const char *directory)
{
    struct stat status {};
    if (stat(directory, &status) == 0 && !S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return access(directory, R_OK | W_OK | X_OK) == 0;
}

std::string full_name(const char *place)
{
    const std::unique_ptr<char, void (*)(void *)> here(getcwd(nullptr, 0), free);
    return std::string(here ? here.get() : ".") + place;
}

std::string cannot_keep_sessions(const char *place)
{
    const std::string why = strerror(errno);
    return "cannot keep sessions in " + full_name(place) + ": " + why;
}

// Of what is not there yet the directory counts in which it will be made.
std::string check()
{
    if (access("broker_data", F_OK) != 0)
        return can_write(".") ? std::string() : cannot_keep_sessions("");
    for (const char *place :
         {"/broker_data", "/broker_data/session", "/broker_data/subscription", "/broker_data/message"})
        if (!can_write(place + 1) && errno != ENOENT)
            return cannot_keep_sessions(place);
    return {};
}

} // namespace

std::string DataDirectory::take()
{
    if (std::string mistake = check(); !mistake.empty())
        return mistake;
    if (mkdir("broker_data", 0700) != 0 && errno != EEXIST)
        return cannot_keep_sessions("");
    if (lock_.take_file("broker_data/lock"))
        return {};
    if (errno == EWOULDBLOCK)
        return "another broker keeps its sessions in " + full_name("/broker_data");
    return cannot_keep_sessions("/broker_data/lock");
}

} // namespace tarn::broker
