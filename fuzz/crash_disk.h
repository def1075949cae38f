// crash_disk.h - the disk of the standard profile's journal, which can be full, and be looked at as after a kill.
//
// The linker leads standard::system_disk() here. Its files are the machine's, in memory, and nothing is synced. For one
// thread.
#ifndef TARN_FUZZ_CRASH_DISK_H
#define TARN_FUZZ_CRASH_DISK_H

#include <string>

namespace tarn::fuzz {

// A new directory in memory, which goes with the process.
std::string make_state_directory(const char *name);
void        remove_state(const std::string &directory);

// What a restart would find now if the process were killed.
void copy_state(const std::string &from, const std::string &to);

void set_disk_full(bool is_full);

} // namespace tarn::fuzz

#endif
