#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <utility>

#include "platform/AlignedMemory.h"

using kestor::AlignedAlloc;
using kestor::AlignedBuffer;
using kestor::AlignedFree;

static bool IsAligned(const void* address, size_t alignment) {
    return reinterpret_cast<uintptr_t>(address) % alignment == 0;
}

TEST(AlignedMemory, AllocationsHonourTheAlignmentAndFailWithoutThrowingAndBuffersResize) {
    for (size_t alignment : {size_t{1}, size_t{512}, size_t{65536}}) {
        void* block = AlignedAlloc(3001, alignment);
        ASSERT_NE(block, nullptr) << alignment;
        EXPECT_TRUE(IsAligned(block, alignment)) << alignment;
        std::memset(block, 0xA5, 3001);  // the whole size is usable
        AlignedFree(block);
    }
    void* byDefault = AlignedAlloc(0);
    EXPECT_NE(byDefault, nullptr) << "0 bytes still gives a block to free";
    EXPECT_TRUE(IsAligned(byDefault, kestor::kDirectIoAlignment));
    AlignedFree(byDefault);
    AlignedFree(nullptr);
    EXPECT_EQ(AlignedAlloc(64, 0), nullptr);
    EXPECT_EQ(AlignedAlloc(64, 3000), nullptr) << "not a power of two";
    EXPECT_EQ(AlignedAlloc(SIZE_MAX - 4096), nullptr) << "impossible size fails, not throws";

    // A buffer reuses its block when shrinking, keeps nothing when growing, and moves.
    AlignedBuffer buffer(1000, 512);
    const uint8_t* first = buffer.Data();
    ASSERT_TRUE(buffer.Resize(200));
    EXPECT_EQ(buffer.Data(), first) << "shrinking reuses the block";
    EXPECT_EQ(buffer.Size(), 200u);
    ASSERT_TRUE(buffer.Resize(1 << 20));
    EXPECT_TRUE(IsAligned(buffer.Data(), 512));
    std::memset(buffer.Data(), 2, buffer.Size());
    AlignedBuffer moved = std::move(buffer);
    EXPECT_EQ(buffer.Size(), 0u);
    EXPECT_EQ(moved.Size(), size_t{1} << 20);
    EXPECT_EQ(moved.Data()[12345], 2);
    EXPECT_FALSE(moved.Resize(SIZE_MAX - 4096));
    EXPECT_TRUE(moved.Empty()) << "a failed resize leaves the buffer empty";
    EXPECT_EQ(moved.Size(), 0u);
}
