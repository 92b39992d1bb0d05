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

MemoryArenaOptions SmallReservations(size_t firstBytes, size_t limitBytes = 0) {
    MemoryArenaOptions options;
    options.firstReservationBytes = firstBytes;
    options.limitBytes = limitBytes;
    return options;
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

}  // namespace

TEST(MemoryArena, SlotsAreDistinctAlignedAndZeroFilled) {
    MemoryArena arena(1000);
    EXPECT_EQ(arena.SlotSize(), 1000u);
    EXPECT_GE(arena.SlotStride(), 1000u);

    std::vector<uint8_t*> slots;
    for (int i = 0; i < 50; ++i) {
        auto* slot = static_cast<uint8_t*>(arena.Allocate());
        ASSERT_NE(slot, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(slot) % kestor::kDirectIoAlignment, 0u);
        EXPECT_TRUE(IsZero(slot, 1000));
        std::memset(slot, i + 1, 1000);
        slots.push_back(slot);
    }
    EXPECT_EQ(arena.Count(), 50u);
    std::vector<uint8_t*> sorted = slots;
    std::sort(sorted.begin(), sorted.end());
    for (size_t i = 1; i < sorted.size(); ++i)
        EXPECT_GE(sorted[i] - sorted[i - 1], 1000) << "slots must not overlap";
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(slots[i][0], i + 1);
        EXPECT_EQ(slots[i][999], i + 1) << "no slot was overwritten by its neighbour";
    }

    // A freed slot comes back zero-filled, like a fresh one.
    ASSERT_TRUE(arena.Free(slots[7]));
    EXPECT_EQ(arena.Count(), 49u);
    auto* again = static_cast<uint8_t*>(arena.Allocate());
    EXPECT_EQ(again, slots[7]);
    EXPECT_TRUE(IsZero(again, 1000));

    int outsider = 0;
    EXPECT_FALSE(arena.Free(&outsider));
    EXPECT_FALSE(arena.Free(nullptr));
    EXPECT_FALSE(arena.Free(slots[3] + 8)) << "not the start of a slot";
    EXPECT_EQ(arena.Count(), 50u);
}

TEST(MemoryArena, GrowsPastItsFirstReservation) {
    MemoryArena arena(kPage, SmallReservations(16 * kPage));
    std::set<void*> distinct;
    for (int i = 0; i < 200; ++i) {
        auto* slot = static_cast<uint8_t*>(arena.Allocate());
        ASSERT_NE(slot, nullptr) << "slot " << i;
        slot[kPage - 1] = 1;
        distinct.insert(slot);
    }
    EXPECT_EQ(distinct.size(), 200u);
    EXPECT_EQ(arena.Count(), 200u);
    EXPECT_GE(arena.ReservedBytes(), 200 * kPage);
    EXPECT_LT(arena.ReservedBytes(), 2 * 200 * kPage + 16 * kPage) << "reservations double";
}

TEST(MemoryArena, LimitStopsAllocationUntilSlotsComeBack) {
    MemoryArena arena(kPage, SmallReservations(4 * kPage, 10 * kPage));
    std::vector<void*> slots;
    for (int i = 0; i < 10; ++i) slots.push_back(arena.Allocate());
    EXPECT_TRUE(std::none_of(slots.begin(), slots.end(), [](void* s) { return s == nullptr; }));
    EXPECT_EQ(arena.Allocate(), nullptr) << "the limit holds";
    EXPECT_FALSE(arena.Commit(kPage)) << "nothing left to commit";
    ASSERT_TRUE(arena.Free(slots[4]));
    EXPECT_EQ(arena.Allocate(), slots[4]);
    EXPECT_EQ(arena.Count(), 10u);
}

TEST(MemoryArena, CommitPrefaultsSlotsAheadOfUse) {
    const size_t slotSize = 3 * kPage;
    MemoryArena arena(slotSize, SmallReservations(8 * slotSize));
    void* first = arena.Allocate();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(arena.CommittedSlots(), 0u);

    // 20 slots reach into the second reservation, so commit must reserve ahead as well.
    ASSERT_TRUE(arena.Commit(20 * slotSize));
    EXPECT_GE(arena.CommittedSlots(), 20u);
    std::vector<void*> slots;
    for (int i = 0; i < 20; ++i) {
        void* slot = arena.Allocate();
        ASSERT_NE(slot, nullptr);
        EXPECT_TRUE(IsResident(slot, slotSize)) << "slot " << i << " would page-fault";
        EXPECT_TRUE(IsZero(slot, slotSize));
        slots.push_back(slot);
    }
    EXPECT_EQ(arena.CommittedSlots(), 0u);

    void* uncommitted = arena.Allocate();
    ASSERT_NE(uncommitted, nullptr);
    EXPECT_FALSE(IsResident(uncommitted, slotSize)) << "reserved memory is not used up front";
}

TEST(MemoryArena, AllocateCommittedHandsOutOnlyBackedSlots) {
    const size_t slotSize = 3 * kPage;
    MemoryArena arena(slotSize, SmallReservations(4 * slotSize, 6 * slotSize));
    std::vector<void*> slots;
    for (int i = 0; i < 6; ++i) {
        void* slot = arena.AllocateCommitted();
        ASSERT_NE(slot, nullptr) << "slot " << i;
        EXPECT_TRUE(IsResident(slot, slotSize)) << "slot " << i << " would page-fault";
        EXPECT_TRUE(IsZero(slot, slotSize));
        std::memset(slot, 0xAB, slotSize);
        slots.push_back(slot);
    }
    EXPECT_EQ(arena.AllocateCommitted(), nullptr) << "the limit holds";
    EXPECT_EQ(arena.Count(), 6u) << "a refused slot is not counted";

    // A freed slot comes back zero-filled and still backed.
    ASSERT_TRUE(arena.Free(slots[2]));
    void* again = arena.AllocateCommitted();
    EXPECT_EQ(again, slots[2]);
    EXPECT_TRUE(IsZero(again, slotSize));
    EXPECT_TRUE(IsResident(again, slotSize));
}

TEST(MemoryArena, HugePageReservationsBehaveLikeOrdinaryOnes) {
    // Slots larger than a huge page, so that whole huge pages fit inside a reservation.
    const size_t slotSize = (size_t{5} << 20) / 2;
    MemoryArenaOptions options = SmallReservations(4 * slotSize);
    options.hugePages = true;
    MemoryArena arena(slotSize, options);
    std::vector<uint8_t*> slots;
    for (int i = 0; i < 10; ++i) {
        auto* slot = static_cast<uint8_t*>(i % 2 ? arena.Allocate() : arena.AllocateCommitted());
        ASSERT_NE(slot, nullptr);
        EXPECT_TRUE(IsZero(slot, slotSize)) << "slot " << i;
        std::memset(slot, i + 1, slotSize);
        slots.push_back(slot);
    }
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(slots[i][0], i + 1);
        EXPECT_EQ(slots[i][slotSize - 1], i + 1) << "no slot overlaps its neighbour";
    }
    arena.Reset();
    EXPECT_EQ(arena.ReservedBytes(), 0u);
}

TEST(MemoryArena, ResetAndDestructionReleaseEverything) {
    void* address = nullptr;
    {
        MemoryArena arena(kPage, SmallReservations(64 * kPage));
        for (int i = 0; i < 30; ++i) static_cast<char*>(arena.Allocate())[0] = 1;
        arena.Reset();
        EXPECT_EQ(arena.Count(), 0u);
        EXPECT_EQ(arena.ReservedBytes(), 0u);
        address = arena.Allocate();
        ASSERT_NE(address, nullptr) << "usable again after a reset";
        EXPECT_TRUE(IsZero(address, kPage));
    }
    unsigned char resident = 0;
    EXPECT_EQ(mincore(address, kPage, &resident), -1) << "the range is unmapped";
    EXPECT_EQ(errno, ENOMEM);
}

TEST(MemoryArena, TwoThreadsAllocateAndFreeAtOnce) {
    MemoryArena arena(256, SmallReservations(64 * 1024));
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
