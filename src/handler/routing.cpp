// routing.cpp - match lists, shared choice over them, and the question whether an absent receiver has a session.
#include "routing.h"

#include "shared_choice.h"

namespace tarn::handler {
namespace {

// Kept from message to message, so that routing allocates nothing once a thread has seen its largest match.
struct Workspace {
    sub::RouteList routes;
    ShareChoice    choice;
};
constinit thread_local Workspace t_workspace;

} // namespace

Matches::Matches() noexcept : list_(t_workspace.routes) {}

bool Matches::find(const char *topic) noexcept
{
    list_.routes.clear();
    list_.names.clear();
    count_ = sub::match_routes(topic, list_);
    return count_ >= 0;
}

bool Matches::choose() noexcept
{
    chosen_ = allocate_zeroed<uint8_t>(static_cast<size_t>(count_));
    if (!chosen_)
        return false;

    ShareChoice &choice = t_workspace.choice;
    choice.members.clear();
    for (int at = 0; at < count_; at++) {
        const sub::Route &route = (*this)[at];
        if (!route.shared || route.group_size == sub::kNoGroup)
            continue;
        if (!choice.members.push({list_.group_of(route), static_cast<uint32_t>(at), 0}))
            return true; // no working storage: nobody is chosen
    }
    if (choice.members.empty() || !choose_members(choice))
        return true;
    for (const ShareMember &member : choice.members)
        chosen_[member.entry] = member.chosen;
    return true;
}

bool keeps_messages(const persist::HeldSession &session, const sub::Route &route) noexcept
{
    return session.is_loaded() && (!route.clean_session || session.has_files());
}

bool keep_message(persist::HeldSession &session, const Message &message, uint32_t qos) noexcept
{
    session.report_again();
    return session.add_message(message.topic_text(), message.payload.data(), message.payload_len(),
                               static_cast<uint8_t>(qos));
}

} // namespace tarn::handler
