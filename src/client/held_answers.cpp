// held_answers.cpp - a client's answers that wait until what its packets changed is saved.
//
// A packet that changes a kept message or the retained store does not wait for the disk, and neither does the packet
// behind it. Their answers do: each leaves once the changes of its own packet and of all before it are saved, in the
// order in which they were made. What other clients publish goes past them.
#include "../base/memory.h"
#include "client_internal.h"
#include "packet_scope.h"

#include <cstring>
#include <new>

namespace tarn::client {

// A packet with changes, or an answer. Changes that a client left behind when its life ended belong to nobody.
struct Held : persist::SaveWaiter {
    Held   *next     = nullptr;
    int32_t client   = kOutside; // pool index, under the mutex of its list
    bool    is_saved = false;    // likewise: nothing keeps it but those before it
    size_t  length   = 0;        // of the answer; 0: there is none
    uint8_t answer[PACKET_REPLY_SIZE];
};

namespace {

struct HeldList {
    Mutex            mutex;
    Held            *first;
    Held            *last;
    Shared<uint32_t> count;
};
constinit HeldList g_lists[CLIENT_MAX]{}; // by pool index

void append(HeldList &list, Held &held) REQUIRES(list.mutex)
{
    (list.last ? list.last->next : list.first) = &held;
    list.last                                  = &held;
    list.count                                 = list.count + 1;
}

Held *take_first(HeldList &list) REQUIRES(list.mutex)
{
    Held *const held = list.first;
    list.first       = held->next;
    if (!list.first)
        list.last = nullptr;
    list.count = list.count - 1;
    return held;
}

// Sends the answers that wait for nothing any more.
void let_go(HeldList &list, int32_t index) REQUIRES(list.mutex)
{
    const client_ref client(record_at(index));
    while (list.first && list.first->is_saved) {
        Held *const held = take_first(list);
        if (held->length > 0)
            (void)send_to(*client, {std::span<const uint8_t>(held->answer, held->length)});
        delete held;
    }
}

// The index changes under the mutex of the list that it names; only the end of the client's life changes it.
void on_saved(persist::SaveWaiter &waiter) noexcept NO_LOCK_ANALYSIS
{
    auto         &held  = static_cast<Held &>(waiter);
    const int32_t index = std::atomic_ref(held.client).load();
    if (index == kOutside) {
        delete &held;
        return;
    }
    HeldList  &list = g_lists[index];
    ScopedLock lock(list.mutex);
    if (held.client == kOutside) {
        delete &held;
        return;
    }
    held.is_saved = true;
    let_go(list, index);
}

} // namespace

persist::SaveWaiter *PacketScope::ask(void *scope) noexcept
{
    auto &packet = *static_cast<PacketScope *>(scope);
    if (packet.held_ || packet.index_ == kOutside)
        return packet.held_;
    auto *const held = new (std::nothrow) Held;
    if (!held)
        return nullptr;
    held->saved     = on_saved;
    held->client    = packet.index_;
    HeldList  &list = g_lists[packet.index_];
    ScopedLock lock(list.mutex);
    append(list, *held);
    return packet.held_ = held;
}

PacketScope::PacketScope(mqtt_client_t &client) noexcept : index_(index_of(&client)), behind_(ask, this) {}

PacketScope::~PacketScope()
{
    if (held_)
        held_->one_is_saved();
}

bool has_held_answers(const mqtt_client_t &client) noexcept
{
    const int32_t index = index_of(&client);
    return index != kOutside && g_lists[index].count != 0;
}

void drop_held_answers(mqtt_client_t &client) noexcept
{
    const int32_t index = index_of(&client);
    if (index == kOutside)
        return;
    HeldList  &list = g_lists[index];
    ScopedLock lock(list.mutex);
    while (list.first) {
        Held *const held = take_first(list);
        if (held->is_saved)
            delete held;
        else
            std::atomic_ref(held->client).store(kOutside); // the thread that saves its last change deletes it
    }
}

} // namespace tarn::client

using namespace tarn;
using namespace tarn::client;

uint32_t tarn::answer_client(mqtt_client_t &client, std::span<const uint8_t> answer) noexcept
{
    if (!has_held_answers(client))
        return send_to(client, {answer});
    auto *const held = new (std::nothrow) Held;
    if (!held)
        return kFailed;
    memcpy(held->answer, answer.data(), answer.size());
    held->length        = answer.size();
    held->is_saved      = true;
    const int32_t index = index_of(&client);
    HeldList     &list  = g_lists[index];
    ScopedLock    lock(list.mutex);
    append(list, *held);
    let_go(list, index);
    return 0;
}
