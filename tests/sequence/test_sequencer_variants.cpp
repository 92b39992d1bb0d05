// The rules that every sequencer keeps, checked on the disk and the memory sequencer alike:
// refused frames, frame numbers, truncation, sorting and the write notification.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "sequence/CKestorSequencerRAM.h"
#include "sequence_test_support.h"

using namespace kestor;
using namespace kestor::test;

namespace {

class SequencerVariant : public DiskSequencerTest, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        DiskSequencerTest::SetUp();
        if (IsRam())
            ASSERT_TRUE(ram_.Open());
        else
            ASSERT_TRUE(disk_.Create(path_));
    }
    bool IsRam() const { return GetParam(); }
    KSequencer& Sequencer() { return IsRam() ? static_cast<KSequencer&>(ram_) : disk_; }
    void Write(uint32_t first, uint32_t last) {
        for (uint32_t seed = first; seed <= last; ++seed) {
            KImage frame = MakeFrame(FrameSpec{}, seed);
            ASSERT_TRUE(Sequencer().Write(&frame)) << Sequencer().GetLastError();
        }
    }
    // The time of `frame`, all zero when it cannot be read.
    Timestamp TimestampOf(uint32_t frame, bool expectRead = true) {
        uint32_t seconds = 99;
        Timestamp time{99, 99, 99};
        EXPECT_EQ(Sequencer().ReadTimestamp(frame, seconds, time.milliseconds, time.microseconds),
                  expectRead)
            << "frame " << frame;
        time.seconds = static_cast<int32_t>(seconds);
        if (!expectRead) {
            EXPECT_EQ(Sequencer().GetLastError(), eKErrInvalidIndex);
            EXPECT_EQ(time.seconds + time.milliseconds + time.microseconds, 0);
        }
        return time;
    }

    std::string path_ = File("variant.seq");
    CKestorSequencerDisk disk_;
    CKestorSequencerRAM ram_;
};

}  // namespace

TEST_P(SequencerVariant, FramesOfAnotherDescriptionAreRefusedAndNothingChanges) {
    Write(1, 2);
    const std::vector<uint8_t> before = IsRam() ? std::vector<uint8_t>() : FileBytes(path_);
    // Another size, the same size in another geometry, another depth, another format.
    for (const FrameSpec& other :
         {FrameSpec{64, 47}, FrameSpec{48, 64}, FrameSpec{64, 48, 16, eKFormatMonoLE},
          FrameSpec{64, 48, 8, eKFormatMonoBayer}}) {
        KImage frame = MakeFrame(other, 3);
        EXPECT_FALSE(Sequencer().Write(&frame));
        EXPECT_EQ(Sequencer().GetLastError(), eKErrIncompatibleImageFormat);
    }
    KImage empty;
    EXPECT_FALSE(Sequencer().Write(&empty));
    EXPECT_EQ(Sequencer().GetLastError(), eKErrNoSequenceOrInvalidImage);
    EXPECT_FALSE(Sequencer().Write(nullptr));
    EXPECT_EQ(Sequencer().GetLastError(), eKErrNoSequenceOrInvalidImage);
    EXPECT_EQ(Sequencer().GetFrameCount(), 2u);
    EXPECT_EQ(Sequencer().GetWriteFrame(), 3u);
    if (!IsRam()) {
        EXPECT_EQ(FileBytes(path_), before);
    }
    EXPECT_TRUE(ReadsFrame(Sequencer(), 2, 2));
}

TEST_P(SequencerVariant, FrameZeroFailsAndFramesPastTheEndReadTheLastOne) {
    KSequencer& sequencer = Sequencer();
    KImage image;
    EXPECT_FALSE(sequencer.Read(&image, 1)) << "an empty sequence has no frame";
    EXPECT_EQ(sequencer.GetLastError(), eKErrInvalidIndex);
    TimestampOf(1, false);

    Write(1, 10);
    EXPECT_FALSE(sequencer.Read(&image, 0));
    EXPECT_EQ(sequencer.GetLastError(), eKErrInvalidIndex);
    EXPECT_FALSE(sequencer.Read(nullptr, 1));
    TimestampOf(0, false);
    EXPECT_TRUE(ReadsFrame(sequencer, 99, 10));
    const Timestamp time = TimestampOf(99);
    EXPECT_EQ(time.seconds, static_cast<int32_t>(kBaseSeconds + 10));
    EXPECT_EQ(time.milliseconds, 10u);
    EXPECT_EQ(time.microseconds, 70u);
    EXPECT_EQ(TimestampOf(4).seconds, static_cast<int32_t>(kBaseSeconds + 4));

    sequencer.SetReadFrame(0);  // the playback position stays within the frames
    EXPECT_EQ(sequencer.GetReadFrame(), 1u);
    sequencer.SetReadFrame(50);
    EXPECT_EQ(sequencer.GetReadFrame(), 10u);

    ASSERT_TRUE(sequencer.Close());
    EXPECT_FALSE(sequencer.Read(&image, 1));
    TimestampOf(1, false);
}

TEST_P(SequencerVariant, TruncateKeepsTheFramesBeforeItsArgument) {
    KSequencer& sequencer = Sequencer();
    Write(1, 10);
    sequencer.SetReadFrame(7);
    ASSERT_TRUE(sequencer.Truncate(4));
    EXPECT_EQ(sequencer.GetFrameCount(), 3u);
    EXPECT_EQ(sequencer.GetReadFrame(), 3u);
    EXPECT_EQ(sequencer.GetWriteFrame(), 4u);
    EXPECT_TRUE(ReadsFrame(sequencer, 9, 3)) << "the end is now frame 3";
    if (!IsRam()) {
        EXPECT_EQ(FileBytes(path_).size(), 1024u + 3 * 3584);
        EXPECT_EQ(HeaderOnDisk(path_).allocatedFrames, 3u) << "written at once";
    }
    EXPECT_TRUE(sequencer.Truncate(0)) << "ignored";
    EXPECT_TRUE(sequencer.Truncate(9)) << "nothing beyond the last frame to cut";
    EXPECT_EQ(sequencer.GetFrameCount(), 3u);
    Write(4, 4);
    ASSERT_EQ(sequencer.GetFrameCount(), 4u);
    for (uint32_t frame = 1; frame <= 4; ++frame) EXPECT_TRUE(ReadsFrame(sequencer, frame, frame));
}

TEST_P(SequencerVariant, SortOrdersByTimestampStablyWithTheFramesMetadata) {
    KSequencer& sequencer = Sequencer();
    // 40 frames over 10 distinct times, so that a sort that is not stable shows; each frame
    // carries its seed in its pixels and in a metadata item.
    const uint32_t count = 40;
    const auto timeOf = [](uint32_t seed) { return kBaseSeconds + seed * 7 % 10; };
    for (uint32_t seed = 1; seed <= count; ++seed) {
        KImage frame = MakeFrame(FrameSpec{16, 16, 8, eKFormatMono, 16}, seed);
        frame.SetTimestamp(timeOf(seed), 0, 0);
        frame.AddMetadata(KMetadata(5, &seed, sizeof seed));
        ASSERT_TRUE(sequencer.Write(&frame));
    }
    EXPECT_FALSE(sequencer.Header().TimestampsKnownToRise());
    ASSERT_TRUE(sequencer.Sort());
    EXPECT_TRUE(sequencer.Header().TimestampsKnownToRise());
    ASSERT_EQ(sequencer.GetFrameCount(), count);

    std::vector<uint32_t> sorted;
    KImage image;
    for (uint32_t frame = 1; frame <= count; ++frame) {
        ASSERT_TRUE(sequencer.Read(&image, frame));
        ASSERT_EQ(image.GetMetadataCount(), 1);
        uint32_t seed = 0;
        std::memcpy(&seed, image.GetMetadata(0)->GetData(), sizeof seed);
        EXPECT_TRUE(HoldsPixels(image, seed)) << "pixels and metadata travel together";
        EXPECT_EQ(image.GetTimestamp(), timeOf(seed));
        sorted.push_back(seed);
    }
    std::vector<uint32_t> expected(count);
    for (uint32_t i = 0; i < count; ++i) expected[i] = i + 1;
    std::stable_sort(expected.begin(), expected.end(),
                     [&](uint32_t a, uint32_t b) { return timeOf(a) < timeOf(b); });
    EXPECT_EQ(sorted, expected);

    // The searches see the new order and find the first frame of a group.
    uint32_t frame = 0;
    ASSERT_TRUE(sequencer.GetIndexAt(static_cast<int32_t>(kBaseSeconds + 3), 0, 0, frame));
    EXPECT_EQ(frame, 13u);
    ASSERT_TRUE(sequencer.GetIndexNear(static_cast<int32_t>(kBaseSeconds + 3), 400, 0, frame));
    EXPECT_EQ(frame, 13u);
    ASSERT_TRUE(sequencer.Close());
    EXPECT_FALSE(sequencer.Sort());
}

namespace {

class LockProbe : public KSequencerCallbacks {
public:
    explicit LockProbe(KSequencer& sequencer) : sequencer_(sequencer) {}
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
        framesSeen = sequencer_.GetFrameCount();
    }
    std::atomic<int> unlockedCalls{0};
    uint32_t framesSeen = 0;

private:
    KSequencer& sequencer_;
};

}  // namespace

TEST_P(SequencerVariant, WriteNotifiesAfterReleasingItsLock) {
    LockProbe probe(Sequencer());
    Sequencer().SetCallbacks(&probe, 42, &probe);
    Write(1, 3);
    EXPECT_EQ(probe.unlockedCalls.load(), 3);
    EXPECT_EQ(probe.framesSeen, 3u) << "the frame is counted before the notification";
    KImage other = MakeFrame(FrameSpec{2, 2}, 4);
    EXPECT_FALSE(Sequencer().Write(&other));
    EXPECT_EQ(probe.unlockedCalls.load(), 3) << "a refused frame is not announced";
    Sequencer().SetCallbacks(nullptr, 0, nullptr);
}

INSTANTIATE_TEST_SUITE_P(DiskAndRam, SequencerVariant, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Ram" : "Disk"; });
