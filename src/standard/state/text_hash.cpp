// text_hash.cpp - see text_hash.h.
#include "text_hash.h"

#include <cstdlib>
#include <cstring>
#include <sys/random.h>

namespace tarn::standard {
namespace {

struct State {
    uint64_t a, b, c, d;

    void round() noexcept
    {
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
    void take(uint64_t word) noexcept
    {
        d ^= word;
        round();
        a ^= word;
    }
    uint64_t finish() noexcept
    {
        c ^= 0xff;
        round();
        round();
        round();
        return a ^ b ^ c ^ d;
    }
};

// Up to eight bytes. Another order of bytes on another machine makes another hash, which is as good.
uint64_t word_of(std::string_view bytes) noexcept
{
    uint64_t word = 0;
    if (!bytes.empty())
        memcpy(&word, bytes.data(), bytes.size());
    return word;
}

} // namespace

TextHash::TextHash() noexcept
{
    uint64_t key[2];
    if (getrandom(key, sizeof key, 0) != sizeof key)
        abort(); // cannot happen: so few bytes are never interrupted
    key_low_  = key[0];
    key_high_ = key[1];
}

uint64_t TextHash::operator()(std::string_view text) const noexcept
{
    State          state{key_low_ ^ 0x736f6d6570736575, key_high_ ^ 0x646f72616e646f6d, key_low_ ^ 0x6c7967656e657261,
                key_high_ ^ 0x7465646279746573};
    const uint64_t size = text.size();
    for (; text.size() >= 8; text.remove_prefix(8)) {
        uint64_t word;
        memcpy(&word, text.data(), 8);
        state.take(word);
    }
    state.take(word_of(text) | size << 56);
    return state.finish();
}

} // namespace tarn::standard
