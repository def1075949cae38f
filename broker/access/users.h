// users.h - the file of users, "NAME:HASH" a line, and the question whether a password is right.
//
// Hashes are the system's, as crypt(5) describes them. Hashing is slow on purpose, and other logins wait meanwhile. So
// new hashes are of a low cost, and of each user the password that was right last is remembered, as a hash under a key
// that lives and dies with this object: a client that comes back, or a thousand devices that share a user, cost one
// hashing. A wrong password and an unknown user cost one each time.
#ifndef TARN_BROKER_ACCESS_USERS_H
#define TARN_BROKER_ACCESS_USERS_H

#include "keyed_hash.h"
#include "text_file.h"
#include "turnstile.h"

#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace tarn::broker {

Mistake     check_user_name(std::string_view name);
std::string hash_password(const std::string &password); // empty when the system cannot

class Users {
public:
    Users();
    Mistake parse(const std::string &path, std::string_view text);

    bool   has(std::string_view name) const { return hashes_.find(name) != hashes_.end(); }
    size_t count() const { return hashes_.size(); }

    // By any number of threads; those that hash do it one or two at a time, in the order in which they came.
    bool check(const std::string &name, const std::string &password);

    // Whether it is the password that was right last: at no cost, and false proves nothing.
    bool remembers(const std::string &name, const std::string &password);

private:
    bool    is_last_right(const std::string &name, const Hash128 &fingerprint);
    Mistake take(std::string_view line);
    Hash128 fingerprint(const std::string &hash, const std::string &password) const;

    std::map<std::string, std::string, std::less<>> hashes_;
    std::string                                     stand_in_; // for users that are not there
    const HashKey                                   key_ = random_key();
    Turnstile                                       hashing_;
    std::mutex                                      mutex_;
    std::map<std::string, Hash128>                  last_right_; // by user; under mutex_
};

} // namespace tarn::broker

#endif
