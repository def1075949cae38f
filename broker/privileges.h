// privileges.h - what the process may do to the machine: as whom it runs.
#ifndef TARN_BROKER_PRIVILEGES_H
#define TARN_BROKER_PRIVILEGES_H

#include <string>

namespace tarn::broker {

// Becomes this user for good: its ids, its groups, no capabilities. To be called before other threads start. Returns
// what went wrong, empty when nothing did.
std::string become_user(const std::string &name);

} // namespace tarn::broker

#endif
