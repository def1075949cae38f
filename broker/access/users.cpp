#include "users.h"

#include <crypt.h>
#include <memory>
#include <new>
#include <thread>

#include <tarn_sdk_mqtt_broker/codec/mqtt_codec.h>

namespace tarn::broker {
namespace {

constexpr size_t kNameMax = sizeof(mqtt_connect_para_t::username) - 1; // bytes; the library takes no longer ones

// yescrypt at its lowest cost: a few milliseconds and 1 MiB, which a guesser needs for each guess, too.
constexpr const char   *kMethod = "$y$";
constexpr unsigned long kCost   = 1;

std::string crypted(const std::string &password, const std::string &setting)
{
    const auto  data = std::make_unique<crypt_data>();
    const char *hash = crypt_r(password.c_str(), setting.c_str(), data.get());
    return hash && *hash != '*' ? hash : std::string();
}

// Hashing leaves a core to those who need none.
uint64_t hashed_at_once()
{
    return std::thread::hardware_concurrency() > 2 ? 2 : 1;
}

// Throws when there is no memory for the hashing, which must not count as a wrong password. What else could fail was
// looked at when the hash was read.
bool matches(const std::string &hash, const std::string &password)
{
    const std::string now = crypted(password, hash);
    if (now.empty() && !hash.empty())
        throw std::bad_alloc();
    return !now.empty() && equal_in_constant_time(now, hash);
}

std::string_view bytes_of(const Hash128 &hash)
{
    return {reinterpret_cast<const char *>(hash.data()), sizeof hash};
}

Mistake check_hash(const std::string &hash)
{
    if (hash.empty())
        return "the hash is missing";
    if (hash.find_first_of(": \t") != hash.npos)
        return "there is something behind the hash";
    switch (crypt_checksalt(hash.c_str())) {
    case CRYPT_SALT_OK:
        return {};
    case CRYPT_SALT_METHOD_LEGACY:
    case CRYPT_SALT_TOO_CHEAP:
        return "this kind of hash is too weak; make one with tarn-broker passwd";
    default:
        return "this is no password hash; make one with tarn-broker passwd";
    }
}

} // namespace

Mistake check_user_name(std::string_view name)
{
    if (name.empty())
        return "the user's name is empty";
    if (name.size() > kNameMax)
        return "the user's name has more than " + std::to_string(kNameMax) + " bytes";
    if (name.front() == '#' || name.find(':') != name.npos)
        return "a user's name may not begin with '#' or contain ':'";
    for (const char c : name)
        if (static_cast<unsigned char>(c) < ' ' || c == 0x7F)
            return "the user's name contains a control character";
    if (trimmed(name) != name)
        return "the user's name begins or ends with a space";
    return {};
}

std::string hash_password(const std::string &password)
{
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    if (!crypt_gensalt_rn(kMethod, kCost, nullptr, 0, setting, sizeof setting))
        return {};
    return crypted(password, setting);
}

Users::Users() : hashing_(hashed_at_once()) {}

Mistake Users::parse(const std::string &path, std::string_view text)
{
    Mistake mistake = for_each_line(path, text, [this](std::string_view line) { return take(line); });
    if (stand_in_.empty())
        stand_in_ = hash_password("-");
    return mistake;
}

Mistake Users::take(std::string_view line)
{
    const size_t colon = line.find(':');
    if (colon == line.npos)
        return "a line is NAME:HASH, and here is no ':'";
    const std::string name(line.substr(0, colon));
    const std::string hash(line.substr(colon + 1));
    if (Mistake mistake = check_user_name(name); !mistake.empty())
        return mistake;
    if (Mistake mistake = check_hash(hash); !mistake.empty())
        return mistake;
    if (!hashes_.emplace(name, hash).second)
        return "user '" + name + "' was there before";
    if (stand_in_.empty())
        stand_in_ = hash;
    return {};
}

bool Users::check(const std::string &name, const std::string &password)
{
    const auto         user  = hashes_.find(name);
    const bool         known = user != hashes_.end();
    const std::string &hash  = known ? user->second : stand_in_;
    const Hash128      now   = fingerprint(hash, password);
    if (known && is_last_right(name, now))
        return true;
    const bool right = [&] {
        const Turnstile::Pass pass(hashing_);
        return matches(hash, password);
    }() && known;
    if (right) {
        const std::lock_guard lock(mutex_);
        last_right_[name] = now;
    }
    return right;
}

bool Users::remembers(const std::string &name, const std::string &password)
{
    const auto user = hashes_.find(name);
    return user != hashes_.end() && is_last_right(name, fingerprint(user->second, password));
}

bool Users::is_last_right(const std::string &name, const Hash128 &fingerprint)
{
    const std::lock_guard lock(mutex_);
    const auto            last = last_right_.find(name);
    return last != last_right_.end() && equal_in_constant_time(bytes_of(last->second), bytes_of(fingerprint));
}

Hash128 Users::fingerprint(const std::string &hash, const std::string &password) const
{
    return keyed_hash(key_, hash + ':' + password); // no hash contains ':'
}

} // namespace tarn::broker
