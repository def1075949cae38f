// incoming.cpp - see incoming.h. A bit for each identifier, in blocks that exist while one of their bits is set.
#include "incoming.h"

namespace tarn::standard {
namespace {

constexpr uint64_t mask_of(uint16_t packet_id)
{
    return uint64_t{1} << packet_id % 64;
}

} // namespace

IncomingIdentifiers::~IncomingIdentifiers()
{
    for (size_t i = 0; blocks_ && i < kBlockCount; ++i)
        std::free(blocks_[i]);
}

void IncomingIdentifiers::connected(uint16_t receive_maximum) noexcept
{
    begun_   = 0;
    maximum_ = receive_maximum;
}

Begun IncomingIdentifiers::begin(uint16_t packet_id) noexcept
{
    if (holds(packet_id))
        return Begun::Duplicate;
    if (begun_ == maximum_)
        return Begun::TooMany;
    if (!restore(packet_id))
        return Begun::NoMemory;
    ++begun_;
    return Begun::New;
}

bool IncomingIdentifiers::release(uint16_t packet_id) noexcept
{
    if (!holds(packet_id))
        return false;
    Block *&block = blocks_[packet_id / kBlockBits];
    block->words[packet_id % kBlockBits / 64] &= ~mask_of(packet_id);
    --count_;
    if (--block->count == 0)
        free_block(block);
    if (begun_ > 0) // PUBCOMP for what an earlier connection left gives room, too (4.9)
        --begun_;
    return true;
}

bool IncomingIdentifiers::restore(uint16_t packet_id) noexcept
{
    if (holds(packet_id))
        return true;
    Block *const block = block_for(packet_id);
    if (!block)
        return false;
    block->words[packet_id % kBlockBits / 64] |= mask_of(packet_id);
    ++block->count;
    ++count_;
    return true;
}

bool IncomingIdentifiers::holds(uint16_t packet_id) const noexcept
{
    const Block *const block = blocks_ ? blocks_[packet_id / kBlockBits] : nullptr;
    return block && (block->words[packet_id % kBlockBits / 64] & mask_of(packet_id)) != 0;
}

// The block of this identifier, made if there is none. Null without memory.
IncomingIdentifiers::Block *IncomingIdentifiers::block_for(uint16_t packet_id) noexcept
{
    if (!blocks_)
        blocks_ = allocate_zeroed<Block *>(kBlockCount);
    if (!blocks_)
        return nullptr;
    Block *&block = blocks_[packet_id / kBlockBits];
    if (!block)
        block = allocate_zeroed<Block>(1).release();
    return block;
}

void IncomingIdentifiers::free_block(Block *&block) noexcept
{
    std::free(block);
    block = nullptr;
    if (count_ == 0)
        blocks_ = nullptr;
}

} // namespace tarn::standard
