#include "access.h"

#include "../text.h"
#include "filter.h"

#include <algorithm>
#include <chrono>
#include <unistd.h>
#include <utility>

#include <tarn_sdk_mqtt_broker/base/limits.h>

namespace tarn::broker {
namespace {

// The form of the ids that the library chooses.
bool is_chosen_id(std::string_view client_id)
{
    constexpr std::string_view kAuto = "auto_";
    return client_id.size() > kAuto.size() && client_id.starts_with(kAuto) &&
           std::all_of(client_id.begin() + kAuto.size(), client_id.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// As the library takes it: longer ids are cut.
std::string_view taken_id(std::string_view client_id)
{
    return client_id.substr(0, CLIENT_ID_CHARS);
}

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

constexpr Verdict kWrong{"unknown user or wrong password"};
constexpr Verdict kNoRule{"no rule allows it"};
constexpr Verdict kNotUtf8{"the filter is not UTF-8"};
constexpr Verdict kNoTopic{"it is no topic to publish to"};
constexpr Verdict kNobody{"it has not connected as somebody who may"};

} // namespace

// It has a file of subscriptions. Ids with a '/' have no files.
bool has_saved_session(const std::string &client_id)
{
    return client_id.find('/') == client_id.npos &&
           ::access(("broker_data/subscription/" + client_id + ".json").c_str(), F_OK) == 0;
}

Access::Access(std::string user_file, std::string acl_file, int32_t wait_s)
    : user_file_(std::move(user_file)), acl_file_(std::move(acl_file)), waits_(wait_s)
{
}

Mistake Access::load()
{
    Files       loaded;
    std::string text;
    if (!user_file_.empty()) {
        loaded.users = std::make_shared<Users>();
        if (Mistake mistake = read_file(user_file_, text); !mistake.empty())
            return mistake;
        if (Mistake mistake = loaded.users->parse(user_file_, text); !mistake.empty())
            return mistake;
    }
    if (!acl_file_.empty()) {
        const auto acl = std::make_shared<Acl>();
        if (Mistake mistake = read_file(acl_file_, text); !mistake.empty())
            return mistake;
        if (Mistake mistake = acl->parse(acl_file_, text, asks_for_users()); !mistake.empty())
            return mistake;
        loaded.acl = acl;
    }
    const std::lock_guard lock(mutex_);
    std::swap(files_, loaded); // the old ones go after the lock, unless a callback still has them
    return {};
}

Access::Files Access::files() const
{
    const std::lock_guard lock(mutex_);
    return files_;
}

std::vector<std::string> Access::warnings() const
{
    const Files              now = files();
    std::vector<std::string> texts;
    if (now.users && now.users->count() == 0)
        texts.push_back(user_file_ + " has no users: nobody can connect");
    if (now.acl && now.acl->is_empty())
        texts.push_back(acl_file_ + " has no rules: nobody can subscribe or publish");
    return texts;
}

Verdict Access::check_password(Users &users, const std::string &user, const std::string &password,
                               std::string_view address)
{
    if (user.empty() || password.empty())
        return {"user name or password is missing"};
    if (!address.empty() && !waits_.may_try(address, user, now_ms())) // what needs no hash does not wait for others
        return users.remembers(user, password) ? Verdict{} : Verdict{"it has to wait after wrong passwords"};
    const bool right = users.check(user, password);
    if (address.empty())
        return right ? Verdict{} : kWrong;
    if (right)
        waits_.was_right(address, user);
    else
        waits_.was_wrong(address, user, now_ms());
    return right ? Verdict{} : kWrong;
}

Verdict Access::may_connect(const std::string &client_id, const std::string &user, const std::string &password,
                            std::string_view address, const std::function<Verdict()> &also)
{
    const Files now = files();
    if (!now.users)
        return also ? also() : Verdict{};
    if (const Verdict verdict = check_password(*now.users, user, password, address); !verdict)
        return verdict;
    const std::string_view id = taken_id(client_id);
    if (now.acl && !now.acl->may_have_id({id, user}))
        return {"the user may not have this id"};
    if (also)
        if (const Verdict verdict = also(); !verdict)
            return verdict;
    if (id.empty())
        return {};
    if (!is_standard_ && is_chosen_id(client_id))
        return {"ids of this form are not for clients to choose"};
    if (bindings_.bind(id, user))
        return {};
    return {bindings_.user_of(id) ? "the id belongs to another user" : "the user has too many ids"};
}

// A session that the library chose the id of begins clean, so nothing of the other user's is behind it.
bool Access::bind_chosen_id(const std::string &client_id, const std::string &user,
                            const std::function<bool()> &is_alone)
{
    if (bindings_.bind(client_id, user))
        return true;
    if (!is_alone())
        return false;
    bindings_.forget(client_id);
    return bindings_.bind(client_id, user);
}

// Nothing when the client may not do anything, the empty name where users are not asked for. Packets before a CONNECT come with an empty id.
std::optional<std::string> Access::user_with_rights(const Files &files, std::string_view client_id) const
{
    if (client_id.empty())
        return {};
    if (!files.users)
        return std::string();
    std::optional<std::string> user = bindings_.user_of(client_id);
    return user && files.users->has(*user) ? user : std::nullopt;
}

Verdict Access::may_subscribe(std::string_view client_id, std::string_view filter)
{
    const Files                      now  = files();
    const std::optional<std::string> user = user_with_rights(now, client_id);
    if (!user)
        return kNobody;
    if (!is_utf8(filter))
        return kNotUtf8;
    if (now.acl && !now.acl->may_subscribe({client_id, *user}, filter))
        return kNoRule;
    if (now.users && (is_standard_ || !is_chosen_id(client_id))) { // those have no sessions, and none comes back
        if (!is_standard_)
            bindings_.subscribed(client_id);
        const std::lock_guard lock(mutex_);
        saves_due_ = 2; // the first may come before the library has written its file
    }
    return {};
}

Verdict Access::may_publish(std::string_view client_id, std::string_view topic)
{
    const Files                      now  = files();
    const std::optional<std::string> user = user_with_rights(now, client_id);
    return user ? may_write(now, {client_id, *user}, topic) : kNobody;
}

Verdict Access::may_leave_will(std::string_view client_id, std::string_view user, std::string_view topic) const
{
    const Files now = files();
    return may_write(now, {taken_id(client_id), now.users ? user : std::string_view()}, topic);
}

Verdict Access::may_write(const Files &files, const Asker &asker, std::string_view topic)
{
    if (!is_topic(topic))
        return kNoTopic;
    return files.acl && !files.acl->may_publish(asker, topic) ? kNoRule : Verdict{};
}

std::string Access::user_of(std::string_view client_id) const
{
    return bindings_.user_of(client_id).value_or("");
}

std::vector<std::string> Access::ids_of_removed_users() const
{
    const Files now = files();
    if (!now.users)
        return {};
    return bindings_.ids_where([&](const std::string &user) { return !now.users->has(user); });
}

void Access::be_standard(std::string owners_file, Bindings::IsSaved is_saved)
{
    owners_file_ = std::move(owners_file);
    is_saved_    = std::move(is_saved);
    is_standard_ = true;
}

void Access::sweep(const Ids &online)
{
    bindings_.sweep(online, is_saved_);
}

Mistake Access::restore_owners()
{
    std::string text;
    if (!asks_for_users() || access(owners_file_.c_str(), F_OK) != 0)
        return {};
    if (Mistake mistake = read_file(owners_file_, text); !mistake.empty())
        return mistake;
    return bindings_.restore(owners_file_, text, is_saved_, !is_standard_);
}

Mistake Access::save_owners()
{
    {
        const std::lock_guard lock(mutex_);
        if (saves_due_ == 0)
            return {};
        --saves_due_;
    }
    Mistake mistake = replace_file(owners_file_, bindings_.to_text(is_saved_));
    if (!mistake.empty()) {
        const std::lock_guard lock(mutex_);
        saves_due_ = std::max(saves_due_, 1);
    }
    return mistake;
}

} // namespace tarn::broker
