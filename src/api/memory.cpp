// memory.cpp - gives memory that clients have left behind back to the system.
#include "../client/client.hpp"
#include "../qos/qos.hpp"
#include "../sub/sub.hpp"
#include "api_internal.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace tarn::api {
namespace {

constexpr size_t kWorthTrimming = 4u << 20; // bytes of the heap that pending deliveries have left over

// The heap keeps what is freed for its next use. To look through it takes milliseconds, during which other threads may
// wait for memory, so it is done only when much was freed.
void trim_heap()
{
#if defined(__GLIBC__)
    (void)malloc_trim(0);
#endif
}

} // namespace

void give_back_memory()
{
    const int32_t blocks = client::give_back_unused_blocks();
    client::give_back_unused_rings();
    sub::give_back_unused_entries();
    if (qos::bytes_left_over() >= kWorthTrimming || blocks > 0)
        trim_heap();
}

} // namespace tarn::api
