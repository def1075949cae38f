// held_answers.cpp - a client's answers that wait until what its packets changed is saved.
//
// A packet that changes a kept message or the retained store does not wait for the disk, and neither does the packet
// behind it. Their answers do: each leaves once the changes of its own packet and of all before it are saved, in the
// order in which they were made. What other clients publish goes past them. The socket of a connection that its packet
// ended waits likewise, so that the peer sees the end when all is done.
#include "../base/memory.h"
#include "client_internal.h"
#include "packet_scope.h"

#include <cstring>
#include <new>

namespace tarn::client {

// A packet with changes, or an answer. Changes that a client left behind when its life ended belong to nobody.
struct Held : persist::SaveWaiter {
    ~Held();

    Held   *next     = nullptr;
    int32_t client   = kOutside; // pool index, under the mutex of its list
    bool    is_saved = false;    // likewise: nothing keeps it but those before it
    int     socket   = -1;       // that the packet closed
    size_t  length   = 0;        // of the answer; 0: there is none
    uint8_t answer[PACKET_REPLY_SIZE];
};

namespace {

constexpr uint32_t kHeldMax    = 2048;       // of one client: packets with changes, and answers
constexpr uint32_t kHeldAllMax = 128 * 1024; // of all clients, 24 MiB; beyond it those that have some wait
constexpr size_t   kChangesMax = 256 * 1024; // of all clients; beyond it those that have some wait
constexpr int      kSocketsMax = 64;         // that wait; a disk that hangs does not use up the descriptors

struct HeldList {
    Mutex            mutex;
    Held            *first;
    Held            *last;
    Shared<uint32_t> count;
};
constinit HeldList              g_lists[CLIENT_MAX]{}; // by pool index
constinit std::atomic<uint32_t> g_held{0};             // in the lists
constinit std::atomic<int>      g_sockets{0};

void append(HeldList &list, Held &held) REQUIRES(list.mutex)
{
    (list.last ? list.last->next : list.first) = &held;
    list.last                                  = &held;
    list.count                                 = list.count + 1;
    ++g_held;
}

Held *take_first(HeldList &list) REQUIRES(list.mutex)
{
    Held *const held = list.first;
    list.first       = held->next;
    if (!list.first)
        list.last = nullptr;
    list.count = list.count - 1;
    --g_held;
    return held;
}

// Sends the answers that wait for nothing any more. Each is in the list until it is sent: who sees none sends past it.
// True when the client's next packet may come now, if it waits.
bool send_saved(HeldList &list, mqtt_client_t &client) REQUIRES(list.mutex)
{
    bool may_go_on = false;
    while (list.first && list.first->is_saved) {
        const Held &held = *list.first;
        if (held.length > 0 && is_full(client)) // hundreds may wait for one file
            (void)flush_when_free(client, true);
        if (held.length > 0)
            (void)send_to(client, {std::span<const uint8_t>(held.answer, held.length)});
        delete take_first(list);
        may_go_on = may_go_on || list.count == 0 || list.count == kHeldMax / 2;
    }
    return may_go_on;
}

net::Connection connection_of(const mqtt_client_t &client, const Side *side)
{
    return {client.handle, side ? uint32_t{side->generation} : 0};
}

net::Connection connection_of(const mqtt_client_t &client)
{
    return connection_of(client, side_of(&client));
}

// The network layer asks about each packet of a client from its first held answer to its last.
void go_on(mqtt_client_t &client)
{
    const net::Connection connection = connection_of(client);
    if (!has_held_answers(client)) {
        net::ask_about_all(connection, false);
        if (io_round() == 0)
            flush_client(client); // its connection may end next
    }
    net::resume(connection);
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
    const client_ref client(record_at(index));
    HeldList        &list = g_lists[index];
    bool             may_go_on;
    {
        ScopedLock lock(list.mutex);
        if (held.client == kOutside) {
            delete &held;
            return;
        }
        held.is_saved = true;
        may_go_on     = send_saved(list, *client);
    }
    if (may_go_on)
        go_on(*client);
}

// Over TCP a client with so many is not read. A datagram's answer may be lost.
bool has_room(const mqtt_client_t &client)
{
    return g_lists[index_of(&client)].count < 2 * kHeldMax && g_held < 2 * kHeldAllMax;
}

void keep_socket(Held &held, net::LateClose &late_close)
{
    if (g_sockets.fetch_add(1) >= kSocketsMax) {
        --g_sockets;
        return;
    }
    held.socket = late_close.take_over();
    if (held.socket < 0)
        --g_sockets;
}

} // namespace

Held::~Held()
{
    if (socket < 0)
        return;
    net::close_socket(socket);
    --g_sockets;
}

persist::SaveWaiter *PacketScope::ask(void *scope) noexcept
{
    auto          &packet = *static_cast<PacketScope *>(scope);
    mqtt_client_t &client = packet.client_;
    const int32_t  index  = index_of(&client);
    if (packet.held_ || index == kOutside)
        return packet.held_;
    auto *const held = new (std::nothrow) Held;
    if (!held)
        return nullptr;
    held->saved  = on_saved;
    held->client = index;
    net::ask_about_all(connection_of(client), true);
    HeldList  &list = g_lists[index];
    ScopedLock lock(list.mutex);
    if (is_released(&client)) // by another thread: there is nobody to answer any more
        held->client = kOutside;
    else
        append(list, *held);
    return packet.held_ = held;
}

PacketScope::PacketScope(const client_ref &client) noexcept
    : client_(*client), late_close_(connection_of(*client, client.side())), behind_(ask, this)
{
}

PacketScope::~PacketScope()
{
    if (!held_)
        return;
    keep_socket(*held_, late_close_);
    held_->one_is_saved();
}

bool has_held_answers(const mqtt_client_t &client) noexcept
{
    const int32_t index = index_of(&client);
    return index != kOutside && g_lists[index].count != 0;
}

bool waits_for_disk(const mqtt_client_t &client, std::span<const uint8_t> packet) noexcept
{
    if (!has_held_answers(client))
        return false;
    const int type = packet.empty() ? DISCONNECT : packet[0] >> 4;
    return type == CONNECT || type == SUBSCRIBE || type == DISCONNECT || packet.size() > client.max_packet_size ||
           g_lists[index_of(&client)].count >= kHeldMax || g_held >= kHeldAllMax ||
           persist::unsaved_changes() >= kChangesMax;
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
    auto *const held = has_room(client) ? new (std::nothrow) Held : nullptr;
    if (!held)
        return kFailed;
    memcpy(held->answer, answer.data(), answer.size());
    held->length        = answer.size();
    held->is_saved      = true;
    const int32_t index = index_of(&client);
    HeldList     &list  = g_lists[index];
    ScopedLock    lock(list.mutex);
    if (is_released(&client)) {
        delete held;
        return kFailed;
    }
    append(list, *held);
    (void)send_saved(list, client);
    return 0;
}
