#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "KImage.h"
#include "KMetadataManager.h"
#include "KSequence.h"
#include "core/CKestorImage.h"
#include "metadata_test_support.h"
#include "sequence/CKestorSequencerRAM.h"

using kestor::test::MetadataStoreTest;

namespace {

struct Time {
    uint32_t seconds;
    uint16_t milliseconds;
    uint16_t microseconds;
};

// An image whose pixels are derived from `seed`, so that every frame of a test is distinct.
std::unique_ptr<KImage> MakeImage(uint32_t width, uint32_t height, uint32_t bitDepth,
                                  eKImageFormat format, uint32_t seed, Time time = {},
                                  uint16_t metadataCapacity = 0) {
    auto image = std::make_unique<KImage>();
    EXPECT_TRUE(
        image->GetImage()->Reallocate(width, height, bitDepth, bitDepth, format, metadataCapacity));
    uint8_t* pixels = image->GetRawImageData();
    std::mt19937 random(seed);
    for (uint32_t i = 0; i < image->GetImageSizeBytes(); ++i)
        pixels[i] = static_cast<uint8_t>(random());
    image->SetTimestamp(time.seconds, time.milliseconds, time.microseconds);
    return image;
}

std::unique_ptr<KImage> Mono(uint32_t seed, Time time = {}, uint16_t metadataCapacity = 0) {
    return MakeImage(40, 25, 8, eKFormatMono, seed, time, metadataCapacity);  // 1000 bytes
}

bool SamePixels(const KImage& a, const KImage& b) {
    return a.GetImageSizeBytes() == b.GetImageSizeBytes() && a.GetRawImageData() != nullptr &&
           b.GetRawImageData() != nullptr &&
           std::memcmp(a.GetRawImageData(), b.GetRawImageData(), a.GetImageSizeBytes()) == 0;
}

bool AllZero(const KImage& image) {
    const uint8_t* p = image.GetRawImageData();
    return p != nullptr &&
           std::all_of(p, p + image.GetImageSizeBytes(), [](uint8_t b) { return b == 0; });
}

Time TimestampOf(CKestorSequencerRAM& sequencer, uint32_t frame) {
    Time time{};
    EXPECT_TRUE(sequencer.ReadTimestamp(frame, time.seconds, time.milliseconds, time.microseconds))
        << "frame " << frame;
    return time;
}

class RamSequencerTest : public MetadataStoreTest {
protected:
    void SetUp() override {
        MetadataStoreTest::SetUp();
        sequencer_.SetErrorOutput(false, false, false);
        ASSERT_TRUE(sequencer_.Open());
    }

    // Writes `count` mono frames with seeds first, first + 1, ... and timestamps equal to them.
    void WriteFrames(uint32_t first, uint32_t count) {
        for (uint32_t seed = first; seed < first + count; ++seed)
            ASSERT_TRUE(sequencer_.Write(Mono(seed, {seed, 0, 0}).get())) << "seed " << seed;
    }

    // True when frame `frame` holds the mono frame made from `seed`.
    bool FrameIs(uint32_t frame, uint32_t seed) {
        KImage read;
        if (!sequencer_.Read(&read, frame)) return false;
        return SamePixels(read, *Mono(seed)) && read.GetTimestamp() == seed;
    }

    CKestorSequencerRAM sequencer_;
};

TEST_F(RamSequencerTest, FirstFrameFixesTheImageAndTheSlot) {
    EXPECT_TRUE(sequencer_.IsRAM());
    EXPECT_EQ(sequencer_.GetReadFrame(), 1u);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 1u);
    ASSERT_TRUE(sequencer_.Write(Mono(1, {1, 0, 0}).get()));

    const auto& header = sequencer_.Header().data;
    EXPECT_EQ(header.width, 40u);
    EXPECT_EQ(header.height, 25u);
    EXPECT_EQ(header.bitDepth, 8u);
    EXPECT_EQ(header.imageSizeBytes, 1000u);
    EXPECT_EQ(header.imageFormat, uint32_t{eKFormatMono});
    EXPECT_EQ(header.trueImageSize, 1024u) << "1000 + 8 rounded up to 512";
    EXPECT_EQ(sequencer_.GetFrameCount(), 1u);

    // Another size, or the same size in another format, is refused and changes nothing.
    EXPECT_FALSE(sequencer_.Write(MakeImage(20, 50, 8, eKFormatMono, 2).get()));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrIncompatibleImageFormat);
    EXPECT_FALSE(sequencer_.Write(MakeImage(40, 25, 8, eKFormatMonoBayer, 3).get()));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrIncompatibleImageFormat);
    EXPECT_EQ(sequencer_.GetFrameCount(), 1u);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 2u);
    EXPECT_TRUE(FrameIs(1, 1));

    // The metadata room of the first image is part of the slot: 1000 + 17 + 8 needs 1536.
    ASSERT_TRUE(sequencer_.Open());
    ASSERT_TRUE(sequencer_.Write(Mono(4, {}, 17).get()));
    EXPECT_EQ(sequencer_.Header().data.trueImageSize, 1536u);

    // Images without pixels are refused.
    KImage empty;
    EXPECT_FALSE(sequencer_.Write(&empty));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrNoSequenceOrInvalidImage);
    EXPECT_FALSE(sequencer_.Write(nullptr));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrNoSequenceOrInvalidImage);
}

TEST_F(RamSequencerTest, FramesRoundTripBitExactWithTimestampAndMetadata) {
    // 16-bit pixels of an odd total size, metadata room, items that differ per frame.
    const uint16_t capacity = 300;
    std::vector<std::unique_ptr<KImage>> written;
    for (uint32_t n = 0; n < 12; ++n) {
        auto image = MakeImage(33, 17, 16, eKFormatMonoLE, 100 + n,
                               {1700000000u + n, static_cast<uint16_t>(n * 83 % 1000),
                                static_cast<uint16_t>(n * 37 % 1000)},
                               capacity);
        const uint32_t gain = n * 10;
        image->AddMetadata(KMetadata(4, &gain, sizeof gain, u"gain"));
        if (n % 2 == 0) {
            const uint8_t blob[5] = {1, 2, 3, 4, static_cast<uint8_t>(n)};
            image->AddMetadata(KMetadata(0x80000001u, blob, sizeof blob));
        }
        ASSERT_TRUE(sequencer_.Write(image.get()));
        written.push_back(std::move(image));
    }
    ASSERT_EQ(sequencer_.GetFrameCount(), 12u);

    // A fresh image, an image of another shape, and one image reused in random order.
    KImage fresh;
    auto other = MakeImage(8, 8, 8, eKFormatMono, 7);
    KImage reused;
    std::vector<uint32_t> order(12);
    for (uint32_t i = 0; i < 12; ++i) order[i] = i + 1;
    std::shuffle(order.begin(), order.end(), std::mt19937(5));
    for (uint32_t frame : order) {
        const KImage& original = *written[frame - 1];
        for (KImage* target : {&fresh, other.get(), &reused}) {
            ASSERT_TRUE(sequencer_.Read(target, frame)) << "frame " << frame;
            EXPECT_EQ(target->GetImageDescription(), original.GetImageDescription());
            EXPECT_TRUE(SamePixels(*target, original)) << "frame " << frame;
            EXPECT_EQ(target->GetTimestamp(), original.GetTimestamp());
            EXPECT_EQ(target->GetTimestampMS(), original.GetTimestampMS());
            EXPECT_EQ(target->GetTimestampUS(), original.GetTimestampUS());
            EXPECT_EQ(target->GetImage()->Metadata(), original.GetImage()->Metadata());
            EXPECT_EQ(target->GetImage()->ExtraBytes(), capacity);
            EXPECT_EQ(target->GetGreenChannel(), nullptr) << "a packed image has one plane";
        }
        const Time time = TimestampOf(sequencer_, frame);
        EXPECT_EQ(time.seconds, original.GetTimestamp());
        EXPECT_EQ(time.milliseconds, original.GetTimestampMS());
        EXPECT_EQ(time.microseconds, original.GetTimestampUS());
    }
}

TEST_F(RamSequencerTest, ReadIndexRules) {
    // An empty sequence has no frame to read, whatever the index.
    KImage image;
    EXPECT_FALSE(sequencer_.Read(&image, 1));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrInvalidIndex);
    Time time{9, 9, 9};
    EXPECT_FALSE(sequencer_.ReadTimestamp(1, time.seconds, time.milliseconds, time.microseconds));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrInvalidIndex);
    EXPECT_EQ(time.seconds, 0u);
    EXPECT_EQ(time.milliseconds, 0u);
    EXPECT_EQ(time.microseconds, 0u);

    WriteFrames(1, 5);
    // Index 0 fails and leaves the image without pixels.
    ASSERT_TRUE(sequencer_.Read(&image, 2));
    ASSERT_NE(image.GetRawImageData(), nullptr);
    EXPECT_FALSE(sequencer_.Read(&image, 0));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrInvalidIndex);
    EXPECT_EQ(image.GetRawImageData(), nullptr);
    EXPECT_FALSE(sequencer_.ReadTimestamp(0, time.seconds, time.milliseconds, time.microseconds));
    EXPECT_FALSE(sequencer_.Read(nullptr, 1));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrInvalidIndex);

    // Past the end reads the last frame.
    EXPECT_TRUE(FrameIs(99, 5));
    EXPECT_EQ(TimestampOf(sequencer_, 99).seconds, 5u);

    // A closed sequencer reads and writes nothing.
    ASSERT_TRUE(sequencer_.Close());
    EXPECT_FALSE(sequencer_.Read(&image, 1));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrNoSequenceOrInvalidImage);
    EXPECT_FALSE(sequencer_.Write(Mono(1).get()));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrNoSequenceOrInvalidImage);
}

TEST_F(RamSequencerTest, RecordingPositionOverwritesOrOpensAGap) {
    // Position 5 on an empty sequence: frames 1 to 4 are zero-filled with timestamp 0.
    sequencer_.SetWriteFrame(5);
    ASSERT_TRUE(sequencer_.Write(Mono(50, {50, 1, 2}).get()));
    EXPECT_EQ(sequencer_.GetFrameCount(), 5u);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 6u);
    for (uint32_t frame = 1; frame <= 4; ++frame) {
        KImage gap;
        ASSERT_TRUE(sequencer_.Read(&gap, frame));
        EXPECT_TRUE(AllZero(gap)) << "frame " << frame;
        EXPECT_EQ(gap.GetTimestamp(), 0u);
        EXPECT_EQ(gap.GetTimestampMS(), 0u);
        EXPECT_EQ(gap.GetTimestampUS(), 0u);
    }
    EXPECT_TRUE(FrameIs(5, 50));

    // Back to 1 on a 10-frame sequence: frame 1 is replaced, the others stay.
    ASSERT_TRUE(sequencer_.Open());
    WriteFrames(1, 10);
    sequencer_.SetWriteFrame(1);
    ASSERT_TRUE(sequencer_.Write(Mono(77, {77, 0, 0}).get()));
    EXPECT_EQ(sequencer_.GetFrameCount(), 10u);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 2u);
    EXPECT_TRUE(FrameIs(1, 77));
    EXPECT_TRUE(FrameIs(2, 2));
    EXPECT_TRUE(FrameIs(10, 10));

    // 0 is raised to 1; the playback position stays within the frames.
    sequencer_.SetWriteFrame(0);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 1u);
    sequencer_.SetReadFrame(0);
    EXPECT_EQ(sequencer_.GetReadFrame(), 1u);
    sequencer_.SetReadFrame(50);
    EXPECT_EQ(sequencer_.GetReadFrame(), 10u);
}

TEST_F(RamSequencerTest, RingRecordingKeepsTheLatestFramesInFixedMemory) {
    const uint32_t ring = 8;
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        ASSERT_TRUE(sequencer_.Write(Mono(seed, {seed, 0, 0}).get()));
        if (seed % ring == 0) sequencer_.SetWriteFrame(1);
        if (seed == ring) {
            EXPECT_GT(sequencer_.GetMemoryHeld(), 0u);
        }
    }
    const uint64_t heldAfterFirstLap = sequencer_.GetMemoryHeld();
    EXPECT_EQ(sequencer_.GetFrameCount(), ring);
    // Frames 17..20 went to positions 1..4; 13..16 are still at 5..8.
    for (uint32_t frame = 1; frame <= 4; ++frame) EXPECT_TRUE(FrameIs(frame, 16 + frame));
    for (uint32_t frame = 5; frame <= 8; ++frame) EXPECT_TRUE(FrameIs(frame, 8 + frame));
    WriteFrames(21, 4);
    EXPECT_EQ(sequencer_.GetMemoryHeld(), heldAfterFirstLap) << "overwriting allocates nothing";
}

TEST_F(RamSequencerTest, TruncateKeepsTheFramesBeforeItsArgument) {
    WriteFrames(1, 10);
    sequencer_.SetReadFrame(7);
    sequencer_.SetWriteFrame(7);
    ASSERT_TRUE(sequencer_.Truncate(3));
    EXPECT_EQ(sequencer_.GetFrameCount(), 2u);
    EXPECT_EQ(sequencer_.Header().data.allocatedFrames, 2u);
    EXPECT_EQ(sequencer_.GetReadFrame(), 2u);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 3u);
    EXPECT_TRUE(FrameIs(1, 1));
    EXPECT_TRUE(FrameIs(2, 2));
    EXPECT_TRUE(FrameIs(5, 2)) << "the end is now frame 2";

    // 0 does nothing; a count beyond the end does nothing either.
    ASSERT_TRUE(sequencer_.Truncate(0));
    ASSERT_TRUE(sequencer_.Truncate(50));
    EXPECT_EQ(sequencer_.GetFrameCount(), 2u);

    // 1 empties the sequence, and the next first frame may have another shape.
    ASSERT_TRUE(sequencer_.Truncate(1));
    EXPECT_EQ(sequencer_.GetFrameCount(), 0u);
    EXPECT_EQ(sequencer_.GetReadFrame(), 1u);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 1u);
    ASSERT_TRUE(sequencer_.Write(MakeImage(10, 10, 8, eKFormatMono, 3).get()));
    EXPECT_EQ(sequencer_.Header().data.imageSizeBytes, 100u);
    EXPECT_EQ(sequencer_.Header().data.trueImageSize, 512u);
}

TEST_F(RamSequencerTest, FailedAllocationGives63AndKeepsEveryFrame) {
    ASSERT_TRUE(sequencer_.Write(Mono(1, {1, 0, 0}).get()));
    const uint64_t perSlot = sequencer_.GetMemoryHeld();
    ASSERT_GT(perSlot, 0u);
    sequencer_.SetMemoryLimit(6 * perSlot);
    WriteFrames(2, 5);

    EXPECT_FALSE(sequencer_.Write(Mono(7).get()));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrOutOfMemory);
    EXPECT_EQ(sequencer_.GetFrameCount(), 6u);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 7u);
    for (uint32_t frame = 1; frame <= 6; ++frame) EXPECT_TRUE(FrameIs(frame, frame));

    // Overwriting needs no memory and still works at the limit.
    sequencer_.SetWriteFrame(3);
    ASSERT_TRUE(sequencer_.Write(Mono(33, {33, 0, 0}).get()));
    EXPECT_TRUE(FrameIs(3, 33));

    // Slots given back by Truncate are used again.
    ASSERT_TRUE(sequencer_.Truncate(5));  // frames 1..4 stay
    EXPECT_EQ(sequencer_.GetWriteFrame(), 4u);
    sequencer_.SetWriteFrame(5);
    WriteFrames(55, 2);
    EXPECT_EQ(sequencer_.GetFrameCount(), 6u);
    EXPECT_EQ(sequencer_.GetMemoryHeld(), 6 * perSlot);
    EXPECT_FALSE(sequencer_.Write(Mono(8).get()));

    // A gap that runs out of memory keeps the zero frames it could make, and every old frame.
    ASSERT_TRUE(sequencer_.Truncate(5));
    sequencer_.SetWriteFrame(9);
    EXPECT_FALSE(sequencer_.Write(Mono(9).get()));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrOutOfMemory);
    EXPECT_EQ(sequencer_.GetFrameCount(), 6u);
    EXPECT_TRUE(FrameIs(4, 4));
    KImage gap;
    ASSERT_TRUE(sequencer_.Read(&gap, 6));
    EXPECT_TRUE(AllZero(gap));

    // Preallocation stops at the limit and keeps what it made.
    ASSERT_TRUE(sequencer_.Truncate(4));
    EXPECT_FALSE(sequencer_.PreAllocateImages(1000, 5));
    EXPECT_EQ(sequencer_.GetLastError(), eKErrOutOfMemory);
    EXPECT_EQ(sequencer_.GetPreAllocatedImages(), 3u);
    for (uint32_t frame = 1; frame <= 3; ++frame)
        EXPECT_TRUE(FrameIs(frame, frame == 3 ? 33 : frame));
}

TEST_F(RamSequencerTest, PreAllocatedSparesAreCountedReplacedAndUsedWhenSizesMatch) {
    CKestorSequencerRAM closed;
    closed.SetErrorOutput(false, false, false);
    EXPECT_FALSE(closed.PreAllocateImages(1000, 1));
    EXPECT_EQ(closed.GetLastError(), eKErrNoSequenceOrInvalidImage);

    ASSERT_TRUE(sequencer_.PreAllocateImages(1000, 100));
    EXPECT_EQ(sequencer_.GetPreAllocatedImages(), 100u);
    const uint64_t perSlot = sequencer_.GetMemoryHeld() / 100;
    ASSERT_GT(perSlot, 0u);
    // Another size discards the first ones; the same size adds to them.
    ASSERT_TRUE(sequencer_.PreAllocateImages(2000, 10));
    EXPECT_EQ(sequencer_.GetPreAllocatedImages(), 10u);
    ASSERT_TRUE(sequencer_.PreAllocateImages(2000, 5));
    EXPECT_EQ(sequencer_.GetPreAllocatedImages(), 15u);

    // With the manager's maximum metadata size equal to the images' room, the slot sizes agree
    // and Write takes spares instead of new memory.
    KMetadataManager manager;
    ASSERT_TRUE(manager.SetMetadataMaxSize(200));
    ASSERT_TRUE(sequencer_.PreAllocateImages(1000, 10));
    EXPECT_EQ(sequencer_.GetPreAllocatedImages(), 10u);
    const uint64_t held = sequencer_.GetMemoryHeld();
    for (uint32_t seed = 1; seed <= 4; ++seed)
        ASSERT_TRUE(sequencer_.Write(Mono(seed, {seed, 0, 0}, 200).get()));
    EXPECT_EQ(sequencer_.GetPreAllocatedImages(), 6u);
    EXPECT_EQ(sequencer_.GetMemoryHeld(), held);
    EXPECT_EQ(sequencer_.Header().data.trueImageSize, 1536u);
    for (uint32_t frame = 1; frame <= 4; ++frame) {
        KImage read;
        ASSERT_TRUE(sequencer_.Read(&read, frame));
        EXPECT_TRUE(SamePixels(read, *Mono(frame)));
    }

    // Images with another room make another slot size: the spares stay unused.
    ASSERT_TRUE(sequencer_.Open());
    ASSERT_TRUE(sequencer_.PreAllocateImages(1000, 10));
    ASSERT_TRUE(sequencer_.Write(Mono(1, {1, 0, 0}, 0).get()));
    EXPECT_EQ(sequencer_.GetPreAllocatedImages(), 10u);
    EXPECT_TRUE(FrameIs(1, 1));
}

TEST_F(RamSequencerTest, FrameRateIgnoresValuesNotAboveZero) {
    EXPECT_EQ(sequencer_.GetFrameRate(), 0.0);
    sequencer_.SetFrameRate(0.0);
    sequencer_.SetFrameRate(-25.0);
    EXPECT_EQ(sequencer_.GetFrameRate(), 0.0);
    sequencer_.SetFrameRate(250.5);
    EXPECT_EQ(sequencer_.GetFrameRate(), 250.5);
    EXPECT_EQ(sequencer_.Header().data.frameRate, 250.5);
    sequencer_.SetFrameRate(0.0);
    EXPECT_EQ(sequencer_.GetFrameRate(), 250.5);
}

TEST_F(RamSequencerTest, PlanarFramesKeepWholeThirdsOnly) {
    // 10 bytes: three planes of 3 bytes; the tenth byte belongs to none.
    auto planar = MakeImage(10, 1, 8, eKFormatBGRPlanar, 11);
    planar->GetImage()->SetPlanarPointers();
    ASSERT_TRUE(sequencer_.Write(planar.get()));
    KImage read;
    ASSERT_TRUE(sequencer_.Read(&read, 1));
    ASSERT_EQ(read.GetImageSizeBytes(), 10u);
    EXPECT_EQ(std::memcmp(read.GetRawImageData(), planar->GetRawImageData(), 9), 0);
    EXPECT_EQ(read.GetRawImageData()[9], 0) << "the last byte is lost";
    EXPECT_EQ(read.GetGreenChannel(), read.GetRawImageData() + 3);
    EXPECT_EQ(read.GetBlueChannel(), read.GetRawImageData() + 6);

    // Planes are taken from the image's plane pointers: without them, from the thirds.
    auto unpointed = MakeImage(10, 1, 8, eKFormatBGRPlanar, 12);
    ASSERT_TRUE(sequencer_.Write(unpointed.get()));
    ASSERT_TRUE(sequencer_.Read(&read, 2));
    EXPECT_EQ(std::memcmp(read.GetRawImageData(), unpointed->GetRawImageData(), 9), 0);
}

TEST_F(RamSequencerTest, SortOrdersByTimestampStablyWithoutLosingMetadata) {
    // 40 frames over 10 distinct timestamps, so that equal timestamps abound; each frame is
    // tagged by its seed in its pixels and in a metadata item.
    const uint32_t count = 40;
    auto timeOf = [](uint32_t seed) {
        return Time{seed * 7 % 5, static_cast<uint16_t>(seed * 3 % 2 * 500), 0};
    };
    for (uint32_t seed = 0; seed < count; ++seed) {
        auto image = Mono(seed, timeOf(seed));
        image->AddMetadata(KMetadata(6, &seed, sizeof seed));
        ASSERT_TRUE(sequencer_.Write(image.get()));
    }
    ASSERT_TRUE(sequencer_.Sort());
    EXPECT_EQ(sequencer_.GetFrameCount(), count);

    std::vector<bool> seen(count, false);
    int64_t previousTime = -1;
    uint32_t previousSeed = 0;
    for (uint32_t frame = 1; frame <= count; ++frame) {
        KImage read;
        ASSERT_TRUE(sequencer_.Read(&read, frame));
        ASSERT_EQ(read.GetMetadataCount(), 1);
        uint32_t seed;
        std::memcpy(&seed, read.GetMetadata(0)->GetData(), sizeof seed);
        ASSERT_LT(seed, count);
        EXPECT_FALSE(seen[seed]) << "seed " << seed << " appears twice";
        seen[seed] = true;
        EXPECT_TRUE(SamePixels(read, *Mono(seed))) << "pixels and metadata travel together";
        EXPECT_EQ(read.GetTimestamp(), timeOf(seed).seconds);
        EXPECT_EQ(read.GetTimestampMS(), timeOf(seed).milliseconds);

        const int64_t time = int64_t{read.GetTimestamp()} * 1000 + read.GetTimestampMS();
        EXPECT_GE(time, previousTime) << "frame " << frame;
        if (time == previousTime) {
            EXPECT_GT(seed, previousSeed) << "equal times keep their order";
        }
        previousTime = time;
        previousSeed = seed;
    }

    // The timestamp search sees the new order: both find the first frame of a group.
    auto millisecondsOf = [this](uint32_t frame) {
        const Time time = TimestampOf(sequencer_, frame);
        return time.seconds * 1000 + time.milliseconds;
    };
    uint32_t found = 0;
    ASSERT_TRUE(sequencer_.GetIndexAt(2, 500, 0, found));
    EXPECT_EQ(millisecondsOf(found), 2500u);
    EXPECT_LT(millisecondsOf(found - 1), 2500u);
    ASSERT_TRUE(sequencer_.GetIndexNear(9, 0, 0, found));
    EXPECT_EQ(millisecondsOf(found), 4500u);
    EXPECT_LT(millisecondsOf(found - 1), 4500u);

    ASSERT_TRUE(sequencer_.Close());
    EXPECT_FALSE(sequencer_.Sort());
}

TEST_F(RamSequencerTest, CloseReleasesEverythingAndOpenStartsAfresh) {
    WriteFrames(1, 5);
    ASSERT_TRUE(sequencer_.PreAllocateImages(1000, 5));
    sequencer_.SetFrameRate(60.0);
    ASSERT_TRUE(sequencer_.Close());
    EXPECT_FALSE(sequencer_.IsOpen());
    EXPECT_EQ(sequencer_.GetMemoryHeld(), 0u);
    EXPECT_EQ(sequencer_.GetPreAllocatedImages(), 0u);
    EXPECT_EQ(sequencer_.GetFrameCount(), 0u);
    EXPECT_EQ(sequencer_.GetReadFrame(), 0u);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 0u);
    EXPECT_EQ(sequencer_.Header().data.width, 0u);
    sequencer_.SetWriteFrame(4);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 0u) << "positions are not set while closed";

    ASSERT_TRUE(sequencer_.Open());
    EXPECT_TRUE(sequencer_.IsOpen());
    EXPECT_EQ(sequencer_.GetFrameCount(), 0u);
    EXPECT_EQ(sequencer_.GetFrameRate(), 0.0);
    EXPECT_EQ(sequencer_.GetWriteFrame(), 1u);
    ASSERT_TRUE(sequencer_.Write(MakeImage(16, 16, 8, eKFormatMono, 1).get()));
    EXPECT_EQ(sequencer_.Header().data.imageSizeBytes, 256u);
}

class LockProbe : public KSequencerCallbacks {
public:
    explicit LockProbe(CKestorSequencerRAM& sequencer) : sequencer_(sequencer) {}
    void OnImageWrite(unsigned int id, void* context) override {
        EXPECT_EQ(id, 42u);
        EXPECT_EQ(context, this);
        // Another thread must be able to take the sequencer's lock during the callback.
        auto other = std::async(std::launch::async, [this] {
            if (!sequencer_.Mutex().try_lock()) return false;
            sequencer_.Mutex().unlock();
            return true;
        });
        if (other.get()) ++unlockedCalls;
        framesSeen = static_cast<uint32_t>(sequencer_.GetFrameCount());
    }
    std::atomic<int> unlockedCalls{0};
    uint32_t framesSeen = 0;

private:
    CKestorSequencerRAM& sequencer_;
};

TEST_F(RamSequencerTest, WriteNotifiesAfterReleasingItsLock) {
    LockProbe probe(sequencer_);
    sequencer_.SetCallbacks(&probe, 42, &probe);
    WriteFrames(1, 3);
    EXPECT_EQ(probe.unlockedCalls.load(), 3);
    EXPECT_EQ(probe.framesSeen, 3u) << "the frame is counted before the notification";
    EXPECT_FALSE(sequencer_.Write(MakeImage(2, 2, 8, eKFormatMono, 1).get()));
    EXPECT_EQ(probe.unlockedCalls.load(), 3) << "a refused frame is not announced";
    sequencer_.SetCallbacks(nullptr, 0, nullptr);
}

TEST_F(RamSequencerTest, ReaderSeesWholeFramesWhileAWriterRecords) {
    // Every frame's pixels are filled with its timestamp's low byte; a reader must never see a
    // frame whose pixels and timestamp disagree, nor a count it cannot read.
    std::atomic<bool> done{false};
    std::atomic<int> mismatches{0};
    std::thread reader([&] {
        KImage image;
        while (!done) {
            if (sequencer_.GetFrameCount() == 0) continue;
            // The frame being written now, where an unguarded copy would tear.
            if (!sequencer_.Read(&image, sequencer_.GetWriteFrame())) {
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
    // Frames large enough that a copy takes a while, so that unguarded copies would overlap.
    auto image = MakeImage(512, 512, 8, eKFormatMono, 0);
    for (uint32_t n = 1; n <= 600; ++n) {
        std::memset(image->GetRawImageData(), static_cast<uint8_t>(n), image->GetImageSizeBytes());
        image->SetTimestamp(n, 0, 0);
        ASSERT_TRUE(sequencer_.Write(image.get()));
        if (n % 150 == 0) sequencer_.SetWriteFrame(1);
        if (n == 400) {
            ASSERT_TRUE(sequencer_.Truncate(100));
        }
    }
    done = true;
    reader.join();
    EXPECT_EQ(mismatches.load(), 0);
}

TEST_F(RamSequencerTest, PublicHandleCreatesAMemorySequenceAndReportsItsHeader) {
    KSequence sequence;
    sequence.SetErrorOutput(false, false, false);
    ASSERT_TRUE(sequence.Create(static_cast<const char*>(nullptr)));
    EXPECT_TRUE(sequence.IsRAMSequence());
    auto image = MakeImage(40, 25, 8, eKFormatMono, 1, {10, 20, 30});
    ASSERT_TRUE(sequence.Write(image.get()));
    ASSERT_TRUE(sequence.Write(image.get()));
    EXPECT_EQ(sequence.GetAllocatedFrames(), 2u);
    EXPECT_EQ(sequence.GetImageWidth(), 40u);
    EXPECT_EQ(sequence.GetImageHeight(), 25u);
    EXPECT_EQ(sequence.GetImageSizeBytes(), 1000u);
    EXPECT_EQ(sequence.GetTrueImageSize(), 1024u);
    EXPECT_EQ(sequence.GetImageFormat(), eKFormatMono);
    EXPECT_EQ(sequence.GetRecordingPosition(), 3u);
    KImage read;
    ASSERT_TRUE(sequence.Read(&read, 2));
    EXPECT_TRUE(SamePixels(read, *image));
    EXPECT_FALSE(sequence.Read(&read, 0));
    EXPECT_EQ(sequence.GetLastError(), eKErrInvalidIndex);
    ASSERT_TRUE(sequence.Close());
    EXPECT_FALSE(sequence.IsRAMSequence());
}

}  // namespace
