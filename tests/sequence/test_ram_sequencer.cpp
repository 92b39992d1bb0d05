// What only the memory sequencer does: slots sized by the first frame, positions that open gaps
// or run a ring, running out of memory without losing frames, spare slots, planar thirds, and
// readers alongside a writer.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "KMetadataManager.h"
#include "sequence/CKestorSequencerRAM.h"
#include "sequence_test_support.h"

using namespace kestor;
using namespace kestor::test;

namespace {

class RamSequencerTest : public MetadataStoreTest {
protected:
    void SetUp() override {
        MetadataStoreTest::SetUp();
        sequencer_.SetErrorOutput(false, false, false);
        ASSERT_TRUE(sequencer_.Open());
    }
    bool Write(uint32_t seed, const FrameSpec& spec = {}) {
        KImage frame = MakeFrame(spec, seed);
        return sequencer_.Write(&frame);
    }
    void WriteFrames(uint32_t first, uint32_t last) {
        for (uint32_t seed = first; seed <= last; ++seed) ASSERT_TRUE(Write(seed)) << seed;
    }
    // A gap frame: zero pixels, zero time.
    bool ReadsZeroFrame(uint32_t frame) {
        KImage gap;
        if (!sequencer_.Read(&gap, frame) || gap.GetRawImageData() == nullptr) return false;
        const uint8_t* p = gap.GetRawImageData();
        return std::all_of(p, p + gap.GetImageSizeBytes(), [](uint8_t b) { return b == 0; }) &&
               gap.GetTimestamp() == 0 && gap.GetTimestampMS() == 0 && gap.GetTimestampUS() == 0;
    }

    CKestorSequencerRAM sequencer_;
};

}  // namespace

TEST_F(RamSequencerTest, FirstFrameFixesTheLayoutAndCloseReleasesEverything) {
    EXPECT_EQ(sequencer_.GetReadFrame(), 1u);
    ASSERT_TRUE(Write(1));
    EXPECT_EQ(sequencer_.Header().data.trueImageSize, 3584u) << "3072 + 8 rounded up to 512";
    KImage image;
    EXPECT_FALSE(sequencer_.Read(nullptr, 1));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrInvalidIndex);
    // Truncating to nothing lets the next first frame fix another layout, with its metadata room.
    ASSERT_TRUE(sequencer_.Truncate(1));
    EXPECT_EQ(sequencer_.GetWriteFrame(), 1u);
    ASSERT_TRUE(Write(4, FrameSpec{40, 25, 8, eKFormatMono, 17}));
    EXPECT_EQ(sequencer_.Header().data.trueImageSize, 1536u) << "1000 + 17 + 8";

    // Close gives back every slot and resets the positions; nothing is read or written closed.
    ASSERT_TRUE(sequencer_.PreAllocateImages(1000, 5));
    sequencer_.SetFrameRate(60.0);
    ASSERT_TRUE(sequencer_.Close());
    EXPECT_EQ(sequencer_.GetMemoryHeld(), 0u);
    EXPECT_EQ(sequencer_.GetPreAllocatedImages(), 0u);
    EXPECT_EQ(sequencer_.GetFrameCount(), 0u);
    EXPECT_EQ(sequencer_.GetReadFrame(), 0u);
    sequencer_.SetWriteFrame(4);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 0u) << "positions are not set while closed";
    EXPECT_FALSE(sequencer_.Read(&image, 1));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrNoSequenceOrInvalidImage);
    EXPECT_FALSE(Write(1));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrNoSequenceOrInvalidImage);
    EXPECT_FALSE(sequencer_.PreAllocateImages(1000, 1));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrNoSequenceOrInvalidImage);

    ASSERT_TRUE(sequencer_.Open());
    EXPECT_EQ(sequencer_.GetFrameRate(), 0.0) << "a fresh sequence has no rate";
    EXPECT_EQ(sequencer_.GetWriteFrame(), 1u);
}

TEST_F(RamSequencerTest, FramesRoundTripBitExactWithMetadataIntoAnyImage) {
    // 16-bit pixels of an odd total size, metadata room, items that differ per frame.
    const FrameSpec spec{33, 17, 16, eKFormatMonoLE, 300};
    std::vector<KImage> written;
    for (uint32_t seed = 1; seed <= 4; ++seed) {
        written.push_back(MakeFrame(spec, seed));
        written.back().AddMetadata(KMetadata(4, &seed, sizeof seed, u"gain"));
        if (seed % 2 == 0) written.back().AddMetadata(KMetadata(0x80000001u, &seed, 1));
        ASSERT_TRUE(sequencer_.Write(&written.back()));
    }
    // Read backwards into a fresh image, one of another shape, and one image reused throughout.
    KImage reused;
    for (uint32_t frame = 4; frame >= 1; --frame) {
        KImage fresh;
        KImage other = MakeFrame(FrameSpec{8, 8}, 7);
        for (KImage* target : {&fresh, &other, &reused}) {
            ASSERT_TRUE(sequencer_.Read(target, frame));
            EXPECT_EQ(target->GetImageDescription(), written[frame - 1].GetImageDescription());
            EXPECT_TRUE(HoldsFrame(*target, frame));
            EXPECT_EQ(target->GetImage()->Metadata(), written[frame - 1].GetImage()->Metadata());
            EXPECT_EQ(target->GetImage()->ExtraBytes(), 300u);
        }
    }
}

TEST_F(RamSequencerTest, RecordingPositionOverwritesOpensAGapOrRunsARing) {
    sequencer_.SetWriteFrame(5);  // on an empty sequence: frames 1 to 4 are zero frames
    ASSERT_TRUE(Write(50));
    EXPECT_EQ(sequencer_.GetFrameCount(), 5u);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 6u);
    for (uint32_t frame = 1; frame <= 4; ++frame) EXPECT_TRUE(ReadsZeroFrame(frame)) << frame;
    EXPECT_TRUE(ReadsFrame(sequencer_, 5, 50));

    // A ring of 8: back to 1 after every eighth frame replaces the oldest frames in place.
    ASSERT_TRUE(sequencer_.Open());
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        ASSERT_TRUE(Write(seed));
        if (seed % 8 == 0) sequencer_.SetWriteFrame(1);
    }
    const uint64_t held = sequencer_.GetMemoryHeld();
    EXPECT_EQ(sequencer_.GetFrameCount(), 8u);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 5u);
    for (uint32_t frame = 1; frame <= 8; ++frame)
        EXPECT_TRUE(ReadsFrame(sequencer_, frame, frame + (frame <= 4 ? 16 : 8)));
    WriteFrames(21, 24);
    EXPECT_EQ(sequencer_.GetMemoryHeld(), held) << "overwriting allocates nothing";
    sequencer_.SetWriteFrame(0);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 1u) << "0 is raised to 1";
}

TEST_F(RamSequencerTest, FailedAllocationGivesOutOfMemoryAndKeepsEveryFrame) {
    ASSERT_TRUE(Write(1));
    const uint64_t perSlot = sequencer_.GetMemoryHeld();
    ASSERT_GT(perSlot, 0u);
    sequencer_.SetMemoryLimit(6 * perSlot);
    WriteFrames(2, 6);
    EXPECT_FALSE(Write(7));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrOutOfMemory);
    EXPECT_EQ(sequencer_.GetFrameCount(), 6u);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 7u);
    for (uint32_t frame = 1; frame <= 6; ++frame) EXPECT_TRUE(ReadsFrame(sequencer_, frame, frame));

    sequencer_.SetWriteFrame(3);  // overwriting needs no memory
    ASSERT_TRUE(Write(33));
    EXPECT_TRUE(ReadsFrame(sequencer_, 3, 33));

    ASSERT_TRUE(sequencer_.Truncate(5));  // slots given back by Truncate are used again
    sequencer_.SetWriteFrame(5);
    WriteFrames(55, 56);
    EXPECT_EQ(sequencer_.GetMemoryHeld(), 6 * perSlot);
    EXPECT_FALSE(Write(8));

    // A gap that runs out of memory keeps the zero frames it could make, and every old frame.
    ASSERT_TRUE(sequencer_.Truncate(5));
    sequencer_.SetWriteFrame(9);
    EXPECT_FALSE(Write(9));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrOutOfMemory);
    EXPECT_EQ(sequencer_.GetFrameCount(), 6u);
    EXPECT_TRUE(ReadsFrame(sequencer_, 4, 4));
    EXPECT_TRUE(ReadsZeroFrame(6));

    // Preallocation stops at the limit and keeps what it made.
    ASSERT_TRUE(sequencer_.Truncate(4));
    EXPECT_FALSE(sequencer_.PreAllocateImages(3072, 5));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrOutOfMemory);
    EXPECT_EQ(sequencer_.GetPreAllocatedImages(), 3u);
    EXPECT_TRUE(ReadsFrame(sequencer_, 3, 33));
}

TEST_F(RamSequencerTest, PreAllocatedSparesAreCountedReplacedAndUsedWhenSizesMatch) {
    // Another size discards the earlier spares; the same size adds to them.
    ASSERT_TRUE(sequencer_.PreAllocateImages(1000, 100));
    ASSERT_TRUE(sequencer_.PreAllocateImages(2000, 10));
    EXPECT_EQ(sequencer_.GetPreAllocatedImages(), 10u);
    ASSERT_TRUE(sequencer_.PreAllocateImages(2000, 5));
    EXPECT_EQ(sequencer_.GetPreAllocatedImages(), 15u);

    // With the maximum metadata size equal to the images' room the slot sizes agree, and
    // Write takes spares instead of new memory.
    KMetadataManager manager;
    ASSERT_TRUE(manager.SetMetadataMaxSize(600));
    ASSERT_TRUE(sequencer_.PreAllocateImages(3072, 10));
    const uint64_t held = sequencer_.GetMemoryHeld();
    for (uint32_t seed = 1; seed <= 4; ++seed)
        ASSERT_TRUE(Write(seed, FrameSpec{64, 48, 8, eKFormatMono, 600}));
    EXPECT_EQ(sequencer_.GetPreAllocatedImages(), 6u);
    EXPECT_EQ(sequencer_.GetMemoryHeld(), held);
    EXPECT_TRUE(ReadsFrame(sequencer_, 4, 4));

    // Images with another room make another slot size: the spares stay unused.
    ASSERT_TRUE(sequencer_.Open());
    ASSERT_TRUE(sequencer_.PreAllocateImages(3072, 10));
    ASSERT_TRUE(Write(1));
    EXPECT_EQ(sequencer_.GetPreAllocatedImages(), 10u);
    EXPECT_TRUE(ReadsFrame(sequencer_, 1, 1));
}

TEST_F(RamSequencerTest, PlanarFramesKeepWholeThirdsOnly) {
    // 10 bytes: three planes of 3 bytes; the tenth byte belongs to none. Planes come from the
    // plane pointers where the image has them, otherwise from the thirds of its buffer.
    KImage planar[2] = {MakeFrame(FrameSpec{10, 1, 8, eKFormatBGRPlanar}, 11),
                        MakeFrame(FrameSpec{10, 1, 8, eKFormatBGRPlanar}, 12)};
    planar[0].GetImage()->SetPlanarPointers();
    KImage read;
    for (uint32_t frame = 1; frame <= 2; ++frame) {
        ASSERT_TRUE(sequencer_.Write(&planar[frame - 1]));
        ASSERT_TRUE(sequencer_.Read(&read, frame));
        ASSERT_EQ(read.GetImageSizeBytes(), 10u);
        EXPECT_EQ(std::memcmp(read.GetRawImageData(), planar[frame - 1].GetRawImageData(), 9), 0);
        EXPECT_EQ(read.GetRawImageData()[9], 0) << "the last byte is lost";
        EXPECT_EQ(read.GetGreenChannel(), read.GetRawImageData() + 3);
        EXPECT_EQ(read.GetBlueChannel(), read.GetRawImageData() + 6);
    }
}

TEST_F(RamSequencerTest, ReaderSeesWholeFramesWhileAWriterRecords) {
    // Each frame's pixels hold its timestamp's low byte: a torn copy shows as a mismatch.
    std::atomic<bool> done{false};
    std::atomic<int> mismatches{0};
    std::thread reader([&] {
        KImage image;
        while (!done) {
            if (sequencer_.GetFrameCount() == 0) continue;
            if (!sequencer_.Read(&image, sequencer_.GetWriteFrame())) {  // being written now
                ++mismatches;
                continue;
            }
            const uint8_t expected = static_cast<uint8_t>(image.GetTimestamp());
            const uint8_t* p = image.GetRawImageData();
            if (!std::all_of(p, p + image.GetImageSizeBytes(),
                             [expected](uint8_t b) { return b == expected; }))
                ++mismatches;
        }
    });
    KImage image = MakeFrame(FrameSpec{512, 512}, 0);  // large, so that copies take a while
    for (uint32_t n = 1; n <= 600; ++n) {
        std::memset(image.GetRawImageData(), static_cast<uint8_t>(n), image.GetImageSizeBytes());
        image.SetTimestamp(n, 0, 0);
        ASSERT_TRUE(sequencer_.Write(&image));
        if (n % 150 == 0) sequencer_.SetWriteFrame(1);
        if (n == 400) {
            ASSERT_TRUE(sequencer_.Truncate(100));
        }
    }
    done = true;
    reader.join();
    EXPECT_EQ(mismatches.load(), 0);
}
