#include "files.h"

#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>

namespace tarn::test {

std::string file_text(const std::string &path)
{
    std::ifstream      file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void write_text(const std::string &path, std::string_view text)
{
    std::ofstream(path, std::ios::binary) << text;
}

unsigned mode_of(const std::string &path)
{
    return static_cast<unsigned>(std::filesystem::status(path).permissions());
}

size_t times_in(std::string_view text, std::string_view piece)
{
    size_t times = 0;
    for (size_t at = 0; (at = text.find(piece, at)) != text.npos; at += piece.size())
        ++times;
    return times;
}

bool mount_small_disk(const std::string &directory)
{
    std::filesystem::create_directory(directory);
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", directory.c_str(), "tmpfs", 0, kSmallDisk) == 0;
}

} // namespace tarn::test
