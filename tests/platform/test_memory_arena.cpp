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
// when committed, backed; fills each with its number and finally checks no neighbour overwrote it.
std::vector<uint8_t*> AllocateMarked(MemoryArena& arena, int count) {
    std::vector<uint8_t*> slots;
    const size_t size = arena.SlotSize();
    for (int i = 0; i < count; ++i) {
        auto* slot = static_cast<uint8_t*>(i % 2 ? arena.AllocateCommitted() : arena.Allocate());
        EXPECT_NE(slot, nullptr) << "slot " << i;
        if (slot == nullptr) break;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(slot) % kestor::kDirectIoAlignment, 0u);
        EXPECT_TRUE(IsZero(slot, size)) << "slot " << i;
        EXPECT_TRUE(i % 2 == 0 || IsResident(slot, size)) << "slot " << i;
        std::memset(slot, i + 1, size);
        slots.push_back(slot);
    }
    for (size_t i = 0; i < slots.size(); ++i)
        EXPECT_TRUE(slots[i][0] == i + 1 && slots[i][size - 1] == i + 1) << "slot " << i;
    return slots;
}

}  // namespace

TEST(MemoryArena, SlotsAreDistinctAlignedZeroFilledAndReusedAfterFree) {
    MemoryArena arena(1000);
    const std::vector<uint8_t*> slots = AllocateMarked(arena, 50);
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
    AllocateMarked(arena, 200);
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
    // 20 slots reach into the second reservation, so commit must reserve ahead as well.
    ASSERT_TRUE(arena.Commit(20 * slotSize));
    EXPECT_GE(arena.CommittedSlots(), 20u);
    for (int i = 0; i < 20; ++i) {
        void* slot = arena.Allocate();
        ASSERT_NE(slot, nullptr);
        EXPECT_TRUE(IsResident(slot, slotSize)) << "slot " << i << " would page-fault";
    }
    EXPECT_EQ(arena.CommittedSlots(), 0u);
    void* uncommitted = arena.Allocate();
    ASSERT_NE(uncommitted, nullptr);
    EXPECT_FALSE(IsResident(uncommitted, slotSize)) << "reserved memory is not used up front";
}

TEST(MemoryArena, HugePagesResetAndDestructionReleaseEverything) {
    const size_t slotSize = (size_t{5} << 20) / 2;  // whole huge pages fit in a reservation
    void* address = nullptr;
    {
        MemoryArena arena(slotSize, Reservations(4 * slotSize, 0, /*huge=*/true));
        AllocateMarked(arena, 10);
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
    std::vector<uint8_t*> kept[2];
    auto worker = [&](uint8_t id) {
        for (int i = 0; i < 2000; ++i) {
            auto* slot = static_cast<uint8_t*>(arena.Allocate());
            if (!slot) return;
            std::memset(slot, id, 256);
            i % 3 ? kept[id].push_back(slot) : void(arena.Free(slot));
        }
    };
    std::thread a(worker, 0), b(worker, 1);
    a.join();
    b.join();
    std::set<uint8_t*> all(kept[0].begin(), kept[0].end());
    all.insert(kept[1].begin(), kept[1].end());
    EXPECT_EQ(all.size(), kept[0].size() + kept[1].size()) << "a slot given to both threads";
    EXPECT_EQ(arena.Count(), all.size());
    for (uint8_t id : {0, 1})
        for (uint8_t* slot : kept[id]) EXPECT_EQ(slot[255], id) << "overwritten by the other";
}
