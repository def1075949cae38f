// process.h - what another process costs.
#ifndef TARN_BENCH_PERFORMANCE_PROCESS_H
#define TARN_BENCH_PERFORMANCE_PROCESS_H

#include <sys/types.h>

namespace tarn::performance {

double processor_s(pid_t process);   // all its threads have run so far, in user and kernel mode
double private_bytes(pid_t process); // memory that it shares with no other process, resident now

} // namespace tarn::performance

#endif
