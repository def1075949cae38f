// incoming.h - the packet identifiers that a client's publications at QoS 2 hold, from PUBLISH to PUBREL.
#ifndef TARN_STANDARD_INCOMING_H
#define TARN_STANDARD_INCOMING_H

#include "../../base/memory.h"

#include <bit>
#include <cstddef>
#include <cstdint>

namespace tarn::standard {

enum class Begun : uint8_t {
    New,       // to be published
    Duplicate, // it was published before: answer with PUBREC, publish nothing [MQTT-4.3.3-10]
    TooMany,   // above the Receive Maximum: the connection ends with 0x93 [MQTT-3.3.4-7]
    NoMemory,
};

// One session's. It belongs to the session, not to the connection; a session without such publications has no memory
// for them, and one with all 65535 has little more than 8 KB.
class IncomingIdentifiers {
public:
    IncomingIdentifiers()                                       = default;
    IncomingIdentifiers(const IncomingIdentifiers &)            = delete;
    IncomingIdentifiers &operator=(const IncomingIdentifiers &) = delete;
    ~IncomingIdentifiers();

    // A connection begins, to which this Receive Maximum was granted (65535 at 3.1.1). What earlier connections left is
    // not counted against it, as no client does (4.9): the standard counts the packets of one connection.
    void connected(uint16_t receive_maximum) noexcept;

    // PUBLISH at QoS 2. Anything but New leaves all as it was.
    [[nodiscard]] Begun begin(uint16_t packet_id) noexcept;

    // PUBREL, or a PUBREC that refuses the publication. False: it held nothing, PUBCOMP says 0x92.
    bool release(uint16_t packet_id) noexcept;

    // From a file. False without memory; one that is there already stays.
    [[nodiscard]] bool restore(uint16_t packet_id) noexcept;

    [[nodiscard]] bool   holds(uint16_t packet_id) const noexcept;
    [[nodiscard]] size_t count() const noexcept { return count_; }

    // Calls visit(uint16_t) for each, ascending.
    template <class Visitor> void for_each(Visitor &&visit) const;

private:
    static constexpr size_t kWords      = 16;          // of a block
    static constexpr size_t kBlockBits  = kWords * 64; // identifiers
    static constexpr size_t kBlockCount = 65536 / kBlockBits;

    struct Block {
        uint64_t words[kWords];
        size_t   count; // of bits set; without any the block is freed
    };

    [[nodiscard]] Block *block_for(uint16_t packet_id) noexcept;
    void                 free_block(Block *&block) noexcept;

    owned<Block *> blocks_; // kBlockCount, or nothing
    size_t         count_   = 0;
    size_t         begun_   = 0;     // on this connection and not released
    uint16_t       maximum_ = 65535; // of `begun_`
};

template <class Visitor> void IncomingIdentifiers::for_each(Visitor &&visit) const
{
    for (size_t block = 0; blocks_ && block < kBlockCount; ++block) {
        for (size_t word = 0; blocks_[block] && word < kWords; ++word) {
            for (uint64_t left = blocks_[block]->words[word]; left != 0; left &= left - 1)
                visit(static_cast<uint16_t>(block * kBlockBits + word * 64 + std::countr_zero(left)));
        }
    }
}

} // namespace tarn::standard

#endif
