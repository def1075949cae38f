// profile.h - whether this program serves the standard profile of the library: what is read from packets, tables and
// files of the native one is read in another way then. Set once, before there are threads.
#ifndef TARN_BROKER_PROFILE_H
#define TARN_BROKER_PROFILE_H

namespace tarn::broker {

inline bool g_serves_standard = false;

} // namespace tarn::broker

#endif
