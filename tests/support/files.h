// files.h - files and texts of a test.
#ifndef TARN_TESTS_FILES_H
#define TARN_TESTS_FILES_H

#include <cstddef>
#include <string>
#include <string_view>

namespace tarn::test {

std::string file_text(const std::string &path); // empty when there is no such file
void        write_text(const std::string &path, std::string_view text);
unsigned    mode_of(const std::string &path); // permissions alone, as 0600

size_t times_in(std::string_view text, std::string_view piece);

// Mounts an empty disk at a new directory, for this process and those it starts; to be remounted with the same options.
// False when the kernel refuses.
constexpr const char *kSmallDisk = "size=128k";
bool                  mount_small_disk(const std::string &directory);

} // namespace tarn::test

#endif
