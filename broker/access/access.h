// access.h - what the files of users and rules make of a client's wishes. Knows nothing of the library but its limits:
// guard.h joins the two.
//
// Any thread may ask while another one loads: the files' content is replaced as a whole, and a thread that still uses
// the old one keeps it alive.
#ifndef TARN_BROKER_ACCESS_ACCESS_H
#define TARN_BROKER_ACCESS_ACCESS_H

#include "acl.h"
#include "bindings.h"
#include "login_waits.h"
#include "users.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::broker {

// Yes, or no and why: words for the log that end a sentence about the client.
struct Verdict {
    const char *why_not = nullptr;
    explicit    operator bool() const { return !why_not; }
};

bool has_saved_session(const std::string &client_id); // that holds anything

class Access {
public:
    // Names of files, empty for none. Without users everybody may connect; without rules everybody who is connected may
    // do everything.
    // wait_s: the longest that wrong passwords make one wait, 0 = nobody waits.
    Access(std::string user_file, std::string acl_file, int32_t wait_s = 0);

    bool is_wanted() const { return !user_file_.empty() || !acl_file_.empty(); }
    bool asks_for_users() const { return !user_file_.empty(); }

    // Reads both files. With a mistake in one of them nothing changes.
    Mistake load();

    // What is no mistake in the file, but cannot have been meant.
    std::vector<std::string> warnings() const;

    // The id is empty when the library will choose one. The address has no port; who comes without one never waits.
    // What `also` says counts as well; it is asked about clients whose password was right, before the id becomes theirs.
    Verdict may_connect(const std::string &client_id, const std::string &user, const std::string &password,
                        std::string_view address = {}, const std::function<Verdict()> &also = {});

    // Binds the id that the library chose for a client that is online now. When the id is another user's, it changes hands
    // if is_alone() says that no second client is online with it; else the result is false.
    bool bind_chosen_id(const std::string &client_id, const std::string &user, const std::function<bool()> &is_alone);

    Verdict may_subscribe(std::string_view client_id, std::string_view filter);
    Verdict may_publish(std::string_view client_id, std::string_view topic);

    // What its CONNECT asks for, before it is known whether it may connect. Rules with the id, and sections for ids, do
    // not count for a client that comes without one: the library chooses it later.
    Verdict may_leave_will(std::string_view client_id, std::string_view user, std::string_view topic) const;

    std::string user_of(std::string_view client_id) const; // empty when nobody knows

    // Ids that belong to users who are no more in the file.
    std::vector<std::string> ids_of_removed_users() const;

    // Called every few seconds with the ids that are online.
    void sweep(const Ids &online);

    // For the standard profile: nothing is behind an id without a session, and an id that the library chose is its
    // client's own, who may come back with it. Before the next two, and before there are threads.
    void be_standard(std::string owners_file, Bindings::IsSaved is_saved);

    // Whose the saved sessions are, kept beside them. Saves when there may be something new.
    Mistake restore_owners();
    Mistake save_owners();

private:
    struct Files {
        std::shared_ptr<Users>     users; // null without such a file
        std::shared_ptr<const Acl> acl;
    };
    Files                      files() const;
    std::optional<std::string> user_with_rights(const Files &files, std::string_view client_id) const;
    Verdict                    check_password(Users &users, const std::string &user, const std::string &password,
                                              std::string_view address);
    static Verdict             may_write(const Files &files, const Asker &asker, std::string_view topic);

    const std::string  user_file_;
    const std::string  acl_file_;
    std::string        owners_file_ = "broker_data/owners";
    Bindings::IsSaved  is_saved_    = has_saved_session;
    bool               is_standard_ = false;
    mutable std::mutex mutex_;
    Files              files_;         // under mutex_
    int                saves_due_ = 0; // under mutex_
    Bindings           bindings_;
    LoginWaits         waits_;
};

} // namespace tarn::broker

#endif
