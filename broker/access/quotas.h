// quotas.h - how much one user, or one address where there are no users, may have of what all share: the library's
// tables have room for so many, and who came first could take it all.
//
// What the library tells is counted as it happens: connections, and ids with or without a kept session. What it does not
// tell is counted up as it is asked for, and counted anew from the library's own tables when that reaches the quota, so
// that the tables are not gone through for those who stay below: subscriptions, topics with a retained message, wills.
#ifndef TARN_BROKER_ACCESS_QUOTAS_H
#define TARN_BROKER_ACCESS_QUOTAS_H

#include "bindings.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

namespace tarn::broker {

enum class Quota { Connections, ClientIds, Sessions, Subscriptions, Retained, Wills };
constexpr size_t kQuotas = 6;

// Who has a will: the record of a client, or in the standard profile, where records are used again sooner, its id.
using WillHolder = std::variant<const void *, std::string>;

// What the library holds at the moment. Subscriptions are told in one way or the other.
struct Holdings {
    std::function<std::vector<std::string>()>           subscriber_ids;   // one for each subscription
    std::function<size_t(const std::string &client_id)> subscriptions_of; // none without a session
    std::function<std::vector<std::string>()>           retained_topics;
    std::function<Ids()>                                online;      // as the library lists them
    std::function<bool(const std::string &client_id)>   has_session; // saved
    std::function<bool(const WillHolder &holder)>       holds_will;
};

class Quotas {
public:
    using Limits = std::array<size_t, kQuotas>; // by Quota; 0 = none

    Quotas(const Limits &limits, Holdings holdings) : limits_(limits), holdings_(std::move(holdings)) {}

    // All by any thread; time on a steady clock. What may be refused returns why, null when it may be; then it counts.
    // An address has no port. The user is empty where there are none.
    const char *open(uint32_t handle, const std::string &address);
    void        close(uint32_t handle);
    const char *connect(uint32_t handle, const std::string &user, const std::string &client_id, bool keeps_session,
                        int64_t now_ms);
    const char *may_leave_will(uint32_t handle, const std::string &user, int64_t now_ms);
    void leave_will(uint32_t handle, const WillHolder &holder, int64_t now_ms); // of one that connect() let through
    const char *subscribe(uint32_t handle, const std::string &client_id, int64_t now_ms);
    const char *publish_retained(uint32_t handle, const std::string &topic, int64_t now_ms);

    // To be called every few seconds: forgets what is gone.
    void turn(int64_t now_ms);

private:
    struct Connection {
        std::string address, owner;
    };
    struct Id {
        std::string owner;
        bool        keeps_session;
        int64_t     since_ms;
    };
    struct Will {
        std::string owner;
        int64_t     since_ms;
    };
    using Counts = std::array<size_t, kQuotas>;

    // All with mutex_ held.
    const char *take(Quota quota, const std::string &owner, int64_t now_ms); // one more
    const char *fits(Quota quota, const std::string &owner, int64_t now_ms);
    bool        is_full(Quota quota, const std::string &owner) const;
    void        add(Quota quota, const std::string &owner);
    void        remove(Quota quota, const std::string &owner);
    void        count_again(Quota quota, int64_t now_ms);
    void        clear(Quota quota);
    void        count_subscriptions();
    void        count_topics();
    void        count_ids(int64_t now_ms);
    void        count_wills(int64_t now_ms);
    void        remember(const std::string &client_id, const std::string &owner, bool keeps_session, int64_t now_ms);

    const Limits   limits_;
    const Holdings holdings_;

    std::mutex                                   mutex_;  // of all below
    std::unordered_map<std::string, Counts>      counts_; // by owner
    std::unordered_map<uint32_t, Connection>     connections_;
    std::unordered_map<std::string, Id>          ids_;
    std::unordered_map<std::string, std::string> topics_; // whose each is
    std::map<WillHolder, Will>                   wills_;
    std::array<int64_t, kQuotas>                 counted_ms_{}; // when each was last counted anew
};

} // namespace tarn::broker

#endif
