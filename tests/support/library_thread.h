// library_thread.h - runs something on a thread of the library, as some things differ there from a host's thread.
#ifndef TARN_TESTS_SUPPORT_LIBRARY_THREAD_H
#define TARN_TESTS_SUPPORT_LIBRARY_THREAD_H

#include "base/thread.h"

#include <functional>
#include <gtest/gtest.h>

namespace tarn::test {

// Returns when it is done.
inline void on_a_library_thread(const std::function<void()> &act)
{
    const auto body = [](void *arg) -> void * {
        (*static_cast<const std::function<void()> *>(arg))();
        return nullptr;
    };
    pthread_t thread = 0;
    ASSERT_EQ(start_thread(&thread, "tarn-test", body, const_cast<std::function<void()> *>(&act)), 0);
    join_or_detach(thread);
}

} // namespace tarn::test

#endif
