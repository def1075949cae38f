// disk_watch.h - whether retained messages reach the disk. The library goes on without a word when it is full, and with
// a line a message when it cannot be written to; here it is said once, and once more when it is over.
#ifndef TARN_BROKER_DISK_WATCH_H
#define TARN_BROKER_DISK_WATCH_H

#include <chrono>
#include <string>

namespace tarn::broker {

class DiskWatch {
public:
    static constexpr std::chrono::seconds kPeriod{5}; // between two looks

    // Compares the file with what the library holds, and has it written again if they differ. Returns what there is to
    // say about it, empty when nothing has changed.
    std::string look();

private:
    bool failing_ = false;
};

} // namespace tarn::broker

#endif
