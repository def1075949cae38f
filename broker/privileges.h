// privileges.h - what the process may do to the machine: as whom it runs, where, and with how many files.
#ifndef TARN_BROKER_PRIVILEGES_H
#define TARN_BROKER_PRIVILEGES_H

#include <string>

namespace tarn::broker {

// Each returns what went wrong, empty when nothing did.

// Becomes this user for good: its ids, its groups, no capabilities. To be called before other threads start.
std::string become_user(const std::string &name);

// Whether sessions and messages could be kept in ./broker_data.
std::string check_data_directory();

} // namespace tarn::broker

#endif
