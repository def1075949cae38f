#include "shortage.h"

#include <atomic>

namespace tarn::broker {
namespace {

std::atomic<uint64_t> g_shortages;

} // namespace

void count_shortage() noexcept
{
    ++g_shortages;
}

uint64_t take_shortages() noexcept
{
    return g_shortages.exchange(0);
}

} // namespace tarn::broker
