#include "bindings.h"

#include <algorithm>
#include <map>

namespace tarn::broker {
namespace {

// A word: visible ASCII stays, all else, '%' and '#' become %XX.
std::string to_word(std::string_view text)
{
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string    word;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > ' ' && byte < 0x7F && c != '%' && c != '#')
            word += c;
        else
            word += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return word;
}

std::optional<std::string> from_word(std::string_view word)
{
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string                text;
    for (size_t i = 0; i < word.size(); ++i) {
        if (word[i] != '%') {
            text += word[i];
            continue;
        }
        const size_t high = i + 2 < word.size() ? kDigits.find(word[i + 1]) : kDigits.npos;
        const size_t low  = i + 2 < word.size() ? kDigits.find(word[i + 2]) : kDigits.npos;
        if (high == kDigits.npos || low == kDigits.npos)
            return {};
        text += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return text;
}

} // namespace

bool is_online(const Ids &online, std::string_view client_id)
{
    for (size_t comma; (comma = client_id.find(',')) != client_id.npos; client_id.remove_prefix(comma + 1))
        if (!online.contains(client_id.substr(0, comma)))
            return false;
    return online.contains(client_id);
}

bool Bindings::bind(std::string_view client_id, std::string_view user)
{
    const std::lock_guard lock(mutex_);
    if (const auto found = table_.find(client_id); found != table_.end()) {
        if (found->second.user != user)
            return false;
        found->second.bound_in = sweeps_;
        return true;
    }
    const std::string name(user);
    size_t           &ids = ids_of_[name];
    if (ids >= kIdsMax)
        return false;
    table_.emplace(client_id, Binding{name, sweeps_, false});
    ++ids;
    return true;
}

std::optional<std::string> Bindings::user_of(std::string_view client_id) const
{
    const std::lock_guard lock(mutex_);
    const auto            found = table_.find(client_id);
    if (found == table_.end())
        return {};
    return found->second.user;
}

void Bindings::subscribed(std::string_view client_id)
{
    const std::lock_guard lock(mutex_);
    if (const auto found = table_.find(client_id); found != table_.end())
        found->second.subscribed = true;
}

void Bindings::forget(std::string_view client_id)
{
    const std::lock_guard lock(mutex_);
    if (const auto found = table_.find(client_id); found != table_.end())
        end(found);
}

// The disk is asked without the lock, which the thread that serves the clients wants, too.
void Bindings::sweep(const Ids &online, const IsSaved &is_saved)
{
    std::vector<Candidate> gone = offline_for_long(online);
    std::erase_if(gone, [&](const Candidate &candidate) { return is_saved(candidate.id); });
    std::sort(gone.begin(), gone.end(),
              [](const Candidate &left, const Candidate &right) { return left.bound_in > right.bound_in; });

    const std::lock_guard         lock(mutex_);
    std::map<std::string, size_t> kept; // by user
    for (const Candidate &candidate : gone) {
        const auto at = table_.find(candidate.id);
        if (at == table_.end() || at->second.bound_in != candidate.bound_in)
            continue; // back meanwhile
        if (!at->second.subscribed || ++kept[at->second.user] > kKeptOffline)
            end(at);
    }
}

std::vector<Bindings::Candidate> Bindings::offline_for_long(const Ids &online)
{
    const std::lock_guard  lock(mutex_);
    std::vector<Candidate> ids;
    ++sweeps_;
    for (const auto &[id, binding] : table_)
        if (binding.bound_in + 2 <= sweeps_ && !is_online(online, id))
            ids.push_back({id, binding.bound_in});
    return ids;
}

void Bindings::end(Table::iterator binding)
{
    const auto ids = ids_of_.find(binding->second.user);
    if (--ids->second == 0)
        ids_of_.erase(ids);
    table_.erase(binding);
}

std::vector<std::string> Bindings::ids_where(const std::function<bool(const std::string &user)> &holds) const
{
    std::vector<std::string> ids;
    for (const auto &[id, user] : all())
        if (holds(user))
            ids.push_back(id);
    return ids;
}

std::vector<std::pair<std::string, std::string>> Bindings::all() const
{
    const std::lock_guard                            lock(mutex_);
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const auto &[id, binding] : table_)
        pairs.emplace_back(id, binding.user);
    return pairs;
}

std::string Bindings::to_text(const IsSaved &is_saved) const
{
    std::string text;
    for (const auto &[id, user] : all())
        if (is_saved(id))
            text += to_word(id) + ' ' + to_word(user) + '\n';
    return text;
}

Mistake Bindings::restore(const std::string &path, std::string_view text, const IsSaved &is_saved, bool have_subscribed)
{
    return for_each_line(path, text, [&](std::string_view line) -> Mistake {
        const size_t space = line.find(' ');
        const auto   id    = from_word(line.substr(0, space));
        const auto   user  = from_word(space == line.npos ? std::string_view() : line.substr(space + 1));
        if (!id || !user || id->empty() || user->empty())
            return "a line is ID USER, with %XX for bytes that are not visible";
        if (is_saved(*id) && bind(*id, *user) && have_subscribed)
            subscribed(*id);
        return {};
    });
}

} // namespace tarn::broker
