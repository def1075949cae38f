// thread.h - how the library starts and ends its own threads.
#ifndef TARN_BASE_THREAD_H
#define TARN_BASE_THREAD_H

#include <pthread.h>

namespace tarn {

// What the scheduler does to the thread that runs when this one wakes up on its processor. One that is to wait begins at
// once on an idle processor, else when the other sleeps or has had its time slice: for work that may be some milliseconds
// late, such as that of the clock, or that comes in heaps and is cheaper together.
enum class WakesUp : bool { ToPreempt, ToWait };

// Starts a thread with a 1 MiB stack (packet handling is deep but never holds big records), a name for debuggers
// (15 characters at most, a constant) and every asynchronous signal blocked, so that the host's handlers run on the
// host's threads. A scheduling policy that the host chose for its own thread is inherited and stays. Returns 0 or the
// errno value of the failure.
int start_thread(pthread_t *handle, const char *name, void *(*body)(void *), void *arg,
                 WakesUp wakes_up = WakesUp::ToPreempt) noexcept;

// True on a thread that start_thread made.
bool on_library_thread() noexcept;

// Waits for a thread to end; a thread that would wait for itself is detached instead.
void join_or_detach(pthread_t handle) noexcept;

} // namespace tarn

#endif
