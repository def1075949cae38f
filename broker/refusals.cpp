#include "refusals.h"

#include "text.h"

#include <iterator>

namespace tarn::broker {
namespace {

struct Words {
    const char *refused; // how a line begins
    const char *many;    // what is counted
};
constexpr Words kWords[] = {{"login refused", "refused logins"},
                            {"publication refused", "refused publications"},
                            {"subscription refused", "refused subscriptions"},
                            {"will dropped", "dropped wills"},
                            {"connection refused", "refused connections"}};
static_assert(std::size(kWords) == Refusal::kKinds);

std::string named(const char *what, const std::string &name)
{
    return name.empty() ? std::string("no ") + what : std::string(what) + ' ' + quote_word(name);
}

} // namespace

std::string refusal_text(const Refusal &refusal)
{
    std::string text = std::string(kWords[refusal.kind].refused) + ": ";
    if (refusal.kind != Refusal::Connection) // one that has not said who it is
        text += named("user", refusal.user) + ", " + named("id", refusal.client_id) + ", ";
    text += named("address", refusal.address);
    if (refusal.kind != Refusal::Login && refusal.kind != Refusal::Connection)
        text += ", " + named(refusal.kind == Refusal::Subscription ? "filter" : "topic", refusal.topic);
    return text + ": " + refusal.reason;
}

void RefusalLog::report(const Refusal &refusal)
{
    {
        const std::lock_guard lock(mutex_);
        Count                &count = counts_[refusal.kind];
        if (count.told == kLinesMax) {
            ++count.left_out;
            return;
        }
        ++count.told;
    }
    put_(refusal_text(refusal));
}

void RefusalLog::end_period()
{
    Counts ended{};
    {
        const std::lock_guard lock(mutex_);
        std::swap(ended, counts_);
    }
    for (size_t kind = 0; kind < ended.size(); ++kind)
        if (ended[kind].left_out > 0)
            put_(std::to_string(ended[kind].left_out) + " more " + kWords[kind].many + " in the last " +
                 std::to_string(kPeriod.count()) + " seconds");
}

} // namespace tarn::broker
