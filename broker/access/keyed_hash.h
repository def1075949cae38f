// keyed_hash.h - SipHash-2-4 with 128 bits: who does not know the key can neither foresee a result nor make two alike.
#ifndef TARN_BROKER_ACCESS_KEYED_HASH_H
#define TARN_BROKER_ACCESS_KEYED_HASH_H

#include <array>
#include <cstdint>
#include <string_view>

namespace tarn::broker {

using HashKey = std::array<uint64_t, 2>;
using Hash128 = std::array<uint64_t, 2>;

Hash128 keyed_hash(const HashKey &key, std::string_view text);
HashKey random_key();

// Takes the same time wherever they differ.
bool equal_in_constant_time(std::string_view left, std::string_view right);

} // namespace tarn::broker

#endif
