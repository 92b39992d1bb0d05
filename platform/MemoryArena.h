// A private pool of equally sized slots for recording frames into memory.
//
// The arena reserves large address ranges (no memory is used until a slot is touched) and cuts
// them into slots of one size, one slot per frame. Allocation is a pointer bump or a pop from a
// free list, so it costs no system call inside the recording loop; Commit() moves the cost of
// page faults out of the loop as well. Destroying or resetting the arena gives every slot back
// at once with one munmap per reservation, however many frames were held. When a reservation is
// full the arena reserves another (each twice as large as the one before), so no maximum has to
// be declared up front; an optional limit caps the memory held.
//
// All members are thread-safe: a grabbing thread and a reading thread may allocate and free at
// the same time.
#pragma once

#include <cstddef>
#include <mutex>
#include <vector>

#include "platform/AlignedMemory.h"

namespace kestor {

struct MemoryArenaOptions {
    // Slot addresses are multiples of this (a power of two, at least pointer size); the default
    // lets a slot be written to disk with unbuffered I/O as it stands.
    size_t slotAlignment = kDirectIoAlignment;
    // Address space taken by the first reservation (at least one slot).
    size_t firstReservationBytes = size_t{256} << 20;
    // Most bytes of slots the arena may hold; 0 means as much as the system gives.
    size_t limitBytes = 0;
    // Ask the system to back reservations with huge pages where it can: prefaulting and
    // releasing gigabytes then touch a few thousand pages instead of millions. A slot's
    // neighbours may become resident along with it.
    bool hugePages = false;
};

class MemoryArena {
public:
    explicit MemoryArena(size_t slotSize, const MemoryArenaOptions& options = {});
    ~MemoryArena();  // releases every slot at once
    MemoryArena(const MemoryArena&) = delete;
    MemoryArena& operator=(const MemoryArena&) = delete;

    // A zero-filled slot of SlotSize() bytes, or null when the limit is reached or the system
    // refuses more address space.
    void* Allocate();
    // Like Allocate, but the slot is backed by real memory before it is handed out (freed slots
    // are; a fresh slot is prefaulted now unless Commit did it), so writing into it neither
    // page-faults nor finds the system out of memory. Null when the memory cannot be had; the
    // slot is then not handed out.
    void* AllocateCommitted();
    // Gives a slot back for reuse. False (and nothing done) for null or a foreign pointer.
    bool Free(void* slot);

    // Makes sure the next `bytes` worth of fresh slots (those never handed out; freed slots are
    // reused first and are backed already) are backed by real, prefaulted memory, so that writing
    // frames into them later neither page-faults nor finds the system out of memory. Reserves
    // further address space when needed. False when the memory cannot be had or the limit is
    // reached (what could be committed stays committed).
    bool Commit(size_t bytes);

    // Forgets every slot and returns all memory to the system; the arena stays usable.
    void Reset();

    size_t SlotSize() const { return slotSize_; }
    size_t SlotStride() const { return stride_; }  // distance between neighbouring slots
    size_t Count() const;                          // slots handed out and not freed
    size_t ReservedBytes() const;                  // address space held
    size_t CommittedSlots() const;                 // fresh slots prefaulted ahead of use

private:
    struct Reservation {
        char* base;
        size_t bytes;
        size_t slots;
        size_t prefaultedEnd;  // below: prefaulted, or belonging to slots handed out
    };

    bool Reserve();  // appends one reservation; caller holds the lock
    void* AllocateLocked(bool committed);
    bool Prefault(Reservation& reservation, size_t beginBytes, size_t endBytes);
    void ReleaseAll();
    bool Owns(const void* slot) const;

    const size_t slotSize_;
    size_t stride_;
    MemoryArenaOptions options_;

    mutable std::mutex mutex_;
    std::vector<Reservation> reservations_;
    size_t reservedBytes_ = 0;  // address space mapped
    size_t slotBytes_ = 0;      // of which usable as slots (what the limit counts)
    size_t nextReservationBytes_ = 0;
    size_t freshReservation_ = 0;  // reservation that the next fresh slot comes from
    size_t freshSlot_ = 0;         // index of that slot within it
    void* freeList_ = nullptr;     // freed slots, linked through their first bytes
    size_t count_ = 0;
};

}  // namespace kestor
