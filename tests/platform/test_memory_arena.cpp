#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "platform/MemoryArena.h"

using kestor::MemoryArena;
using kestor::MemoryArenaOptions;

namespace {

const size_t kPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));

MemoryArenaOptions Reservations(size_t firstBytes, size_t limitBytes = 0, bool huge = false) {
    return {.firstReservationBytes = firstBytes, .limitBytes = limitBytes, .hugePages = huge};
}

bool IsZero(const void* memory, size_t bytes) {
    const auto* p = static_cast<const uint8_t*>(memory);
    return std::all_of(p, p + bytes, [](uint8_t b) { return b == 0; });
}

// True when every page of the range is backed by memory right now.
bool IsResident(const void* address, size_t bytes) {
    const uintptr_t begin = reinterpret_cast<uintptr_t>(address) / kPage * kPage;
    const uintptr_t end = reinterpret_cast<uintptr_t>(address) + bytes;
    std::vector<unsigned char> pages((end - begin + kPage - 1) / kPage);
    if (mincore(reinterpret_cast<void*>(begin), end - begin, pages.data()) != 0) return false;
    return std::all_of(pages.begin(), pages.end(), [](unsigned char p) { return p & 1; });
}

// Allocates `count` slots (every other one committed), checks each is aligned, zero-filled and,
// when committed, backed by memory, and marks it with its number in the first and last byte.
std::vector<uint8_t*> AllocateMarked(MemoryArena& arena, int count) {
    std::vector<uint8_t*> slots;
    for (int i = 0; i < count; ++i) {
        auto* slot = static_cast<uint8_t*>(i % 2 ? arena.AllocateCommitted() : arena.Allocate());
        EXPECT_NE(slot, nullptr) << "slot " << i;
        if (slot == nullptr) break;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(slot) % kestor::kDirectIoAlignment, 0u);
        EXPECT_TRUE(IsZero(slot, arena.SlotSize())) << "slot " << i;
        EXPECT_TRUE(i % 2 == 0 || IsResident(slot, arena.SlotSize())) << "slot " << i;
        std::memset(slot, i + 1, arena.SlotSize());
        slots.push_back(slot);
    }
    return slots;
}

void ExpectMarksIntact(const MemoryArena& arena, const std::vector<uint8_t*>& slots) {
    for (size_t i = 0; i < slots.size(); ++i) {
        EXPECT_EQ(slots[i][0], i + 1) << "slot " << i << " was overwritten by a neighbour";
        EXPECT_EQ(slots[i][arena.SlotSize() - 1], i + 1) << "slot " << i;
    }
}

}  // namespace

TEST(MemoryArena, SlotsAreDistinctAlignedZeroFilledAndReusedAfterFree) {
    MemoryArena arena(1000);
    const std::vector<uint8_t*> slots = AllocateMarked(arena, 50);
    ExpectMarksIntact(arena, slots);
    EXPECT_EQ(arena.Count(), 50u);

    ASSERT_TRUE(arena.Free(slots[7]));
    EXPECT_EQ(arena.Count(), 49u);
    auto* again = static_cast<uint8_t*>(arena.Allocate());
    EXPECT_EQ(again, slots[7]);
    EXPECT_TRUE(IsZero(again, 1000)) << "a freed slot comes back zero-filled, like a fresh one";

    int outsider = 0;
    EXPECT_FALSE(arena.Free(&outsider));
    EXPECT_FALSE(arena.Free(nullptr));
    EXPECT_FALSE(arena.Free(slots[3] + 8)) << "not the start of a slot";
    EXPECT_EQ(arena.Count(), 50u);
}

TEST(MemoryArena, GrowsPastItsFirstReservationUpToTheLimit) {
    MemoryArena arena(kPage, Reservations(16 * kPage));
    const std::vector<uint8_t*> slots = AllocateMarked(arena, 200);
    ExpectMarksIntact(arena, slots);
    EXPECT_GE(arena.ReservedBytes(), 200 * kPage);
    EXPECT_LT(arena.ReservedBytes(), 2 * 200 * kPage + 16 * kPage) << "reservations double";

    MemoryArena limited(kPage, Reservations(4 * kPage, 10 * kPage));
    const std::vector<uint8_t*> held = AllocateMarked(limited, 10);
    EXPECT_EQ(limited.Allocate(), nullptr) << "the limit holds";
    EXPECT_EQ(limited.AllocateCommitted(), nullptr);
    EXPECT_FALSE(limited.Commit(kPage)) << "nothing left to commit";
    EXPECT_EQ(limited.Count(), 10u) << "a refused slot is not counted";
    ASSERT_TRUE(limited.Free(held[4]));
    EXPECT_EQ(limited.AllocateCommitted(), held[4]);
    EXPECT_TRUE(IsResident(held[4], kPage)) << "a reused slot is still backed";
}

TEST(MemoryArena, CommitPrefaultsSlotsAheadOfUse) {
    const size_t slotSize = 3 * kPage;
    MemoryArena arena(slotSize, Reservations(8 * slotSize));
    ASSERT_NE(arena.Allocate(), nullptr);
    EXPECT_EQ(arena.CommittedSlots(), 0u);

    // 20 slots reach into the second reservation, so commit must reserve ahead as well.
    ASSERT_TRUE(arena.Commit(20 * slotSize));
    EXPECT_GE(arena.CommittedSlots(), 20u);
    for (int i = 0; i < 20; ++i) {
        void* slot = arena.Allocate();
        ASSERT_NE(slot, nullptr);
        EXPECT_TRUE(IsResident(slot, slotSize)) << "slot " << i << " would page-fault";
        EXPECT_TRUE(IsZero(slot, slotSize));
    }
    EXPECT_EQ(arena.CommittedSlots(), 0u);
    void* uncommitted = arena.Allocate();
    ASSERT_NE(uncommitted, nullptr);
    EXPECT_FALSE(IsResident(uncommitted, slotSize)) << "reserved memory is not used up front";
}

TEST(MemoryArena, HugePagesResetAndDestructionReleaseEverything) {
    // Slots larger than a huge page, so that whole huge pages fit inside a reservation.
    const size_t slotSize = (size_t{5} << 20) / 2;
    void* address = nullptr;
    {
        MemoryArena arena(slotSize, Reservations(4 * slotSize, 0, /*huge=*/true));
        ExpectMarksIntact(arena, AllocateMarked(arena, 10));
        arena.Reset();
        EXPECT_EQ(arena.ReservedBytes(), 0u);
        EXPECT_EQ(arena.Count(), 0u);
        address = arena.Allocate();
        ASSERT_NE(address, nullptr) << "usable again after a reset";
        EXPECT_TRUE(IsZero(address, slotSize));
    }
    unsigned char resident = 0;
    EXPECT_EQ(mincore(address, kPage, &resident), -1) << "the range is unmapped";
    EXPECT_EQ(errno, ENOMEM);
}

TEST(MemoryArena, TwoThreadsAllocateAndFreeAtOnce) {
    MemoryArena arena(256, Reservations(64 * 1024));
    std::vector<void*> kept[2];
    auto worker = [&](int id) {
        for (int i = 0; i < 2000; ++i) {
            auto* slot = static_cast<uint8_t*>(arena.Allocate());
            if (!slot) return;
            std::memset(slot, id + 1, 256);
            if (i % 3 == 0)
                arena.Free(slot);
            else
                kept[id].push_back(slot);
        }
    };
    std::thread a(worker, 0), b(worker, 1);
    a.join();
    b.join();
    std::set<void*> all;
    for (int id = 0; id < 2; ++id) {
        for (void* slot : kept[id]) {
            EXPECT_EQ(static_cast<uint8_t*>(slot)[255], id + 1) << "slot shared by both threads";
            all.insert(slot);
        }
    }
    EXPECT_EQ(all.size(), kept[0].size() + kept[1].size());
    EXPECT_EQ(arena.Count(), all.size());
}
