#include "ids.h"

#include <bitset>
#include <cstdint>
#include <cstdio>

namespace tarn::performance {
namespace {

constexpr unsigned kBuckets = 11000;

std::bitset<kBuckets> g_taken; // by receivers
unsigned              g_number = 0;

unsigned bucket_of(const std::string &id)
{
    uint32_t hash = 0;
    for (const char c : id)
        hash = hash * 31 + static_cast<uint8_t>(c);
    return hash % kBuckets;
}

std::string next_id()
{
    char id[16];
    do
        snprintf(id, sizeof id, "client-%07u", g_number++);
    while (g_taken[bucket_of(id)]);
    return id;
}

} // namespace

std::string receiver_id()
{
    std::string id = next_id();
    g_taken.set(bucket_of(id));
    return id;
}

std::string crowd_id()
{
    return next_id();
}

} // namespace tarn::performance
