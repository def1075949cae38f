// outbox.h - what waits to be sent to one connection of the standard profile, in order.
//
// Small packets are copied behind each other, so that one write takes many; a long payload is sent from where it lies.
// A packet may have to wait for the journal, and then all behind it wait, too: the order on the wire is that of the
// calls. The engine's lock is held around all calls.
#ifndef TARN_STANDARD_OUTBOX_H
#define TARN_STANDARD_OUTBOX_H

#include "../net/net.hpp"
#include "state/message.h"

namespace tarn::standard {

class Outbox {
public:
    Outbox() = default;
    ~Outbox() { clear(); }
    Outbox(const Outbox &)            = delete;
    Outbox &operator=(const Outbox &) = delete;

    // Adds a packet: `packet`, and behind it a tail. It does not leave before the journal is on the disk up to the place
    // `journaled`. False, and nothing is added, without memory.
    static constexpr size_t kCopiedMax = 1024; // bytes of a tail; a longer one is sent from where it lies
    struct Tail {
        MessageRef               message; // that has the bytes; empty: there are none
        std::span<const uint8_t> bytes;
    };
    [[nodiscard]] bool add(std::span<const uint8_t> packet, uint64_t journaled, const Tail &tail = {}) noexcept;

    // Sends what may leave, as far as `send` takes it.
    enum class Left : uint8_t {
        Nothing,
        Waits,   // for the journal
        Blocked, // the socket is full: the network layer tells when it takes bytes again
        Broken,  // nothing more can be sent
    };
    using Send = net::Sent (*)(void *to, const net::OutPacket *pieces, int count) noexcept;
    Left flush(Send send, void *to, uint64_t journaled) noexcept;

    [[nodiscard]] bool   empty() const { return !first_; }
    [[nodiscard]] size_t bytes() const { return bytes_; }         // that are not sent yet
    [[nodiscard]] size_t copied_bytes() const { return copied_; } // of these, those that take memory here
    // What has to wait longer goes; what is left ends with a whole packet.
    void drop_waiting(uint64_t journaled) noexcept;
    void clear() noexcept;

    static void free_spares() noexcept; // memory that outboxes let go and would use again

private:
    struct Chunk;

    Chunk        *with_room(uint64_t journaled) noexcept;
    Chunk        *copy(std::span<const uint8_t> bytes, Chunk *into, Chunk *&fresh, bool is_head) noexcept;
    void          append(Chunk &chunk) noexcept;
    void          drop_first() noexcept;
    int           gather(net::OutPacket *pieces, uint64_t journaled) const noexcept;
    void          note_sent(const net::OutPacket *pieces, int count) noexcept;
    static void   let_go(Chunk *chunk) noexcept;
    static Chunk *make(size_t count, uint64_t journaled) noexcept;

    Chunk *first_  = nullptr;
    Chunk *last_   = nullptr;
    size_t bytes_  = 0;
    size_t copied_ = 0;
};

} // namespace tarn::standard

#endif
