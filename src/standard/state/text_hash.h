// text_hash.h - hashes for tables. Clients choose topics and filters, so their hash has a key that no client knows.
#ifndef TARN_STANDARD_TEXT_HASH_H
#define TARN_STANDARD_TEXT_HASH_H

#include <bit>
#include <cstdint>
#include <string_view>

namespace tarn::standard {

// SipHash-1-3: nobody without the key finds texts that share a bucket.
class TextHash {
public:
    TextHash() noexcept; // with a random key
    TextHash(uint64_t key_low, uint64_t key_high) noexcept : key_low_(key_low), key_high_(key_high) {}

    uint64_t operator()(std::string_view text) const noexcept;

private:
    uint64_t key_low_;
    uint64_t key_high_;
};

// For numbers and addresses, which clients do not choose.
constexpr uint64_t hash_pair(uint64_t a, uint64_t b) noexcept
{
    uint64_t hash = (a * 0x9E3779B97F4A7C15) ^ b;
    hash          = (hash ^ hash >> 32) * 0xD6E8FEB86659FD93;
    return hash ^ hash >> 32;
}
inline uint64_t hash_pair(const void *a, const void *b) noexcept
{
    return hash_pair(std::bit_cast<uint64_t>(a), std::bit_cast<uint64_t>(b));
}

} // namespace tarn::standard

#endif
