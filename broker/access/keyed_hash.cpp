#include "keyed_hash.h"

#include <bit>
#include <cstdlib>
#include <sys/random.h>

namespace tarn::broker {
namespace {

struct State {
    uint64_t a, b, c, d;

    void rounds(int count)
    {
        while (count-- > 0) {
            a += b;
            b = std::rotl(b, 13) ^ a;
            a = std::rotl(a, 32);
            c += d;
            d = std::rotl(d, 16) ^ c;
            a += d;
            d = std::rotl(d, 21) ^ a;
            c += b;
            b = std::rotl(b, 17) ^ c;
            c = std::rotl(c, 32);
        }
    }
    void take(uint64_t word)
    {
        d ^= word;
        rounds(2);
        a ^= word;
    }
    uint64_t finish()
    {
        rounds(4);
        return a ^ b ^ c ^ d;
    }
};

uint64_t little_endian(std::string_view bytes)
{
    uint64_t word = 0;
    for (size_t i = 0; i < bytes.size(); ++i)
        word |= uint64_t{static_cast<uint8_t>(bytes[i])} << 8 * i;
    return word;
}

} // namespace

Hash128 keyed_hash(const HashKey &key, std::string_view text)
{
    State          state{key[0] ^ 0x736f6d6570736575, key[1] ^ 0x646f72616e646f6d ^ 0xee, key[0] ^ 0x6c7967656e657261,
                key[1] ^ 0x7465646279746573};
    const uint64_t size = text.size();
    for (; text.size() >= 8; text.remove_prefix(8))
        state.take(little_endian(text.substr(0, 8)));
    state.take(little_endian(text) | size << 56);
    state.c ^= 0xee;
    const uint64_t first = state.finish();
    state.b ^= 0xdd;
    return {first, state.finish()};
}

HashKey random_key()
{
    HashKey key;
    if (getrandom(key.data(), sizeof key, 0) != sizeof key)
        abort(); // cannot happen: so few bytes are never interrupted
    return key;
}

bool equal_in_constant_time(std::string_view left, std::string_view right)
{
    if (left.size() != right.size())
        return false;
    unsigned difference = 0;
    for (size_t i = 0; i < left.size(); ++i)
        difference |= static_cast<unsigned>(static_cast<uint8_t>(left[i]) ^ static_cast<uint8_t>(right[i]));
    return difference == 0;
}

} // namespace tarn::broker
