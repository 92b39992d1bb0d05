// A killed recording is recovered from the file's length; a full disk fails the frame that did
// not fit and leaves every earlier one readable.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "sequence/SequenceRecovery.h"
#include "sequence_test_support.h"

using namespace kestor;
using namespace kestor::test;

namespace {

using DiskCrash = DiskSequencerTest;

// The child's exit code, or -signal when a signal ended it.
int WaitFor(pid_t child) {
    int status = 0;
    if (waitpid(child, &status, 0) != child) return -1000;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

uint32_t Recovered(const std::string& path, eKErrorCode expected = eKErrSuccess) {
    uint32_t recovered = 99;
    eKErrorCode error = eKErrWriteFailed;
    EXPECT_EQ(CKestorSequencerDisk::Recover(path, recovered, error), expected == eKErrSuccess);
    EXPECT_EQ(error, expected);
    return recovered;
}

}  // namespace

TEST_F(DiskCrash, AKilledRecordingIsRecoveredFrameForFrame) {
    const std::string path = File("killed.seq");
    const FrameSpec spec{37, 23, 16, eKFormatMonoLE};
    constexpr uint32_t kWritten = 7;
    std::vector<KImage> frames;  // made before forking: the child only records and dies
    for (uint32_t seed = 1; seed <= kWritten; ++seed) frames.push_back(MakeFrame(spec, seed));

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        CKestorSequencerDisk recorder;
        if (!recorder.Create(path)) _exit(10);
        for (KImage& frame : frames)
            if (!recorder.Write(&frame)) _exit(11);
        raise(SIGKILL);  // no close, no destructor
        _exit(12);
    }
    ASSERT_EQ(WaitFor(child), -SIGKILL);
    EXPECT_EQ(HeaderOnDisk(path).allocatedFrames, 1u) << "as written with the first frame";
    EXPECT_EQ(Recovered(path), kWritten);
    EXPECT_EQ(HeaderOnDisk(path).allocatedFrames, kWritten);
    ExpectFrames(path, kWritten);

    // The recovered file carries on recording, and its times are known to rise.
    CKestorSequencerDisk appender;
    bool readOnly = false, upgraded = false;
    ASSERT_TRUE(appender.Open(path, readOnly, upgraded));
    EXPECT_TRUE(appender.Header().TimestampsKnownToRise());
    Recovered(path, eKErrInvalidFileHandle);  // never while a writer holds the file
    KImage next = MakeFrame(spec, kWritten + 1);
    ASSERT_TRUE(appender.Write(&next));
    ASSERT_TRUE(appender.Close());
    ExpectFrames(path, kWritten + 1);

    // Recovering a file that is already right changes nothing.
    const std::vector<uint8_t> before = FileBytes(path);
    EXPECT_EQ(Recovered(path), kWritten + 1);
    EXPECT_EQ(FileBytes(path), before);
}

TEST_F(DiskCrash, RecoveryDropsTrailingSlotsThatHoldNoPlausibleFrame) {
    const std::string path = File("tail.seq");
    Record(path, FrameSpec{}, 4);
    PatchHeader(path, [](SequenceHeaderData& header) { header.allocatedFrames = 1; });
    // Slots of junk behind the frames: an implausible time between good frames stays (5),
    // trailing zeros and bad times go (7 to 9), and a half slot at the end is no frame.
    struct Stamp {
        int32_t seconds;
        uint16_t milliseconds, microseconds;
    };
    const int32_t base = kBaseSeconds;
    std::vector<uint8_t> bytes = FileBytes(path);
    for (const Stamp& stamp : {Stamp{base + 1, 1500, 0}, Stamp{base + 6, 6, 42}, Stamp{0, 0, 0},
                               Stamp{base + 8, 1, 1000}, Stamp{0, 0, 0}}) {
        std::vector<uint8_t> slot(3584, 0x5A);
        std::memcpy(slot.data() + 3072, &stamp, sizeof stamp);
        bytes.insert(bytes.end(), slot.begin(), slot.end());
    }
    bytes.resize(bytes.size() + 1000, 0x33);
    WriteFileBytes(path, bytes);

    EXPECT_EQ(Recovered(path), 6u);
    EXPECT_EQ(HeaderOnDisk(path).allocatedFrames, 6u);
    EXPECT_NE(HeaderOnDisk(path).risingMarker, kRisingTimestampsMarker) << "frame 5 goes back";
    CKestorSequencerDisk reader;
    ASSERT_TRUE(OpenForReading(reader, path));
    ASSERT_EQ(reader.GetFrameCount(), 6u);
    for (uint32_t frame = 1; frame <= 4; ++frame) EXPECT_TRUE(ReadsFrame(reader, frame, frame));
    KImage image;
    ASSERT_TRUE(reader.Read(&image, 6));
    EXPECT_EQ(image.GetTimestampUS(), 42u);

    // A relative clock (seconds since a trigger) is plausible too.
    const std::string relative = File("relative.seq");
    Record(relative, FrameSpec{}, 5, [](KImage& frame, uint32_t seed) {
        frame.SetTimestamp(seed - 1, static_cast<uint16_t>((seed - 1) * 100), 0);
    });
    PatchHeader(relative, [](SequenceHeaderData& header) {
        header.allocatedFrames = 1;
        header.risingFrames = 1;
    });
    EXPECT_EQ(Recovered(relative), 5u);
    ASSERT_TRUE(OpenForReading(reader, relative));
    EXPECT_TRUE(reader.Header().TimestampsKnownToRise());
    uint32_t seconds;
    uint16_t milliseconds, microseconds;
    ASSERT_TRUE(reader.ReadTimestamp(5, seconds, milliseconds, microseconds));
    EXPECT_EQ(seconds, 4u);
    EXPECT_EQ(milliseconds, 400u);
}

TEST_F(DiskCrash, RecoveryNeverTouchesFilesItCannotTrust) {
    EXPECT_EQ(Recovered(File("missing.seq"), eKErrCreateOpenFile), 0u);
    Recovered("", eKErrFileNotFound);

    void (*const damages[])(SequenceHeaderData&) = {
        [](SequenceHeaderData& h) { h.magic = 0xBEEF; },
        [](SequenceHeaderData& h) { h.width = 0; },
        [](SequenceHeaderData& h) { h.trueImageSize = 0; },
        [](SequenceHeaderData& h) { h.trueImageSize = 3076; },  // below image + timestamp
        [](SequenceHeaderData& h) { h.width = 65537, h.height = 65537; },
        [](SequenceHeaderData& h) { h.typeSectionSize = 0x7FFFFFFF; },
    };
    const std::string path = File("damaged.seq");
    for (const auto& damage : damages) {
        SCOPED_TRACE(&damage - damages);
        Record(path, FrameSpec{}, 3);
        PatchHeader(path, [&](SequenceHeaderData& header) {
            header.allocatedFrames = 1;
            damage(header);
        });
        const std::vector<uint8_t> before = FileBytes(path);
        Recovered(path, eKErrNoSequenceOrInvalidImage);
        EXPECT_EQ(FileBytes(path), before);
    }
    WriteFileBytes(path, std::vector<uint8_t>(700, 0));
    Recovered(path, eKErrNoSequenceOrInvalidImage);
    EXPECT_EQ(FileBytes(path).size(), 700u);
}

TEST_F(DiskCrash, AFullDiskFailsTheFrameThatDoesNotFitAndKeepsTheOthers) {
    const std::string path = File("full.seq");
    const uint32_t slot = 3584;
    const rlim_t limit = 1024 + 5 * slot + 3 * 512;  // header, five frames, part of a sixth
    std::vector<KImage> frames;
    for (uint32_t seed = 1; seed <= 7; ++seed) frames.push_back(MakeFrame(FrameSpec{}, seed));

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
        _exit(recorder.Close() ? 0 : 17);
    }
    ASSERT_EQ(WaitFor(child), 0) << "failed step in the child (or killed by a signal)";
    EXPECT_EQ(FileBytes(path).size(), 1024u + 5 * slot) << "no partial slot is left behind";
    EXPECT_EQ(HeaderOnDisk(path).allocatedFrames, 5u);
    ExpectFrames(path, 5);
}
