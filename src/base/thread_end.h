// thread_end.h - frees what a thread keeps when the thread ends, by a key.
//
// A thread_local with a destructor would do so too, but to note the destructor the C library allocates, and where that
// fails it ends the process.
#ifndef TARN_BASE_THREAD_END_H
#define TARN_BASE_THREAD_END_H

#include <pthread.h>

namespace tarn {

// One key for each `Free`, made with its first use.
template <void (*Free)(void *of_thread)> class AtThreadEnd {
public:
    // Free(of_thread) is called when the calling thread ends. False: it will not be, since there is no key left (a process
    // has 1024 of them) or no memory.
    [[nodiscard]] static bool note(void *of_thread) noexcept
    {
        pthread_once(&once_, make_key);
        return has_key_ && pthread_setspecific(key_, of_thread) == 0;
    }

private:
    static void make_key() { has_key_ = pthread_key_create(&key_, Free) == 0; }

    static constinit inline pthread_once_t once_    = PTHREAD_ONCE_INIT;
    static constinit inline pthread_key_t  key_     = 0;
    static constinit inline bool           has_key_ = false;
};

} // namespace tarn

#endif
