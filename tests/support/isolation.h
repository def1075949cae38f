// isolation.h - a directory and a network of its own for the calling process. Call before any thread starts.
#ifndef TARN_TESTS_ISOLATION_H
#define TARN_TESTS_ISOLATION_H

namespace tarn::test {

// Changes into a new empty directory, removed at exit, and enters a new network namespace with loopback up. Where the
// kernel refuses namespaces, takes a lock on the host instead, since port 1883 is one for all.
void isolate_process();

// Enters a new network namespace with loopback up; the sockets that are open stay where they are. False where the kernel
// refuses.
bool enter_new_network();

} // namespace tarn::test

#endif
