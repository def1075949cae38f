// profile.h - the engine's connections as the client manager's profile.
#ifndef TARN_STANDARD_PROFILE_H
#define TARN_STANDARD_PROFILE_H

#include "engine.h"

namespace tarn::standard {

const client::Profile &profile() noexcept;

void free_connections() noexcept; // of all handles; nothing serves any more

} // namespace tarn::standard

#endif
