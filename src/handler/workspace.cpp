// workspace.cpp - see workspace.h.
//
// The memory is freed when the thread ends, by a key. A thread_local with a destructor would do so too, but to note the
// destructor the C library allocates, and where that fails it ends the process.
#include "workspace.h"

#include <cstddef>
#include <new>
#include <pthread.h>

namespace tarn::handler {
namespace {

struct Place {
    alignas(Workspace) std::byte bytes[sizeof(Workspace)];
    bool made;
    bool kept; // the key knows of it
};
constinit thread_local Place t_place{};

constinit pthread_once_t g_once    = PTHREAD_ONCE_INIT;
constinit pthread_key_t  g_key     = 0;
constinit bool           g_has_key = false; // a process has 1024 of them

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

void make_key()
{
    g_has_key = pthread_key_create(&g_key, free_place) == 0;
}

Workspace &workspace_of_this_thread()
{
    Place &place = t_place;
    if (!place.made) {
        new (place.bytes) Workspace;
        place.made = true;
    }
    if (!place.kept) {
        pthread_once(&g_once, make_key);
        place.kept = g_has_key && pthread_setspecific(g_key, &place) == 0;
    }
    return workspace_of(place);
}

} // namespace

UsedWorkspace::UsedWorkspace() noexcept : workspace_(workspace_of_this_thread()) {}

// What the key does not know of would be lost with the thread.
UsedWorkspace::~UsedWorkspace() noexcept
{
    if (!t_place.kept)
        free_place(&t_place);
}

} // namespace tarn::handler
