// The file-level behaviour of the disk sequencer: when the header reaches the disk, a writer
// and its readers, old headers, validation and searching a long recording.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "sequence_test_support.h"
#include "support/DebugCapture.h"

using namespace kestor;
using namespace kestor::test;
using ::testing::Contains;
using ::testing::Not;

namespace {

using DiskFile = DiskSequencerTest;

long CountLines(const DebugCapture& capture, const std::string& wanted) {
    const std::vector<std::string> lines = capture.Lines();
    return std::count(lines.begin(), lines.end(), wanted);
}

void WriteFrames(CKestorSequencerDisk& sequencer, uint32_t first, uint32_t last) {
    for (uint32_t seed = first; seed <= last; ++seed) {
        KImage frame = MakeFrame(FrameSpec{}, seed);
        ASSERT_TRUE(sequencer.Write(&frame)) << sequencer.GetLastError();
    }
}

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

TEST_F(DiskFile, HeaderReachesTheDiskAtTheFirstFrameAndAtClose) {
    const std::string path = File("header.seq");
    CKestorSequencerDisk sequencer;
    EXPECT_FALSE(sequencer.WriteHeader());
    EXPECT_EQ(sequencer.GetLastError(), eKErrNoSequenceOrInvalidImage);
    ASSERT_TRUE(sequencer.Create(path));
    EXPECT_EQ(HeaderOnDisk(path).magic, kSequenceMagic);
    EXPECT_EQ(HeaderOnDisk(path).width, 0u);

    WriteFrames(sequencer, 1, 1);
    EXPECT_EQ(HeaderOnDisk(path).allocatedFrames, 1u);
    EXPECT_EQ(HeaderOnDisk(path).trueImageSize, 3584u) << "3072 + 8 rounded up to 512";
    sequencer.SetFrameRate(500.0);
    WriteFrames(sequencer, 2, 4);
    EXPECT_EQ(HeaderOnDisk(path).allocatedFrames, 1u) << "later frames leave the header alone";
    EXPECT_EQ(HeaderOnDisk(path).frameRate, 30.0);
    EXPECT_EQ(FileBytes(path).size(), 1024u + 4 * 3584);
    ASSERT_TRUE(sequencer.Close());
    EXPECT_EQ(HeaderOnDisk(path).allocatedFrames, 4u);
    EXPECT_EQ(HeaderOnDisk(path).frameRate, 500.0);
}

TEST_F(DiskFile, ASecondWriterFallsBackToReadingOnly) {
    const std::string path = File("shared.seq");
    CKestorSequencerDisk recorder;
    ASSERT_TRUE(recorder.Create(path));
    WriteFrames(recorder, 1, 3);

    DebugCapture capture;
    CKestorSequencerDisk second;
    bool readOnly = false, upgraded = false;
    ASSERT_TRUE(second.Open(path, readOnly, upgraded));
    EXPECT_TRUE(readOnly);
    EXPECT_TRUE(second.IsReadOnly());
    EXPECT_EQ(CountLines(capture, "Kestor: Trying to open as read-only\n"), 1);
    EXPECT_EQ(second.GetFrameCount(), 1u) << "the header on disk, as the recorder left it";
    EXPECT_TRUE(ReadsFrame(second, 1, 1));
    KImage image = MakeFrame(FrameSpec{}, 2);
    EXPECT_FALSE(second.Write(&image));
    EXPECT_EQ(second.GetLastError(), eKErrNoSequenceOrInvalidImage);
    EXPECT_FALSE(second.Truncate(1));
    EXPECT_FALSE(second.Sort());
    EXPECT_EQ(second.GetFrameCount(), 1u);

    // Creating over a recording, or where no folder is, fails and changes nothing.
    const std::vector<uint8_t> before = FileBytes(path);
    CKestorSequencerDisk intruder;
    EXPECT_FALSE(intruder.Create(path));
    EXPECT_EQ(intruder.GetLastError(), eKErrInvalidFileHandle);
    EXPECT_EQ(FileBytes(path), before);
    EXPECT_FALSE(intruder.Create(File("no-such-folder/new.seq")));
    EXPECT_EQ(intruder.GetLastError(), eKErrInvalidFileHandle);

    capture.Clear();  // a reader that asked for reading only gets no trace line
    CKestorSequencerDisk reader;
    ASSERT_TRUE(OpenForReading(reader, path));
    EXPECT_EQ(CountLines(capture, "Kestor: Trying to open as read-only\n"), 0);

    ASSERT_TRUE(recorder.Close());
    readOnly = false;
    ASSERT_TRUE(second.Open(path, readOnly, upgraded));
    EXPECT_FALSE(readOnly) << "free again once the recorder closed";
    EXPECT_EQ(second.GetFrameCount(), 3u);
    EXPECT_EQ(second.GetWriteFrame(), 4u) << "reopening appends";
    second.SetWriteFrame(0);
    EXPECT_EQ(second.GetWriteFrame(), 4u) << "0 is ignored";
}

TEST_F(DiskFile, AnOldHeaderIsUpgradedInMemoryUntilAFrameIsWritten) {
    const std::string path = File("legacy.seq");
    const FrameSpec bayer{64, 48, 8, eKFormatMonoBayer};
    Record(path, bayer, 2);
    PatchHeader(path, [](SequenceHeaderData& header) {
        header.version = 3;
        header.imageFormat = 2105;  // the old code of 8-bit Bayer
    });
    const std::vector<uint8_t> legacy = FileBytes(path);

    CKestorSequencerDisk sequencer;
    bool readOnly = false, upgraded = false;
    ASSERT_TRUE(sequencer.Open(path, readOnly, upgraded));
    EXPECT_TRUE(upgraded);
    EXPECT_EQ(sequencer.Header().data.version, 4);
    KImage image;
    ASSERT_TRUE(sequencer.Read(&image, 2));
    EXPECT_EQ(image.GetImageFormat(), eKFormatMonoBayer);
    EXPECT_TRUE(HoldsFrame(image, 2));
    ASSERT_TRUE(sequencer.Close());
    EXPECT_EQ(FileBytes(path), legacy) << "opening and reading change nothing on disk";

    ASSERT_TRUE(sequencer.Open(path, readOnly, upgraded));
    KImage frame = MakeFrame(bayer, 3);
    ASSERT_TRUE(sequencer.Write(&frame));
    ASSERT_TRUE(sequencer.Close());
    const SequenceHeaderData header = HeaderOnDisk(path);
    EXPECT_EQ(header.version, 4);
    EXPECT_EQ(header.imageFormat, static_cast<uint32_t>(eKFormatMonoBayer));
    EXPECT_EQ(header.allocatedFrames, 3u);
}

TEST_F(DiskFile, ValidationReportsTheFirstFailingReasonWhateverTheOutputSwitches) {
    const std::string path = File("invalid.seq");
    Record(path, FrameSpec{}, 1);
    PatchHeader(path, [](SequenceHeaderData& header) {
        header.frameRate = 0.0;
        header.width = 0;
    });
    DebugCapture capture;
    CKestorSequencerDisk sequencer;
    sequencer.SetErrorOutput(false, false, false);
    EXPECT_FALSE(OpenForReading(sequencer, path));
    EXPECT_EQ(sequencer.GetLastError(), eKErrNoSequenceOrInvalidImage);
    EXPECT_FALSE(sequencer.IsOpen());
    EXPECT_EQ(CountLines(capture, "Kestor: Invalid Sequence Width\n"), 1);
    EXPECT_THAT(capture.Lines(), Not(Contains("Kestor: Invalid Sequence Frame Rate\n")));

    // A frame rate of exactly 0 is acceptable; rates not above 0 are never set.
    PatchHeader(path, [](SequenceHeaderData& header) { header.width = 64; });
    ASSERT_TRUE(OpenForReading(sequencer, path));
    sequencer.SetFrameRate(-5.0);
    EXPECT_EQ(sequencer.GetFrameRate(), 0.0);
}

TEST_F(DiskFile, TimeSearchOnALongRecordingBisects) {
    TempDir shm("/dev/shm");  // 100 000 small frames, quick in memory
    const std::string path = shm.File("long.seq");
    constexpr uint32_t kFrames = 100000;
    Record(path, FrameSpec{8, 8, 8, eKFormatMono}, kFrames, [](KImage& frame, uint32_t seed) {
        const uint32_t n = seed - 1;  // one frame every 2 ms
        frame.SetTimestamp(kBaseSeconds + n / 500, static_cast<uint16_t>((n % 500) * 2), 0);
    });
    CountingSequencer reader;
    ASSERT_TRUE(OpenForReading(reader, path));
    ASSERT_EQ(reader.GetFrameCount(), kFrames);
    EXPECT_TRUE(reader.Header().TimestampsKnownToRise());
    uint32_t frame = 0;
    // Frame 76544 was stamped at second 153, 86 ms; ask for 86.9 ms.
    ASSERT_TRUE(reader.GetIndexNear(static_cast<int32_t>(kBaseSeconds + 153), 86, 900, frame));
    EXPECT_EQ(frame, 76544u);
    EXPECT_LE(reader.reads, 64) << "a bisection, not a scan";
    ASSERT_TRUE(reader.GetIndexAt(static_cast<int32_t>(kBaseSeconds + 10), 2, 0, frame));
    EXPECT_EQ(frame, 5002u);
}
