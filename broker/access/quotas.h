// quotas.h - how much one user, or one address where there are no users, may have of what all share: the library's
// tables have room for so many, and who came first could take it all.
//
// What the library tells is counted as it happens: connections, and ids with or without a kept session. An id that asked
// for neither a kept session nor subscriptions is forgotten with its last connection. What it does not tell is counted
// up as it is asked for, and counted anew from the library's own tables when that reaches the quota, so that the tables
// are not gone through for those who stay below: subscriptions, topics with a retained message, wills.
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
#include <string_view>
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
    // An address has no port. The user is empty where there are none. Handles are small: there is a place for each up to
    // the highest.
    const char *open(uint32_t handle, const std::string &address);
    void        close(uint32_t handle);
    const char *connect(uint32_t handle, std::string_view user, std::string &&client_id, bool keeps_session,
                        int64_t now_ms);
    const char *may_leave_will(uint32_t handle, const std::string &user, int64_t now_ms);
    void leave_will(uint32_t handle, const WillHolder &holder, int64_t now_ms); // of one that connect() let through
    const char *subscribe(uint32_t handle, const std::string &client_id, int64_t now_ms);
    const char *publish_retained(uint32_t handle, const std::string &topic, int64_t now_ms);

    // To be called every few seconds: forgets what is gone.
    void turn(int64_t now_ms);

private:
    // A user or an address. Others point to it, and each of them counts here.
    struct Owner {
        std::array<size_t, kQuotas> counts{};             // by Quota
        size_t                      connections_from = 0; // open ones from this address, also those of users
    };
    struct Id {
        Owner   *owner         = nullptr;
        int64_t  since_ms      = 0;
        uint32_t connections   = 0; // open ones whose last CONNECT had this id
        bool     keeps_session = false;
        bool     may_stay      = false; // something may be behind it once its connections are closed
    };
    using IdTable  = std::unordered_map<std::string, Id>;
    using KnownId  = IdTable::value_type; // stays where it is until it is erased
    using OwnerMap = std::unordered_map<std::string, Owner>;
    struct Connection {
        Owner   *address = nullptr; // null: not open
        Owner   *owner   = nullptr; // its address, or its user once that is known
        KnownId *id      = nullptr; // null before CONNECT, and for one that the library chose
    };
    struct Will {
        Owner  *owner    = nullptr;
        int64_t since_ms = 0;
    };

    // All with mutex_ held.
    Connection       *find(uint32_t handle); // null when it is not open, or came before anybody counted
    const char       *refuses(const Connection &connection, const Owner &owner, const std::string &client_id,
                              bool keeps_session, int64_t now_ms);
    const Owner      *owner_of_will(const Connection &connection, const std::string &user) const;
    const Id         *id_of(const Owner &owner, const std::string &client_id) const; // null when it is not this owner's
    const char       *fits(Quota quota, const Owner &owner, int64_t now_ms);
    bool              is_full(Quota quota, const Owner &owner) const;
    void              end(Connection &connection);
    KnownId          &remember(std::string &&client_id, Owner &owner, bool keeps_session, int64_t now_ms);
    void              set_owner(Id &id, Owner *owner);
    void              set_session(Id &id, bool is_kept);
    void              leave(KnownId &known);
    IdTable::iterator forget(IdTable::iterator known); // returns the next
    void              forget_idle_owners();
    void              count_again(Quota quota, int64_t now_ms); // unless it was counted a moment ago
    void              count(Quota quota, int64_t now_ms);
    void              count_subscriptions();
    void              count_topics();
    void              count_ids(int64_t now_ms);
    void              count_wills(int64_t now_ms);

    static void add(Quota quota, Owner &owner);
    static void remove(Quota quota, Owner &owner);

    const Limits   limits_;
    const Holdings holdings_;

    std::mutex                               mutex_; // of all below
    OwnerMap                                 addresses_, users_;
    std::vector<Connection>                  connections_; // by handle
    IdTable                                  ids_;
    std::unordered_map<std::string, Owner *> topics_; // whose each is
    std::map<WillHolder, Will>               wills_;
    std::array<int64_t, kQuotas>             next_count_ms_{}; // before then none is counted anew
};

} // namespace tarn::broker

#endif
