#include "acl.h"

#include "filter.h"
#include "users.h"

#include <algorithm>
#include <optional>

#include <tarn_sdk_mqtt_broker/base/limits.h>

namespace tarn::broker {
namespace {

// An id or a name that would act as more than one level, or as a wildcard, stands for nothing.
bool can_be_inserted(std::string_view text)
{
    return !text.empty() && text.find_first_of("/+#") == text.npos;
}

// The filter with its placeholders filled in; nothing when that cannot be.
std::optional<std::string> filled(const std::string &filter, const Asker &asker)
{
    std::string text;
    for (size_t i = 0; i < filter.size(); ++i) {
        const char next = i + 1 < filter.size() ? filter[i + 1] : '\0';
        if (filter[i] != '%' || (next != 'c' && next != 'u')) {
            text += filter[i];
            continue;
        }
        const std::string_view value = next == 'c' ? asker.client_id : asker.user;
        if (!can_be_inserted(value))
            return {};
        text += value;
        ++i;
    }
    return text;
}

bool covers_for(const Asker &asker, const std::string &filter, std::string_view wanted)
{
    if (filter.find('%') == filter.npos)
        return covers(filter, wanted);
    const std::optional<std::string> own = filled(filter, asker);
    return own && covers(*own, wanted);
}

} // namespace

bool matches_pattern(std::string_view pattern, std::string_view text)
{
    size_t at = 0, star = pattern.npos, resume = 0; // the last '*' seen, and how far it reaches
    for (size_t i = 0; i < text.size();) {
        if (at < pattern.size() && pattern[at] == '*') {
            star   = at++;
            resume = i;
        } else if (at < pattern.size() && pattern[at] == text[i]) {
            ++at;
            ++i;
        } else if (star != pattern.npos) {
            at = star + 1;
            i  = ++resume;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', at) == pattern.npos;
}

// Reads one line after the other into the section that is open.
struct Acl::Reader {
    Acl       &acl;
    const bool users_known;
    Rules     *open = &acl.everybody_;
    User      *user = nullptr; // whose section is open, if it is one

    Mistake operator()(std::string_view line)
    {
        const size_t           end  = std::min(line.find_first_of(" \t"), line.size());
        const std::string_view word = line.substr(0, end);
        const std::string_view rest = trimmed(line.substr(end));
        if (word == "user")
            return open_user(rest);
        if (word == "client")
            return open_client(rest);
        if (word == "clientid")
            return add_id(rest);
        if (word == "read" || word == "write" || word == "readwrite")
            return add_rule(word != "write", word != "read", rest);
        return "a line begins with read, write, readwrite, user, clientid or client, not with '" + std::string(word) +
               "'";
    }

    Mistake open_user(std::string_view name)
    {
        if (!users_known)
            return "rules for users need --user-file: without it anybody can claim a name";
        if (Mistake mistake = check_user_name(name); !mistake.empty())
            return mistake;
        user = &acl.users_[std::string(name)];
        open = &user->rules;
        return {};
    }

    Mistake add_id(std::string_view pattern)
    {
        if (!user)
            return "clientid stands in a section of a user: it says which ids that one may have";
        if (pattern.empty())
            return "the pattern of client ids is missing";
        user->ids.emplace_back(pattern);
        return {};
    }

    Mistake open_client(std::string_view pattern)
    {
        if (pattern.empty())
            return "the pattern of client ids is missing";
        acl.clients_.push_back({std::string(pattern), {}});
        open = &acl.clients_.back().rules; // used only until the next one is added
        user = nullptr;
        return {};
    }

    Mistake add_rule(bool read, bool write, std::string_view filter)
    {
        if (Mistake mistake = filter_mistake(filter); !mistake.empty())
            return mistake;
        if (filter.starts_with("$share/"))
            return "a rule is about what stands behind the group of a shared subscription: '" +
                   std::string(without_group(filter)) + "'";
        if (!users_known && filter.find("%u") != filter.npos)
            return "%u needs --user-file: without it anybody can claim a name";
        open->push_back({read, write, std::string(filter)});
        return {};
    }
};

Mistake Acl::parse(const std::string &path, std::string_view text, bool users_known)
{
    return for_each_line(path, text, Reader{*this, users_known});
}

bool Acl::is_empty() const
{
    return everybody_.empty() &&
           std::all_of(users_.begin(), users_.end(), [](const auto &user) { return user.second.rules.empty(); }) &&
           std::all_of(clients_.begin(), clients_.end(), [](const Section &section) { return section.rules.empty(); });
}

template <class Allows> bool Acl::any_rule(const Asker &asker, Allows allows) const
{
    const auto one_of = [&](const Rules &rules) { return std::any_of(rules.begin(), rules.end(), allows); };
    if (one_of(everybody_))
        return true;
    if (const auto user = users_.find(asker.user); user != users_.end() && one_of(user->second.rules))
        return true;
    return std::any_of(clients_.begin(), clients_.end(), [&](const Section &section) {
        return matches_pattern(section.pattern, asker.client_id) && one_of(section.rules);
    });
}

bool Acl::may_have_id(const Asker &asker) const
{
    const auto user = users_.find(asker.user);
    if (user == users_.end() || user->second.ids.empty())
        return true;
    return std::any_of(user->second.ids.begin(), user->second.ids.end(),
                       [&](const std::string &pattern) { return matches_pattern(pattern, asker.client_id); });
}

// Of a longer filter only the beginning is kept with a saved session, and subscribed to when the session comes back.
bool Acl::may_subscribe(const Asker &asker, std::string_view filter) const
{
    const auto allowed = [&](std::string_view wanted) {
        return any_rule(asker, [&](const Rule &rule) {
            return rule.read && covers_for(asker, rule.filter, without_group(wanted));
        });
    };
    return allowed(filter) &&
           (filter.size() <= PACKET_SAVED_FILTER_CHARS || allowed(filter.substr(0, PACKET_SAVED_FILTER_CHARS)));
}

bool Acl::may_publish(const Asker &asker, std::string_view topic) const
{
    return any_rule(asker, [&](const Rule &rule) { return rule.write && covers_for(asker, rule.filter, topic); });
}

} // namespace tarn::broker
