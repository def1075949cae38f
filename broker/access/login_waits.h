// login_waits.h - who gave wrong passwords and has to wait before another one is looked at.
//
// Hashing costs the broker milliseconds, a guess costs its sender nothing. So after some wrong passwords in a row, of one
// name from one address, more of them are refused unhashed: for a second, then for two, up to a limit. A right password
// after the wait ends it. An address that tries one name after the other waits as a whole, but only after more of them,
// since many clients may share it.
//
// The table is bounded; what was not asked for longest goes first.
#ifndef TARN_BROKER_ACCESS_LOGIN_WAITS_H
#define TARN_BROKER_ACCESS_LOGIN_WAITS_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace tarn::broker {

class LoginWaits {
public:
    static constexpr uint32_t kFree          = 3;  // wrong ones in a row without a wait, of one name
    static constexpr uint32_t kFreeOfAddress = 30; // the same of one address, whatever the names
    static constexpr int64_t  kFirst_ms      = 1000;
    static constexpr size_t   kEntriesMax    = 10000;

    explicit LoginWaits(int32_t longest_s) : longest_ms_(int64_t{longest_s} * 1000) {} // 0 = nobody waits

    // By any number of threads; time on a steady clock.
    bool may_try(std::string_view address, std::string_view name, int64_t now_ms);
    void was_wrong(std::string_view address, std::string_view name, int64_t now_ms);
    void was_right(std::string_view address, std::string_view name);

    size_t size();

private:
    struct Entry {
        std::string key;
        uint32_t    wrong    = 0; // in a row
        int64_t     until_ms = 0;
    };
    using Entries = std::list<Entry>; // asked for last in front

    bool   waits(const std::string &key, int64_t now_ms);
    void   count(const std::string &key, uint32_t free, int64_t now_ms);
    void   forget(const std::string &key);
    Entry *find(const std::string &key);

    const int64_t                                      longest_ms_;
    std::mutex                                         mutex_;
    Entries                                            entries_; // under mutex_, as the next
    std::unordered_map<std::string, Entries::iterator> by_key_;
};

} // namespace tarn::broker

#endif
