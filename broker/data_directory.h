// data_directory.h - ./broker_data, where sessions and messages are kept.
#ifndef TARN_BROKER_DATA_DIRECTORY_H
#define TARN_BROKER_DATA_DIRECTORY_H

#include "file_lock.h"

#include <string>

namespace tarn::broker {

class DataDirectory {
public:
    // Makes it this broker's alone for as long as the object lives, by a lock on broker_data/lock. Returns why sessions
    // and messages cannot be kept there, empty when they can.
    std::string take();

private:
    FileLock lock_;
};

} // namespace tarn::broker

#endif
