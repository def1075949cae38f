// spare_blocks.cpp - see spare_blocks.h.
//
// What a thread keeps is freed when it ends, by a key: to note a destructor the C library allocates, and where that fails
// it ends the process.
#include "spare_blocks.h"

#include "../../base/thread.h"

#include <cstdlib>
#include <new>
#include <pthread.h>
#include <utility>

namespace tarn::standard {
namespace {

constexpr size_t kUnit  = 16;  // bytes; as malloc() rounds up
constexpr size_t kUnits = 32;  // of a block; a longer one is no spare
constexpr size_t kMost  = 256; // spares of a thread, so at most 128 KB

struct Spare {
    Spare *next;
};
struct Spares {
    Spare *first[kUnits + 1]; // by their units
    size_t count;
    bool   is_kept; // the key knows of them
};
constinit thread_local Spares t_spares{};

constinit pthread_once_t g_once    = PTHREAD_ONCE_INIT;
constinit pthread_key_t  g_key     = 0;
constinit bool           g_has_key = false; // a process has 1024 of them

void free_all(void *of_thread)
{
    auto &spares = *static_cast<Spares *>(of_thread);
    for (Spare *&first : spares.first)
        while (first)
            free(std::exchange(first, first->next));
    spares.count   = 0;
    spares.is_kept = false;
}

void make_key()
{
    g_has_key = pthread_key_create(&g_key, free_all) == 0;
}

bool keep(Spares &spares)
{
    if (spares.is_kept)
        return true;
    pthread_once(&g_once, make_key);
    return spares.is_kept = g_has_key && pthread_setspecific(g_key, &spares) == 0;
}

size_t units_of(size_t size)
{
    return (size + kUnit - 1) / kUnit;
}

} // namespace

void *take_block(size_t size) noexcept
{
    const size_t units  = units_of(size);
    Spares      &spares = t_spares;
    if (units > kUnits || !spares.first[units])
        return malloc(units * kUnit);
    --spares.count;
    return std::exchange(spares.first[units], spares.first[units]->next);
}

void give_back_block(void *block, size_t size) noexcept
{
    const size_t units  = units_of(size);
    Spares      &spares = t_spares;
    if (units > kUnits || spares.count == kMost || !on_library_thread() || !keep(spares))
        return free(block);
    spares.first[units] = new (block) Spare{spares.first[units]};
    ++spares.count;
}

} // namespace tarn::standard
