// outbox.cpp - see outbox.h.
#include "outbox.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace tarn::standard {

// Copied bytes, or a long tail.
struct Outbox::Chunk {
    static constexpr size_t kRoom = 4000; // a chunk fits into a page

    Chunk         *next      = nullptr;
    uint64_t       journaled = 0; // leaves when the journal is on the disk up to there
    MessageRef     message;       // that has the bytes of a tail
    const uint8_t *tail          = nullptr;
    size_t         size          = 0;
    size_t         sent          = 0; // of a tail: it leaves in pieces
    bool           begins_packet = false;
    uint8_t        copied[kRoom];

    const uint8_t *bytes() const { return tail ? tail : copied; }
    size_t         room() const { return tail ? 0 : kRoom - size; }
    void           append(std::span<const uint8_t> more) // for which there is room
    {
        if (more.empty())
            return;
        memcpy(copied + size, more.data(), more.size());
        size += more.size();
    }
};

namespace {

constexpr size_t kSparesMax = 256; // a megabyte

// Chunks that wait to be used again, linked by their first word; the engine's lock.
constinit void  *g_spares      = nullptr;
constinit size_t g_spare_count = 0;

} // namespace

// ---- chunks

void Outbox::free_spares() noexcept
{
    while (void *const spare = g_spares) {
        g_spares = *static_cast<void **>(spare);
        free(spare);
    }
    g_spare_count = 0;
}

void Outbox::let_go(Chunk *chunk) noexcept
{
    chunk->~Chunk();
    if (g_spare_count >= kSparesMax) {
        free(chunk);
        return;
    }
    *reinterpret_cast<void **>(chunk) = std::exchange(g_spares, chunk);
    ++g_spare_count;
}

// Linked by `next`; null, and none is made, without memory.
Outbox::Chunk *Outbox::make(size_t count, uint64_t journaled) noexcept
{
    Chunk *first = nullptr;
    for (; count > 0; --count) {
        void *room = g_spares;
        if (room) {
            g_spares = *static_cast<void **>(room);
            --g_spare_count;
        } else {
            room = malloc(sizeof(Chunk));
        }
        if (!room) {
            while (first)
                let_go(std::exchange(first, first->next));
            return nullptr;
        }
        auto *const chunk = new (room) Chunk;
        chunk->journaled  = journaled;
        chunk->next       = std::exchange(first, chunk);
    }
    return first;
}

void Outbox::append(Chunk &chunk) noexcept
{
    chunk.next                     = nullptr;
    (last_ ? last_->next : first_) = &chunk;
    last_                          = &chunk;
}

void Outbox::drop_first() noexcept
{
    Chunk *const chunk = std::exchange(first_, first_->next);
    if (!first_)
        last_ = nullptr;
    let_go(chunk);
}

void Outbox::clear() noexcept
{
    while (first_)
        drop_first();
    bytes_  = 0;
    copied_ = 0;
}

// ---- adding

// The last chunk, if what waits for this place of the journal may stand in it. One behind another that waits itself waits
// a little longer for it, so that a thousand acknowledgements do not take a chunk each; the first one is never put off.
Outbox::Chunk *Outbox::with_room(uint64_t journaled) noexcept
{
    if (!last_ || last_->room() == 0)
        return nullptr;
    if (journaled > last_->journaled) {
        if (last_ == first_ || last_->journaled == 0 || !last_->begins_packet)
            return nullptr;
        last_->journaled = journaled;
    }
    return last_;
}

// Fills `into`, and then fresh chunks; returns the last.
Outbox::Chunk *Outbox::copy(std::span<const uint8_t> bytes, Chunk *into, Chunk *&fresh, bool is_head) noexcept
{
    bool begins_packet = is_head;
    while (!bytes.empty()) {
        if (!into || into->room() == 0) {
            into = std::exchange(fresh, fresh->next);
            append(*into);
            into->begins_packet = begins_packet;
        }
        begins_packet     = false;
        const size_t part = std::min(bytes.size(), into->room());
        into->append(bytes.first(part));
        bytes = bytes.subspan(part);
    }
    return into;
}

bool Outbox::add(std::span<const uint8_t> packet, uint64_t journaled, const Tail &tail) noexcept
{
    if (last_ && journaled <= last_->journaled && tail.bytes.empty() && packet.size() <= last_->room()) { // most
        last_->append(packet);
        bytes_ += packet.size();
        copied_ += packet.size();
        return true;
    }
    if (last_)
        journaled = std::max(journaled, last_->journaled); // it waits behind that one anyway
    const bool   refers = tail.bytes.size() > kCopiedMax;
    const size_t copied = packet.size() + (refers ? 0 : tail.bytes.size());
    Chunk       *into   = with_room(journaled);
    const size_t beyond = copied - std::min(copied, into ? into->room() : 0);
    const size_t wanted = (beyond + Chunk::kRoom - 1) / Chunk::kRoom + refers;
    Chunk       *fresh  = make(wanted, journaled);
    if (wanted > 0 && !fresh)
        return false;
    into = copy(packet, into, fresh, true);
    if (refers) {
        fresh->message = tail.message;
        fresh->tail    = tail.bytes.data();
        fresh->size    = tail.bytes.size();
        append(*fresh);
    } else {
        // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): all that were made are used
        (void)copy(tail.bytes, into, fresh, false);
    }
    bytes_ += packet.size() + tail.bytes.size();
    copied_ += copied;
    return true;
}

void Outbox::drop_waiting(uint64_t journaled) noexcept
{
    Chunk *last = nullptr;
    Chunk *from = first_;
    while (from && from->journaled <= journaled)
        last = std::exchange(from, from->next);
    (last ? last->next : first_) = nullptr;
    last_                        = last;
    while (from) {
        bytes_ -= from->size - from->sent;
        copied_ -= from->tail ? 0 : from->size - from->sent;
        let_go(std::exchange(from, from->next));
    }
}

// ---- sending

// What may leave, at most net::kGatherMax pieces of at most NETIP_SEND_MAX bytes.
int Outbox::gather(net::OutPacket *pieces, uint64_t journaled) const noexcept
{
    int count = 0;
    for (const Chunk *chunk = first_; chunk && chunk->journaled <= journaled; chunk = chunk->next)
        for (size_t at = chunk->sent; at < chunk->size; at += NETIP_SEND_MAX) {
            if (count == net::kGatherMax)
                return count;
            const size_t piece = std::min<size_t>(chunk->size - at, NETIP_SEND_MAX);
            pieces[count++]    = {chunk->bytes() + at, static_cast<int32_t>(piece)};
        }
    return count;
}

void Outbox::note_sent(const net::OutPacket *pieces, int count) noexcept
{
    for (int i = 0; i < count; ++i) {
        const auto piece = static_cast<size_t>(pieces[i].length);
        first_->sent += piece;
        bytes_ -= piece;
        copied_ -= first_->tail ? 0 : piece;
        if (first_->sent == first_->size)
            drop_first();
    }
}

Outbox::Left Outbox::flush(Send send, void *to, uint64_t journaled) noexcept
{
    net::OutPacket pieces[net::kGatherMax];
    while (const int count = gather(pieces, journaled)) {
        const net::Sent sent = send(to, pieces, count);
        note_sent(pieces, sent.packets);
        if (sent.result != NETIP_OK)
            return sent.result == NETIP_AGAIN ? Left::Blocked : Left::Broken;
    }
    return empty() ? Left::Nothing : Left::Waits;
}

} // namespace tarn::standard
