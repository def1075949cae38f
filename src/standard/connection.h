// connection.h - one network connection of the standard profile. There is one object for each handle, made when the
// handle is first used and kept, so that no thread finds it freed.
#ifndef TARN_STANDARD_CONNECTION_H
#define TARN_STANDARD_CONNECTION_H

#include "../base/relaxed.h"
#include "../client/client.hpp"
#include "../codec/standard/standard_codec.hpp"
#include "aliases.h"
#include "state/due_heap.h"
#include "outbox.h"

namespace tarn::standard {

struct Session;

// Where a connection is in its life. It only goes down the list, until the handle is opened again.
enum class Stage : uint8_t {
    Closed,
    Opened,    // has not said CONNECT
    Connected, // its CONNECT was accepted
    Ending,    // nothing more is read or sent, and it is about to be closed
};

struct Connection : InDueHeap { // due, on the steady clock: what it must have said by then
    // Of the thread that serves it, which the network layer has one of at a time; and of the end of the connection.
    client_ref      record;
    IncomingAliases incoming_aliases;

    // Written by that thread, with the engine's mutex held.
    net::Connection        id;
    broker_t              *broker             = nullptr;
    size_t                 longest_packet     = 0; // of the client's next one
    size_t                 most_subscriptions = 0;
    uint64_t               session_number     = 0;
    std::atomic<uint64_t> *message_numbers    = nullptr; // State::last_message
    uint32_t               silence_ms         = 0;       // after which it is closed; 0 = never
    Shared<uint64_t>       last_packet_ms     = 0;       // steady clock
    Shared<uint32_t>       arriving           = 0;       // bytes of a long packet that is on its way

    // Written by that thread before the stage is Connected, from when on others read them.
    codec::standard::Level level               = codec::standard::Level::Mqtt5;
    bool                   is_bridge           = false; // gets nothing back that it sent, and retain as it was
    size_t                 maximum_packet_size = codec::standard::kPacketMax; // that the client takes
    uint16_t               receive_maximum     = 65535;

    std::atomic<Stage> stage{Stage::Closed}; // written with the engine's mutex held
    std::atomic<bool>  is_served{false};     // a thread has a packet of it in hand
    bool               is_orphan = false;    // the engine has ended under that thread, which frees it

    // The engine's mutex.
    Session        *session = nullptr;
    Outbox          outbox;
    OutgoingAliases outgoing_aliases;
    bool            is_blocked        = false; // the socket took no more
    bool            is_listed         = false; // to be flushed
    bool            is_for_later      = false; // to be listed
    bool            is_broken         = false; // cannot go on
    bool            waits_for_journal = false; // in that list
    Connection     *next_listed       = nullptr;
    Connection     *next_waiting      = nullptr;
    Connection     *next_later        = nullptr;

    [[nodiscard]] codec::standard::Receiver receiver() const noexcept { return {level, maximum_packet_size}; }
    [[nodiscard]] bool speaks_v5() const noexcept { return level == codec::standard::Level::Mqtt5; }
};

} // namespace tarn::standard

#endif
