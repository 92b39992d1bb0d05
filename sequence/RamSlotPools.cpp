#include "sequence/RamSlotPools.h"

#include <algorithm>
#include <new>

#include "platform/MemoryArena.h"

namespace kestor {
namespace {

// Address space taken by a pool's first reservation; later ones double. Large enough that a
// long recording needs few reservations (and Close few unmaps), small enough that a short one
// does not reserve absurd amounts.
constexpr size_t kFirstReservationBytes = size_t{256} << 20;

}  // namespace

RamSlotPools::RamSlotPools() = default;

RamSlotPools::~RamSlotPools() = default;

MemoryArena* RamSlotPools::PoolFor(uint32_t slotSize) {
    for (const auto& pool : pools_)
        if (pool->SlotSize() == slotSize) return pool.get();
    DropEmptyPools(slotSize);

    MemoryArenaOptions options;
    options.firstReservationBytes = kFirstReservationBytes;
    options.hugePages = true;
    try {
        pools_.push_back(std::make_unique<MemoryArena>(slotSize, options));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return pools_.back().get();
}

void RamSlotPools::DropEmptyPools(uint32_t keepSize) {
    std::erase_if(pools_, [keepSize](const std::unique_ptr<MemoryArena>& pool) {
        return pool->SlotSize() != keepSize && pool->Count() == 0;
    });
}

void* RamSlotPools::Allocate(uint32_t slotSize) {
    MemoryArena* pool = PoolFor(slotSize);
    if (pool == nullptr) return nullptr;
    if (limitBytes_ != 0 && heldBytes_ + pool->SlotStride() > limitBytes_) return nullptr;
    void* slot = pool->AllocateCommitted();
    if (slot != nullptr) heldBytes_ += pool->SlotStride();
    return slot;
}

void RamSlotPools::Free(uint32_t slotSize, void* slot) {
    for (const auto& pool : pools_) {
        if (pool->SlotSize() == slotSize) {
            if (pool->Free(slot)) heldBytes_ -= pool->SlotStride();
            return;
        }
    }
}

void RamSlotPools::ReleaseAll() {
    pools_.clear();
    heldBytes_ = 0;
}

uint64_t RamSlotPools::ReservedBytes() const {
    uint64_t bytes = 0;
    for (const auto& pool : pools_) bytes += pool->ReservedBytes();
    return bytes;
}

}  // namespace kestor
