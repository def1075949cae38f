// workspace.h - what routing works with, kept by each thread from message to message.
#ifndef TARN_HANDLER_WORKSPACE_H
#define TARN_HANDLER_WORKSPACE_H

#include "../sub/match_list.h"
#include "shared_choice.h"

namespace tarn::handler {

// It grows to the largest match the thread has seen, and routing then allocates nothing.
struct Workspace {
    sub::MatchList matches;
    ShareChoice    choice;
};

// This thread's workspace while a message is routed; one at a time.
class UsedWorkspace {
public:
    UsedWorkspace() noexcept;
    ~UsedWorkspace() noexcept;
    UsedWorkspace(const UsedWorkspace &)            = delete;
    UsedWorkspace &operator=(const UsedWorkspace &) = delete;

    Workspace &operator*() const noexcept { return workspace_; }
    Workspace *operator->() const noexcept { return &workspace_; }

private:
    Workspace &workspace_;
};

} // namespace tarn::handler

#endif
