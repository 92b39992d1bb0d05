// The memory behind a RAM sequence: one arena per slot size in use. Frames have one slot size;
// spares made ahead of the first frame may have another, so at most two pools live at once.
// Every slot goes back to the pool it came from, a pool left empty is dropped as soon as
// another size is asked for, and releasing everything unmaps whole reservations.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace kestor {

class MemoryArena;

class RamSlotPools {
public:
    RamSlotPools();
    ~RamSlotPools();
    RamSlotPools(const RamSlotPools&) = delete;
    RamSlotPools& operator=(const RamSlotPools&) = delete;

    // Most bytes of slots handed out at once, over all pools (0: as much as the system gives).
    // A slot counts with its stride in the pool.
    void SetLimit(uint64_t bytes) { limitBytes_ = bytes; }
    uint64_t Limit() const { return limitBytes_; }

    // A zero-filled slot of `slotSize` bytes, backed by memory before it is returned (so that
    // copying a frame into it neither faults nor meets an exhausted system), or null.
    void* Allocate(uint32_t slotSize);
    // Gives a slot back to the pool of its size for reuse by later allocations.
    void Free(uint32_t slotSize, void* slot);
    // Unmaps every pool at once; slots handed out become invalid.
    void ReleaseAll();

    uint64_t ReservedBytes() const;                    // address space held by all pools
    uint64_t HeldBytes() const { return heldBytes_; }  // slots handed out, counted by stride

private:
    MemoryArena* PoolFor(uint32_t slotSize);  // finds or makes the pool
    void DropEmptyPools(uint32_t keepSize);

    std::vector<std::unique_ptr<MemoryArena>> pools_;
    uint64_t limitBytes_ = 0;
    uint64_t heldBytes_ = 0;
};

}  // namespace kestor
