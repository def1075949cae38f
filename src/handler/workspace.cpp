// workspace.cpp - see workspace.h.
#include "workspace.h"

#include "../base/thread_end.h"

#include <cstddef>
#include <new>

namespace tarn::handler {
namespace {

struct Place {
    alignas(Workspace) std::byte bytes[sizeof(Workspace)];
    bool made;
    bool kept; // until the thread ends
};
constinit thread_local Place t_place{};

Workspace &workspace_of(Place &place)
{
    return *std::launder(reinterpret_cast<Workspace *>(place.bytes));
}

void free_place(void *its_place)
{
    Place &place = *static_cast<Place *>(its_place);
    workspace_of(place).~Workspace();
    place.made = place.kept = false;
}

Workspace &workspace_of_this_thread()
{
    Place &place = t_place;
    if (!place.made) {
        new (place.bytes) Workspace;
        place.made = true;
    }
    if (!place.kept)
        place.kept = AtThreadEnd<free_place>::note(&place);
    return workspace_of(place);
}

} // namespace

UsedWorkspace::UsedWorkspace() noexcept : workspace_(workspace_of_this_thread()) {}

// What is not freed when the thread ends would be lost with it.
UsedWorkspace::~UsedWorkspace() noexcept
{
    if (!t_place.kept)
        free_place(&t_place);
}

} // namespace tarn::handler
