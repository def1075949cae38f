// spare_blocks.cpp - see spare_blocks.h.
#include "spare_blocks.h"

#include "../../base/thread.h"
#include "../../base/thread_end.h"

#include <cstdlib>
#include <new>
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
    bool   is_kept; // until the thread ends
};
constinit thread_local Spares t_spares{};

void free_all(void *of_thread)
{
    auto &spares = *static_cast<Spares *>(of_thread);
    for (Spare *&first : spares.first)
        while (first)
            free(std::exchange(first, first->next));
    spares.count   = 0;
    spares.is_kept = false;
}

bool keep(Spares &spares)
{
    return spares.is_kept || (spares.is_kept = AtThreadEnd<free_all>::note(&spares));
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
