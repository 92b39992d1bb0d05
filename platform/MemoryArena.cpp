#include "platform/MemoryArena.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace kestor {
namespace {

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23  // Linux 5.14
#endif

// Later reservations double in size up to this, so even huge recordings need few of them.
constexpr size_t kLargestReservation = size_t{16} << 30;

size_t PageSize() {
    static const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return size;
}

size_t RoundUp(size_t value, size_t multiple) {
    return (value + multiple - 1) / multiple * multiple;
}

bool IsPowerOfTwo(size_t value) {
    return value != 0 && (value & (value - 1)) == 0;
}

size_t ValidAlignment(size_t requested) {
    if (!IsPowerOfTwo(requested)) return kDirectIoAlignment;
    // Reservations start on page boundaries, which bounds the alignment slots can get.
    return std::clamp(requested, sizeof(void*), PageSize());
}

}  // namespace

MemoryArena::MemoryArena(size_t slotSize, const MemoryArenaOptions& options)
    : slotSize_(slotSize == 0 ? 1 : slotSize), options_(options) {
    options_.slotAlignment = ValidAlignment(options.slotAlignment);
    stride_ = RoundUp(slotSize_, options_.slotAlignment);
    nextReservationBytes_ = std::max(options_.firstReservationBytes, stride_);
}

MemoryArena::~MemoryArena() {
    ReleaseAll();
}

bool MemoryArena::Reserve() {
    size_t slots = nextReservationBytes_ / stride_;
    if (options_.limitBytes != 0) {
        const size_t allowed =
            options_.limitBytes > slotBytes_ ? options_.limitBytes - slotBytes_ : 0;
        slots = std::min(slots, allowed / stride_);
    }
    void* base = MAP_FAILED;
    // When the address space is short, settle for a smaller reservation.
    for (; slots > 0; slots /= 2) {
        base = mmap(nullptr, RoundUp(slots * stride_, PageSize()), PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (base != MAP_FAILED) break;
    }
    if (base == MAP_FAILED || slots == 0) return false;
    const size_t bytes = RoundUp(slots * stride_, PageSize());
    if (options_.hugePages) madvise(base, bytes, MADV_HUGEPAGE);  // only advice: failure is fine
    try {
        reservations_.push_back({static_cast<char*>(base), bytes, slots, 0});
    } catch (const std::bad_alloc&) {
        munmap(base, bytes);
        return false;
    }
    reservedBytes_ += bytes;
    slotBytes_ += slots * stride_;
    nextReservationBytes_ = std::max(std::min(bytes * 2, kLargestReservation), stride_);
    return true;
}

void* MemoryArena::Allocate() {
    std::lock_guard lock(mutex_);
    return AllocateLocked(false);
}

void* MemoryArena::AllocateCommitted() {
    std::lock_guard lock(mutex_);
    return AllocateLocked(true);
}

void* MemoryArena::AllocateLocked(bool committed) {
    if (freeList_) {
        void* slot = freeList_;
        std::memcpy(&freeList_, slot, sizeof(void*));
        std::memset(slot, 0, slotSize_);
        ++count_;
        return slot;
    }
    for (;;) {
        if (freshReservation_ < reservations_.size()) {
            Reservation& reservation = reservations_[freshReservation_];
            if (freshSlot_ < reservation.slots) {
                const size_t offset = freshSlot_ * stride_;
                if (committed && !Prefault(reservation, offset, offset + slotSize_)) return nullptr;
                // Never handed out before, so still zero as the kernel mapped it.
                void* slot = reservation.base + offset;
                ++freshSlot_;
                ++count_;
                return slot;
            }
            ++freshReservation_;
            freshSlot_ = 0;
            continue;
        }
        if (!Reserve()) return nullptr;
    }
}

bool MemoryArena::Owns(const void* slot) const {
    const char* address = static_cast<const char*>(slot);
    for (size_t index = 0; index < reservations_.size(); ++index) {
        const Reservation& reservation = reservations_[index];
        if (address < reservation.base || address >= reservation.base + reservation.slots * stride_)
            continue;
        const size_t offset = static_cast<size_t>(address - reservation.base);
        if (offset % stride_ != 0) return false;
        // Only slots that were handed out may come back.
        return index < freshReservation_ ||
               (index == freshReservation_ && offset / stride_ < freshSlot_);
    }
    return false;
}

bool MemoryArena::Free(void* slot) {
    std::lock_guard lock(mutex_);
    if (!slot || !Owns(slot)) return false;
    std::memcpy(slot, &freeList_, sizeof(void*));
    freeList_ = slot;
    --count_;
    return true;
}

bool MemoryArena::Prefault(Reservation& reservation, size_t beginBytes, size_t endBytes) {
    // Pages below the mark are prefaulted already or belong to slots that were handed out;
    // the page shared with the last handed-out slot is left alone, as it is in use.
    const size_t from = std::max(reservation.prefaultedEnd, RoundUp(beginBytes, PageSize()));
    const size_t to = std::min(RoundUp(endBytes, PageSize()), reservation.bytes);
    if (from >= to) return true;
    if (madvise(reservation.base + from, to - from, MADV_POPULATE_WRITE) != 0) {
        if (errno != EINVAL) return false;  // ENOMEM: the system cannot back the memory
        // Kernels before 5.14: write to each page; they are fresh, so zero keeps them as is.
        for (size_t offset = from; offset < to; offset += PageSize())
            static_cast<volatile char*>(reservation.base)[offset] = 0;
    }
    reservation.prefaultedEnd = to;
    return true;
}

bool MemoryArena::Commit(size_t bytes) {
    std::lock_guard lock(mutex_);
    size_t remaining = (bytes + stride_ - 1) / stride_;
    size_t index = freshReservation_;
    size_t firstSlot = freshSlot_;
    while (remaining > 0) {
        if (index == reservations_.size() && !Reserve()) return false;
        Reservation& reservation = reservations_[index];
        const size_t take =
            std::min(reservation.slots - std::min(firstSlot, reservation.slots), remaining);
        if (!Prefault(reservation, firstSlot * stride_, (firstSlot + take) * stride_)) return false;
        remaining -= take;
        ++index;
        firstSlot = 0;
    }
    return true;
}

void MemoryArena::ReleaseAll() {
    for (const Reservation& reservation : reservations_)
        munmap(reservation.base, reservation.bytes);
    reservations_.clear();
    reservedBytes_ = 0;
    slotBytes_ = 0;
    nextReservationBytes_ = std::max(options_.firstReservationBytes, stride_);
    freshReservation_ = 0;
    freshSlot_ = 0;
    freeList_ = nullptr;
    count_ = 0;
}

void MemoryArena::Reset() {
    std::lock_guard lock(mutex_);
    ReleaseAll();
}

size_t MemoryArena::Count() const {
    std::lock_guard lock(mutex_);
    return count_;
}

size_t MemoryArena::ReservedBytes() const {
    std::lock_guard lock(mutex_);
    return reservedBytes_;
}

size_t MemoryArena::CommittedSlots() const {
    std::lock_guard lock(mutex_);
    size_t committed = 0;
    for (size_t index = freshReservation_; index < reservations_.size(); ++index) {
        const Reservation& reservation = reservations_[index];
        const size_t whole = std::min(reservation.prefaultedEnd / stride_, reservation.slots);
        const size_t first = index == freshReservation_ ? freshSlot_ : 0;
        if (whole > first) committed += whole - first;
    }
    return committed;
}

}  // namespace kestor
