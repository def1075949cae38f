// bindings.h - which user a client id belongs to.
//
// Behind an id stands more than a connection: the library keeps subscriptions and messages by id, after a connection
// that dropped even those it has deleted from disk, and gives them to the next client that connects with the id. So an
// id belongs to the first user that connects with it, until nothing of that user's can be behind it any more:
// - with a saved session, as long as the library keeps one, also over restarts (to_text, restore);
// - with subscriptions, until the process ends;
// - without any, until the client is offline.
// A user has at most kIdsMax ids; of those that are offline and not saved the kKeptOffline youngest are kept. Nobody
// pushes out another user's ids.
#ifndef TARN_BROKER_ACCESS_BINDINGS_H
#define TARN_BROKER_ACCESS_BINDINGS_H

#include "text_file.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tarn::broker {

using Ids = std::set<std::string, std::less<>>;

// In a list of the library, which separates ids by commas: one that itself contains commas is there in pieces.
bool is_online(const Ids &online, std::string_view client_id);

class Bindings {
public:
    static constexpr size_t kIdsMax      = 32768; // for each user
    static constexpr size_t kKeptOffline = 8192;

    using IsSaved = std::function<bool(const std::string &client_id)>;

    bool                       bind(std::string_view client_id, std::string_view user); // false: not this user's
    std::optional<std::string> user_of(std::string_view client_id) const;
    void                       subscribed(std::string_view client_id);
    void                       forget(std::string_view client_id); // when it is known that nothing is behind it

    // Ends what has ended. An id that is being bound may not be online yet: it is left alone until the sweep after next.
    void sweep(const Ids &online, const IsSaved &is_saved);

    std::vector<std::string> ids_where(const std::function<bool(const std::string &user)> &holds) const;

    // The ids with a saved session, "ID USER" a line.
    std::string to_text(const IsSaved &is_saved) const;
    Mistake     restore(const std::string &path, std::string_view text, const IsSaved &is_saved,
                        bool have_subscribed = true);

private:
    struct Binding {
        std::string user;
        uint64_t    bound_in; // the sweep before
        bool        subscribed;
    };
    struct Hash { // finds without a copy of the id
        using is_transparent = void;
        size_t operator()(std::string_view id) const { return std::hash<std::string_view>()(id); }
    };
    using Table = std::unordered_map<std::string, Binding, Hash, std::equal_to<>>;
    struct Candidate {
        std::string id;
        uint64_t    bound_in;
    };

    std::vector<Candidate>                           offline_for_long(const Ids &online);
    std::vector<std::pair<std::string, std::string>> all() const; // id and user
    void                                             end(Table::iterator binding);

    mutable std::mutex                      mutex_;
    Table                                   table_;  // under mutex_, as all below
    std::unordered_map<std::string, size_t> ids_of_; // how many, by user
    uint64_t                                sweeps_ = 0;
};

} // namespace tarn::broker

#endif
