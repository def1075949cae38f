// process_state.h - what the kernel says about a process: threads, descriptors, processor time, memory.
#ifndef TARN_TESTS_PROCESS_STATE_H
#define TARN_TESTS_PROCESS_STATE_H

#include <cstddef>
#include <sys/types.h>

namespace tarn::test {

int    thread_count();         // of the calling process
int    descriptor_count();     // of the calling process
double cpu_seconds(pid_t pid); // user and system
size_t resident_bytes(pid_t pid);
bool   raise_descriptor_limit(size_t wanted); // for this process and those it starts; false when not allowed

} // namespace tarn::test

#endif
