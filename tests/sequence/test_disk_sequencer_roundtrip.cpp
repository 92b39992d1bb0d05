// Frames written to a disk sequence come back bit for bit, with their timestamps and metadata,
// whatever their size, format and the sector size the file was laid out for.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "KMetadataManager.h"
#include "disk_sequencer_test_support.h"
#include "platform/WideString.h"
#include "sequence/CKestorMetadataManager.h"
#include "support/DebugCapture.h"

using namespace kestor;
using namespace kestor::test;

namespace {

using DiskRoundTrip = DiskSequencerTest;

// Opens `path` read-only and checks that it holds the frames of seeds first .. first + count - 1.
void ExpectFrames(const std::string& path, uint32_t count, uint32_t first = 1) {
    CKestorSequencerDisk reader;
    bool readOnly = true, upgraded = false;
    ASSERT_TRUE(reader.Open(path, readOnly, upgraded)) << reader.GetLastError();
    ASSERT_EQ(reader.GetFrameCount(), count);
    KImage image;
    for (uint32_t frame = 1; frame <= count; ++frame) {
        ASSERT_TRUE(reader.Read(&image, frame));
        EXPECT_TRUE(HoldsFrame(image, first + frame - 1));
    }
}

KMetadata IntegerItem(int32_t value) {
    return KMetadata(4, &value, sizeof value);
}

}  // namespace

TEST_F(DiskRoundTrip, PackedEightAndSixteenBitFramesOfAnySize) {
    // 37 x 23 x 16 bit is 1702 bytes: neither pixels nor pixels + timestamp fill whole sectors.
    for (const FrameSpec& spec :
         {FrameSpec{64, 48, 8, eKFormatMono}, FrameSpec{37, 23, 16, eKFormatMonoLE},
          FrameSpec{1000, 1, 8, eKFormatMono}}) {
        SCOPED_TRACE(spec.width * spec.height * spec.bitDepth / 8);
        const std::string path = File("packed.seq");
        Record(path, spec, 5);
        const SequenceHeaderData header = HeaderOnDisk(path);
        const uint32_t size = spec.width * spec.height * spec.bitDepth / 8;
        EXPECT_EQ(header.imageSizeBytes, size);
        EXPECT_EQ(header.trueImageSize, SequenceHeader::SlotSize(size, 0, 512));
        EXPECT_EQ(FileBytes(path).size(), 1024u + 5 * header.trueImageSize);
        ExpectFrames(path, 5);

        // Reading into an image of the right description reuses its buffer.
        CKestorSequencerDisk reader;
        bool readOnly = true, upgraded = false;
        ASSERT_TRUE(reader.Open(path, readOnly, upgraded));
        KImage image = MakeFrame(spec, 99);
        const uint8_t* buffer = image.GetRawImageData();
        ASSERT_TRUE(reader.Read(&image, 2));
        EXPECT_EQ(image.GetRawImageData(), buffer);
        EXPECT_TRUE(HoldsFrame(image, 2));
    }
}

TEST_F(DiskRoundTrip, FramesAreWrittenWithoutThePageCacheOnADiskVolume) {
    CKestorSequencerDisk sequencer;
    ASSERT_TRUE(sequencer.Create(File("direct.seq")));
    EXPECT_TRUE(sequencer.IsDirect());
    EXPECT_GE(sequencer.BytesPerSector(), 512u);
    EXPECT_EQ(sequencer.BytesPerSector() & (sequencer.BytesPerSector() - 1), 0u);
}

TEST_F(DiskRoundTrip, PlanarFramesAreStoredPlaneAfterPlane) {
    const FrameSpec spec{30, 20, 24, eKFormatBGRPlanar};
    const std::string path = File("planar.seq");
    Record(path, spec, 3);
    ExpectFrames(path, 3);

    CKestorSequencerDisk reader;
    bool readOnly = true, upgraded = false;
    ASSERT_TRUE(reader.Open(path, readOnly, upgraded));
    KImage image;
    ASSERT_TRUE(reader.Read(&image, 2));
    const uint32_t third = image.GetImageSizeBytes() / 3;
    EXPECT_EQ(image.GetGreenChannel(), image.GetRawImageData() + third);
    EXPECT_EQ(image.GetBlueChannel(), image.GetRawImageData() + 2 * third);
    const std::vector<uint8_t> bytes = FileBytes(path);
    const uint32_t slot = HeaderOnDisk(path).trueImageSize;
    EXPECT_EQ(std::memcmp(bytes.data() + 1024 + slot + third, image.GetGreenChannel(), third), 0);

    // A packed image read afterwards has no planes.
    Record(File("packed.seq"), FrameSpec{}, 1);
    CKestorSequencerDisk packed;
    ASSERT_TRUE(packed.Open(File("packed.seq"), readOnly, upgraded));
    ASSERT_TRUE(packed.Read(&image, 1));
    EXPECT_EQ(image.GetGreenChannel(), nullptr);
}

TEST_F(DiskRoundTrip, MetadataTravelsBehindTheTimestamp) {
    CKestorMetadataManager settings;
    ASSERT_TRUE(settings.SetSequenceMetadataDynamic(false));  // the image's capacity decides
    const FrameSpec spec{64, 48, 8, eKFormatMono, 200};
    const std::string path = File("metadata.seq");
    {
        CKestorSequencerDisk sequencer;
        ASSERT_TRUE(sequencer.Create(path));
        for (uint32_t seed = 1; seed <= 3; ++seed) {
            KImage frame = MakeFrame(spec, seed);
            frame.AddMetadata(IntegerItem(static_cast<int32_t>(seed) * -1000));
            const char16_t text[] = u"frame";
            frame.AddMetadata(KMetadata(7, text, sizeof text));
            ASSERT_TRUE(sequencer.Write(&frame));
        }
        ASSERT_TRUE(sequencer.Close());
    }
    const SequenceHeaderData header = HeaderOnDisk(path);
    EXPECT_EQ(header.frameMetadataSize, 200u);
    EXPECT_EQ(header.trueImageSize, SequenceHeader::SlotSize(64 * 48, 200, 512));

    CKestorSequencerDisk reader;
    bool readOnly = true, upgraded = false;
    ASSERT_TRUE(reader.Open(path, readOnly, upgraded));
    KImage image;
    for (uint32_t frame = 1; frame <= 3; ++frame) {
        ASSERT_TRUE(reader.Read(&image, frame));
        EXPECT_TRUE(HoldsFrame(image, frame));
        ASSERT_EQ(image.GetMetadataCount(), 2);
        EXPECT_EQ(image.GetMetadata(0)->GetTypeID(), 4u);
        EXPECT_EQ(WideToUtf8(image.GetMetadata(0)->GetDisplayString()),
                  std::to_string(static_cast<int>(frame) * -1000));
        EXPECT_EQ(WideToUtf8(image.GetMetadata(1)->GetDisplayString()), "frame");
    }
    // The image read can be recorded again with the same room for metadata.
    EXPECT_EQ(image.GetImage()->ExtraBytes(), 200u);

    // A file without metadata leaves no stale items in the image.
    Record(File("plain.seq"), FrameSpec{}, 1);
    CKestorSequencerDisk plain;
    ASSERT_TRUE(plain.Open(File("plain.seq"), readOnly, upgraded));
    ASSERT_TRUE(plain.Read(&image, 1));
    EXPECT_EQ(image.GetMetadataCount(), 0);
}

TEST_F(DiskRoundTrip, ApplicationTypesAreDescribedInsideTheFile) {
    CKestorMetadataManager settings;
    ASSERT_TRUE(settings.SetSequenceMetadataDynamic(true));
    const KMetadataInfo gain(0x80000001u, u"Gain", u"Sensor gain", eKMetadataUnsignedInteger, 4,
                             u"gain %u");
    ASSERT_TRUE(settings.RegisterMetadataType(gain));
    const FrameSpec spec{16, 16, 8, eKFormatMono, 64};
    const std::string path = File("types.seq");
    {
        CKestorSequencerDisk sequencer;
        ASSERT_TRUE(sequencer.Create(path));
        KImage frame = MakeFrame(spec, 1);
        const uint32_t value = 7;
        frame.AddMetadata(KMetadata(0x80000001u, &value, 4));
        ASSERT_TRUE(sequencer.Write(&frame));
        ASSERT_TRUE(sequencer.Close());
    }
    const SequenceHeaderData header = HeaderOnDisk(path);
    EXPECT_EQ(header.frameMetadataSize, 4u + 8 + 4) << "sized from the first frame's items";
    ASSERT_GT(header.typeSectionSize, 0u);
    EXPECT_EQ(header.typeSectionSize % 512, 0u);

    // Another machine's store does not know the type: the file's own description names it.
    setenv("KESTOR_REGISTRY", File("other-registry.db").c_str(), 1);
    CKestorSequencerDisk reader;
    bool readOnly = true, upgraded = false;
    ASSERT_TRUE(reader.Open(path, readOnly, upgraded));
    KImage image;
    ASSERT_TRUE(reader.Read(&image, 1));
    EXPECT_TRUE(HoldsFrame(image, 1));
    ASSERT_EQ(image.GetMetadataCount(), 1);
    EXPECT_EQ(WideToUtf8(image.GetMetadata(0)->GetDisplayString()), "gain 7");
}

TEST_F(DiskRoundTrip, MetadataThatDoesNotFitIsReportedButTheFrameIsWritten) {
    CKestorMetadataManager settings;
    ASSERT_TRUE(settings.SetSequenceMetadataDynamic(false));
    const FrameSpec spec{16, 16, 8, eKFormatMono, 16};
    const std::string path = File("small.seq");
    DebugCapture capture;
    CKestorSequencerDisk sequencer;
    ASSERT_TRUE(sequencer.Create(path));
    KImage frame = MakeFrame(spec, 1);
    const std::vector<uint8_t> big(64, 0xAB);
    frame.AddMetadata(KMetadata(8, big.data(), static_cast<uint32_t>(big.size())));
    ASSERT_TRUE(sequencer.Write(&frame));
    EXPECT_EQ(sequencer.GetLastError(), eKErrSuccess);
    const auto lines = capture.Lines();
    EXPECT_EQ(
        std::count(lines.begin(), lines.end(), "Kestor: Failed to write to metadata section\n"), 1);
    KImage image;
    ASSERT_TRUE(sequencer.Read(&image, 1));
    EXPECT_TRUE(HoldsFrame(image, 1));
    EXPECT_EQ(image.GetMetadataCount(), 0);
}

// With 4096-byte sectors the slot is longer than a frame's 512-byte-rounded buffer: the whole
// sectors go from the buffer, the rest through the tail, and both come back.
TEST_F(DiskRoundTrip, SlotsLongerThanTheFrameBufferOnLargeSectors) {
    CKestorMetadataManager settings;
    ASSERT_TRUE(settings.SetSequenceMetadataDynamic(false));
    for (const FrameSpec& spec : {FrameSpec{100, 10, 8, eKFormatMono},          // 1000 bytes
                                  FrameSpec{100, 30, 8, eKFormatMono, 100},     // with metadata
                                  FrameSpec{30, 20, 24, eKFormatBGRPlanar}}) {  // assembled
        SCOPED_TRACE(spec.width * spec.height * spec.bitDepth / 8);
        const std::string path = File("large-sectors.seq");
        {
            CKestorSequencerDisk sequencer;
            sequencer.SetMinimumSectorSize(4096);
            ASSERT_TRUE(sequencer.Create(path));
            for (uint32_t seed = 1; seed <= 4; ++seed) {
                KImage frame = MakeFrame(spec, seed);
                if (spec.extraBytes > 0) frame.AddMetadata(IntegerItem(static_cast<int32_t>(seed)));
                ASSERT_TRUE(sequencer.Write(&frame)) << sequencer.GetLastError();
            }
            ASSERT_TRUE(sequencer.Close());
        }
        const SequenceHeaderData header = HeaderOnDisk(path);
        EXPECT_EQ(header.trueImageSize, 4096u);
        EXPECT_EQ((1024 + header.typeSectionSize) % 4096, 0u) << "the first slot is aligned";
        EXPECT_EQ(FileBytes(path).size(), 1024u + header.typeSectionSize + 4 * 4096);
        ExpectFrames(path, 4);

        CKestorSequencerDisk reader;
        bool readOnly = true, upgraded = false;
        ASSERT_TRUE(reader.Open(path, readOnly, upgraded));
        EXPECT_TRUE(reader.IsDirect());
        KImage image = MakeFrame(spec, 50);  // buffer shorter than the slot, kept as it is
        const uint8_t* buffer = image.GetRawImageData();
        ASSERT_TRUE(reader.Read(&image, 3));
        EXPECT_EQ(image.GetRawImageData(), buffer);
        EXPECT_TRUE(HoldsFrame(image, 3));
        if (spec.extraBytes > 0) {
            ASSERT_EQ(image.GetMetadataCount(), 1);
            EXPECT_EQ(WideToUtf8(image.GetMetadata(0)->GetDisplayString()), "3");
        }
    }
}

TEST_F(DiskRoundTrip, FramesLargerThanOneTransferPiece) {
    // 4100 x 8200 bytes is above 32 MiB: the frame moves in two pieces, the second with the tail.
    const FrameSpec spec{4100, 8200, 8, eKFormatMono};
    const std::string path = File("large.seq");
    {
        CKestorSequencerDisk sequencer;
        sequencer.SetMinimumSectorSize(4096);
        ASSERT_TRUE(sequencer.Create(path));
        for (uint32_t seed = 1; seed <= 2; ++seed) {
            KImage frame = MakeFrame(spec, seed);
            ASSERT_TRUE(sequencer.Write(&frame));
        }
        ASSERT_TRUE(sequencer.Close());
    }
    ExpectFrames(path, 2);
}

TEST_F(DiskRoundTrip, TmpfsRecordsAndReadsWhateverTheKernelAllows) {
    TempDir shm("/dev/shm");
    const std::string path = shm.File("memory.seq");
    const FrameSpec spec{37, 23, 16, eKFormatMonoLE};
    Record(path, spec, 6);
    ExpectFrames(path, 6);
    bool readOnly = false, upgraded = false;
    CKestorSequencerDisk appender;
    ASSERT_TRUE(appender.Open(path, readOnly, upgraded));
    EXPECT_FALSE(readOnly);
    KImage frame = MakeFrame(spec, 7);
    ASSERT_TRUE(appender.Write(&frame));
    ASSERT_TRUE(appender.Close());
    ExpectFrames(path, 7);
}

// A file laid out for sectors that do not divide into this volume's: it is read and appended
// through the page cache instead of being refused.
TEST_F(DiskRoundTrip, FilesLaidOutForAnotherSectorSizeAreUsedBuffered) {
    const FrameSpec spec{100, 10, 8, eKFormatMono};  // 1000 bytes of pixels
    const std::string path = File("foreign.seq");
    std::vector<uint8_t> bytes(1024);
    SequenceHeaderData header = HeaderFor(spec, 3);
    header.trueImageSize = 1008;  // no rounding at all
    std::memcpy(bytes.data(), &header, sizeof header);
    for (uint32_t seed = 1; seed <= 3; ++seed) {
        KImage frame = MakeFrame(spec, seed);
        const uint8_t* pixels = frame.GetRawImageData();
        bytes.insert(bytes.end(), pixels, pixels + 1000);
        const uint32_t seconds = frame.GetTimestamp();
        const uint16_t parts[2] = {frame.GetTimestampMS(), frame.GetTimestampUS()};
        bytes.insert(bytes.end(), reinterpret_cast<const uint8_t*>(&seconds),
                     reinterpret_cast<const uint8_t*>(&seconds) + 4);
        bytes.insert(bytes.end(), reinterpret_cast<const uint8_t*>(parts),
                     reinterpret_cast<const uint8_t*>(parts) + 4);
    }
    WriteFileBytes(path, bytes);
    ExpectFrames(path, 3);

    CKestorSequencerDisk appender;
    bool readOnly = false, upgraded = false;
    ASSERT_TRUE(appender.Open(path, readOnly, upgraded));
    EXPECT_FALSE(readOnly);
    EXPECT_FALSE(appender.IsDirect());
    KImage frame = MakeFrame(spec, 4);
    ASSERT_TRUE(appender.Write(&frame));
    // Still the only writer while it writes through the buffered descriptor.
    CKestorSequencerDisk second;
    bool secondReadOnly = false;
    ASSERT_TRUE(second.Open(path, secondReadOnly, upgraded));
    EXPECT_TRUE(secondReadOnly);
    second.Close();
    ASSERT_TRUE(appender.Close());
    EXPECT_EQ(FileBytes(path).size(), 1024u + 4 * 1008);
    ExpectFrames(path, 4);
}
