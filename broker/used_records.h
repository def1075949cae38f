// used_records.h - client records that do not come back by themselves. A will that is published in the moment its
// connection ends leaves its record used until the library is taken down; when all are, nobody can connect any more.
#ifndef TARN_BROKER_USED_RECORDS_H
#define TARN_BROKER_USED_RECORDS_H

#include <cstddef>

namespace tarn::broker {

size_t used_up_records(); // as the library has them now

class RecordWatch {
public:
    static constexpr size_t kTellPercent = 80, kEndPercent = 95;

    enum News { None, Many, AlmostAll }; // each told once

    explicit RecordWatch(size_t records) : records_(records) {}
    News look(size_t used_up);

private:
    const size_t records_;
    News         told_ = None;
};

} // namespace tarn::broker

#endif
