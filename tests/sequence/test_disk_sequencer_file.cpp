// The file-level behaviour of the disk sequencer: when the header reaches the disk, refusals
// that leave the file alone, truncation, positions, timestamps, sharing between a writer and
// readers, old headers and the validation order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "disk_sequencer_test_support.h"
#include "support/DebugCapture.h"

using namespace kestor;
using namespace kestor::test;
using ::testing::Contains;
using ::testing::Not;

namespace {

using DiskFile = DiskSequencerTest;

long CountLines(const std::vector<std::string>& lines, const std::string& wanted) {
    return std::count(lines.begin(), lines.end(), wanted);
}

}  // namespace

TEST_F(DiskFile, HeaderReachesTheDiskAtTheFirstFrameAndAtClose) {
    const std::string path = File("header.seq");
    CKestorSequencerDisk sequencer;
    ASSERT_TRUE(sequencer.Create(path));
    SequenceHeaderData onDisk = HeaderOnDisk(path);
    EXPECT_EQ(onDisk.magic, kSequenceMagic);
    EXPECT_EQ(onDisk.allocatedFrames, 0u);
    EXPECT_EQ(onDisk.width, 0u);

    KImage first = MakeFrame(FrameSpec{}, 1);
    ASSERT_TRUE(sequencer.Write(&first));
    onDisk = HeaderOnDisk(path);
    EXPECT_EQ(onDisk.allocatedFrames, 1u);
    EXPECT_EQ(onDisk.width, 64u);
    EXPECT_EQ(onDisk.height, 48u);
    EXPECT_EQ(onDisk.trueImageSize, 3584u) << "3072 + 8 rounded up to 512";

    sequencer.SetFrameRate(500.0);
    for (uint32_t seed = 2; seed <= 4; ++seed) {
        KImage frame = MakeFrame(FrameSpec{}, seed);
        ASSERT_TRUE(sequencer.Write(&frame));
    }
    onDisk = HeaderOnDisk(path);
    EXPECT_EQ(onDisk.allocatedFrames, 1u) << "later frames leave the header alone";
    EXPECT_EQ(onDisk.frameRate, 30.0);
    EXPECT_EQ(FileBytes(path).size(), 1024u + 4 * 3584);

    ASSERT_TRUE(sequencer.Close());
    onDisk = HeaderOnDisk(path);
    EXPECT_EQ(onDisk.allocatedFrames, 4u);
    EXPECT_EQ(onDisk.frameRate, 500.0);
}

TEST_F(DiskFile, AFrameOfAnotherDescriptionIsRefusedAndTheFileStaysAsItWas) {
    const std::string path = File("mismatch.seq");
    CKestorSequencerDisk sequencer;
    ASSERT_TRUE(sequencer.Create(path));
    for (uint32_t seed = 1; seed <= 2; ++seed) {
        KImage frame = MakeFrame(FrameSpec{}, seed);
        ASSERT_TRUE(sequencer.Write(&frame));
    }
    const std::vector<uint8_t> before = FileBytes(path);
    for (const FrameSpec& other : {FrameSpec{64, 47}, FrameSpec{64, 48, 16, eKFormatMonoLE},
                                   FrameSpec{64, 48, 8, eKFormatMonoBayer}}) {
        KImage frame = MakeFrame(other, 3);
        EXPECT_FALSE(sequencer.Write(&frame));
        EXPECT_EQ(sequencer.GetLastError(), eKErrIncompatibleImageFormat);
    }
    EXPECT_EQ(sequencer.GetFrameCount(), 2u);
    EXPECT_EQ(sequencer.GetWriteFrame(), 3u);
    EXPECT_EQ(FileBytes(path), before);

    KImage empty;
    EXPECT_FALSE(sequencer.Write(&empty));
    EXPECT_EQ(sequencer.GetLastError(), eKErrNoSequenceOrInvalidImage);
    EXPECT_FALSE(sequencer.Write(nullptr));
    EXPECT_EQ(FileBytes(path), before);
}

TEST_F(DiskFile, TruncateKeepsTheFramesBeforeTheCount) {
    const std::string path = File("truncate.seq");
    Record(path, FrameSpec{}, 10);
    CKestorSequencerDisk sequencer;
    bool readOnly = false, upgraded = false;
    ASSERT_TRUE(sequencer.Open(path, readOnly, upgraded));
    EXPECT_EQ(sequencer.GetWriteFrame(), 11u) << "reopening appends";
    sequencer.SetReadFrame(7);

    ASSERT_TRUE(sequencer.Truncate(4));
    EXPECT_EQ(sequencer.GetFrameCount(), 3u);
    EXPECT_EQ(sequencer.GetReadFrame(), 3u);
    EXPECT_EQ(sequencer.GetWriteFrame(), 4u);
    EXPECT_EQ(FileBytes(path).size(), 1024u + 3 * 3584);
    EXPECT_EQ(HeaderOnDisk(path).allocatedFrames, 3u) << "written at once";
    EXPECT_TRUE(sequencer.Truncate(0)) << "ignored";
    EXPECT_TRUE(sequencer.Truncate(9)) << "nothing beyond the last frame to cut";
    EXPECT_EQ(sequencer.GetFrameCount(), 3u);

    KImage next = MakeFrame(FrameSpec{}, 4);
    ASSERT_TRUE(sequencer.Write(&next));
    ASSERT_TRUE(sequencer.Close());

    CKestorSequencerDisk reader;
    readOnly = true;
    ASSERT_TRUE(reader.Open(path, readOnly, upgraded));
    ASSERT_EQ(reader.GetFrameCount(), 4u);
    KImage image;
    for (uint32_t frame = 1; frame <= 4; ++frame) {
        ASSERT_TRUE(reader.Read(&image, frame));
        EXPECT_TRUE(HoldsFrame(image, frame));
    }
    EXPECT_FALSE(reader.Truncate(2)) << "a reader cannot cut";
    EXPECT_EQ(reader.GetFrameCount(), 4u);
}

TEST_F(DiskFile, TimestampsAndFramesBeyondTheEndReadTheLastFrame) {
    const std::string path = File("stamps.seq");
    Record(path, FrameSpec{}, 10);
    CKestorSequencerDisk reader;
    bool readOnly = true, upgraded = false;
    ASSERT_TRUE(reader.Open(path, readOnly, upgraded));

    uint32_t seconds = 1;
    uint16_t milliseconds = 1, microseconds = 1;
    EXPECT_FALSE(reader.ReadTimestamp(0, seconds, milliseconds, microseconds));
    EXPECT_EQ(reader.GetLastError(), eKErrInvalidIndex);
    EXPECT_EQ(seconds, 0u);
    EXPECT_EQ(milliseconds, 0u);
    EXPECT_EQ(microseconds, 0u);

    ASSERT_TRUE(reader.ReadTimestamp(99, seconds, milliseconds, microseconds));
    EXPECT_EQ(seconds, kBaseSeconds + 10);
    EXPECT_EQ(milliseconds, 10u);
    EXPECT_EQ(microseconds, 70u);
    EXPECT_EQ(reader.PositionFrame(), 0u);
    ASSERT_TRUE(reader.ReadTimestamp(4, seconds, milliseconds, microseconds));
    EXPECT_EQ(seconds, kBaseSeconds + 4);

    KImage image;
    EXPECT_FALSE(reader.Read(&image, 0));
    EXPECT_EQ(reader.GetLastError(), eKErrInvalidIndex);
    ASSERT_TRUE(reader.Read(&image, 99));
    EXPECT_TRUE(HoldsFrame(image, 10));
    EXPECT_EQ(reader.PositionFrame(), 11u);

    reader.SetReadFrame(0);
    EXPECT_EQ(reader.GetReadFrame(), 1u);
    reader.SetReadFrame(50);
    EXPECT_EQ(reader.GetReadFrame(), 10u);
    reader.SetWriteFrame(0);
    EXPECT_EQ(reader.GetWriteFrame(), 11u) << "0 is ignored";

    reader.Close();
    EXPECT_FALSE(reader.ReadTimestamp(1, seconds, milliseconds, microseconds));
    EXPECT_EQ(reader.GetLastError(), eKErrInvalidIndex);
    EXPECT_FALSE(reader.Read(&image, 1));
}

TEST_F(DiskFile, ASecondWriterFallsBackToReadingOnly) {
    const std::string path = File("shared.seq");
    CKestorSequencerDisk recorder;
    ASSERT_TRUE(recorder.Create(path));
    for (uint32_t seed = 1; seed <= 3; ++seed) {
        KImage frame = MakeFrame(FrameSpec{}, seed);
        ASSERT_TRUE(recorder.Write(&frame));
    }

    DebugCapture capture;
    CKestorSequencerDisk second;
    bool readOnly = false, upgraded = false;
    ASSERT_TRUE(second.Open(path, readOnly, upgraded));
    EXPECT_TRUE(readOnly);
    EXPECT_TRUE(second.IsReadOnly());
    EXPECT_EQ(CountLines(capture.Lines(), "Kestor: Trying to open as read-only\n"), 1);
    EXPECT_EQ(second.GetFrameCount(), 1u) << "the header on disk, as the recorder left it";
    KImage image;
    ASSERT_TRUE(second.Read(&image, 1));
    EXPECT_TRUE(HoldsFrame(image, 1));
    KImage frame = MakeFrame(FrameSpec{}, 9);
    EXPECT_FALSE(second.Write(&frame));
    EXPECT_EQ(second.GetLastError(), eKErrNoSequenceOrInvalidImage);

    // Creating over a file that is being recorded fails and leaves the recording alone.
    const std::vector<uint8_t> before = FileBytes(path);
    CKestorSequencerDisk intruder;
    EXPECT_FALSE(intruder.Create(path));
    EXPECT_EQ(intruder.GetLastError(), eKErrInvalidFileHandle);
    EXPECT_EQ(FileBytes(path), before);

    // A reader that asked for reading only gets no trace line.
    capture.Clear();
    CKestorSequencerDisk reader;
    readOnly = true;
    ASSERT_TRUE(reader.Open(path, readOnly, upgraded));
    EXPECT_THAT(capture.Lines(), Not(Contains("Kestor: Trying to open as read-only\n")));

    ASSERT_TRUE(recorder.Close());
    second.Close();
    readOnly = false;
    ASSERT_TRUE(second.Open(path, readOnly, upgraded));
    EXPECT_FALSE(readOnly) << "free again once the recorder closed";
    EXPECT_EQ(second.GetFrameCount(), 3u);
}

TEST_F(DiskFile, MissingFilesAndEmptyNames) {
    CKestorSequencerDisk sequencer;
    bool readOnly = false, upgraded = false;
    EXPECT_FALSE(sequencer.Open("", readOnly, upgraded));
    EXPECT_EQ(sequencer.GetLastError(), eKErrFileNotFound);
    EXPECT_FALSE(sequencer.Open(File("missing.seq"), readOnly, upgraded));
    EXPECT_EQ(sequencer.GetLastError(), eKErrCreateOpenFile);
    EXPECT_FALSE(sequencer.IsOpen());
    EXPECT_FALSE(sequencer.Create(File("no-such-folder/new.seq")));
    EXPECT_EQ(sequencer.GetLastError(), eKErrInvalidFileHandle);
    EXPECT_FALSE(sequencer.WriteHeader());
    EXPECT_EQ(sequencer.GetLastError(), eKErrNoSequenceOrInvalidImage);
}

TEST_F(DiskFile, AnOldHeaderIsUpgradedInMemoryOnly) {
    const std::string path = File("legacy.seq");
    const FrameSpec bayer{64, 48, 8, eKFormatMonoBayer};
    Record(path, bayer, 2);
    PatchHeader(path, [](SequenceHeaderData& header) {
        header.version = 3;
        header.imageFormat = 2105;  // the old code of 8-bit Bayer
    });
    const std::vector<uint8_t> legacy = FileBytes(path);

    {
        CKestorSequencerDisk sequencer;
        bool readOnly = false, upgraded = false;
        ASSERT_TRUE(sequencer.Open(path, readOnly, upgraded));
        EXPECT_TRUE(upgraded);
        EXPECT_EQ(sequencer.Header().data.imageFormat, static_cast<uint32_t>(eKFormatMonoBayer));
        EXPECT_EQ(sequencer.Header().data.version, 4);
        KImage image;
        ASSERT_TRUE(sequencer.Read(&image, 2));
        EXPECT_EQ(image.GetImageFormat(), eKFormatMonoBayer);
        EXPECT_TRUE(HoldsFrame(image, 2));
        ASSERT_TRUE(sequencer.Close());
    }
    EXPECT_EQ(FileBytes(path), legacy) << "opening and reading change nothing on disk";

    {
        CKestorSequencerDisk sequencer;
        bool readOnly = false, upgraded = false;
        ASSERT_TRUE(sequencer.Open(path, readOnly, upgraded));
        KImage frame = MakeFrame(bayer, 3);
        ASSERT_TRUE(sequencer.Write(&frame));
        ASSERT_TRUE(sequencer.Close());
    }
    const SequenceHeaderData header = HeaderOnDisk(path);
    EXPECT_EQ(header.version, 4);
    EXPECT_EQ(header.imageFormat, static_cast<uint32_t>(eKFormatMonoBayer));
    EXPECT_EQ(header.allocatedFrames, 3u);
}

TEST_F(DiskFile, ValidationReportsTheFirstFailingReasonOnTheDebugChannel) {
    const std::string path = File("invalid.seq");
    Record(path, FrameSpec{}, 1);
    PatchHeader(path, [](SequenceHeaderData& header) {
        header.frameRate = 0.0;
        header.width = 0;
    });
    DebugCapture capture;
    CKestorSequencerDisk sequencer;
    sequencer.SetErrorOutput(false, false, false);  // the reason is reported whatever they say
    bool readOnly = true, upgraded = false;
    EXPECT_FALSE(sequencer.Open(path, readOnly, upgraded));
    EXPECT_EQ(sequencer.GetLastError(), eKErrNoSequenceOrInvalidImage);
    EXPECT_FALSE(sequencer.IsOpen());
    const auto lines = capture.Lines();
    EXPECT_EQ(CountLines(lines, "Kestor: Invalid Sequence Width\n"), 1);
    EXPECT_THAT(lines, Not(Contains("Kestor: Invalid Sequence Frame Rate\n")));

    // A frame rate of exactly 0 is acceptable.
    PatchHeader(path, [](SequenceHeaderData& header) { header.width = 64; });
    ASSERT_TRUE(sequencer.Open(path, readOnly, upgraded));
    EXPECT_EQ(sequencer.GetFrameRate(), 0.0);
    sequencer.SetFrameRate(-5.0);
    EXPECT_EQ(sequencer.GetFrameRate(), 0.0) << "rates not above 0 are ignored";
}

TEST_F(DiskFile, SortingPutsFramesInTimeOrderAndKeepsEqualTimesInPlace) {
    const std::string path = File("sort.seq");
    // Frame seeds in recording order and the time each is stamped with.
    const uint32_t seeds[] = {1, 2, 3, 4, 5, 6, 7};
    const uint32_t times[] = {50, 10, 30, 10, 70, 20, 30};
    {
        CKestorSequencerDisk sequencer;
        ASSERT_TRUE(sequencer.Create(path));
        for (size_t i = 0; i < 7; ++i) {
            KImage frame = MakeFrame(FrameSpec{}, seeds[i]);
            frame.SetTimestamp(kBaseSeconds + times[i], 0, 0);
            ASSERT_TRUE(sequencer.Write(&frame));
        }
        EXPECT_FALSE(sequencer.Header().TimestampsKnownToRise());
        ASSERT_TRUE(sequencer.Sort());
        EXPECT_TRUE(sequencer.Header().TimestampsKnownToRise());
        ASSERT_TRUE(sequencer.Close());
    }
    // Stable: of two equal times, the frame recorded first stays first.
    const uint32_t expectedSeeds[] = {2, 4, 6, 3, 7, 1, 5};
    CKestorSequencerDisk reader;
    bool readOnly = true, upgraded = false;
    ASSERT_TRUE(reader.Open(path, readOnly, upgraded));
    EXPECT_TRUE(reader.Header().TimestampsKnownToRise());
    KImage image;
    for (uint32_t frame = 1; frame <= 7; ++frame) {
        ASSERT_TRUE(reader.Read(&image, frame));
        const uint32_t seed = expectedSeeds[frame - 1];
        for (size_t i = 0; i < image.GetImageSizeBytes(); ++i)
            ASSERT_EQ(image.GetRawImageData()[i], PatternByte(i, seed)) << "frame " << frame;
        EXPECT_EQ(image.GetTimestamp(), kBaseSeconds + times[seed - 1]);
    }
    uint32_t frame = 0;
    ASSERT_TRUE(reader.GetIndexNear(static_cast<int32_t>(kBaseSeconds + 31), 0, 0, frame));
    EXPECT_EQ(frame, 4u);
    EXPECT_FALSE(reader.Sort()) << "a reader cannot sort";
}

namespace {

// Counts the timestamp reads that a search makes.
class CountingSequencer : public CKestorSequencerDisk {
public:
    bool ReadTimestamp(uint32_t frame, uint32_t& seconds, uint16_t& milliseconds,
                       uint16_t& microseconds) override {
        ++reads;
        return CKestorSequencerDisk::ReadTimestamp(frame, seconds, milliseconds, microseconds);
    }
    int reads = 0;
};

}  // namespace

TEST_F(DiskFile, TimeSearchOnALongRecordingReadsFewTimestamps) {
    TempDir shm("/dev/shm");  // 100 000 small frames, quick in memory
    const std::string path = shm.File("long.seq");
    const FrameSpec tiny{8, 8, 8, eKFormatMono};
    constexpr uint32_t kFrames = 100000;
    {
        CKestorSequencerDisk sequencer;
        ASSERT_TRUE(sequencer.Create(path));
        KImage frame = MakeFrame(tiny, 0);
        for (uint32_t n = 0; n < kFrames; ++n) {
            // One frame every 2 ms.
            frame.SetTimestamp(kBaseSeconds + n / 500, static_cast<uint16_t>((n % 500) * 2), 0);
            ASSERT_TRUE(sequencer.Write(&frame));
        }
        ASSERT_TRUE(sequencer.Close());
    }
    CountingSequencer reader;
    bool readOnly = true, upgraded = false;
    ASSERT_TRUE(reader.Open(path, readOnly, upgraded));
    ASSERT_EQ(reader.GetFrameCount(), kFrames);
    EXPECT_TRUE(reader.Header().TimestampsKnownToRise());
    uint32_t frame = 0;
    // Frame 76544 (n = 76543) was stamped at second 153, 86 ms; ask for 86.9 ms.
    ASSERT_TRUE(reader.GetIndexNear(static_cast<int32_t>(kBaseSeconds + 153), 86, 900, frame));
    EXPECT_EQ(frame, 76544u);
    EXPECT_LE(reader.reads, 64) << "a bisection, not a scan";
    ASSERT_TRUE(reader.GetIndexAt(static_cast<int32_t>(kBaseSeconds + 10), 2, 0, frame));
    EXPECT_EQ(frame, 5002u);
}
