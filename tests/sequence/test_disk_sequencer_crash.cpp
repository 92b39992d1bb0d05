// A recording that is killed or runs out of room loses nothing that was written before: a
// killed recording is recovered from the file's length, a full disk fails the frame that did
// not fit and leaves every earlier one readable.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "disk_sequencer_test_support.h"
#include "platform/DirectFile.h"
#include "sequence/SequenceRecovery.h"

using namespace kestor;
using namespace kestor::test;

namespace {

using DiskCrash = DiskSequencerTest;

// Waits for a child and returns its exit code, or -signal when a signal ended it.
int WaitFor(pid_t child) {
    int status = 0;
    if (waitpid(child, &status, 0) != child) return -1000;
    if (WIFSIGNALED(status)) return -WTERMSIG(status);
    return WEXITSTATUS(status);
}

struct Stamp {
    int32_t seconds;
    uint16_t milliseconds, microseconds;
};

// Appends slots full of junk with the given timestamps to a recorded file, then `partial`
// bytes of a slot that was never completed.
void AppendSlots(const std::string& path, const std::vector<Stamp>& stamps, size_t partial) {
    std::vector<uint8_t> bytes = FileBytes(path);
    const SequenceHeaderData header = HeaderOnDisk(path);
    for (const Stamp& stamp : stamps) {
        std::vector<uint8_t> slot(header.trueImageSize, 0x5A);
        std::memcpy(slot.data() + header.imageSizeBytes, &stamp, sizeof stamp);
        bytes.insert(bytes.end(), slot.begin(), slot.end());
    }
    bytes.resize(bytes.size() + partial, 0x33);
    WriteFileBytes(path, bytes);
}

}  // namespace

TEST_F(DiskCrash, AKilledRecordingIsRecoveredFrameForFrame) {
    const std::string path = File("killed.seq");
    const FrameSpec spec{37, 23, 16, eKFormatMonoLE};
    constexpr uint32_t kWritten = 7;
    // Frames are made before forking: the child only records and dies.
    std::vector<KImage> frames;
    for (uint32_t seed = 1; seed <= kWritten; ++seed) frames.push_back(MakeFrame(spec, seed));

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        CKestorSequencerDisk recorder;
        if (!recorder.Create(path)) _exit(10);
        for (KImage& frame : frames)
            if (!recorder.Write(&frame)) _exit(11);
        raise(SIGKILL);  // no close, no destructor: the way a crash ends a recording
        _exit(12);
    }
    ASSERT_EQ(WaitFor(child), -SIGKILL);
    EXPECT_EQ(HeaderOnDisk(path).allocatedFrames, 1u) << "as written with the first frame";
    ExpectFrames(path, 1);

    uint32_t recovered = 0;
    eKErrorCode error = eKErrWriteFailed;
    ASSERT_TRUE(CKestorSequencerDisk::Recover(path, recovered, error));
    EXPECT_EQ(error, eKErrSuccess);
    EXPECT_EQ(recovered, kWritten);
    EXPECT_EQ(HeaderOnDisk(path).allocatedFrames, kWritten);
    ExpectFrames(path, kWritten);

    // The recovered file carries on recording where it stopped, and searches by time bisect.
    CKestorSequencerDisk appender;
    bool readOnly = false, upgraded = false;
    ASSERT_TRUE(appender.Open(path, readOnly, upgraded));
    EXPECT_TRUE(appender.Header().TimestampsKnownToRise());
    EXPECT_FALSE(CKestorSequencerDisk::Recover(path, recovered, error));
    EXPECT_EQ(error, eKErrInvalidFileHandle) << "never while a writer holds the file";
    KImage next = MakeFrame(spec, kWritten + 1);
    ASSERT_TRUE(appender.Write(&next));
    ASSERT_TRUE(appender.Close());
    ExpectFrames(path, kWritten + 1);

    // Recovering a file that is already right changes nothing.
    const std::vector<uint8_t> before = FileBytes(path);
    ASSERT_TRUE(CKestorSequencerDisk::Recover(path, recovered, error));
    EXPECT_EQ(recovered, kWritten + 1);
    EXPECT_EQ(FileBytes(path), before);
}

TEST_F(DiskCrash, RecoveryDropsTrailingSlotsThatHoldNoPlausibleFrame) {
    const std::string path = File("tail.seq");
    Record(path, FrameSpec{}, 4);
    PatchHeader(path, [](SequenceHeaderData& header) { header.allocatedFrames = 1; });
    // An implausible time between good frames stays (5), trailing zeros and bad times go
    // (7 to 9), and the half slot at the very end is not a frame at all.
    const int32_t base = kBaseSeconds;
    AppendSlots(path,
                {{base + 1, 1500, 0}, {base + 6, 6, 42}, {0, 0, 0}, {base + 8, 1, 1000}, {0, 0, 0}},
                1000);

    uint32_t recovered = 0;
    eKErrorCode error = eKErrSuccess;
    ASSERT_TRUE(CKestorSequencerDisk::Recover(path, recovered, error));
    EXPECT_EQ(recovered, 6u);
    const SequenceHeaderData header = HeaderOnDisk(path);
    EXPECT_EQ(header.allocatedFrames, 6u);
    EXPECT_NE(header.risingMarker, kRisingTimestampsMarker) << "frame 5 is earlier than frame 4";

    CKestorSequencerDisk reader;
    ASSERT_TRUE(OpenForReading(reader, path));
    ASSERT_EQ(reader.GetFrameCount(), 6u);
    KImage image;
    for (uint32_t frame = 1; frame <= 4; ++frame) {
        ASSERT_TRUE(reader.Read(&image, frame));
        EXPECT_TRUE(HoldsFrame(image, frame));
    }
    ASSERT_TRUE(reader.Read(&image, 6));
    EXPECT_EQ(image.GetTimestampUS(), 42u);
}

TEST_F(DiskCrash, RecordingsWithARelativeClockKeepEarlyTimes) {
    const std::string path = File("relative.seq");
    Record(path, FrameSpec{}, 5, [](KImage& frame, uint32_t seed) {
        frame.SetTimestamp(seed - 1, static_cast<uint16_t>((seed - 1) * 100), 0);  // since trigger
    });
    // As a crash leaves it: the header still describes the first frame only.
    PatchHeader(path, [](SequenceHeaderData& header) {
        header.allocatedFrames = 1;
        header.risingFrames = 1;
    });

    uint32_t recovered = 0;
    eKErrorCode error = eKErrSuccess;
    ASSERT_TRUE(CKestorSequencerDisk::Recover(path, recovered, error));
    EXPECT_EQ(recovered, 5u);
    CKestorSequencerDisk reader;
    ASSERT_TRUE(OpenForReading(reader, path));
    EXPECT_TRUE(reader.Header().TimestampsKnownToRise());
    uint32_t seconds;
    uint16_t milliseconds, microseconds;
    ASSERT_TRUE(reader.ReadTimestamp(5, seconds, milliseconds, microseconds));
    EXPECT_EQ(seconds, 4u);
    EXPECT_EQ(milliseconds, 400u);
}

TEST_F(DiskCrash, RecoveryNeverTouchesFilesItCannotTrust) {
    uint32_t recovered = 99;
    eKErrorCode error = eKErrSuccess;
    EXPECT_FALSE(CKestorSequencerDisk::Recover(File("missing.seq"), recovered, error));
    EXPECT_EQ(error, eKErrCreateOpenFile);
    EXPECT_EQ(recovered, 0u);
    EXPECT_FALSE(CKestorSequencerDisk::Recover("", recovered, error));
    EXPECT_EQ(error, eKErrFileNotFound);

    struct Damage {
        const char* what;
        void (*change)(SequenceHeaderData&);
    };
    const Damage damages[] = {
        {"bad magic", [](SequenceHeaderData& h) { h.magic = 0xBEEF; }},
        {"no width", [](SequenceHeaderData& h) { h.width = 0; }},
        {"slot size 0", [](SequenceHeaderData& h) { h.trueImageSize = 0; }},
        {"slot below image + 8", [](SequenceHeaderData& h) { h.trueImageSize = 3076; }},
        {"size beyond 32 bits", [](SequenceHeaderData& h) { h.width = 65537, h.height = 65537; }},
        {"huge type section", [](SequenceHeaderData& h) { h.typeSectionSize = 0x7FFFFFFF; }},
    };
    for (const Damage& damage : damages) {
        SCOPED_TRACE(damage.what);
        const std::string path = File("damaged.seq");
        Record(path, FrameSpec{}, 3);
        PatchHeader(path, [&](SequenceHeaderData& header) {
            header.allocatedFrames = 1;
            damage.change(header);
        });
        const std::vector<uint8_t> before = FileBytes(path);
        EXPECT_FALSE(CKestorSequencerDisk::Recover(path, recovered, error));
        EXPECT_EQ(error, eKErrNoSequenceOrInvalidImage);
        EXPECT_EQ(FileBytes(path), before);
    }

    const std::string shortFile = File("short.seq");
    WriteFileBytes(shortFile, std::vector<uint8_t>(700, 0));
    EXPECT_FALSE(CKestorSequencerDisk::Recover(shortFile, recovered, error));
    EXPECT_EQ(error, eKErrNoSequenceOrInvalidImage);
    EXPECT_EQ(FileBytes(shortFile).size(), 700u);
}

TEST_F(DiskCrash, AFullDiskFailsTheFrameThatDoesNotFitAndKeepsTheOthers) {
    const std::string path = File("full.seq");
    const FrameSpec spec{};  // slots of 3584 bytes
    const uint32_t slot = 3584;
    // Room for the header, five frames and three sectors of the sixth.
    const rlim_t limit = 1024 + 5 * slot + 3 * 512;
    std::vector<KImage> frames;
    for (uint32_t seed = 1; seed <= 8; ++seed) frames.push_back(MakeFrame(spec, seed));

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const rlimit fileSize = {limit, limit};
        if (setrlimit(RLIMIT_FSIZE, &fileSize) != 0) _exit(10);
        CKestorSequencerDisk recorder;  // sets SIGXFSZ aside itself
        if (!recorder.Create(path)) _exit(11);
        for (uint32_t n = 0; n < 5; ++n)
            if (!recorder.Write(&frames[n])) _exit(12);
        if (recorder.Write(&frames[5])) _exit(13);
        if (recorder.GetLastError() != eKErrWriteFailed) _exit(14);
        if (recorder.GetFrameCount() != 5 || recorder.GetWriteFrame() != 6) _exit(15);
        if (recorder.Write(&frames[6])) _exit(16);  // still full
        if (!recorder.Close()) _exit(17);
        _exit(0);
    }
    ASSERT_EQ(WaitFor(child), 0) << "failed step in the child (or killed by a signal)";
    EXPECT_EQ(FileBytes(path).size(), 1024u + 5 * slot) << "no partial slot is left behind";
    EXPECT_EQ(HeaderOnDisk(path).allocatedFrames, 5u);
    ExpectFrames(path, 5);
}
