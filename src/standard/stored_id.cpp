// stored_id.cpp - see stored_id.h.
#include "stored_id.h"

#include "state/text_hash.h"

#include <atomic>
#include <cstdio>
#include <sys/random.h>

namespace tarn::standard {
namespace {

constexpr char kMark = '~';

} // namespace

bool is_stored_whole(std::string_view id) noexcept
{
    return id.size() <= CLIENT_ID_CHARS && !id.starts_with(kMark);
}

client_id_text stored_id(std::string_view id, const IdKey &key) noexcept
{
    client_id_text stored{};
    if (is_stored_whole(id)) {
        stored.text[id.copy(stored.text, CLIENT_ID_CHARS)] = '\0';
        return stored;
    }
    const TextHash high(key.words[0], key.words[1]), low(key.words[2], key.words[3]);
    snprintf(stored.text, sizeof stored.text, "%c%016llx%016llx", kMark, static_cast<unsigned long long>(high(id)),
             static_cast<unsigned long long>(low(id)));
    return stored;
}

client_id_text made_up_id() noexcept
{
    client_id_text               id{};
    static std::atomic<uint64_t> made{0};
    uint64_t                     number = 0;
    if (getrandom(&number, sizeof number, 0) != sizeof number)
        number = ++made; // which cannot happen: so few bytes are never interrupted
    snprintf(id.text, sizeof id.text, "auto_%llu", static_cast<unsigned long long>(number));
    return id;
}

bool make_key(IdKey &key) noexcept
{
    return getrandom(&key, sizeof key, 0) == sizeof key;
}

} // namespace tarn::standard
