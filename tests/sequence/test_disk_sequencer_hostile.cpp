// Damaged and hostile files are refused with their reason or read as far as they are sound,
// without crashing or allocating more than the file could hold.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "sequence_test_support.h"
#include "support/DebugCapture.h"

using namespace kestor;
using namespace kestor::test;
using ::testing::Contains;

namespace {

using DiskHostile = DiskSequencerTest;

eKErrorCode OpenFailure(const std::string& path) {
    CKestorSequencerDisk sequencer;
    if (OpenForReading(sequencer, path)) return eKErrSuccess;
    EXPECT_FALSE(sequencer.IsOpen());
    return sequencer.GetLastError();
}

}  // namespace

TEST_F(DiskHostile, ShortFilesGarbageAndImpossibleSizesAreRefusedWithTheirReason) {
    const std::string path = File("refused.seq");
    for (size_t size : {0, 500, 1023}) {
        std::vector<uint8_t> bytes(size, 0);
        if (size >= 4) bytes[0] = 0xED, bytes[1] = 0xFE;  // a magic, and nothing behind it
        WriteFileBytes(path, bytes);
        EXPECT_EQ(OpenFailure(path), eKErrNoSequenceOrInvalidImage) << size;
    }
    std::mt19937 random(7);
    std::vector<uint8_t> garbage(64 * 1024);
    for (uint8_t& byte : garbage) byte = static_cast<uint8_t>(random());
    WriteFileBytes(path, garbage);
    DebugCapture capture;
    EXPECT_EQ(OpenFailure(path), eKErrNoSequenceOrInvalidImage);
    EXPECT_THAT(capture.Lines(), Contains("Kestor: Invalid Magic Number\n"));

    const std::pair<void (*)(SequenceHeaderData&), const char*> cases[] = {
        {[](SequenceHeaderData& h) {
             h.width = 65537, h.height = 65537, h.imageSizeBytes = 131073;
         },
         "Kestor: Invalid Sequence Image Size\n"},  // beyond 32 bits
        {[](SequenceHeaderData& h) { h.imageSizeBytes = 1000; },
         "Kestor: Invalid Sequence Image Size\n"},
        {[](SequenceHeaderData& h) { h.trueImageSize = 0; },
         "Kestor: Invalid Sequence Data length\n"},
        {[](SequenceHeaderData& h) { h.trueImageSize = 3072 + 4; },  // no room for the time
         "Kestor: Invalid Sequence Data length\n"},
        {[](SequenceHeaderData& h) { h.frameMetadataSize = 0x7FFFFFFF; },
         "Kestor: Invalid Sequence Data length\n"},
        {[](SequenceHeaderData& h) { h.compression = eKCompressionLz; },
         "Kestor: This sequence does not support this image format\n"},
    };
    for (const auto& [change, reason] : cases) {
        SCOPED_TRACE(reason);
        Record(path, FrameSpec{}, 2);
        PatchHeader(path, change);
        capture.Clear();
        EXPECT_EQ(OpenFailure(path), eKErrNoSequenceOrInvalidImage);
        EXPECT_THAT(capture.Lines(), Contains(reason));
    }
}

TEST_F(DiskHostile, AFrameCountPastTheEndIsCutToTheCompleteSlots) {
    const std::string path = File("long-count.seq");
    Record(path, FrameSpec{}, 3);
    PatchHeader(path, [](SequenceHeaderData& header) { header.allocatedFrames = 1000000; });
    std::vector<uint8_t> bytes = FileBytes(path);
    bytes.resize(bytes.size() + 2000, 0x77);  // half a slot
    WriteFileBytes(path, bytes);

    DebugCapture capture;
    CKestorSequencerDisk reader;
    ASSERT_TRUE(OpenForReading(reader, path));
    EXPECT_EQ(reader.GetFrameCount(), 3u);
    EXPECT_THAT(capture.Lines(),
                Contains("Kestor: Frame count 1000000 runs past the end of the file: 3 complete "
                         "frames are used\n"));
    EXPECT_TRUE(ReadsFrame(reader, 1000000, 3));
    uint32_t frame = 0;
    EXPECT_TRUE(reader.GetIndexNear(static_cast<int32_t>(kBaseSeconds + 2), 2, 14, frame));
    EXPECT_EQ(frame, 2u);

    // A slot larger than the whole file leaves no frame to read.
    PatchHeader(path, [](SequenceHeaderData& header) { header.trueImageSize = 0x7FFFFE00; });
    ASSERT_TRUE(OpenForReading(reader, path));
    EXPECT_EQ(reader.GetFrameCount(), 0u);
    KImage image;
    EXPECT_FALSE(reader.Read(&image, 1));
    EXPECT_EQ(reader.GetLastError(), eKErrInvalidIndex);
}

TEST_F(DiskHostile, UnreadableMetadataMeansNoMetadataButTheFramesStay) {
    const std::string path = File("section.seq");
    Record(path, FrameSpec{}, 2);
    // A type section too large or past the end is ignored, with the per-frame areas.
    for (uint32_t section : {200000u, 0x7FFFFC00u, 50000u}) {
        SCOPED_TRACE(section);
        PatchHeader(path, [&](SequenceHeaderData& header) {
            header.typeSectionSize = section;
            header.frameMetadataSize = 64;
        });
        CKestorSequencerDisk reader;
        ASSERT_TRUE(OpenForReading(reader, path));
        EXPECT_EQ(reader.Header().data.typeSectionSize, 0u);
        EXPECT_EQ(reader.Header().data.frameMetadataSize, 0u);
        EXPECT_EQ(reader.GetFrameCount(), 2u);
        KImage image;
        ASSERT_TRUE(reader.Read(&image, 2));
        EXPECT_TRUE(HoldsFrame(image, 2));
        EXPECT_EQ(image.GetMetadataCount(), 0);
    }

    // Garbage per-frame areas (counts and lengths far beyond the area) decode to nothing.
    PatchHeader(path, [](SequenceHeaderData& header) {
        header.typeSectionSize = 0;
        header.frameMetadataSize = 400;
    });
    std::vector<uint8_t> bytes = FileBytes(path);
    uint8_t* area = bytes.data() + 1024 + 3072 + 8;
    std::memset(area, 0xEE, 400);
    const uint32_t count = 0xFFFFFFFF, type = 4, length = 0x10000000;
    std::memcpy(area, &count, 4);
    std::memcpy(area + 4, &type, 4);
    std::memcpy(area + 8, &length, 4);
    WriteFileBytes(path, bytes);
    CKestorSequencerDisk reader;
    ASSERT_TRUE(OpenForReading(reader, path));
    KImage image;
    ASSERT_TRUE(reader.Read(&image, 1));
    EXPECT_TRUE(HoldsFrame(image, 1));
    EXPECT_EQ(image.GetMetadataCount(), 0);

    // A readable type section full of garbage moves the slots; the file still opens.
    PatchHeader(path, [](SequenceHeaderData& header) {
        header.typeSectionSize = 512;
        header.frameMetadataSize = 0;
    });
    bytes = FileBytes(path);
    std::fill(bytes.begin() + 1024, bytes.begin() + 1024 + 512, 0xFF);
    WriteFileBytes(path, bytes);
    ASSERT_TRUE(OpenForReading(reader, path));
    EXPECT_EQ(reader.Header().data.typeSectionSize, 512u);
    EXPECT_EQ(reader.GetFrameCount(), 1u) << "the section moved the slots: one complete slot";
}
