// ids.h - client ids. In the native profile two clients may share a bucket of the table of ids, and then one of them
// gets no messages (docs/deviations.md, one-id-a-bucket); so ids of clients that are to get some are chosen.
#ifndef TARN_BENCH_PERFORMANCE_IDS_H
#define TARN_BENCH_PERFORMANCE_IDS_H

#include <string>

namespace tarn::performance {

std::string receiver_id(); // another each time, whose bucket no other id of a receiver has
std::string crowd_id();    // another each time, whose bucket no id of a receiver has so far

} // namespace tarn::performance

#endif
